// The real binary under a private MLBD_ROOT: start-up, loop period, shut-down on property 2, park.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "util/Daemon.h"

namespace {

using Clock = std::chrono::steady_clock;

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/mlbd-daemon-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        for (const char* dir :
             {"/properties", "/vendor", "/vendor/etc", "/vendor/etc/sla", "/system", "/system/bin",
              "/proc", "/proc/sla", "/dev", "/dev/socket"}) {
            mkdir((root + dir).c_str(), 0755);
        }
        // Commands the daemon runs land in a log instead of touching this machine.
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
            std::string path = root + "/system/bin/" + tool;
            std::ofstream(path) << "#!/bin/sh\necho \"$0 $*\" >>" << root << "/commands.log\n";
            chmod(path.c_str(), 0755);
        }
        setProp("vendor.sla.ifaces", "wlan0,rmnet_data0");
        setProp("vendor.sla.enabled", "1");
    }

    void TearDown() override {
        mlbd::test::stopDaemon(pid);
        std::string cmd = "rm -rf '" + root + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }

    void setProp(const std::string& name, const std::string& value) {
        std::ofstream(root + "/properties/" + name) << value << "\n";
    }

    void writeConf(const std::string& text) {
        std::ofstream(root + "/vendor/etc/sla/mlbd.conf") << text;
    }

    void start() {
        pid = mlbd::test::startDaemon(root, root + "/mlbd.log");
        ASSERT_GT(pid, 0);
    }

    std::string log() {
        std::ifstream in(root + "/mlbd.log");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    // Waits up to `seconds` for `text` to appear in the daemon's log.
    bool waitForLog(const std::string& text, int seconds = 20) {
        auto deadline = Clock::now() + std::chrono::seconds(seconds);
        while (Clock::now() < deadline) {
            if (log().find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    // Counts how often the daemon opens the mode property within `window`.
    int countPropertyReads(std::chrono::milliseconds window) {
        int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        EXPECT_GE(fd, 0);
        inotify_add_watch(fd, (root + "/properties/vendor.sla.enabled").c_str(), IN_OPEN);
        int opens = 0;
        auto deadline = Clock::now() + window;
        while (Clock::now() < deadline) {
            char buf[4096];
            ssize_t n = read(fd, buf, sizeof(buf));
            for (ssize_t off = 0; n > 0 && off < n;) {
                auto* ev = reinterpret_cast<inotify_event*>(buf + off);
                if (ev->mask & IN_OPEN) ++opens;
                off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        close(fd);
        return opens;
    }

    bool aliveAndSleeping() {
        if (waitpid(pid, nullptr, WNOHANG) != 0) return false;
        std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
        std::string stat;
        std::getline(in, stat);
        size_t paren = stat.rfind(')');
        return paren != std::string::npos && stat.compare(paren + 2, 1, "S") == 0;
    }

    std::string root;
    pid_t pid = -1;
};

TEST_F(DaemonTest, LoopsAtConfiguredPeriodThenShutsDownAndParks) {
    writeConf("# test\nmini_est_interval = 200\nwifi_threshold=1600\n");
    start();
    ASSERT_TRUE(waitForLog("SlaParameters added ifaces = 2 getNumInterfaces =2"));
    ASSERT_TRUE(waitForLog("Added rmnet_data0 to list of interfaces"));
    // Start-up ends when the kernel module has been told to start measuring.
    ASSERT_TRUE(waitForLog("writeStatsConfFile:enable=1"));

    // Five property reads a second at a 200 ms period.
    countPropertyReads(std::chrono::milliseconds(300));  // let start-up settle
    int reads = countPropertyReads(std::chrono::milliseconds(2000));
    EXPECT_GE(reads, 7) << "loop slower than 200 ms";
    EXPECT_LE(reads, 12) << "loop faster than 200 ms";

    setProp("vendor.sla.enabled", "2");
    ASSERT_TRUE(waitForLog("E Mlbd-daemon: Slm disabled, starting cleanup...\n", 5));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_TRUE(aliveAndSleeping());
    // Parked: re-enabling has no effect and nothing is read any more.
    setProp("vendor.sla.enabled", "1");
    EXPECT_EQ(countPropertyReads(std::chrono::milliseconds(600)), 0);

    // Every line is in logcat's threadtime format; the trailing newline of a message is dropped.
    std::regex line(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d +\d+ +\d+ [VDIWEF] \S+ *: .*)");
    std::istringstream in(log());
    std::string text;
    int lines = 0;
    while (std::getline(in, text)) {
        EXPECT_TRUE(std::regex_match(text, line)) << text;
        ++lines;
    }
    EXPECT_GT(lines, 20);
    EXPECT_EQ(log().find("starting cleanup...\n\n"), std::string::npos);
}

TEST_F(DaemonTest, DisabledAtStartRunsOnePassAndMissingConfigKeepsDefaults) {
    setProp("vendor.sla.enabled", "2");
    auto begin = Clock::now();
    start();
    ASSERT_TRUE(waitForLog("Slm disabled, starting cleanup..."));
    std::string text = log();
    EXPECT_NE(text.find("E Mlbd-SlaParameters: read mlbd conf file failed!"), std::string::npos);
    // One pass of the default 1000 ms period happened before the shut-down.
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(1000));
    EXPECT_LT(text.find("read mlbd conf file failed!"), text.find("Slm disabled"));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(aliveAndSleeping());
}

}  // namespace
