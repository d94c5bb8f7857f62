#include "util/EmulatedLinks.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

namespace mlbd {
namespace test {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(5);

// Forks and execs argv[0], its stdout going to `out` (unless negative), inside the network
// namespace at `netns` (unless empty). The child gets SIGTERM should the test process die.
pid_t spawn(const std::vector<std::string>& args, int out, const std::string& netns) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(126);
        if (out >= 0 && dup2(out, STDOUT_FILENO) < 0) _exit(126);
        if (!netns.empty()) {
            const int fd = open(netns.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) _exit(126);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// Waits for the line "link-emulator ready" on `fd`.
bool waitReady(int fd) {
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    std::string seen;
    char buf[256];
    while (seen.find("link-emulator ready\n") == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        struct pollfd pfd = {fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&pfd, 1, static_cast<int>(left.count())) <= 0) return false;
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) return false;  // the emulator gave up
        seen.append(buf, static_cast<size_t>(n));
    }
    return true;
}

void terminate(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    for (int i = 0; i < 200; ++i) {
        const pid_t r = waitpid(pid, nullptr, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR)) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

bool EmulatedLinks::start(Netns& net, int wlanDelayMs, int cellDelayMs, std::string* why,
                          const std::string& serverAddr, int port) {
    char tmpl[] = "/tmp/mlbd-links.XXXXXX";
    if (emulator_ > 0 || mkdtemp(tmpl) == nullptr) {
        *why = emulator_ > 0 ? "already started" : "mkdtemp failed";
        return false;
    }
    dir_ = tmpl;
    // Answers come back on the link they left by, whichever route the main table prefers.
    Netns::run("sysctl -qw net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0");

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        *why = "pipe2 failed";
        return false;
    }
    emulator_ = spawn({MLBD_BINARY_DIR "/tools/link-emulator", "run", "--peer-netns",
                       net.peerPath(), "--control", dir_ + "/control.sock", "--link",
                       "wlan0:wlan0-net:delay=" + std::to_string(wlanDelayMs) + "ms", "--link",
                       "rmnet_data0:rmnet0-net:delay=" + std::to_string(cellDelayMs) + "ms"},
                      pipeFds[1], "");
    close(pipeFds[1]);
    const bool ready = emulator_ > 0 && waitReady(pipeFds[0]);
    close(pipeFds[0]);
    if (!ready) {
        *why = "link-emulator did not start (see its messages above)";
        return false;
    }
    if (Netns::run("ip addr add 10.77.1.2 peer 10.77.1.1 dev wlan0 && "
                   "ip addr add 10.77.2.2 peer 10.77.2.1 dev rmnet_data0 && "
                   "ip route add default dev wlan0 metric 10 && "
                   "ip route add default dev rmnet_data0 metric 20") != 0 ||
        net.runInPeer("ip addr add 10.77.1.1 peer 10.77.1.2 dev wlan0-net && "
                      "ip addr add 10.77.2.1 peer 10.77.2.2 dev rmnet0-net && ip addr add " +
                      serverAddr + " dev lo") != 0) {
        *why = "cannot configure the emulated links";
        return false;
    }

    responder_ = spawn({MLBD_BINARY_DIR "/tools/rtt-responder", "--address", serverAddr, "--port",
                        std::to_string(port)},
                       -1, net.peerPath());
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (responder_ <= 0 || inet_pton(AF_INET, serverAddr.c_str(), &sa.sin_addr) != 1) {
        *why = "cannot start rtt-responder on " + serverAddr;
        return false;
    }
    // Serving once a connection made inside the peer succeeds.
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    for (;;) {
        const int fd = net.socketInPeer(AF_INET, SOCK_STREAM);
        const bool up = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
        if (fd >= 0) close(fd);
        if (up) return true;
        const bool gone = waitpid(responder_, nullptr, WNOHANG) != 0;
        if (gone || std::chrono::steady_clock::now() > deadline) {
            if (gone) responder_ = -1;  // reaped already
            *why = "rtt-responder is not serving " + serverAddr + ":" + std::to_string(port);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool EmulatedLinks::set(const std::string& link, const std::string& settings) {
    return emulator_ > 0 &&
           Netns::run(MLBD_BINARY_DIR "/tools/link-emulator set " + link + " " + settings +
                      " --control " + dir_ + "/control.sock >/dev/null") == 0;
}

void EmulatedLinks::stop() {
    terminate(responder_);
    terminate(emulator_);
    responder_ = emulator_ = -1;
    if (!dir_.empty()) {
        unlink((dir_ + "/control.sock").c_str());  // left behind only by a killed emulator
        rmdir(dir_.c_str());
        dir_.clear();
    }
}

}  // namespace test
}  // namespace mlbd
