#include "util/EmulatedLinks.h"

#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>

#include "iptables/IptablesManager.h"
#include "platform/Platform.h"
#include "stats/LinkStats.h"
#include "util/Daemon.h"

namespace mlbd {
namespace test {
namespace {

constexpr int kStartTimeoutMs = 5000;
const std::string kTools = MLBD_BINARY_DIR "/tools/";

// Runs the shell command line `command` in a child that gets SIGTERM should the test process
// die. The shell execs the command, so the child's pid ends up being the tool's.
pid_t spawn(const std::string& command) {
    const std::string line = "exec " + command;
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(126);
        execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// Whether the child `*pid` is gone (or was never started); one that ended is reaped and
// forgotten (-1).
bool gone(pid_t* pid) {
    const pid_t r = *pid > 0 ? waitpid(*pid, nullptr, WNOHANG) : *pid;
    if (r == *pid || (r < 0 && errno != EINTR)) *pid = -1;
    return *pid < 0;
}

// SIGTERM, then SIGKILL when the child is still there two seconds later; reaped either way.
void terminate(pid_t* pid) {
    if (gone(pid)) return;
    kill(*pid, SIGTERM);
    if (waitFor([pid] { return gone(pid); }, 2000)) return;
    kill(*pid, SIGKILL);
    Netns::waitChild(*pid);
    *pid = -1;
}

}  // namespace

bool EmulatedLinks::start(Netns& net, int wlanDelayMs, int cellDelayMs, std::string* why,
                          const std::string& serverAddr, int port) {
    std::string tmplPath = mlbd::scratchDirectory() + "/mlbd-links.XXXXXX";
    char* tmpl = &tmplPath[0];
    if (emulator_ > 0 || mkdtemp(tmpl) == nullptr) {
        *why = emulator_ > 0 ? "already started" : "mkdtemp failed";
        return false;
    }
    dir_ = tmpl;
    // Answers come back on the link they left by, whichever route the main table prefers. Set
    // before the links exist, as they take the default.
    Netns::run("sysctl -qw net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0");
    const std::string out = dir_ + "/emulator.out";
    emulator_ = spawn(
            kTools + "link-emulator run --peer-netns " + net.peerPath() + " --control " + dir_ +
            "/control.sock --link wlan0:wlan0-net:delay=" + std::to_string(wlanDelayMs) +
            "ms --link rmnet_data0:rmnet0-net:delay=" + std::to_string(cellDelayMs) + "ms >" + out);
    auto ready = [&] { return slurp(out).find("link-emulator ready\n") != std::string::npos; };
    if (!waitFor([&] { return ready() || gone(&emulator_); }, kStartTimeoutMs) || !ready()) {
        *why = "link-emulator did not start (see its messages above)";
        return false;
    }
    // Both families on both links; the IPv6 addresses skip duplicate detection so that they
    // serve at once.
    if (Netns::run("ip addr add 10.77.1.2 peer 10.77.1.1 dev wlan0 && "
                   "ip addr add 10.77.2.2 peer 10.77.2.1 dev rmnet_data0 && "
                   "ip route add default dev wlan0 metric 10 && "
                   "ip route add default dev rmnet_data0 metric 20 && "
                   "ip addr add fd00:1::2 peer fd00:1::1 dev wlan0 nodad && "
                   "ip addr add fd00:2::2 peer fd00:2::1 dev rmnet_data0 nodad && "
                   "ip -6 route add default dev wlan0 metric 10 && "
                   "ip -6 route add default dev rmnet_data0 metric 20") != 0 ||
        net.runInPeer("ip addr add 10.77.1.1 peer 10.77.1.2 dev wlan0-net && "
                      "ip addr add 10.77.2.1 peer 10.77.2.2 dev rmnet0-net && "
                      "ip addr add fd00:1::1 peer fd00:1::2 dev wlan0-net nodad && "
                      "ip addr add fd00:2::1 peer fd00:2::2 dev rmnet0-net nodad && "
                      "ip addr add fd99::1 dev lo && ip addr add " +
                      serverAddr + " dev lo") != 0) {
        *why = "cannot configure the emulated links";
        return false;
    }

    // On every address of the peer, of both families: serverAddr, the IPv6 server fd99::1, ...
    responder_ = spawn("nsenter --net=" + net.peerPath() + " " + kTools +
                       "rtt-responder --address :: --port " + std::to_string(port));
    // Serving once a connection made inside the peer succeeds.
    sockaddr_in sa = {AF_INET, htons(static_cast<uint16_t>(port)), {}, {}};
    auto serving = [&] {
        const int fd = net.socketInPeer(AF_INET, SOCK_STREAM);
        const bool up = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
        if (fd >= 0) close(fd);
        return up;
    };
    if (inet_pton(AF_INET, serverAddr.c_str(), &sa.sin_addr) == 1 &&
        waitFor([&] { return serving() || gone(&responder_); }, kStartTimeoutMs) && responder_ > 0)
        return true;
    *why = "rtt-responder is not serving " + serverAddr + ":" + std::to_string(port);
    return false;
}

bool EmulatedLinks::set(const std::string& link, const std::string& settings) {
    return emulator_ > 0 && Netns::run(kTools + "link-emulator set " + link + " " + settings +
                                       " --control " + dir_ + "/control.sock >/dev/null") == 0;
}

void EmulatedLinks::stop() {
    terminate(&responder_);
    terminate(&emulator_);
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
    dir_.clear();
}

int setLinkRatios(IptablesManager* rules, float wlan, float cell) {
    linkStatsWrapper_t w, c;
    snprintf(w.interfaceName, sizeof(w.interfaceName), "wlan0");
    snprintf(c.interfaceName, sizeof(c.interfaceName), "rmnet_data0");
    w.interfaceRatio = wlan;
    c.interfaceRatio = cell;
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{"wlan0", &w}, {"rmnet_data0", &c}};
    return rules->set_SLA_ratio_iptables(wrappers);
}

}  // namespace test
}  // namespace mlbd
