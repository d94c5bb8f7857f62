#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "iptables/execnetd.h"
#include "platform/Platform.h"

namespace {

// Whether `pid` exists and has not yet ended (a zombie has ended).
bool running(pid_t pid) {
    std::string stat;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), stat);
    const size_t close = stat.rfind(") ");
    return close != std::string::npos && stat[close + 2] != 'Z';
}

TEST(ExecnetdTest, ArgumentsAreSplitAtBlanksAndNeverReachAShell) {
    std::string patternPath = mlbd::scratchDirectory() + "/execnetd-test.XXXXXX";
    char* pattern = &patternPath[0];
    ASSERT_NE(nullptr, mkdtemp(pattern));
    const std::string dir = pattern, pwned = dir + "/pwned";
    // Writes its arguments, one a line.
    std::ofstream(dir + "/show-args") << "#!/bin/sh\nprintf '%s\\n' \"$@\" > " << dir << "/args\n";
    ASSERT_EQ(0, chmod((dir + "/show-args").c_str(), 0755));
    const std::string cmd = dir + "/show-args   -w\t-t  mangle 'a b' \"q\" ;touch " + pwned +
                            " $(touch " + pwned + ") `touch " + pwned + "` | >" + pwned + " &&  ";
    EXPECT_EQ(0, execnetd(cmd.c_str()));
    std::stringstream args;
    args << std::ifstream(dir + "/args").rdbuf();
    EXPECT_EQ("-w\n-t\nmangle\n'a\nb'\n\"q\"\n;touch\n" + pwned + "\n$(touch\n" + pwned +
                      ")\n`touch\n" + pwned + "`\n|\n>" + pwned + "\n&&\n",
              args.str());
    EXPECT_NE(0, access(pwned.c_str(), F_OK));
    ASSERT_EQ(0, system(("rm -rf " + dir).c_str()));
}

TEST(ExecnetdTest, OnlyAProcessThatCannotBeCreatedFails) {
    testing::internal::CaptureStderr();
    alarm(20);  // output that is not drained would hang here
    // Failing, missing, not executable, not on the path, nothing at all: started, as by a shell.
    // 4 MB of output and an error text are drained and discarded.
    for (const char* cmd :
         {"/bin/false", "/no/such/program -w", "/dev/null", "no-such-program", "  \t ",
          "/usr/bin/head -c 4000000 /dev/zero", "/bin/ls /no-such-dir-for-execnetd"}) {
        EXPECT_EQ(0, execnetd(cmd)) << cmd;
    }
    alarm(0);
    EXPECT_EQ(-1, execnetd(nullptr));
    // No descriptor left for the output pipe: no process can be set up.
    struct rlimit saved, low;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    low = {64, saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> fds;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fds.push_back(fd);
    EXPECT_EQ(-1, execnetd("/bin/true"));
    for (int fd : fds) close(fd);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string::npos, log.find("no-such-dir-for-execnetd:"));
    // Where the C library cannot report a failed exec to the parent (user-mode emulation), the
    // child only exits 127, like a script whose command is missing: no line of its own then.
    char* missing[] = {const_cast<char*>("/no/such/program"), nullptr};
    pid_t child = -1;
    const bool reported = posix_spawn(&child, missing[0], nullptr, nullptr, missing, environ) != 0;
    if (!reported) waitpid(child, nullptr, 0);
    EXPECT_EQ(reported, log.find("front-end could not be run (No such file or directory): "
                                 "/no/such/program") != std::string::npos);
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));  // every child was reaped
    EXPECT_EQ(ECHILD, errno);
}

TEST(ExecnetdTest, AFrontEndThatHangsIsKilledWithEverythingItStartedAtTheLimit) {
    std::string dir = mlbd::scratchDirectory() + "/execnetd-limit.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(&dir[0]));
    mlbd::setCommandTimeLimitMs(300);
    testing::internal::CaptureStderr();
    // Each leaves a child behind (its pid in <dir>/<name>.pid), then hangs with its output
    // closed, or ends while the child holds the output open.
    for (const char* name : {"closed", "child"}) {
        const std::string tool = dir + "/" + name;
        std::ofstream(tool) << "#!/bin/sh\nsleep 60 & echo $! > " << tool << ".pid\n"
                            << (name[1] == 'l' ? "exec >&- 2>&-; sleep 60\n" : "");
        ASSERT_EQ(0, chmod(tool.c_str(), 0755));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, execnetd((tool + " -w -t mangle").c_str())) << name;
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(took >= std::chrono::milliseconds(290) && took < std::chrono::seconds(5));
        // What the front-end started is gone too (killed, then reaped by its new parent).
        pid_t left = 0;
        std::ifstream(tool + ".pid") >> left;
        for (int i = 0; i < 200 && running(left); ++i) usleep(10000);
        EXPECT_TRUE(left > 0 && !running(left)) << name;
    }
    // A quick program is not held up.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, execnetd("/bin/true"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    mlbd::setCommandTimeLimitMs(mlbd::kDefaultCommandTimeLimitMs);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, log.find("still running after 300 ms, killed with its process "
                                          "group: " +
                                          dir + "/closed -w -t mangle"))
            << log;
    ASSERT_EQ(0, system(("rm -rf " + dir).c_str()));
}

}  // namespace
