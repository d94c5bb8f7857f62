#include "util/Netns.h"

#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace mlbd {
namespace test {
namespace {

bool bringLoopbackUp() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags |= IFF_UP;
        ok = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(fd);
    return ok;
}

int statusOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return -1;
}

}  // namespace

bool Netns::enterPrivate(std::string* why) {
    if (geteuid() != 0) {
        if (why) *why = "needs root (network namespaces, iptables, veth links)";
        return false;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        if (why) *why = std::string("unshare(CLONE_NEWNET) failed: ") + strerror(errno);
        return false;
    }
    if (!bringLoopbackUp()) {
        if (why) *why = std::string("cannot bring lo up: ") + strerror(errno);
        return false;
    }
    return true;
}

Netns::~Netns() {
    if (peer_ > 0) {
        kill(peer_, SIGKILL);
        waitpid(peer_, nullptr, 0);
    }
    if (peerHold_ >= 0) close(peerHold_);
}

bool Netns::startPeer() {
    if (peer_ > 0) return true;
    int hold[2];
    int ready[2];
    if (pipe2(hold, O_CLOEXEC) != 0) return false;
    if (pipe2(ready, O_CLOEXEC) != 0) {
        close(hold[0]);
        close(hold[1]);
        return false;
    }
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(hold[1]);
        close(ready[0]);
        char ok = (getppid() == parent && unshare(CLONE_NEWNET) == 0 && bringLoopbackUp()) ? 1 : 0;
        (void)!write(ready[1], &ok, 1);
        close(ready[1]);
        if (!ok) _exit(1);
        // Waits until the test process closes its end or dies.
        char c;
        while (read(hold[0], &c, 1) < 0 && errno == EINTR) {
        }
        _exit(0);
    }
    close(hold[0]);
    close(ready[1]);
    char ok = 0;
    ssize_t got;
    do {
        got = pid > 0 ? read(ready[0], &ok, 1) : 0;
    } while (got < 0 && errno == EINTR);
    close(ready[0]);
    if (pid < 0 || got != 1 || !ok) {
        close(hold[1]);
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        return false;
    }
    peer_ = pid;
    peerHold_ = hold[1];
    return true;
}

bool Netns::addVeth(const std::string& local, const std::string& remote,
                    const std::string& localCidr, const std::string& remoteCidr) {
    if (peer_ <= 0) return false;
    const std::string pid = std::to_string(peer_);
    if (run("ip link add " + local + " type veth peer name " + remote) != 0) return false;
    if (run("ip link set " + remote + " netns " + pid) != 0) return false;
    if (!localCidr.empty() && run("ip addr add " + localCidr + " dev " + local) != 0) return false;
    if (!remoteCidr.empty() && runInPeer("ip addr add " + remoteCidr + " dev " + remote) != 0) {
        return false;
    }
    return run("ip link set " + local + " up") == 0 &&
           runInPeer("ip link set " + remote + " up") == 0;
}

int Netns::run(const std::string& command) {
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return waitChild(pid);
}

int Netns::runInPeer(const std::string& command) {
    return callInPeer([&command] { return run(command); });
}

pid_t Netns::startInPeer(const std::function<int()>& fn) {
    if (peer_ <= 0) return -1;
    const std::string nsPath = "/proc/" + std::to_string(peer_) + "/ns/net";
    int nsFd = open(nsPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (nsFd < 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (setns(nsFd, CLONE_NEWNET) != 0) _exit(126);
        close(nsFd);
        _exit(fn() & 0xff);
    }
    close(nsFd);
    return pid;
}

int Netns::waitChild(pid_t pid) {
    if (pid <= 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return statusOf(status);
}

}  // namespace test
}  // namespace mlbd
