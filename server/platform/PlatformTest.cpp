#include "Platform.h"

#define LOG_TAG "test-stream"
#include <android-base/logging.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <sstream>
#include <string>

namespace {

// What follows the head of a logcat threadtime line, "MM-DD HH:MM:SS.mmm  PID  TID ", or "" when
// the line does not start with one.
std::string afterHead(const std::string& line) {
    int n = 0, f[8];
    sscanf(line.c_str(), "%2d-%2d %2d:%2d:%2d.%3d %d %d %n", &f[0], &f[1], &f[2], &f[3], &f[4],
           &f[5], &f[6], &f[7], &n);
    return line.substr(n > 0 ? n : line.size());
}

TEST(PlatformTest, HostLoggerWritesThreadtimeLines) {
    mlbd::initLogging();
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_DEBUG, "Mlbd-daemon", "one\ntwo %d\n\n", 2);
    __android_log_print(ANDROID_LOG_VERBOSE, "T", "verbose");
    LOG(ERROR) << "stream " << 7;
    LOG(WARNING) << "warned";
    std::istringstream out(testing::internal::GetCapturedStderr());
    std::vector<std::string> messages;
    for (std::string line; std::getline(out, line);) messages.push_back(afterHead(line));
    // One output line per message line, trailing newlines dropped, the tag padded to 8
    // characters; stream-logger lines carry the tag and no file:line prefix.
    EXPECT_EQ(messages, (std::vector<std::string>{"D Mlbd-daemon: one", "D Mlbd-daemon: two 2",
                                                  "V T       : verbose", "E test-stream: stream 7",
                                                  "W test-stream: warned"}));
}

}  // namespace
