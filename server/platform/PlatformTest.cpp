#include "Platform.h"

#define LOG_TAG "test-stream"
#include <android-base/logging.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace {

TEST(PlatformTest, HostLoggerWritesThreadtimeLines) {
    mlbd::initLogging();
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_DEBUG, "Mlbd-daemon", "one\ntwo %d\n\n", 2);
    __android_log_print(ANDROID_LOG_VERBOSE, "T", "verbose");
    LOG(ERROR) << "stream " << 7;
    LOG(WARNING) << "warned";
    std::string out = testing::internal::GetCapturedStderr();

    const std::string stamp = R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d +\d+ +\d+ )";
    EXPECT_TRUE(std::regex_search(out, std::regex(stamp + "D Mlbd-daemon: one\n")));
    EXPECT_TRUE(std::regex_search(out, std::regex(stamp + "D Mlbd-daemon: two 2\n")));
    EXPECT_TRUE(std::regex_search(out, std::regex(stamp + "V T       : verbose\n")));
    // Stream-logger lines carry the tag and no file:line prefix.
    EXPECT_TRUE(std::regex_search(out, std::regex(stamp + "E test-stream: stream 7\n"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex(stamp + "W test-stream: warned\n"))) << out;
    // Trailing newlines are dropped: exactly five lines.
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 5) << out;
}

}  // namespace
