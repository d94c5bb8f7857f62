/*
 * killSocketsForUID on 1000 connected TCP sockets of one UID among 1000 sockets of another,
 * beside a minimal inline baseline that sends the same dump and destroy requests.
 *
 * Runs as root in a private network namespace. UID A (20001) holds 1000 client sockets connected
 * over loopback to a listener of UID B (20002), whose 1000 accepted sockets are the others. Each
 * iteration times one pass over both UIDs' sockets; rebuilding A's connections and checking
 * (through SO_ERROR = ECONNABORTED in A's process) that every one of them was destroyed happen
 * outside the timed region. Reported: sockets destroyed per millisecond, and at the end the ratio
 * of killSocketsForUID's rate to the baseline's.
 */
#include <android/log.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "monitor/SockDiag.h"
#include "util/Netns.h"

namespace {

constexpr uid_t kUidA = 20001;
constexpr uid_t kUidB = 20002;
constexpr const char* kUidAText = "20001";
constexpr int kSockets = 1000;
constexpr uint16_t kPort = 45000;

// A forked child running as `uid` that executes one-letter commands and answers with an int.
class Child {
  public:
    Child(uid_t uid, std::function<int(char)> handler) {
        int down[2];
        int up[2];
        if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            // Keep only this child's two pipe ends: the parent's ends of another child's pipes
            // would keep that child from seeing the end of its commands.
            for (int fd = 3; fd < 1024; fd++) {
                if (fd != down[0] && fd != up[1]) close(fd);
            }
            if (setgid(uid) != 0 || setuid(uid) != 0) _exit(1);
            char cmd;
            while (read(down[0], &cmd, 1) == 1) {
                int result = handler(cmd);
                if (write(up[1], &result, sizeof(result)) != sizeof(result)) _exit(1);
            }
            _exit(0);
        }
        close(down[0]);
        close(up[1]);
        to_ = down[1];
        from_ = up[0];
    }
    ~Child() {
        close(to_);
        close(from_);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    int call(char cmd) {
        int result = -1;
        if (write(to_, &cmd, 1) != 1 || read(from_, &result, sizeof(result)) != sizeof(result)) {
            return -1;
        }
        return result;
    }

  private:
    pid_t pid_ = -1;
    int to_ = -1;
    int from_ = -1;
};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sin;
}

// UID A: 'm' makes kSockets connections, 'c' counts the destroyed ones and closes them all.
int victimCommand(char cmd) {
    static std::vector<int> fds;
    if (cmd == 'm') {
        sockaddr_in server = loopback(kPort);
        while (fds.size() < kSockets) {
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (fd < 0) break;
            if (connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof(server)) != 0) {
                close(fd);
                break;
            }
            fds.push_back(fd);
        }
        return static_cast<int>(fds.size());
    }
    int aborted = 0;
    for (int fd : fds) {
        int err = 0;
        socklen_t len = sizeof(err);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        aborted += err == ECONNABORTED;
        close(fd);
    }
    fds.clear();
    return aborted;
}

// UID B: 'l' listens, 'a' accepts what is pending, 'c' closes what was accepted.
int otherCommand(char cmd) {
    static int listener = -1;
    static std::vector<int> fds;
    if (cmd == 'l') {
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in addr = loopback(kPort);
        if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(listener, 4096) != 0) {
            return -1;
        }
        return 0;
    }
    if (cmd == 'a') {
        int fd;
        while ((fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) fds.push_back(fd);
        return static_cast<int>(fds.size());
    }
    for (int fd : fds) close(fd);
    fds.clear();
    return 0;
}

struct Fixture {
    std::unique_ptr<Child> victim;
    std::unique_ptr<Child> other;

    bool start() {
        other = std::make_unique<Child>(kUidB, otherCommand);
        victim = std::make_unique<Child>(kUidA, victimCommand);
        return other->call('l') == 0;
    }
    // A's connections made and B's ends accepted: 1000 sockets of each UID.
    bool prepare() { return victim->call('m') == kSockets && other->call('a') == kSockets; }
    // How many of A's sockets the pass destroyed; both sides are then closed.
    int collect() {
        int destroyed = victim->call('c');
        other->call('c');
        return destroyed;
    }
};

Fixture* gFixture = nullptr;
double gRate[2] = {0, 0};

// The same requests, sent inline with no checks beyond the walk itself.
void baselineKill(uint32_t uid) {
    int dumpFd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    int destroyFd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    sockaddr_nl nl = {};
    nl.nl_family = AF_NETLINK;
    connect(dumpFd, reinterpret_cast<sockaddr*>(&nl), sizeof(nl));
    connect(destroyFd, reinterpret_cast<sockaddr*>(&nl), sizeof(nl));
    struct Request {
        nlmsghdr nlh;
        inet_diag_req_v2 req;
    };
    alignas(8) uint8_t buf[8192];
    for (uint8_t proto : {IPPROTO_TCP, IPPROTO_UDP}) {
        for (uint8_t family : {AF_INET, AF_INET6}) {
            Request dump = {};
            dump.nlh = {sizeof(Request), SOCK_DIAG_BY_FAMILY, NLM_F_REQUEST | NLM_F_DUMP, 0, 0};
            dump.req.sdiag_family = family;
            dump.req.sdiag_protocol = proto;
            dump.req.idiag_states = 0xfff;
            if (write(dumpFd, &dump, sizeof(dump)) != sizeof(dump)) continue;
            bool done = false;
            while (!done) {
                ssize_t n = recv(dumpFd, buf, sizeof(buf), 0);
                if (n <= 0) break;
                int len = static_cast<int>(n);
                for (nlmsghdr* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, len);
                     h = NLMSG_NEXT(h, len)) {
                    if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR) {
                        done = true;
                        break;
                    }
                    auto* msg = reinterpret_cast<inet_diag_msg*>(NLMSG_DATA(h));
                    if (msg->idiag_uid != uid) continue;
                    Request destroy = {};
                    destroy.nlh = {sizeof(Request), SOCK_DESTROY, NLM_F_REQUEST, 0, 0};
                    destroy.req.sdiag_family = msg->idiag_family;
                    destroy.req.sdiag_protocol = proto;
                    destroy.req.idiag_states = 1u << msg->idiag_state;
                    destroy.req.id = msg->id;
                    if (write(destroyFd, &destroy, sizeof(destroy)) != sizeof(destroy)) break;
                }
            }
        }
    }
    close(dumpFd);
    close(destroyFd);
}

void runPasses(benchmark::State& state, int which) {
    int64_t destroyed = 0;
    double seconds = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (!gFixture->prepare()) {
            state.SkipWithError("could not build the 1000 + 1000 sockets");
            break;
        }
        state.ResumeTiming();
        auto start = std::chrono::steady_clock::now();
        if (which == 0) {
            android::net::killSocketsForUID(kUidAText);
        } else {
            baselineKill(kUidA);
        }
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.PauseTiming();
        int n = gFixture->collect();
        destroyed += n;
        state.ResumeTiming();
        if (n == 0) {
            state.SkipWithError("nothing destroyed: SOCK_DESTROY unsupported?");
            break;
        }
    }
    state.counters["destroyed"] =
            benchmark::Counter(static_cast<double>(destroyed), benchmark::Counter::kAvgIterations);
    if (seconds > 0) {
        gRate[which] = destroyed / (seconds * 1000.0);
        state.counters["destroyed_per_ms"] = gRate[which];
    }
}

void BM_KillSocketsForUID(benchmark::State& state) {
    runPasses(state, 0);
}
void BM_InlineBaseline(benchmark::State& state) {
    runPasses(state, 1);
}
BENCHMARK(BM_KillSocketsForUID)->Iterations(30)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InlineBaseline)->Iterations(30)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (getuid() != 0) {
        std::printf("SockDiagBench: skipped: needs root (private network namespace, setuid)\n");
        return 0;
    }
    // Both children hold over 1000 descriptors.
    rlimit nofile = {8192, 8192};
    if (setrlimit(RLIMIT_NOFILE, &nofile) != 0 || !mlbd::test::Netns::enterPrivate()) {
        std::printf("SockDiagBench: skipped: no private network namespace (%s)\n", strerror(errno));
        return 0;
    }
    // Log lines are still formatted, but not written.
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
    Fixture fixture;
    if (!fixture.start()) {
        std::printf("SockDiagBench: skipped: could not set up the test UIDs\n");
        return 0;
    }
    gFixture = &fixture;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (gRate[0] > 0 && gRate[1] > 0) {
        std::printf(
                "killSocketsForUID: %.1f sockets/ms, inline baseline: %.1f sockets/ms, "
                "ratio %.2f\n",
                gRate[0], gRate[1], gRate[0] / gRate[1]);
    }
    gFixture = nullptr;
    return 0;
}
