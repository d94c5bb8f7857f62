#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/sock_diag.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "SockDiag.h"
#include "platform/Platform.h"
#include "wificond/net/NetlinkTestBytes.h"

using android::net::SockDiag;
using android::net::tcp_info_ext;
using namespace netlink_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

Bytes reply(uint32_t uid, const Bytes& attrs = {}, uint16_t type = SOCK_DIAG_BY_FAMILY) {
    inet_diag_msg m = {};
    m.idiag_family = AF_INET;
    m.idiag_uid = uid;
    return nlmsg(type, NLM_F_MULTI, raw(m) + attrs);
}

// A SockDiag reading its dumps from one end of a socketpair: the test plays the kernel.
class FakeSockDiag : public SockDiag {
  public:
    explicit FakeSockDiag(int fd) { mDumpSock = fd; }
};

TEST(SockDiagTest, TcpInfoDumpOnCraftedReplies) {
    mlbd::initLogging();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
    FakeSockDiag sd(sv[0]);
    tcp_info_ext info = {};
    info.tcpi_rtt = 777;
    // A socket without statistics, a wrong type, two INFO attributes (the later counts) around
    // another one, an attribute running past its message, 72 bytes of statistics (short of
    // tcpi_rtt's end), then an error that ends the dump.
    Bytes dump = reply(1) + reply(2, {}, 21) +
                 reply(3, attr(INET_DIAG_INFO, Bytes(8, 1)) + attr(5, Bytes(3, 1)) +
                                  attr(INET_DIAG_INFO, raw(info))) +
                 reply(4, Bytes{0xff, 0, INET_DIAG_INFO, 0}) +
                 reply(5, attr(INET_DIAG_INFO, Bytes(72, 0))) +
                 nlmsg(NLMSG_ERROR, 0, le(-ENOBUFS) + Bytes(16)) + reply(6);
    ASSERT_EQ(send(sv[1], dump.data(), dump.size(), 0), (ssize_t)dump.size());
    close(sv[1]);
    std::string seen;
    CaptureStderr();
    EXPECT_EQ(sd.readDiagMsgWithTcpInfo(
                      [&](const inet_diag_msg* m, const tcp_info_ext* i, uint32_t len) {
                          bool rtt = android::net::tcpInfoHasField(i, len, 68, 4);
                          seen += std::to_string(m->idiag_uid) + ":" + std::to_string(len) + ":" +
                                  (rtt ? std::to_string(i->tcpi_rtt) : "-") + " ";
                      }),
              -ENOBUFS);
    std::string log = GetCapturedStderr();
    EXPECT_EQ(seen, "1:0:- 3:232:777 4:0:- 5:72:- ");
    EXPECT_TRUE(contains(log,
                         "E Mlbd-SockDiag: expected nlmsg_type=SOCK_DIAG_BY_FAMILY, got "
                         "nlmsg_type=21"))
            << log;
}

// ---- Against the kernel, in a private network namespace ----

// One socket of a test UID: TCP connected to root's listener on `port`, TCP listening (no
// remote), or UDP; and whether the destroy filter counts it as loopback.
struct SocketSpec {
    int type;
    const char* local;
    const char* remote;
    uint16_t port;
    bool loopback;
};
const SocketSpec kAllKinds[] = {
        {SOCK_STREAM, "127.0.0.1", "127.0.0.1", 40001, true},
        {SOCK_STREAM, "192.0.2.1", "192.0.2.2", 40002, false},
        {SOCK_STREAM, "10.1.2.1", "10.1.2.1", 40003, true},  // source equals destination
        {SOCK_STREAM, "::1", "::1", 40004, true},
        {SOCK_STREAM, "2001:db8::1", "2001:db8::2", 40005, false},
        // Mapped addresses: the last octet of the mapped IPv4 address is what counts.
        {SOCK_STREAM, "::ffff:10.1.2.127", "::ffff:10.1.2.1", 40006, true},
        {SOCK_STREAM, "::ffff:127.0.0.1", "::ffff:10.1.2.1", 40006, false},
        {SOCK_STREAM, "127.0.0.1", nullptr, 0, true},
        {SOCK_STREAM, "192.0.2.1", nullptr, 0, false},
        {SOCK_DGRAM, "127.0.0.1", nullptr, 0, true},
        {SOCK_DGRAM, "2001:db8::1", nullptr, 0, false},
};
constexpr size_t kKinds = std::size(kAllKinds);

socklen_t address(const char* text, uint16_t port, sockaddr_storage* ss) {
    *ss = {};
    auto* sin6 = reinterpret_cast<sockaddr_in6*>(ss);
    auto* sin = reinterpret_cast<sockaddr_in*>(ss);
    sin->sin_port = htons(port);  // at the same place in both families
    bool v6 = inet_pton(AF_INET6, text, &sin6->sin6_addr) == 1;
    ss->ss_family = v6 ? AF_INET6 : AF_INET;
    if (!v6) inet_pton(AF_INET, text, &sin->sin_addr);
    return v6 ? sizeof(*sin6) : sizeof(*sin);
}

// A socket bound to local:port, then connected to remote:port, or listening when remote is
// null (TCP), or just bound (UDP). -errno on any failure.
int makeSocket(int type, const char* local, const char* remote, uint16_t port) {
    sockaddr_storage ss;
    socklen_t len = address(local, remote ? 0 : port, &ss);
    int fd = socket(ss.ss_family, type | SOCK_CLOEXEC, 0);
    bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&ss), len) == 0;
    if (ok && remote) {
        len = address(remote, port, &ss);
        ok = connect(fd, reinterpret_cast<sockaddr*>(&ss), len) == 0;
    } else if (ok && type == SOCK_STREAM) {
        ok = listen(fd, 64) == 0;
    }
    int error = errno;
    if (!ok) close(fd);
    return ok ? fd : -error;
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

class SockDiagKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "needs root: private network namespace and setfsuid";
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        // IPv6 addresses become routable a moment after they are added: wait for that.
        ASSERT_EQ(system("ip link set lo up && for a in 192.0.2.1 192.0.2.2 10.1.2.1 10.1.2.127; "
                         "do ip addr add $a/32 dev lo || exit 1; done && "
                         "ip -6 addr add 2001:db8::1/128 dev lo nodad && "
                         "ip -6 addr add 2001:db8::2/128 dev lo nodad && "
                         "for i in $(seq 200); do ip -6 route get ::1 >/dev/null 2>&1 && "
                         "ip -6 route get 2001:db8::2 from 2001:db8::1 >/dev/null 2>&1 && "
                         "ip -6 route get 2001:db8::1 from 2001:db8::2 >/dev/null 2>&1 && exit 0; "
                         "sleep 0.01; done; exit 1"),
                  0);
        // Root's listeners: the peers of the test UIDs' connections belong to root.
        fds.push_back(makeSocket(SOCK_STREAM, "::", nullptr, 40006));
        for (const SocketSpec& s : kAllKinds) {
            if (s.remote && s.port != 40006) {
                fds.push_back(makeSocket(SOCK_STREAM, s.remote, nullptr, s.port));
            }
        }
        ASSERT_EQ(errors(fds), std::vector<int>(fds.size(), 0)) << testing::PrintToString(fds);
        mlbd::initLogging();
    }
    void TearDown() override {
        for (int fd : fds) close(fd);
    }
    // One socket of every kind owned by `uid`: a socket belongs to its creator's filesystem UID,
    // as an application's sockets belong to the application's UID.
    std::vector<int> socketsOf(uid_t uid) {
        setfsuid(uid);
        std::vector<int> made;
        for (const SocketSpec& s : kAllKinds) {
            made.push_back(makeSocket(s.type, s.local, s.remote, s.port));
        }
        setfsuid(0);
        fds.insert(fds.end(), made.begin(), made.end());
        EXPECT_EQ(errors(made), std::vector<int>(kKinds, 0))
                << "UID " << uid << ", fds " << testing::PrintToString(made);
        return made;
    }
    std::vector<int> fds;
};

TEST_F(SockDiagKernelTest, ListsAndDestroysTheSocketsOfOneUid) {
    // A is destroyed without loopback, B is killed, C is left alone.
    const uid_t kA = 10001, kB = 10002, kC = 10003;
    std::vector<int> a = socketsOf(kA), b = socketsOf(kB), c = socketsOf(kC);
    const std::vector<int> alive(kKinds, 0);

    SockDiag sd;
    ASSERT_TRUE(sd.open());
    EXPECT_FALSE(sd.open());                       // already open: refused, both sockets kept
    std::map<std::pair<uint32_t, int>, int> live;  // (UID, family) -> connections
    EXPECT_EQ(sd.getLiveTcpInfos([&](const inet_diag_msg* m, const tcp_info_ext* i, uint32_t len) {
        live[{m->idiag_uid, m->idiag_family}]++;
        EXPECT_TRUE(m->idiag_state >= 1 && m->idiag_state <= 3);
        if (m->idiag_uid == 0) return;  // root's ends may still be half-open requests
        ASSERT_TRUE(android::net::tcpInfoHasField(i, len, 140, 4));
        EXPECT_EQ(i->tcpi_state, m->idiag_state);
        EXPECT_GT(i->tcpi_rtt, 0u);
        EXPECT_GT(i->tcpi_segs_out, 0u);
    }),
              0);
    // Listeners and UDP are not listed; the mapped connections are IPv6 sockets, and so are
    // root's ends of them (accepted or not).
    const std::map<std::pair<uint32_t, int>, int> expected = {
            {{kA, AF_INET}, 3}, {{kA, AF_INET6}, 4}, {{kB, AF_INET}, 3}, {{kB, AF_INET6}, 4},
            {{kC, AF_INET}, 3}, {{kC, AF_INET6}, 4}, {{0, AF_INET}, 9},  {{0, AF_INET6}, 12}};
    EXPECT_EQ(live, expected);
    // A dump the kernel refuses at once comes back as its error, and is consumed.
    iovec iov[1];
    EXPECT_LT(sd.sendDumpRequest(IPPROTO_TCP, 200, 0, 0xfff, iov, 1), 0);

    int tcp = sd.destroySockets(IPPROTO_TCP, kA, true);
    if (tcp == -EOPNOTSUPP) GTEST_SKIP() << "no CONFIG_INET_DIAG_DESTROY";
    EXPECT_EQ(tcp, 0);
    EXPECT_EQ(sd.destroySockets(IPPROTO_UDP, kA, true), 0);
    std::vector<int> destroyed;
    for (const SocketSpec& s : kAllKinds) destroyed.push_back(s.loopback ? 0 : ECONNABORTED);
    EXPECT_EQ(errors(a), destroyed);
    EXPECT_EQ(errors(b), alive);

    CaptureStderr();
    EXPECT_EQ(android::net::killSocketsForUID("10002"), 0);
    std::string log = GetCapturedStderr();
    // 7 connected and 2 listening TCP sockets, then 2 UDP sockets, loopback included.
    EXPECT_TRUE(contains(log, "I Mlbd-SockDiag: Destroyed 9 sockets for UID")) << log;
    EXPECT_TRUE(contains(log, "I Mlbd-SockDiag: Destroyed 2 sockets for UID")) << log;
    EXPECT_TRUE(contains(log, "E Mlbd-SockDiag:  SLA_GAMING destroying TCP sockets: 10002"));
    EXPECT_TRUE(contains(log, "E Mlbd-SockDiag:  SLA_GAMING destroying UDP sockets: 10002"));
    EXPECT_EQ(errors(b), std::vector<int>(kKinds, ECONNABORTED));
    EXPECT_EQ(errors(a), alive);  // A's loopback sockets live on (the others' errors were read)
    EXPECT_EQ(errors(c), alive);

    // A UID without sockets: both passes succeed quietly.
    CaptureStderr();
    EXPECT_EQ(android::net::killSocketsForUID("424242"), 0);
    EXPECT_FALSE(contains(GetCapturedStderr(), "Destroyed"));
    // Text that is not a UID (it would read as root's 0) resets nothing.
    for (const char* bad : {"", "abc", "1 2", "$(id)", "12345678901", "4294967296"}) {
        EXPECT_EQ(android::net::killSocketsForUID(bad), -EINVAL) << bad;
    }
    EXPECT_EQ(errors(c), alive);
}

}  // namespace
