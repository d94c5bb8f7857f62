// Private network namespaces for tests.
//
// A test that needs real networking (veth links, iptables, routes, TCP) moves its own process into
// a fresh network namespace, so nothing it does can reach the machine's own network, and builds
// a peer namespace that stands for "the network" behind the links:
//
//     if (!mlbd::test::Netns::enterPrivate(&why)) GTEST_SKIP() << why;
//     mlbd::test::Netns net;
//     ASSERT_TRUE(net.startPeer());
//     ASSERT_TRUE(net.addVeth("wlan0", "wlan0-net", "10.77.1.2/24", "10.77.1.1/24"));
//     ASSERT_EQ(0, net.runInPeer("ip addr add 10.99.0.1/32 dev lo"));
//     int server = net.socketInPeer(AF_INET, SOCK_STREAM);   // then bind and listen
//
// The peer namespace is held by a descriptor of the Netns object (peerPath() names it for tools,
// e.g. `ip link set X netns PATH` or `nsenter --net=PATH`); it goes when the object is destroyed
// and the last socket or process inside it is gone.
//
// Call these while the test process has a single thread. Needs root (CAP_NET_ADMIN and
// CAP_SYS_ADMIN) and the ip tool.
#pragma once

#include <unistd.h>

#include <string>

namespace mlbd {
namespace test {

class Netns {
  public:
    // Moves the calling process into a fresh network namespace with its loopback up. Returns
    // false with a reason (not root, no namespace support) when that is not possible; tests
    // skip then.
    static bool enterPrivate(std::string* why = nullptr);

    Netns() = default;
    ~Netns();
    Netns(const Netns&) = delete;
    Netns& operator=(const Netns&) = delete;

    // Creates the peer namespace (loopback up); the caller stays in its own. False on failure.
    bool startPeer();
    std::string peerPath() const {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(peer_);
    }

    // Creates the veth pair `local` (in the calling process's namespace) and `remote` (in the
    // peer), sets the addresses given in CIDR form (either may be empty) and brings both up.
    bool addVeth(const std::string& local, const std::string& remote, const std::string& localCidr,
                 const std::string& remoteCidr);

    // Runs a shell command line in the calling process's namespace, or in the peer; returns the
    // exit status (0 = success), or -1 when it could not be run or was killed.
    static int run(const std::string& command) { return runIn(-1, command); }
    int runInPeer(const std::string& command) { return peer_ >= 0 ? runIn(peer_, command) : -1; }

    // A socket(domain, type | SOCK_CLOEXEC, 0) of the peer's namespace, owned by the caller; -1
    // on failure.
    int socketInPeer(int domain, int type);

    // Waits for a child; its exit status, or -1 when it was killed or could not be waited for.
    static int waitChild(int pid);

  private:
    static int runIn(int nsFd, const std::string& command);
    int peer_ = -1;  // descriptor of the peer namespace
};

}  // namespace test
}  // namespace mlbd
