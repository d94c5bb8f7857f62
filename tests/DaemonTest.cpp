// The real binary under a private MLBD_ROOT: start-up, loop period, shut-down on property 2, park.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "util/Daemon.h"

namespace {

using namespace mlbd::test;
using std::chrono::milliseconds;

class DaemonTest : public ::testing::Test {
  protected:
    void TearDown() override {
        stopDaemon(pid);
        ASSERT_EQ(system(("rm -rf " + root).c_str()), 0);
    }
    void start(const char* enabled, const char* conf) {
        ASSERT_NE(root = makeRoot(conf), "");
        std::ofstream(root + "/properties/vendor.sla.enabled") << enabled;
        if (!*conf) unlink((root + "/vendor/etc/sla/mlbd.conf").c_str());
        ASSERT_GT(pid = startDaemon(root, root + "/mlbd.log"), 0);
    }
    bool waitForLog(const std::string& text) {
        return waitFor([&] { return slurp(root + "/mlbd.log").find(text) != std::string::npos; },
                       20000);
    }
    // Waits for the shut-down to end: the daemon says when its clean-up has finished, and then
    // its main thread sleeps. The deadline is generous: the clean-up runs dozens of commands.
    bool parked() {
        const std::string syscall = "/proc/" + std::to_string(pid) + "/syscall";
        return waitFor(
                       [&] {
                           return slurp(root + "/mlbd.log").find(kFinished) != std::string::npos;
                       },
                       60000) &&
               waitFor(
                       [&] {
                           const long call = atol(slurp(syscall).c_str());
                           return call == SYS_clock_nanosleep || call == SYS_nanosleep;
                       },
                       60000);
    }
    // Counts how often the daemon opens the mode property within `window`.
    int countPropertyReads(milliseconds window) {
        int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC), opens = 0;
        inotify_add_watch(fd, (root + "/properties/vendor.sla.enabled").c_str(), IN_OPEN);
        for (auto end = std::chrono::steady_clock::now() + window;
             std::chrono::steady_clock::now() < end;) {
            alignas(inotify_event) char buf[4096];
            for (ssize_t n = read(fd, buf, sizeof(buf)), off = 0; off < n;) {
                const inotify_event* ev = reinterpret_cast<inotify_event*>(buf + off);
                opens += (ev->mask & IN_OPEN) != 0;
                off += sizeof(inotify_event) + ev->len;
            }
            std::this_thread::sleep_for(milliseconds(5));
        }
        close(fd);
        return opens;
    }

    static constexpr const char* kFinished = "I Mlbd-daemon: Slm cleanup finished, daemon parked";
    std::string root;
    pid_t pid = -1;
};

TEST_F(DaemonTest, LoopsAtConfiguredPeriodThenShutsDownAndParks) {
    start("1", "# test\nmini_est_interval = 200\n");
    ASSERT_TRUE(waitForLog("SlaParameters added ifaces = 2 getNumInterfaces =2"));
    // Start-up ends when the kernel module has been told to start measuring.
    ASSERT_TRUE(waitForLog("writeStatsConfFile:enable=1"));
    // Five property reads a second at a 200 ms period.
    countPropertyReads(milliseconds(300));  // let start-up settle
    int reads = countPropertyReads(milliseconds(2000));
    EXPECT_GE(reads, 7) << "loop slower than 200 ms";
    EXPECT_LE(reads, 12) << "loop faster than 200 ms";

    std::ofstream(root + "/properties/vendor.sla.enabled") << "2";
    ASSERT_TRUE(parked()) << slurp(root + "/mlbd.log");
    // No control client ever came: the end of the wait for one is no failure.
    EXPECT_TRUE(waitForLog("D Mlbd-MlbdSocket-Server: control socket closed at shut-down"));
    EXPECT_EQ(slurp(root + "/mlbd.log").find("accept fail"), std::string::npos);
    // The shut-down ends with the removal of the last interface's rules.
    const std::string commands = slurp(root + "/commands.log");
    EXPECT_EQ(commands.substr(commands.rfind('\n', commands.size() - 2) + 1),
              "-w -t nat -X vexa_nat_POSTROUTING_SLM\n");
    // Parked: re-enabling has no effect and nothing is read any more.
    std::ofstream(root + "/properties/vendor.sla.enabled") << "1";
    EXPECT_EQ(countPropertyReads(milliseconds(600)), 0);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
}

TEST_F(DaemonTest, DisabledAtStartRunsOnePassAndMissingConfigKeepsDefaults) {
    const auto begin = std::chrono::steady_clock::now();
    start("2", "");
    ASSERT_TRUE(waitForLog("Slm disabled, starting cleanup..."));
    // One pass of the default 1000 ms period happened before the shut-down.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(1000));
    const std::string log = slurp(root + "/mlbd.log");
    EXPECT_LT(log.find("E Mlbd-SlaParameters: read mlbd conf file failed!"),
              log.find("I Mlbd-daemon: RTT thresholds: rtt_entry_threshold=90 "
                       "rtt_exit_threshold=130"));
    EXPECT_LT(log.find("RTT thresholds:"), log.find("Slm disabled"));
    EXPECT_TRUE(parked()) << log;
    // The teardown's last word comes after every command of the shut-down.
    EXPECT_GT(slurp(root + "/mlbd.log").find(kFinished), log.find("Slm disabled"));
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
}

}  // namespace
