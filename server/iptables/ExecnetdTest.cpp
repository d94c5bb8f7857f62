#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "iptables/execnetd.h"
#include "platform/Platform.h"

namespace {

class ExecnetdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mlbd::initLogging();
        char pattern[] = "/tmp/execnetd-test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir_ = pattern;
        out_ = dir_ + "/out";
        // Writes each argument on its own line, then the descriptors it was given.
        script_ = dir_ + "/show-args";
        std::ofstream(script_) << "#!/bin/sh\n"
                                  "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > \"$OUT\"\n"
                                  "ls /proc/self/fd > \"$OUT.fds\"\n";
        ASSERT_EQ(0, chmod(script_.c_str(), 0755));
        setenv("OUT", out_.c_str(), 1);
    }
    void TearDown() override {
        std::string cmd = "rm -rf " + dir_;
        ASSERT_EQ(0, system(cmd.c_str()));
    }
    static std::string slurp(const std::string& path) {
        std::ifstream in(path);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

    std::string dir_, out_, script_;
};

TEST_F(ExecnetdTest, ArgumentsAreSplitAtBlanksAndNeverReachAShell) {
    const std::string marker = dir_ + "/pwned";
    std::string cmd = script_ + "   -w\t-t  mangle 'a b' \"q\" ;touch " + marker + " $(touch " +
                      marker + ") `touch " + marker + "` | >" + marker + " &&  ";
    EXPECT_EQ(0, execnetd(cmd.c_str()));
    EXPECT_EQ("-w\n-t\nmangle\n'a\nb'\n\"q\"\n;touch\n" + marker + "\n$(touch\n" + marker +
                      ")\n`touch\n" + marker + "`\n|\n>" + marker + "\n&&\n",
              slurp(out_));
    EXPECT_FALSE(exists(marker));
}

TEST_F(ExecnetdTest, ResultCountsOnlyWhetherAProcessCouldBeCreated) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, execnetd("/bin/false"));
    EXPECT_EQ(0, execnetd("/no/such/program -w"));
    EXPECT_EQ(0, execnetd((dir_ + "/out").c_str()));  // not executable (and not there)
    EXPECT_EQ(0, execnetd("no-such-program-in-path"));
    EXPECT_EQ(0, execnetd("  \t "));
    EXPECT_EQ(-1, execnetd(nullptr));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos,
              log.find("D Mlbd-iptablesManager: SEND SLA NDC COMMAND - PASS  /bin/false\n"));
    EXPECT_NE(std::string::npos, log.find("SEND SLA NDC COMMAND - PASS  /no/such/program -w\n"));
    EXPECT_NE(std::string::npos,
              log.find("E Mlbd-iptablesManager: SEND SLA NDC COMMAND - FAIL   \n"));

    // No descriptor left for a pipe: no process can be set up, which is the one failure.
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> fds;
    testing::internal::CaptureStderr();
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fds.push_back(fd);
    int rc = execnetd("/bin/true");
    for (int fd : fds) close(fd);
    log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ(-1, rc);
    EXPECT_NE(std::string::npos, log.find("SEND SLA NDC COMMAND - FAIL  /bin/true \n")) << log;
}

TEST_F(ExecnetdTest, OutputIsDrainedAndDiscardedAndTheChildIsReaped) {
    testing::internal::CaptureStderr();
    // 4 MB on stdout, far beyond a pipe's buffer, then an error text on stderr.
    EXPECT_EQ(0, execnetd("/usr/bin/head -c 4000000 /dev/zero"));
    EXPECT_EQ(0, execnetd("/bin/ls /no-such-dir-for-execnetd"));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string::npos, log.find("no-such-dir-for-execnetd:")) << log;
    EXPECT_GT(log.size(), 0u);
    EXPECT_LT(log.size(), 1000u);
    // Nothing left to reap.
    errno = 0;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(ExecnetdTest, ChildGetsOnlyNullInputAndTheOutputPipe) {
    // A descriptor the daemon forgot to mark close-on-exec must not reach the program.
    int leaky = open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 0);
    // An input that never ends: a program reading stdin would block if it inherited it.
    int in[2];
    ASSERT_EQ(0, pipe(in));
    int savedIn = dup(STDIN_FILENO);
    ASSERT_EQ(0, dup2(in[0], STDIN_FILENO) < 0);
    alarm(20);  // a regression would hang here
    EXPECT_EQ(0, execnetd("/bin/cat"));
    EXPECT_EQ(0, execnetd(script_.c_str()));
    alarm(0);
    dup2(savedIn, STDIN_FILENO);
    close(savedIn);
    close(in[0]);
    close(in[1]);
    close(leaky);
    // The script's ls sees 0, 1, 2 and its own directory descriptor.
    std::string fds = slurp(out_ + ".fds");
    EXPECT_EQ("0\n1\n2\n3\n", fds);
}

TEST(ScopedCommandRecorderTest, RecordsInsteadOfRunningFromTwoThreads) {
    char pattern[] = "/tmp/execnetd-rec.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    const std::string marker = std::string(pattern) + "/ran";
    const std::string touch = "/usr/bin/touch " + marker;
    {
        mlbd::ScopedCommandRecorder recorder;
        EXPECT_EQ(0, execnetd(touch.c_str()));
        ASSERT_EQ(1u, recorder.lines().size());
        EXPECT_EQ(touch, recorder.lines()[0]);
        recorder.clear();
        EXPECT_TRUE(recorder.lines().empty());

        std::thread other([] {
            for (int i = 0; i < 300; ++i) execnetd("other");
        });
        for (int i = 0; i < 300; ++i) execnetd("main");
        other.join();
        ASSERT_EQ(600u, recorder.lines().size());
        size_t main = 0;
        for (const std::string& line : recorder.lines()) main += line == "main";
        EXPECT_EQ(300u, main);
    }
    EXPECT_NE(0, access(marker.c_str(), F_OK));
    // Without a recorder the command runs again.
    EXPECT_EQ(0, execnetd(touch.c_str()));
    EXPECT_EQ(0, access(marker.c_str(), F_OK));
    std::string cmd = std::string("rm -rf ") + pattern;
    ASSERT_EQ(0, system(cmd.c_str()));
}

}  // namespace
