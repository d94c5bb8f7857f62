/*
 * Private network namespaces for tests.
 *
 * A test that needs real networking (veth links, iptables, routes, TCP) moves its own process into
 * a fresh network namespace, so nothing it does can reach the machine's own network, and builds
 * a peer namespace that stands for "the network" behind the links:
 *
 *     if (!mlbd::test::Netns::enterPrivate(&why)) GTEST_SKIP() << why;
 *     mlbd::test::Netns net;
 *     ASSERT_TRUE(net.startPeer());
 *     ASSERT_TRUE(net.addVeth("wlan0", "wlan0-net", "10.77.1.2/24", "10.77.1.1/24"));
 *     ASSERT_EQ(0, net.runInPeer("ip addr add 10.99.0.1/32 dev lo"));
 *     pid_t server = net.startInPeer([] { return serve(); });   // a function inside the peer
 *
 * The peer is a forked child that unshares CLONE_NEWNET and waits; its pid (peerPid()) works with
 * `nsenter -t PID -n` and `ip link set X netns PID`. It ends when the Netns object is destroyed,
 * and also on its own when the test process dies (it watches a pipe held by the test process).
 *
 * Call enterPrivate() and startPeer() while the test process has a single thread. Needs root
 * (CAP_NET_ADMIN and CAP_SYS_ADMIN).
 */
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace mlbd {
namespace test {

class Netns {
  public:
    // Moves the calling process into a fresh network namespace and brings its loopback up.
    // Returns false with a reason (not root, no namespace support) when that is not possible;
    // tests skip then.
    static bool enterPrivate(std::string* why = nullptr);

    Netns() = default;
    // Ends the peer. Children of startInPeer() are the caller's to end and wait for; they are
    // killed anyway when the test process dies.
    ~Netns();
    Netns(const Netns&) = delete;
    Netns& operator=(const Netns&) = delete;

    // Creates the peer namespace (loopback up). False on failure.
    bool startPeer();
    pid_t peerPid() const { return peer_; }

    // Creates the veth pair `local` (in the calling process's namespace) and `remote` (moved into
    // the peer), sets the addresses given in CIDR form (either may be empty) and brings both up.
    bool addVeth(const std::string& local, const std::string& remote, const std::string& localCidr,
                 const std::string& remoteCidr);

    // Runs a shell command line in the calling process's namespace, or in the peer; returns the
    // exit status (0 = success), or -1 when it could not be run or was killed.
    static int run(const std::string& command);
    int runInPeer(const std::string& command);

    // Forks a child that enters the peer namespace and returns fn()'s result as its exit status.
    // startInPeer returns the child's pid (or -1); waitChild returns its exit status, or -1 when
    // it was killed or could not be waited for. callInPeer does both.
    pid_t startInPeer(const std::function<int()>& fn);
    static int waitChild(pid_t pid);
    int callInPeer(const std::function<int()>& fn) { return waitChild(startInPeer(fn)); }

  private:
    pid_t peer_ = -1;
    int peerHold_ = -1;  // write end of the pipe the peer waits on
};

}  // namespace test
}  // namespace mlbd
