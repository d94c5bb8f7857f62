/*
 * Control-socket soak: the real daemon under a private MLBD_ROOT, one client connection kept for
 * the whole run, N cycles of StartSlsServer/StopSlsServer (ids 5/6) and N cycles of call
 * start/end (id 8 "10123" / "0"). The daemon's threads, open descriptors and VmRSS are measured
 * after a warm-up cycle of each kind and again after the soak; any change in threads or
 * descriptors, or RSS growth of 100 KB or more, fails the run (non-zero exit).
 *
 * Records go in lock step: each is sent once the control thread is back in its receive (the
 * previous command and the receive pause are over), so the send-to-"recv msg" time is the
 * delivery latency alone and the cycle time is the commands' own cost plus the pauses.
 *
 * Root; runs in a private network namespace with no links, so every probe fails at once.
 *
 *   build/bench/ControlSoakBench [cycles]     (default 500)
 *
 *   build/bench/ControlSoakBench --stops [n] [recorded]  (default 50)
 *
 * The second form measures how long a stop holds the control thread while there is work in
 * flight to stop: emulated links (wlan0 20 ms, rmnet_data0 160 ms one way) to a peer namespace
 * with the probe server, the real packet-filter front-ends, and a game under UID 10002 that
 * exchanges with its server every 50 ms. Each of n selection cycles starts selection for the
 * game, resumes the probes (an RTT report above the threshold), lets the probes, the socket
 * monitor and the VoIP monitor run for 150 to 450 ms, then stops selection (id 6); each of n
 * call cycles starts a call (probes at once) and ends it (id 8 "0") the same way. The stop's
 * time is from the send of the record until the control thread is in its receive pause again
 * (the handler has returned); median, 90th percentile and worst of each kind are printed.
 * With "recorded", the front-ends only append their arguments to a file (cheaper than the host's
 * shell wrapper around iptables, as a native tool on the device is): the stop's own cost beside
 * the same number of front-end runs.
 *
 *   build/bench/ControlSoakBench --flood [seconds]  (default 60)
 *
 * The third form, among the same links with selection running for the game and
 * "control_reaccept" set, lets a second control client send random bytes as fast as the socket
 * takes them for the given time, then connects a third client and waits until its record is
 * received. It prints the bytes and records taken, the game's exchanges during the flood, when
 * the next client was served, and the daemon's threads, descriptors and VmRSS before and after
 * (exit status 1 when the daemon died, the next client was not served, the game made no
 * exchange, or a thread or descriptor count changed).
 *
 * SOAK_KEEP=1 in the environment keeps the root (the daemon's log, commands.log) for a look.
 */
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "MlbdSocketServer.h"
#include "util/Daemon.h"
#include "util/EmulatedLinks.h"
#include "util/Netns.h"

using namespace mlbd::test;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPauseMs = 5;
constexpr int kRssLimitKb = 100;

struct Usage {
    long threads = 0, fds = 0, rssKb = 0;
    // Threads by name and kernel wait point, descriptors by target; counted.
    std::map<std::string, int> tasks, fdTargets;
};

std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        }
        closedir(d);
    }
    return names;
}

Usage measure(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    Usage u;
    const std::string status = slurp(proc + "/status");
    for (const char* key : {"Threads:", "VmRSS:"}) {
        const size_t at = status.find(key);
        (key[0] == 'T' ? u.threads : u.rssKb) =
                at == std::string::npos ? -1 : atol(status.c_str() + at + strlen(key));
    }
    for (const std::string& tid : listDir(proc + "/task")) {
        std::string comm = slurp(proc + "/task/" + tid + "/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        ++u.tasks[comm + " in " + slurp(proc + "/task/" + tid + "/wchan")];
    }
    for (const std::string& fd : listDir(proc + "/fd")) {
        char target[256];
        const ssize_t n = readlink((proc + "/fd/" + fd).c_str(), target, sizeof(target));
        ++u.fdTargets[std::string(target, n > 0 ? n : 0)];
        ++u.fds;
    }
    return u;
}

void printDiff(const char* what, const std::map<std::string, int>& a,
               const std::map<std::string, int>& b) {
    std::map<std::string, int> delta = b;
    for (const auto& [name, n] : a) delta[name] -= n;
    for (const auto& [name, n] : delta) {
        if (n != 0) printf("  %s %+d: %s\n", what, n, name.c_str());
    }
}

// The daemon and its root; both go on every way out.
struct Run {
    std::string root;
    pid_t pid = -1;
    int sock = -1, logFd = -1;
    long recvLines = 0;  // "recv msg" lines seen so far in the daemon's log
    long controlTid = 0;
    std::string partial;
    std::vector<double> latencyMs;

    ~Run() {
        if (sock >= 0) close(sock);
        if (logFd >= 0) close(logFd);
        stopDaemon(pid);
        if (getenv("SOAK_KEEP")) return;
        if (!root.empty() && system(("rm -rf " + root).c_str()) != 0) {
            fprintf(stderr, "could not remove %s\n", root.c_str());
        }
    }

    // Reads what the log gained; counts the "recv msg" lines and learns the control thread's id.
    void scanLog() {
        char buf[65536];
        for (ssize_t n; (n = read(logFd, buf, sizeof(buf))) > 0;) partial.append(buf, n);
        size_t start = 0;
        for (size_t end; (end = partial.find('\n', start)) != std::string::npos; start = end + 1) {
            const std::string line = partial.substr(start, end - start);
            if (line.find("recv msg: msg.id=") == std::string::npos) continue;
            ++recvLines;
            long linePid = 0;  // threadtime: "MM-DD HH:MM:SS.mmm  PID  TID P TAG: message"
            sscanf(line.c_str(), "%*s %*s %ld %ld", &linePid, &controlTid);
        }
        partial.erase(0, start);
    }

    // The control thread is blocked in its receive: the last command and its pause are over.
    bool controlIdle() {
        const long call = controlCall();
        return call == SYS_recvfrom || call == SYS_recvmsg;
    }
    // The system call the control thread is in (or -1 when it runs).
    long controlCall() {
        const std::string path =
                "/proc/" + std::to_string(pid) + "/task/" + std::to_string(controlTid) + "/syscall";
        const std::string text = slurp(path);
        return text.compare(0, 7, "running") == 0 ? -1 : atol(text.c_str());
    }

    // Sends a record and returns how long its handler held the control thread: from the send
    // until the thread is in the pause that follows every record (ms; -1 on failure).
    double timed(int id, const char* text) {
        const auto sent = Clock::now();
        if (!send(id, text)) return -1;
        for (;;) {
            const long call = controlCall();
            if (call == SYS_nanosleep || call == SYS_clock_nanosleep) break;
            if (Clock::now() - sent > std::chrono::seconds(30)) return -1;
            usleep(100);
        }
        return std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
    }

    bool send(int id, const char* text) {
        if (controlTid != 0 && !waitFor([&] { return controlIdle(); }, 30000)) {
            fprintf(stderr, "control thread %ld not back in its receive\n", controlTid);
            return false;
        }
        msg_t msg = {};
        msg.id = id;
        msg.length = static_cast<int32_t>(strlen(text));
        snprintf(msg.message, sizeof(msg.message), "%s", text);
        const long expected = recvLines + 1;
        const auto sent = Clock::now();
        if (::send(sock, &msg, sizeof(msg), MSG_NOSIGNAL) != sizeof(msg)) {
            perror("send");
            return false;
        }
        for (scanLog(); recvLines < expected; scanLog()) {
            if (Clock::now() - sent > std::chrono::seconds(30)) {
                fprintf(stderr, "no \"recv msg\" line for id %d within 30 s\n", id);
                return false;
            }
            usleep(100);
        }
        latencyMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
        return true;
    }

    bool cycles(int n, int startId, const char* startText, int stopId, const char* stopText) {
        for (int i = 0; i < n; ++i) {
            if (!send(startId, startText) || !send(stopId, stopText)) return false;
        }
        return true;
    }

    // A new client connection to the daemon (it may take a while to listen); -1 on failure.
    int connectControl() const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s%s", root.c_str(), MLBD_SOCKET_PATH);
        if (waitFor(
                    [&] {
                        return connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
                    },
                    20000)) {
            return fd;
        }
        close(fd);
        return -1;
    }

    // Waits for the last command to end, then for detached probe threads to leave.
    Usage settle() {
        waitFor([&] { return controlIdle(); }, 30000);
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return measure(pid);
    }
};

// A child that dies with this process; pid.
pid_t forkChild(const std::function<int()>& fn) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(fn() & 0xff);
    }
    return child;
}

void printLatencies(const char* what, std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    printf("%-28s n=%zu median %.1f ms, p90 %.1f ms, worst %.1f ms\n", what, ms.size(),
           ms[ms.size() / 2], ms[ms.size() * 9 / 10], ms.back());
}

// The daemon among emulated links (wlan0 20 ms, rmnet_data0 160 ms one way) to a peer namespace
// with the probe server, the statistics stand-in, and a game under UID 10002 that exchanges 28
// bytes for 30 with its server 10.99.0.1:5060 every 50 ms; its exchanges are counted in memory
// shared with it. Declared after the Run, so that its children and links go before the daemon.
struct Lab {
    Netns net;
    EmulatedLinks links;
    std::vector<pid_t> children;
    std::atomic<long>* exchanges = nullptr;

    ~Lab() {
        for (pid_t child : children) kill(child, SIGKILL), waitpid(child, nullptr, 0);
        links.stop();
        if (exchanges != nullptr) munmap(exchanges, sizeof(*exchanges));
    }

    // Starts it all and connects run's client; false with a message on failure. With recorded,
    // the front-ends only record their arguments.
    bool start(Run& run, const std::string& conf, bool recorded) {
        std::string why;
        if (!Netns::enterPrivate(&why)) {
            fprintf(stderr, "ControlSoakBench: %s\n", why.c_str());
            return false;
        }
        run.root = makeRoot(conf);
        if (run.root.empty() || !net.startPeer() || !links.start(net, 20, 160, &why)) {
            fprintf(stderr, "ControlSoakBench: no links: %s\n", why.c_str());
            return false;
        }
        // The real front-ends; each interface's table routes over its own link. The game's
        // server answers probes too.
        if ((!recorded &&
             Netns::run("cd " + run.root +
                        " && ln -sf " MLBD_SOURCE_DIR
                        "/tools/host/*-wrapper-1.0 system/bin/ && for i in wlan0 rmnet_data0; do "
                        "system/bin/ip-wrapper-1.0 route add default dev $i table $i; done") !=
                     0) ||
            net.runInPeer("ip addr add 10.99.0.1 dev lo") != 0) {
            return false;
        }
        for (const std::string& tool :
             {"exec nsenter --net=" + net.peerPath() +
                      " " MLBD_BINARY_DIR "/tools/rtt-responder --port 5060",
              "exec " MLBD_BINARY_DIR "/tools/sla-standin --root " + run.root +
                      " --iface wlan0 --iface rmnet_data0 2>/dev/null"}) {
            children.push_back(forkChild([&] {
                return execl("/bin/sh", "sh", "-c", tool.c_str(), static_cast<char*>(nullptr));
            }));
        }
        void* shared = mmap(nullptr, sizeof(*exchanges), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) return false;
        std::atomic<long>* count = exchanges = new (shared) std::atomic<long>(0);
        // The game: one connection, an exchange every 50 ms, reconnecting when cut off.
        children.push_back(forkChild([count] {
            if (setgid(10002) != 0 || setuid(10002) != 0) return 100;
            const sockaddr_in server = {AF_INET, htons(5060), {htonl(0x0A630001)}, {}};
            for (char buf[30] = {};; usleep(50000)) {
                const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) == 0) {
                    while (::send(fd, buf, 28, MSG_NOSIGNAL) == 28 &&
                           recv(fd, buf, 30, MSG_WAITALL) == 30) {
                        ++*count;
                        usleep(50000);
                    }
                }
                close(fd);
            }
            return 0;
        }));
        const std::string log = run.root + "/mlbd.log";
        waitFor([&] { return access((run.root + "/proc/sla/config").c_str(), F_OK) == 0; }, 10000);
        if ((run.pid = startDaemon(run.root, log)) < 0) return false;
        waitFor([&] { return (run.logFd = open(log.c_str(), O_RDONLY | O_CLOEXEC)) >= 0; }, 5000);
        if (run.logFd < 0 || (run.sock = run.connectControl()) < 0) {
            fprintf(stderr, "could not connect to the daemon's control socket\n");
            return false;
        }
        return true;
    }
};

int stopLatency(int n, bool recorded) {
    Run run;
    Lab lab;
    if (!lab.start(run, "ping_interval_ms=100\nalpha_percent=100\nmini_est_interval=200\n",
                   recorded)) {
        return 1;
    }
    srand(1);
    auto settleMs = [] { return 150 + rand() % 300; };
    std::vector<double> slsStops, callStops, starts;
    const Usage before = measure(run.pid);
    for (int i = 0; i < n; ++i) {
        double ms = run.timed(MLBD_CMD_START_SLS, "10002");
        if (ms < 0 || run.timed(MLBD_CMD_SLS_RTT, "200") < 0) return 1;
        starts.push_back(ms);
        usleep(settleMs() * 1000);
        if ((ms = run.timed(MLBD_CMD_STOP_SLS, "")) < 0) return 1;
        slsStops.push_back(ms);
    }
    for (int i = 0; i < n; ++i) {
        if (run.timed(MLBD_CMD_VOIP_STATUS, "10123") < 0) return 1;
        usleep(settleMs() * 1000);
        const double ms = run.timed(MLBD_CMD_VOIP_STATUS, "0");
        if (ms < 0) return 1;
        callStops.push_back(ms);
    }
    const Usage after = run.settle();
    printLatencies("selection start (id 5)", starts);
    printLatencies("selection stop (id 6)", slsStops);
    printLatencies("call end (id 8 \"0\")", callStops);
    printf("threads %ld -> %ld, fds %ld -> %ld, VmRSS %ld -> %ld KB\n", before.threads,
           after.threads, before.fds, after.fds, before.rssKb, after.rssKb);
    return 0;
}

// A control client that sends random bytes as fast as the socket takes them for `seconds`, while
// selection runs for the game; then the next client must be served.
int garbageFlood(int seconds) {
    Run run;
    Lab lab;
    if (!lab.start(run,
                   "ping_interval_ms=100\nalpha_percent=100\nmini_est_interval=200\n"
                   "control_reaccept=1\n",
                   false) ||
        !run.send(MLBD_CMD_START_SLS, "10002") || !run.send(MLBD_CMD_SLS_RTT, "200")) {
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const Usage before = run.settle();
    // The first client leaves; the flood comes from the next one.
    close(run.sock);
    const int flood = run.connectControl();
    if (flood < 0) return 1;
    const long exchangesBefore = *lab.exchanges, recvBefore = (run.scanLog(), run.recvLines);
    std::vector<char> garbage(1 << 16);
    long long bytes = 0;
    const auto t0 = Clock::now();
    while (Clock::now() - t0 < std::chrono::seconds(seconds)) {
        for (char& c : garbage) c = static_cast<char>(rand());
        const ssize_t n =
                ::send(flood, garbage.data(), garbage.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0)
            bytes += n;
        else
            usleep(1000);  // the socket is full: the daemon takes a record per receive pause
    }
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    run.scanLog();
    const long recvLines = run.recvLines - recvBefore, exchanges = *lab.exchanges - exchangesBefore;
    // Served again: once the daemon has read what the flood left queued, the next client's
    // record is received.
    close(flood);
    const auto left = Clock::now();
    run.sock = run.connectControl();
    msg_t msg = {MLBD_CMD_UID_WHITELIST, 5, "10001"};
    const bool served =
            run.sock >= 0 && ::send(run.sock, &msg, sizeof(msg), MSG_NOSIGNAL) == sizeof(msg) &&
            waitFor(
                    [&] {
                        return slurp(run.root + "/mlbd.log")
                                       .find("msg.id=1, msg.length=5, msg.message=[10001]") !=
                               std::string::npos;
                    },
                    300000);
    const double servedAfterS = std::chrono::duration<double>(Clock::now() - left).count();
    const Usage after = run.settle();
    const bool alive = kill(run.pid, 0) == 0;
    printf("garbage client for %.0f s: %lld bytes accepted (%.0f records/s), %ld records "
           "dispatched (%.1f/s)\n",
           s, bytes, bytes / 1032.0 / s, recvLines, recvLines / s);
    printf("game exchanges during the flood: %ld (%.1f/s)\n", exchanges, exchanges / s);
    printf("next client served: %s, %.1f s after the flood ended; daemon alive: %s\n",
           served ? "yes" : "NO", servedAfterS, alive ? "yes" : "NO");
    printf("threads %ld -> %ld, fds %ld -> %ld, VmRSS %ld -> %ld KB\n", before.threads,
           after.threads, before.fds, after.fds, before.rssKb, after.rssKb);
    return served && alive && exchanges > 0 && before.threads == after.threads &&
                           before.fds == after.fds
                   ? 0
                   : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--flood") == 0) {
        return garbageFlood(std::max(1, argc > 2 ? atoi(argv[2]) : 60));
    }
    if (argc > 1 && strcmp(argv[1], "--stops") == 0) {
        return stopLatency(std::max(1, argc > 2 ? atoi(argv[2]) : 50),
                           argc > 3 && strcmp(argv[3], "recorded") == 0);
    }
    const int n = std::max(1, argc > 1 ? atoi(argv[1]) : 500);
    std::string why;
    if (!Netns::enterPrivate(&why)) {
        fprintf(stderr, "ControlSoakBench: %s\n", why.c_str());
        return 1;
    }
    Run run;
    run.root = makeRoot("ping_interval_ms=" + std::to_string(kPauseMs) + "\n");
    if (run.root.empty()) return 1;
    const std::string log = run.root + "/mlbd.log";
    if ((run.pid = startDaemon(run.root, log)) < 0) return 1;
    waitFor([&] { return (run.logFd = open(log.c_str(), O_RDONLY | O_CLOEXEC)) >= 0; }, 5000);
    if (run.logFd < 0 || (run.sock = run.connectControl()) < 0) {
        fprintf(stderr, "could not connect to the daemon's control socket\n");
        return 1;
    }

    if (!run.cycles(1, MLBD_CMD_START_SLS, "10050", MLBD_CMD_STOP_SLS, "") ||
        !run.cycles(1, MLBD_CMD_VOIP_STATUS, "10123", MLBD_CMD_VOIP_STATUS, "0")) {
        return 1;
    }
    const Usage before = run.settle();
    run.latencyMs.clear();

    const auto t0 = Clock::now();
    if (!run.cycles(n, MLBD_CMD_START_SLS, "10050", MLBD_CMD_STOP_SLS, "")) return 1;
    const auto t1 = Clock::now();
    if (!run.cycles(n, MLBD_CMD_VOIP_STATUS, "10123", MLBD_CMD_VOIP_STATUS, "0")) return 1;
    const auto t2 = Clock::now();
    const Usage after = run.settle();

    auto ms = [](Clock::duration d) {
        return std::chrono::duration<double, std::milli>(d).count();
    };
    std::sort(run.latencyMs.begin(), run.latencyMs.end());
    const std::vector<double>& lat = run.latencyMs;
    printf("%-12s %10s %10s %10s\n", "", "before", "after", "delta");
    printf("%-12s %10ld %10ld %+10ld\n", "threads", before.threads, after.threads,
           after.threads - before.threads);
    printf("%-12s %10ld %10ld %+10ld\n", "fds", before.fds, after.fds, after.fds - before.fds);
    printf("%-12s %10ld %10ld %+10ld\n", "VmRSS (KB)", before.rssKb, after.rssKb,
           after.rssKb - before.rssKb);
    printf("%d SLS start/stop cycles: %.0f ms, %.2f ms per cycle\n", n, ms(t1 - t0),
           ms(t1 - t0) / n);
    printf("%d call start/end cycles: %.0f ms, %.2f ms per cycle\n", n, ms(t2 - t1),
           ms(t2 - t1) / n);
    printf("total %.1f s for %zu records (receive pause %d ms); send to \"recv msg\" line: "
           "median %.3f ms, p99 %.3f ms\n",
           ms(t2 - t0) / 1000, lat.size(), kPauseMs, lat[lat.size() / 2],
           lat[lat.size() * 99 / 100]);

    bool ok = true;
    if (after.threads != before.threads) {
        printf("FAIL: thread count changed by %+ld\n", after.threads - before.threads);
        printDiff("thread", before.tasks, after.tasks);
        ok = false;
    }
    if (after.fds != before.fds) {
        printf("FAIL: descriptor count changed by %+ld\n", after.fds - before.fds);
        printDiff("fd", before.fdTargets, after.fdTargets);
        ok = false;
    }
    if (after.rssKb - before.rssKb >= kRssLimitKb) {
        printf("FAIL: VmRSS grew by %ld KB (limit: below %d KB)\n", after.rssKb - before.rssKb,
               kRssLimitKb);
        ok = false;
    }
    if (ok) printf("PASS\n");
    return ok ? 0 : 1;
}
