#include "util/Netns.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace mlbd {
namespace test {

// Runs `command` through /bin/sh, in the network namespace `nsFd` unless it is negative.
int Netns::runIn(int nsFd, const std::string& command) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (nsFd >= 0 && setns(nsFd, CLONE_NEWNET) != 0) _exit(126);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return waitChild(pid);
}

bool Netns::enterPrivate(std::string* why) {
    std::string reason;
    if (geteuid() != 0) {
        reason = "needs root (network namespaces, iptables, veth links)";
    } else if (unshare(CLONE_NEWNET) != 0) {
        reason = std::string("unshare(CLONE_NEWNET) failed: ") + strerror(errno);
    } else if (run("ip link set lo up") != 0) {
        reason = "cannot bring lo up with the ip tool";
    }
    if (why) *why = reason;
    return reason.empty();
}

Netns::~Netns() {
    if (peer_ >= 0) close(peer_);
}

bool Netns::startPeer() {
    const int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (peer_ < 0 && self >= 0 && unshare(CLONE_NEWNET) == 0) {
        peer_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        if (setns(self, CLONE_NEWNET) != 0) abort();  // never go on in the wrong namespace
    }
    close(self);
    return peer_ >= 0 && runInPeer("ip link set lo up") == 0;
}

bool Netns::addVeth(const std::string& local, const std::string& remote,
                    const std::string& localCidr, const std::string& remoteCidr) {
    std::string here = "ip link add " + local + " type veth peer name " + remote + " netns " +
                       peerPath() + " && ip link set " + local + " up";
    std::string there = "ip link set " + remote + " up";
    if (!localCidr.empty()) here += " && ip addr add " + localCidr + " dev " + local;
    if (!remoteCidr.empty()) there += " && ip addr add " + remoteCidr + " dev " + remote;
    return peer_ >= 0 && run(here) == 0 && runInPeer(there) == 0;
}

int Netns::socketInPeer(int domain, int type) {
    const int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int fd = -1;
    if (peer_ >= 0 && self >= 0 && setns(peer_, CLONE_NEWNET) == 0) {
        fd = socket(domain, type | SOCK_CLOEXEC, 0);
        if (setns(self, CLONE_NEWNET) != 0) abort();  // never go on in the wrong namespace
    }
    close(self);
    return fd;
}

int Netns::waitChild(int pid) {
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace test
}  // namespace mlbd
