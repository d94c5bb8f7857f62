#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/sock_diag.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <chrono>
#include <map>

#include "SockDiag.h"
#include "platform/Platform.h"
#include "support/NetlinkTestBytes.h"

using android::net::SockDiag;
using android::net::tcp_info_ext;
using namespace netlink_test;

namespace {

// A SockDiag reading its dumps from one end of a socketpair: the test plays the kernel.
struct FakeSockDiag : SockDiag {
    explicit FakeSockDiag(int fd) { mDumpSock = fd; }
};

// Statistics shorter than the structure (here short of tcpi_rtt's end) are handed over with their
// length; an attribute running past its message is no statistics; an error ends the dump.
TEST(SockDiagTest, TcpInfoDumpOnCraftedReplies) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
    FakeSockDiag sd(sv[0]);
    const Bytes msg = raw(inet_diag_msg{});
    const Bytes dump =
            nlmsg(SOCK_DIAG_BY_FAMILY, NLM_F_MULTI, msg + attr(INET_DIAG_INFO, Bytes(72))) +
            nlmsg(SOCK_DIAG_BY_FAMILY, NLM_F_MULTI, msg + Bytes{0xff, 0, INET_DIAG_INFO, 0}) +
            nlmsg(NLMSG_ERROR, 0, le(-ENOBUFS) + Bytes(16)) + nlmsg(SOCK_DIAG_BY_FAMILY, 0, msg);
    ASSERT_EQ(send(sv[1], dump.data(), dump.size(), 0), (ssize_t)dump.size());
    std::vector<uint32_t> lengths;
    EXPECT_EQ(sd.readDiagMsgWithTcpInfo([&](const inet_diag_msg*, const tcp_info_ext* i,
                                            uint32_t len) {
        EXPECT_FALSE(android::net::tcpInfoHasField(i, len, offsetof(tcp_info_ext, tcpi_rtt), 4));
        lengths.push_back(len);
    }),
              -ENOBUFS);
    EXPECT_EQ(lengths, (std::vector<uint32_t>{72, 0}));
    // A dump that never ends gives up after a second.
    const Bytes part = nlmsg(SOCK_DIAG_BY_FAMILY, NLM_F_MULTI, msg);
    ASSERT_EQ(send(sv[1], part.data(), part.size(), 0), (ssize_t)part.size());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sd.readDiagMsg(IPPROTO_TCP, nullptr), -ETIMEDOUT);
    const auto ms = (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(1);
    EXPECT_TRUE(ms >= 950 && ms < 1500) << ms;
    close(sv[1]);
}

// ---- Against the kernel, in a private network namespace ----

// One socket of a test UID: TCP connected to root's listener on `port`, TCP listening (no
// remote), or UDP; loopback ones included.
const struct SocketSpec {
    int type;
    const char *local, *remote;
    uint16_t port;
} kKinds[] = {
        {SOCK_STREAM, "127.0.0.1", "127.0.0.1", 40001},
        {SOCK_STREAM, "192.0.2.1", "192.0.2.2", 40002},
        {SOCK_STREAM, "::1", "::1", 40003},
        {SOCK_STREAM, "2001:db8::1", "2001:db8::2", 40004},
        {SOCK_STREAM, "192.0.2.1", nullptr, 0},
        {SOCK_DGRAM, "127.0.0.1", nullptr, 0},
        {SOCK_DGRAM, "2001:db8::1", nullptr, 0},
};

// A socket bound to local:port, then connected to remote:port, or listening when remote is
// null (TCP), or just bound (UDP). -1 on any failure.
int makeSocket(int type, const char* local, const char* remote, uint16_t port) {
    union {
        sockaddr_in6 v6;  // the largest first: `a = {}` clears it all
        sockaddr_in v4;
        sockaddr any;
    } a;
    auto address = [&a](const char* text, uint16_t p) {
        a = {};
        if (inet_pton(AF_INET6, text, &a.v6.sin6_addr) != 1)
            inet_pton(AF_INET, text, &a.v4.sin_addr);
        a.v6.sin6_family = strchr(text, ':') ? AF_INET6 : AF_INET;
        a.v6.sin6_port = htons(p);  // family and port lie at the same place in both
        return &a.any;
    };
    const socklen_t len = strchr(local, ':') ? sizeof(a.v6) : sizeof(a.v4);
    int fd = socket(address(local, remote ? 0 : port)->sa_family, type | SOCK_CLOEXEC, 0);
    bool ok = bind(fd, &a.any, len) == 0 && (remote ? connect(fd, address(remote, port), len) == 0
                                                    : type == SOCK_DGRAM || listen(fd, 64) == 0);
    if (!ok) close(fd);
    return ok ? fd : -1;
}

// The pending error of each socket (ECONNABORTED once the kernel destroyed it; -1: no socket).
std::vector<int> errors(const std::vector<int>& fds) {
    std::vector<int> out;
    for (int fd : fds) {
        int err = -1;
        socklen_t len = sizeof(err);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        out.push_back(err);
    }
    return out;
}

TEST(SockDiagKernelTest, ListsAndDestroysTheSocketsOfOneUid) {
    if (getuid() != 0) GTEST_SKIP() << "needs root: private network namespace and setfsuid";
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
    // IPv6 addresses become routable a moment after they are added: wait for that.
    ASSERT_EQ(system("ip link set lo up && ip addr add 192.0.2.1/32 dev lo && "
                     "ip addr add 192.0.2.2/32 dev lo && "
                     "ip -6 addr add 2001:db8::1/128 dev lo nodad && "
                     "ip -6 addr add 2001:db8::2/128 dev lo nodad && for i in $(seq 200); do "
                     "ip -6 route get 2001:db8::2 from 2001:db8::1 >/dev/null 2>&1 && exit 0; "
                     "sleep 0.01; done; exit 1"),
              0);
    mlbd::initLogging();
    // Root's listeners, then one socket of every kind for each of the UIDs A and B: a socket
    // belongs to its creator's filesystem UID, as an application's sockets to the application.
    const uid_t kA = 10001, kB = 10002;
    std::vector<int> listeners, a, b;
    for (const SocketSpec& s : kKinds) {
        if (s.remote) listeners.push_back(makeSocket(SOCK_STREAM, s.remote, nullptr, s.port));
    }
    for (auto [uid, fds] : {std::pair{kA, &a}, std::pair{kB, &b}}) {
        setfsuid(uid);
        for (const SocketSpec& s : kKinds)
            fds->push_back(makeSocket(s.type, s.local, s.remote, s.port));
        setfsuid(0);
    }
    const std::vector<int> alive(std::size(kKinds), 0);
    ASSERT_EQ(errors(a), alive);
    ASSERT_EQ(errors(b), alive);
    ASSERT_EQ(errors(listeners), std::vector<int>(4, 0));

    SockDiag sd;
    ASSERT_TRUE(sd.open());
    EXPECT_FALSE(sd.open());          // already open: refused, both sockets kept
    std::map<std::string, int> live;  // "<UID>/<family>" -> connections
    EXPECT_EQ(sd.getLiveTcpInfos([&](const inet_diag_msg* m, const tcp_info_ext* i, uint32_t len) {
        live[std::to_string(m->idiag_uid) + "/" + std::to_string(m->idiag_family)]++;
        EXPECT_TRUE(m->idiag_state >= 1 && m->idiag_state <= 3);
        if (m->idiag_uid == 0) return;  // root's ends may still be half-open requests
        ASSERT_TRUE(android::net::tcpInfoHasField(i, len, 140, 4));
        EXPECT_EQ(i->tcpi_state, m->idiag_state);
        EXPECT_GT(i->tcpi_rtt, 0u);
        EXPECT_GT(i->tcpi_segs_out, 0u);
    }),
              0);
    // Listeners and UDP are not listed; root's ends of the connections are.
    EXPECT_EQ(live, (std::map<std::string, int>{{"0/2", 4},
                                                {"0/10", 4},
                                                {"10001/2", 2},
                                                {"10001/10", 2},
                                                {"10002/2", 2},
                                                {"10002/10", 2}}));
    // A dump the kernel refuses at once comes back as its error, and is consumed.
    iovec iov[1];
    EXPECT_LT(sd.sendDumpRequest(IPPROTO_TCP, 200, 0, 0xfff, iov, 1), 0);

    // The reset of A: 4 connected and 1 listening TCP sockets, then 2 UDP sockets.
    testing::internal::CaptureStderr();
    const int killed = android::net::killSocketsForUID("10001");
    std::string log = testing::internal::GetCapturedStderr();
    if (killed == -EOPNOTSUPP) GTEST_SKIP() << "no CONFIG_INET_DIAG_DESTROY";
    EXPECT_EQ(killed, 0);
    EXPECT_TRUE(contains(log, "I Mlbd-SockDiag: Destroyed 5 sockets for UID\n")) << log;
    EXPECT_TRUE(contains(log, "I Mlbd-SockDiag: Destroyed 2 sockets for UID\n")) << log;
    EXPECT_EQ(errors(a), std::vector<int>(std::size(kKinds), ECONNABORTED));
    // Text that is not a UID (it would read as root's 0) resets nothing.
    for (const char* bad : {"", "abc", "1 2", "$(id)", "12345678901", "4294967296"}) {
        EXPECT_EQ(android::net::killSocketsForUID(bad), -EINVAL) << bad;
    }
    EXPECT_EQ(errors(b), alive);
    EXPECT_EQ(errors(listeners), std::vector<int>(4, 0));
    for (const auto* fds : {&listeners, &a, &b}) {
        for (int fd : *fds) close(fd);
    }
}

}  // namespace
