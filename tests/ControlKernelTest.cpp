// The daemon binary in a real kernel, driven through its control socket as the platform drives it.
// Each test runs in a private network namespace: emulated links wlan0 (20 ms) and rmnet_data0
// (160 ms, a metered link slower than the exit threshold) lead to a peer namespace that holds the
// probe server 1.1.1.1:443, a game server 10.99.0.1:5060 (also fd99::1:5060) and a call
// server 10.99.0.2:5060 (both answer probes) and a web server 10.99.0.1:80. The statistics stand-in
// plays the kernel module; the packet filter and routing rules are real, made through the host
// front-ends. Games and web clients are child processes under their own UIDs; a flow's
// connection-tracking entry tells by which link it left and with which mark.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "MlbdSocketServer.h"
#include "util/Daemon.h"
#include "util/EmulatedLinks.h"
#include "util/FaultPreload.h"

namespace {

using namespace mlbd::test;
using Flows = std::set<std::string>;

constexpr uid_t kListed = 10001, kGame = 10002, kUnlisted = 10003, kCall = 10004;
constexpr int kWaitMs = 30000;
constexpr auto npos = std::string::npos;

const char kRules[] = "(iptables-save -t mangle; iptables-save -t nat) | grep vexa_";

// What `command` prints; by default the daemon's rules in mangle and nat.
std::string output(const char* command = kRules) {
    std::string out;
    FILE* p = popen(command, "r");
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
    if (p) pclose(p);
    return out;
}

// The tracked TCP flows as "DST:DPORT from SRC mark=M[ assured] sport=S", SRC being the address
// the flow left with (its reply's destination, after masquerading).
Flows flows() {
    Flows out;
    std::istringstream table(slurp("/proc/net/nf_conntrack"));
    for (std::string line, word; std::getline(table, line);) {
        std::map<std::string, std::vector<std::string>> f;
        for (std::istringstream in(line); in >> word;) {
            const size_t eq = word.find('=');
            if (eq != npos) f[word.substr(0, eq)].push_back(word.substr(eq + 1));
        }
        if (line.find(" tcp ") == npos || f["dst"].size() < 2 || f["mark"].empty()) continue;
        out.insert(f["dst"][0] + ":" + f["dport"][0] + " from " + f["dst"][1] +
                   " mark=" + f["mark"][0] + (line.find("[ASSURED]") != npos ? " assured" : "") +
                   " sport=" + f["sport"][0]);
    }
    return out;
}

// The flows that contain `what`, leaving out those in `old`.
int count(const Flows& flows, const std::string& what, const Flows& old = {}) {
    return std::count_if(flows.begin(), flows.end(), [&](const std::string& f) {
        return f.find(what) != npos && old.count(f) == 0;
    });
}

// Runs fn in a child that dies with the test process, under `uid` unless it is 0; its pid.
pid_t forkAs(uid_t uid, const std::function<int()>& fn) {
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (uid && (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0)) _exit(100);
        _exit(fn() & 0xff);
    }
    return pid;
}

pid_t spawn(const std::string& command) {
    return forkAs(
            0, [&] { return execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr); });
}

// A stream socket connected to `addr`; -1 when that failed.
template <typename Addr>
int connectTo(const Addr& addr) {
    const sockaddr* sa = reinterpret_cast<const sockaddr*>(&addr);
    const int fd = socket(sa->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, sa, sizeof(addr)) == 0) return fd;
    close(fd);
    return -1;
}
const sockaddr_in kGameServer = {AF_INET, htons(5060), {htonl(0x0A630001)}, {}};  // 10.99.0.1
const sockaddr_in kWebServer = {AF_INET, htons(80), {htonl(0x0A630001)}, {}};     // 10.99.0.1

// What the game saw, in memory shared with it.
struct GameState {
    std::atomic<int> connects{0}, aborts{0}, exchanges{0};
};

class ControlKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (access("/usr/sbin/iptables", X_OK) != 0) GTEST_SKIP() << "iptables is not installed";
        std::string why;
        if (!Netns::enterPrivate(&why)) GTEST_SKIP() << "real-kernel test skipped: " << why;
        // Probes every 100 ms, each taken as it comes; one decision every 200 ms, at most one
        // switch per 3 s; front-ends cut off after 1.5 s; control clients served one after
        // another.
        root_ = makeRoot(
                "ping_interval_ms=100\nalpha_percent=100\nmini_est_interval=200\nt_hyst_s=3\n"
                "frontend_timeout_ms=1500\ncontrol_reaccept=1\n" +
                extraConf());
        ASSERT_NE("", root_);
        ASSERT_TRUE(net_.startPeer());
        ASSERT_TRUE(links_.start(net_, 20, 160, &why)) << why;
        // The real front-ends instead of makeRoot's recorders; each interface's table routes over
        // its own link.
        ASSERT_EQ(
                0,
                Netns::run("cd " + root_ +
                           " && ln -sf " MLBD_SOURCE_DIR
                           "/tools/host/*-wrapper-1.0 system/bin/ && ln -s /proc/net/"
                           "nf_conntrack proc/net/ && for i in wlan0 rmnet_data0; do "
                           "system/bin/ip-wrapper-1.0 route add default dev $i table $i && "
                           "system/bin/ip-wrapper-1.0 -6 route add default dev $i table $i; done"));
        ASSERT_EQ(0,
                  net_.runInPeer("ip addr add 10.99.0.1 dev lo && ip addr add 10.99.0.2 dev lo"));
        responder_ = spawn("nsenter --net=" + net_.peerPath() +
                           " " MLBD_BINARY_DIR
                           "/tools/rtt-responder --address :: --port 5060 2>/dev/null");
        // The web server: the peer's kernel completes connections and never closes them, so
        // their tracking entries stay.
        web_ = net_.socketInPeer(AF_INET, SOCK_STREAM);
        ASSERT_EQ(0,
                  bind(web_, reinterpret_cast<const sockaddr*>(&kWebServer), sizeof(kWebServer)));
        ASSERT_EQ(0, listen(web_, 64));
        // The call's server as the kernel module reports it: decimal numbers in network order.
        standin_ =
                spawn(MLBD_BINARY_DIR "/tools/sla-standin --root " + root_ +
                      " --iface wlan0 --iface rmnet_data0 --voip-state " +
                      std::to_string(inet_addr("10.99.0.2")) + "," + std::to_string(htons(5060)));
        ASSERT_TRUE(until([&] { return access((root_ + "/proc/sla/config").c_str(), F_OK) == 0; }));
        game_ = static_cast<GameState*>(mmap(nullptr, sizeof(GameState), PROT_READ | PROT_WRITE,
                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(MAP_FAILED, game_);
        new (game_) GameState();
        // The daemon runs with the fault library, inert until setFaults(). A sanitizer's runtime
        // is then not the first library loaded, which is fine here.
        ASSERT_TRUE(setFaults(0, false));
        const char* asan = getenv("ASAN_OPTIONS");
        ASSERT_GT(daemon_ = startDaemon(root_, root_ + "/mlbd.log",
                                        {"LD_PRELOAD=" + faultPreloadLibrary(),
                                         std::string(kFaultFileEnv) + "=" + root_ + "/faults",
                                         std::string("ASAN_OPTIONS=") + (asan ? asan : "") +
                                                 ":verify_asan_link_order=0"}),
                  0);
        // An application's client is refused and closed; the root client after it is served.
        ASSERT_EQ(0, chmod(root_.c_str(), 0755));
        EXPECT_EQ(0, Netns::waitChild(forkAs(kUnlisted, [this] {
                      int fd = -1;
                      for (int i = 0; i < 500 && (fd = connectControl()) < 0; ++i) usleep(20000);
                      char byte;
                      alarm(5);  // a client that is served would wait here for ever
                      return static_cast<int>(recv(fd, &byte, 1, 0));
                  })));
        EXPECT_TRUE(logged("refusing control client pid=")) << log();
        ASSERT_TRUE(until([&] { return (control_ = connectControl()) >= 0; })) << log();
    }
    void TearDown() override {
        if (control_ >= 0) close(control_);
        for (pid_t* pid : {&gamePid_, &standin_, &responder_}) stop(pid);
        links_.stop();
        stopDaemon(daemon_);
        for (const char* report :
             {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer", "runtime error:"}) {
            EXPECT_EQ(npos, log().find(report)) << log();
        }
        if (web_ >= 0) close(web_);
        if (game_ != nullptr && game_ != MAP_FAILED) munmap(game_, sizeof(GameState));
        if (!root_.empty()) Netns::run("rm -rf " + root_);
    }

    virtual std::string extraConf() const { return ""; }
    // The daemon's wall clock `offsetS` seconds off, and its sockets' destruction refused.
    bool setFaults(int64_t offsetS, bool noNetAdmin) {
        FaultState state;
        state.realtimeOffsetS = offsetS;
        state.noNetAdmin = noNetAdmin;
        const int fd = open((root_ + "/faults").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        const bool written = pwrite(fd, &state, sizeof(state), 0) == sizeof(state);
        close(fd);
        return written;
    }
    static void stop(pid_t* pid) {
        if (*pid > 0) kill(*pid, SIGKILL), Netns::waitChild(*pid), *pid = -1;
    }
    int connectControl() const {
        sockaddr_un addr = {AF_UNIX, {}};
        (root_ + "/dev/socket/mlbd").copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        return connectTo(addr);
    }
    // Sends one control record, as the platform's client does.
    bool command(int id, const std::string& text) {
        msg_t msg = {id, static_cast<int32_t>(text.size()), {}};
        text.copy(msg.message, sizeof(msg.message) - 1);
        return send(control_, &msg, sizeof(msg), MSG_NOSIGNAL) == sizeof(msg);
    }
    std::string log() const { return slurp(root_ + "/mlbd.log"); }
    // What "mlbdctl status --json" reads back from the kernel; null when it is not JSON.
    Json::Value mlbdctlStatus() const {
        const std::string text =
                output(("MLBD_ROOT=" + root_ + " " MLBD_BINARY_DIR "/tools/mlbdctl status --json")
                               .c_str());
        Json::Value status;
        std::istringstream in(text);
        std::string errors;
        if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &status, &errors)) return {};
        return status;
    }
    static bool until(const std::function<bool()>& done) { return waitFor(done, kWaitMs); }
    bool logged(const std::string& text) {
        return until([&] { return log().find(text) != npos; });
    }

    // The game: holds one connection to its server, exchanging a 28-byte update for a 30-byte
    // answer every 50 ms, and reconnects whenever it is cut off.
    template <typename Addr = sockaddr_in>
    void startGame(const Addr& server = kGameServer) {
        GameState* game = game_;
        gamePid_ = forkAs(kGame, [game, server] {
            for (char buf[30] = {};; usleep(50000)) {
                const int fd = connectTo(server);
                game->connects += fd >= 0;
                errno = 0;
                while (fd >= 0 && send(fd, buf, 28, MSG_NOSIGNAL) == 28 &&
                       recv(fd, buf, 30, MSG_WAITALL) == 30) {
                    ++game->exchanges;
                    usleep(50000);
                }
                game->aborts += errno == ECONNABORTED || errno == ECONNRESET;
                close(fd);
            }
            return 0;
        });
        ASSERT_TRUE(until([&] { return game_->connects > 0; }));
    }

    // No probe to `server` starts once the one in flight (at most 11 round trips of the slowest
    // link) has ended.
    void expectNoMoreProbes(const std::string& server) {
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const Flows before = flows();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        EXPECT_EQ(0, count(flows(), server, before)) << log();
    }

    // The daemon's threads and open descriptors.
    std::pair<size_t, size_t> counts() const {
        std::pair<size_t, size_t> n;
        for (auto [dir, count] : {std::pair{"/task", &n.first}, {"/fd", &n.second}}) {
            const std::string path = "/proc/" + std::to_string(daemon_) + dir;
            *count = 0;
            for (DIR* d = opendir(path.c_str()); d != nullptr; closedir(d), d = nullptr) {
                while (const dirent* e = readdir(d)) *count += e->d_name[0] != '.';
            }
        }
        return n;
    }

    std::string root_;
    Netns net_;
    EmulatedLinks links_;
    pid_t daemon_ = -1, standin_ = -1, responder_ = -1, gamePid_ = -1;
    int control_ = -1, web_ = -1;
    GameState* game_ = nullptr;
};

TEST_F(ControlKernelTest, GameMovesToTheFasterLinkAndBackUntilSelectionStops) {
    ASSERT_TRUE(command(MLBD_CMD_START_SLS, std::to_string(kGame)));
    ASSERT_TRUE(until([] { return output().find("--uid-owner 10002 -j vexa_sls_wlan0") != npos; }));
    startGame();

    // Wi-Fi slows down under the game: the game's server is probed over both links, the choice
    // moves to cellular, and the game is cut off and reconnects over cellular, with its mark.
    ASSERT_TRUE(links_.setDelay("wlan0", 300));
    ASSERT_TRUE(until([&] {
        return game_->aborts > 0 && count(flows(), "10.99.0.1:5060 from 10.77.2.2 mark=92") > 0;
    })) << log();
    EXPECT_GT(count(flows(), "10.99.0.1:5060 from 10.77.2.2 mark=0 assured"), 0);  // a probe
    EXPECT_EQ(npos, log().find("perform switch wlan0"));

    // Wi-Fi recovers, below the entry threshold: the game comes back to it.
    const int aborts = game_->aborts;
    ASSERT_TRUE(links_.setDelay("wlan0", 20));
    ASSERT_TRUE(until([&] {
        return game_->aborts > aborts &&
               count(flows(), "10.99.0.1:5060 from 10.77.1.2 mark=90") > 0;
    })) << log();

    // With the game gone, a slow RTT report starts probing again; stopping the selection removes
    // its chains and ends the probes.
    stop(&gamePid_);
    const Flows before = flows();
    ASSERT_TRUE(command(MLBD_CMD_SLS_RTT, "200"));
    ASSERT_TRUE(until(
            [&] { return count(flows(), "10.99.0.1:5060 from 10.77.2.2 mark=0", before) > 0; }));
    ASSERT_TRUE(command(MLBD_CMD_STOP_SLS, ""));
    ASSERT_TRUE(until([] { return output().find("vexa_sls_") == npos; })) << output();
    expectNoMoreProbes("10.99.0.1:5060");
}

TEST_F(ControlKernelTest, CallMovesTheProbesToItsServerUntilItEnds) {
    ASSERT_TRUE(command(MLBD_CMD_VOIP_STATUS, std::to_string(kCall)));
    for (const std::string from : {"10.77.1.2", "10.77.2.2"}) {
        EXPECT_TRUE(until([&] {
            return count(flows(), "10.99.0.2:5060 from " + from + " mark=0 assured") > 0;
        })) << from
            << log();
    }
    EXPECT_NE(npos, output().find("--uid-owner 10004 -j vexa_sls_wlan0"));
    EXPECT_TRUE(logged("perform switch wlan0"));

    ASSERT_TRUE(command(MLBD_CMD_VOIP_STATUS, "0"));
    ASSERT_TRUE(until([] { return output().find("vexa_sls_") == npos; })) << output();
    expectNoMoreProbes("10.99.0.2:5060");
}

TEST_F(ControlKernelTest, WhitelistSteersWebTrafficAndShutDownUndoesEverything) {
    ASSERT_TRUE(command(MLBD_CMD_START_SLS, std::to_string(kGame)));
    startGame();
    ASSERT_TRUE(command(MLBD_CMD_UID_WHITELIST, std::to_string(kListed)));
    // Once the game's traffic is measured, Wi-Fi falls short and cellular takes the rest; from
    // then on the ratio rules stay as they are.
    ASSERT_TRUE(until([] {
        const std::string r = output();
        return r.find("--uid-owner 10001 -j vexa_fw_rmnet_data0") != npos &&
               r.find("--probability 1.00000000000 -j vexa_fw_rmnet_data0_wrapper") != npos;
    })) << log();

    // Four web connections each: the listed UID's take a link by the ratio rules, with that
    // link's mark; the unlisted UID's keep the main table, unmarked.
    for (const uid_t uid : {kListed, kUnlisted}) {
        EXPECT_EQ(0, Netns::waitChild(forkAs(uid, [] {
                      int failed = 0;
                      for (int i = 0; i < 4; ++i) failed += close(connectTo(kWebServer)) != 0;
                      return failed;
                  })));
    }
    const Flows web = flows();
    EXPECT_EQ(4, count(web, "10.99.0.1:80 from 10.77.1.2 mark=90") +
                         count(web, "10.99.0.1:80 from 10.77.2.2 mark=92"))
            << output();
    EXPECT_EQ(4, count(web, "10.99.0.1:80 from 10.77.1.2 mark=0"));
    // mlbdctl reads the same back from the kernel.
    const Json::Value status = mlbdctlStatus();
    EXPECT_TRUE(status["healthy"].asBool()) << status;
    Json::Value listed(Json::arrayValue);
    listed.append("10001");
    EXPECT_TRUE(
            std::any_of(status["links"].begin(), status["links"].end(),
                        [&](const Json::Value& link) { return link["whitelist_uids"] == listed; }))
            << status;

    // Shut-down: the game is cut off, the socket takes no new client, nothing of the steering is
    // left, and the daemon parks (its main thread asleep after the clean-up line).
    const int aborts = game_->aborts;
    std::ofstream(root_ + "/properties/vendor.sla.enabled") << "2";
    ASSERT_TRUE(logged("Slm disabled, starting cleanup..."));
    ASSERT_TRUE(until([&] {
        const long call = atol(slurp("/proc/" + std::to_string(daemon_) + "/syscall").c_str());
        return call == SYS_clock_nanosleep || call == SYS_nanosleep;
    }));
    EXPECT_TRUE(until([&] { return game_->aborts > aborts; }));
    EXPECT_EQ(-1, connectControl());
    EXPECT_EQ("", output());
    EXPECT_EQ("", output("ip -4 rule show pref 30000"));
    EXPECT_FALSE(mlbdctlStatus().get("present", true).asBool());

    // The open connection is still read, but a start programs nothing. A record of no command
    // comes last: once it is read, the one before it has run.
    ASSERT_TRUE(command(MLBD_CMD_START_SLS, std::to_string(kUnlisted)));
    ASSERT_TRUE(command(0, ""));
    ASSERT_TRUE(logged("recv msg: msg.id=0")) << log();
    EXPECT_EQ("", output());
}

// The same daemon with "ipv6" set and the game's server at fd99::1: the monitor makes it the
// probe target, the probes measure it over IPv6 through each link, and when Wi-Fi slows down
// the game is moved to cellular and reconnects over it, with its mark.
class ControlKernelIpv6Test : public ControlKernelTest {
  protected:
    std::string extraConf() const override { return "ipv6=1\n"; }
};

TEST_F(ControlKernelIpv6Test, Ipv6GameMovesWhenItsLinkSlowsDown) {
    sockaddr_in6 server = {AF_INET6, htons(5060), 0, {}, 0};
    ASSERT_EQ(1, inet_pton(AF_INET6, "fd99::1", &server.sin6_addr));
    ASSERT_TRUE(command(MLBD_CMD_START_SLS, std::to_string(kGame)));
    startGame(server);
    const std::string game = "fd99:0000:0000:0000:0000:0000:0000:0001:5060 from ",
                      cell = "fd00:0002:0000:0000:0000:0000:0000:0002";
    ASSERT_TRUE(links_.setDelay("wlan0", 300));
    ASSERT_TRUE(until([&] {
        return game_->aborts > 0 && count(flows(), game + cell + " mark=92") > 0;
    })) << log();
    EXPECT_GT(count(flows(), game + cell + " mark=0 assured"), 0);  // a probe over IPv6
}

// Faults of the platform, the links, the daemon's own rights and clock, and the control client,
// each injected while a game and web traffic run and then cleared: the daemon logs it, keeps the
// game on a working link, and comes back to its rules, threads and descriptors. The shut-down,
// with the module's control file unusable, then stops every thread it started.
TEST_F(ControlKernelTest, FaultsAreSurvivedAndClearedWhileAGameAndWebTrafficRun) {
    // The main and control threads (and any of a sanitizer's runtime).
    const size_t idleThreads = counts().first;
    ASSERT_TRUE(command(MLBD_CMD_START_SLS, std::to_string(kGame)));
    startGame();
    pid_t web = forkAs(kListed, [] {
        for (;; usleep(200000)) close(connectTo(kWebServer));
        return 0;
    });
    const std::string bin = root_ + "/system/bin/", iptables = bin + "iptables-wrapper-1.0";
    const std::string realIptables = MLBD_SOURCE_DIR "/tools/host/iptables-wrapper-1.0";
    auto frontEnd = [&](const std::string& body) {
        unlink(iptables.c_str());
        if (!body.empty()) std::ofstream(iptables) << "#!/bin/sh\n" << body << "\n";
        chmod(iptables.c_str(), 0755);
    };
    auto restoreFrontEnd = [&] {
        unlink(iptables.c_str()), symlink(realIptables.c_str(), iptables.c_str());
    };
    auto routes = [&] {
        Netns::run("for i in wlan0 rmnet_data0; do " + bin +
                   "ip-wrapper-1.0 route replace default dev $i table $i; done");
    };
    // The game and the web client hold copies of the connection: shut down, not only closed.
    auto client = [&](const std::string& bytes) {
        shutdown(control_, SHUT_RDWR), close(control_);
        control_ = connectControl();
        send(control_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        close(control_);
        control_ = connectControl();  // served once the one before has gone
    };
    // Every whitelist text differs from the last, so each one programs the rules.
    int pokes = 0;
    auto poke = [&] {
        return command(MLBD_CMD_UID_WHITELIST,
                       std::to_string(kListed) + (pokes++ % 2 ? ",10009" : ""));
    };
    auto healthy = [&] { return mlbdctlStatus()["healthy"].asBool(); };
    auto slowWifi = [&](int64_t offsetS, bool noNetAdmin) {
        EXPECT_TRUE(
                until([] { return output().find("-A vexa_SLS -j vexa_sls_uid_wlan0") != npos; }));
        setFaults(offsetS, noNetAdmin);
        links_.setDelay("wlan0", 300);
    };
    auto clearSlowWifi = [&] { setFaults(0, false), links_.setDelay("wlan0", 20); };
    // Where the log of the current fault begins.
    size_t mark = 0;
    // The wall clock steps within the hysteresis period of a switch to cellular; when Wi-Fi
    // recovers, the choice must come back to it once that period is over, measured on a clock
    // that did not step.
    auto stepAfterSwitch = [&](int64_t offsetS) {
        slowWifi(0, false);
        EXPECT_TRUE(until([&] { return log().find("perform switch rmnet_data0", mark) != npos; }));
        setFaults(offsetS, false);
        mark = log().size();
        links_.setDelay("wlan0", 20);
    };
    // The steady state: the whitelist applied, probe threads and both monitors running.
    ASSERT_TRUE(poke() && until([&] {
                    return output().find("--uid-owner 10001 -j vexa_SLM") != npos && healthy() &&
                           counts().first == idleThreads + 4;
                }))
            << mlbdctlStatus();
    const auto base = counts();
    std::string garbage(40 * sizeof(msg_t), '\0');
    for (char& c : garbage) c = static_cast<char>(rand());

    const struct {
        const char* name;
        std::function<void()> inject, clear;
        const char* logged;
    } faults[] = {
            {"front-end exits 1", [&] { frontEnd("exit 1"); }, restoreFrontEnd, "PASS  "},
            {"front-end missing", [&] { frontEnd(""); }, restoreFrontEnd,
             "front-end could not be run (No such file or directory): "},
            {"front-end hangs once",
             [&] {
                 frontEnd("mkdir " + root_ + "/hung 2>/dev/null && sleep 60; exec " + realIptables +
                          " \"$@\"");
             },
             restoreFrontEnd, "still running after 1500 ms, killed with its process group: "},
            {"wlan0 down", [&] { Netns::run("ip link set wlan0 down"); },
             [&] {
                 Netns::run("ip link set wlan0 up && ip route replace default dev wlan0 metric 10"),
                         routes();
             },
             "perform switch rmnet_data0"},
            {"wlan0 deleted", [&] { Netns::run("ip link del wlan0"); },
             [&] {
                 std::string why;
                 links_.stop();
                 links_.start(net_, 20, 160, &why);
                 routes();
             },
             "perform switch rmnet_data0"},
            {"statistics files removed", [&] { Netns::run("rm -f " + root_ + "/proc/sla/*_mmap"); },
             [] {}, "PASS  "},
            // Wi-Fi slows down under the game once it is on Wi-Fi: the choice leaves it, and the
            // reset of the game's sockets is refused (the game keeps its slow connection).
            {"socket destruction refused", [&] { slowWifi(0, true); }, clearSlowWifi,
             "Kernel refused to destroy "},
            {"wall clock back an hour", [&] { stepAfterSwitch(-3600); }, clearSlowWifi,
             "perform switch wlan0"},
            {"wall clock forward a day", [&] { stepAfterSwitch(86400); }, clearSlowWifi,
             "perform switch wlan0"},
            {"garbage client", [&] { client(garbage); }, [] {}, "unknow mesage!!!"},
            {"client leaves mid-record", [&] { client(std::string(500, '\1')); }, [] {},
             "control client gone"},
    };
    std::cout << "fault | logged | recovery ms | threads/fds before | after\n";
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.name);
        mark = log().size();
        fault.inject();
        poke();
        EXPECT_TRUE(until([&] { return log().find(fault.logged, mark) != npos; }))
                << log().substr(mark);
        // The whole line, stamped by the daemon's (possibly stepped) wall clock.
        const std::string text = log();
        const size_t at = text.rfind('\n', text.find(fault.logged, mark)) + 1;
        const std::string line = text.substr(at, text.find('\n', at) - at);
        // A working link still carries the game.
        const int during = game_->exchanges;
        EXPECT_TRUE(until([&] { return game_->exchanges > during + 5; }));
        const int exchanges = game_->exchanges;
        fault.clear();
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(poke());
        EXPECT_TRUE(until([&] {
            return game_->exchanges > exchanges + 5 && healthy() && counts() == base;
        })) << mlbdctlStatus()
            << game_->exchanges - exchanges << " exchanges, " << counts().first << "/"
            << counts().second;
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - start)
                                .count();
        std::cout << fault.name << " | " << line << " | " << ms << " | " << base.first << "/"
                  << base.second << " | " << counts().first << "/" << counts().second << "\n";
    }
    stop(&web);
    // The selection the first client started stands after the clients that came after it.
    EXPECT_NE(npos, output().find("--uid-owner 10002 -j vexa_sls_wlan0"));

    // Shut-down with the module's control file unusable: logged, and still every thread but the
    // main and control threads ends.
    Netns::run("cd " + root_ + "/proc/sla && mv config config.gone && mkdir config");
    std::ofstream(root_ + "/properties/vendor.sla.enabled") << "2";
    EXPECT_TRUE(logged("open stats config file failed:Is a directory"));
    EXPECT_TRUE(logged("Slm cleanup finished, daemon parked"));
    EXPECT_TRUE(until([&] { return counts().first == idleThreads; })) << counts().first;
    EXPECT_EQ("", output());
}

}  // namespace
