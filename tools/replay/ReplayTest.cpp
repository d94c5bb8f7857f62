#include <gtest/gtest.h>

#include "Replay.h"

TEST(ReplayTest, Placeholder) {}
