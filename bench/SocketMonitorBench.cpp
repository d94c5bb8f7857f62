/*
 * One SlaTcpSocketMonitor::poll() among 1000 TCP sockets of other UIDs, beside the bare dump that
 * it is built on.
 *
 * Runs as root in a private network namespace. The benchmark process holds 500 loopback
 * connections (both ends: 1000 established sockets of UID 0); the game, UID 10050, holds 3
 * connections to port 7000 (sockets made under that file-system UID, which is what the kernel
 * records as their owner). Each iteration of BM_Poll is one poll() of a resumed monitor (its own
 * thread kept waiting, so only the benchmark polls); each iteration of BM_BareDump opens a
 * SockDiag, dumps the live TCP sockets with an empty callback and closes it, as poll() does.
 * Reported: CPU time per iteration of the calling thread (the kernel builds the dump in that
 * thread's system calls, so it is included), and at the end the share of poll()'s CPU time that
 * the bare dump accounts for.
 */
#include <android/log.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "monitor/SlaTcpSocketMonitor.h"
#include "monitor/SockDiag.h"
#include "parameters/Parameters.h"
#include "util/Netns.h"

namespace {

constexpr int kOtherConnections = 500;
constexpr int kGameConnections = 3;
constexpr uid_t kGameUid = 10050;
constexpr uint16_t kOtherPort = 45100;
constexpr uint16_t kGamePort = 7000;

// A monitor that polls only when the benchmark calls poll(): it is unpaused without waking its
// thread, which stays in the wait it entered while paused.
class QuietMonitor : public SlaTcpSocketMonitor {
  public:
    void unpauseQuietly() {
        std::lock_guard<std::mutex> guard(lock_);
        paused = false;
    }
    size_t entries() const { return getSockets().size(); }
};

QuietMonitor* gMonitor = nullptr;
double gCpuNsPerIteration[2] = {0, 0};

double threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e9 + ts.tv_nsec;
}

sockaddr_in address(const char* ip, uint16_t port) {
    sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    inet_pton(AF_INET, ip, &sin.sin_addr);
    return sin;
}

int listenOn(const char* ip, uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in sin = address(ip, port);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0 ||
        listen(fd, 4096) != 0) {
        return -1;
    }
    return fd;
}

// `count` connections to ip:port made under file-system UID `uid`, then every pending connection
// accepted by `listener`; all descriptors go to *fds. False when any step fails.
bool connectMany(int listener, const char* ip, uint16_t port, int count, uid_t uid,
                 std::vector<int>* fds) {
    sockaddr_in sin = address(ip, port);
    for (int i = 0; i < count; i++) {
        setfsuid(uid);
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setfsuid(0);
        if (fd < 0) return false;
        fds->push_back(fd);
        if (connect(fd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0) return false;
    }
    int accepted = 0;
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; accepted++) {
        fds->push_back(fd);
    }
    return accepted == count;
}

void BM_Poll(benchmark::State& state) {
    double cpuNs = 0;
    for (auto _ : state) {
        const double start = threadCpuNs();
        gMonitor->poll();
        cpuNs += threadCpuNs() - start;
    }
    if (gMonitor->entries() != 1) state.SkipWithError("the game's connections were not seen");
    gCpuNsPerIteration[0] = cpuNs / static_cast<double>(state.iterations());
}

void BM_BareDump(benchmark::State& state) {
    int64_t sockets = 0;
    double cpuNs = 0;
    for (auto _ : state) {
        const double start = threadCpuNs();
        int ret;
        {
            android::net::SockDiag diag;
            ret = diag.open() ? diag.getLiveTcpInfos([&](const inet_diag_msg*,
                                                         const android::net::tcp_info_ext*,
                                                         uint32_t) { sockets++; })
                              : -EBADF;
        }
        cpuNs += threadCpuNs() - start;
        if (ret != 0) {
            state.SkipWithError("dump failed");
            break;
        }
    }
    state.counters["sockets"] =
            benchmark::Counter(static_cast<double>(sockets), benchmark::Counter::kAvgIterations);
    gCpuNsPerIteration[1] = cpuNs / static_cast<double>(state.iterations());
}

BENCHMARK(BM_Poll)->MinTime(2.0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareDump)->MinTime(2.0)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (getuid() != 0) {
        std::printf("SocketMonitorBench: skipped: needs root (private network namespace)\n");
        return 0;
    }
    rlimit nofile = {8192, 8192};
    if (setrlimit(RLIMIT_NOFILE, &nofile) != 0 || !mlbd::test::Netns::enterPrivate()) {
        std::printf("SocketMonitorBench: skipped: no private network namespace (%s)\n",
                    strerror(errno));
        return 0;
    }
    // Log lines are still formatted, but not written.
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
    setenv("MLBD_ROOT", "/dev/null/none", 1);
    Parameters* params = Parameters::instance();
    params->setGamingUids("10050");
    params->populateGamingUids();

    std::vector<int> fds;
    int others = listenOn("127.0.0.1", kOtherPort);
    int game = listenOn("127.0.0.2", kGamePort);
    if (others < 0 || game < 0 ||
        !connectMany(others, "127.0.0.1", kOtherPort, kOtherConnections, 0, &fds) ||
        !connectMany(game, "127.0.0.2", kGamePort, kGameConnections, kGameUid, &fds)) {
        std::printf("SocketMonitorBench: skipped: could not build the connections (%s)\n",
                    strerror(errno));
        return 0;
    }

    auto monitor = std::make_unique<QuietMonitor>();
    // Let the thread reach the wait it enters while paused.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    monitor->unpauseQuietly();
    gMonitor = monitor.get();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (gCpuNsPerIteration[0] > 0 && gCpuNsPerIteration[1] > 0) {
        std::printf(
                "poll(): %.1f us CPU, bare dump: %.1f us CPU, the dump's share of a poll: "
                "%.0f%%\n",
                gCpuNsPerIteration[0] / 1e3, gCpuNsPerIteration[1] / 1e3,
                100.0 * gCpuNsPerIteration[1] / gCpuNsPerIteration[0]);
    }
    gMonitor = nullptr;
    monitor.reset();
    for (int fd : fds) close(fd);
    close(others);
    close(game);
    return 0;
}
