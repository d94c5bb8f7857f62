#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sock_diag.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "SockDiag.h"
#include "platform/Platform.h"

using android::net::SockDiag;
using android::net::tcp_info_ext;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using Bytes = std::vector<uint8_t>;

bool contains(const std::string& log, const char* text) {
    return log.find(text) != std::string::npos;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

template <typename T>
Bytes raw(const T& value) {
    auto p = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(p, p + sizeof(value));
}

Bytes nlmsg(uint16_t type, const Bytes& payload) {
    nlmsghdr h = {static_cast<uint32_t>(NLMSG_LENGTH(payload.size())), type, NLM_F_MULTI, 0, 0};
    Bytes out = raw(h) + payload;
    out.resize(NLMSG_ALIGN(out.size()), 0);
    return out;
}

Bytes attr(uint16_t type, const Bytes& payload) {
    nlattr a = {static_cast<uint16_t>(NLA_HDRLEN + payload.size()), type};
    Bytes out = raw(a) + payload;
    out.resize(NLA_ALIGN(out.size()), 0);
    return out;
}

inet_diag_msg diag(uint8_t family, uint8_t state, uint32_t uid) {
    inet_diag_msg m = {};
    m.idiag_family = family;
    m.idiag_state = state;
    m.idiag_uid = uid;
    m.id = {htons(1000), htons(443), {htonl(0x0a000001), 2, 3, 4}, {5, 6, 7, 8}, 3, {uid, 9}};
    return m;
}

Bytes reply(uint32_t uid, const Bytes& attrs = {}, uint16_t type = SOCK_DIAG_BY_FAMILY) {
    return nlmsg(type, raw(diag(AF_INET, 1, uid)) + attrs);
}

Bytes done() {
    return nlmsg(NLMSG_DONE, Bytes(4, 0));
}

Bytes error(int32_t err) {
    nlmsgerr e = {};
    e.error = err;
    return nlmsg(NLMSG_ERROR, raw(e));
}

// The 72-byte request the kernel should receive.
Bytes request(uint16_t type, uint16_t flags, uint8_t family, uint8_t proto, uint32_t states,
              const inet_diag_sockid& id) {
    inet_diag_req_v2 req = {family, proto, 0, 0, states, id};
    return raw(nlmsghdr{72, type, flags, 0, 0}) + raw(req);
}

// A SockDiag on two socketpairs: the test plays the kernel at the peers.
class FakeSockDiag : public SockDiag {
  public:
    FakeSockDiag() {
        int dump[2], destroy[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, dump), 0);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, destroy), 0);
        mDumpSock = dump[0], dumpPeer = dump[1];
        mDestroySock = destroy[0], destroyPeer = destroy[1];
    }
    ~FakeSockDiag() override { close(dumpPeer), close(destroyPeer); }
    static void send(int peer, const Bytes& datagram) {
        ASSERT_EQ(::send(peer, datagram.data(), datagram.size(), 0), (ssize_t)datagram.size());
    }
    // What the code under test wrote, one entry per datagram.
    static std::vector<Bytes> received(int peer) {
        std::vector<Bytes> out;
        uint8_t buf[512];
        for (ssize_t n; (n = recv(peer, buf, sizeof(buf), MSG_DONTWAIT)) > 0;) {
            out.emplace_back(buf, buf + n);
        }
        return out;
    }
    int dumpPeer, destroyPeer;
    using SockDiag::mDestroyedCount;
};

TEST(SockDiagTest, TcpInfoDumpWalksMessagesAndAttributes) {
    mlbd::initLogging();
    FakeSockDiag sd;
    tcp_info_ext info = {};
    info.tcpi_rtt = 777;
    Bytes oversized = reply(6);
    oversized[1] = 0x27;  // nlmsg_len far beyond the datagram
    // A socket without statistics, a wrong type, two INFO attributes (the later counts) around
    // another one, an attribute running past its message; a header-only message, a message
    // running past the read; one more socket, the end, and a message after the end.
    FakeSockDiag::send(sd.dumpPeer,
                       reply(1) + reply(2, {}, 21) +
                               reply(3, attr(INET_DIAG_INFO, Bytes(8, 1)) + attr(5, Bytes(3, 1)) +
                                                attr(INET_DIAG_INFO, raw(info))) +
                               reply(4, Bytes{0xff, 0, INET_DIAG_INFO, 0}));
    FakeSockDiag::send(sd.dumpPeer, nlmsg(SOCK_DIAG_BY_FAMILY, {}) + oversized);
    FakeSockDiag::send(sd.dumpPeer, reply(5) + done() + reply(99));
    std::string seen;
    auto record = [&](const inet_diag_msg* m, const tcp_info_ext* i, uint32_t len) {
        seen += std::to_string(m->idiag_uid) + ":" + std::to_string(len) + ":" +
                (android::net::tcpInfoHasField(i, len, 68, 4) ? std::to_string(i->tcpi_rtt) : "-") +
                " ";
    };
    CaptureStderr();
    EXPECT_EQ(sd.readDiagMsgWithTcpInfo(record), 0);
    std::string log = GetCapturedStderr();
    EXPECT_EQ(seen, "1:0:- 3:232:777 4:0:- 5:0:- ");
    EXPECT_TRUE(contains(log,
                         "E Mlbd-SockDiag: expected nlmsg_type=SOCK_DIAG_BY_FAMILY, got "
                         "nlmsg_type=21"))
            << log;

    // An error ends the dump with its code; 72 bytes of statistics do not reach tcpi_rtt's end.
    FakeSockDiag::send(sd.dumpPeer,
                       reply(7, attr(INET_DIAG_INFO, Bytes(72, 0))) + error(-ENOBUFS) + reply(8));
    seen.clear();
    EXPECT_EQ(sd.readDiagMsgWithTcpInfo(record), -ENOBUFS);
    EXPECT_EQ(seen, "7:72:- ");
    // A read of nothing (the peer went away) ends a dump as a success.
    close(sd.dumpPeer);
    sd.dumpPeer = -1;
    EXPECT_EQ(sd.readDiagMsgWithTcpInfo(record), 0);
}

TEST(SockDiagTest, DestroyRequestsCopyTheSocketAndCountOnlyAccepted) {
    FakeSockDiag sd;
    inet_diag_msg a = diag(AF_INET6, 1, 7), b = diag(AF_INET, 8, 7), c = diag(AF_INET, 10, 7);
    c.id.idiag_cookie[1] = 12;
    FakeSockDiag::send(sd.dumpPeer, nlmsg(20, raw(a)) + reply(8) + nlmsg(20, raw(b)));
    FakeSockDiag::send(sd.dumpPeer, nlmsg(20, raw(c)) + done());
    FakeSockDiag::send(sd.destroyPeer, error(-EPERM));  // the kernel refuses the first destroy
    int calls = 0;
    EXPECT_EQ(sd.readDiagMsg(IPPROTO_UDP,
                             [&](uint8_t proto, const inet_diag_msg* m) {
                                 calls++;
                                 return proto == IPPROTO_UDP && m->idiag_uid == 7;
                             }),
              0);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(sd.mDestroyedCount, 2);
    std::vector<Bytes> expected;
    for (const inet_diag_msg* m : {&a, &b, &c}) {
        expected.push_back(request(SOCK_DESTROY, NLM_F_REQUEST, m->idiag_family, IPPROTO_UDP,
                                   1u << m->idiag_state, m->id));
    }
    EXPECT_EQ(FakeSockDiag::received(sd.destroyPeer), expected);
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, nullptr), 0);
    EXPECT_TRUE(FakeSockDiag::received(sd.destroyPeer).empty());
}

TEST(SockDiagTest, FailedDumpsStopTheRun) {
    mlbd::initLogging();
    FakeSockDiag sd;
    FakeSockDiag::send(sd.dumpPeer, error(-EPROTONOSUPPORT));
    CaptureStderr();
    EXPECT_EQ(sd.destroySockets(IPPROTO_UDP, 10, false), -EPROTONOSUPPORT);
    std::string log = GetCapturedStderr();
    EXPECT_TRUE(contains(log, "Failed to dump IPv4 sockets for UID: Protocol not supported"));
    const std::vector<Bytes> ipv4Only = {request(SOCK_DIAG_BY_FAMILY, NLM_F_REQUEST | NLM_F_DUMP,
                                                 AF_INET, IPPROTO_UDP, 0xfff, {})};
    EXPECT_EQ(FakeSockDiag::received(sd.dumpPeer), ipv4Only);

    // The IPv4 dump ends at once, then an error ends the IPv6 dump.
    FakeSockDiag sd2;
    FakeSockDiag::send(sd2.dumpPeer, done());
    FakeSockDiag::send(sd2.dumpPeer, reply(3) + error(-EIO));
    CaptureStderr();
    EXPECT_EQ(sd2.destroySockets(IPPROTO_TCP, 3, false), -EIO);
    log = GetCapturedStderr();
    EXPECT_TRUE(contains(log, "Failed to destroy IPv6 sockets for UID: Input/output error"));
    EXPECT_FALSE(contains(log, "Destroyed"));
    EXPECT_EQ(FakeSockDiag::received(sd2.dumpPeer).size(), 2u);
}

TEST(SockDiagTest, LoopbackClassification) {
    auto loopback = [](const char* src, const char* dst) {
        inet_diag_msg m = {};
        m.idiag_family = strchr(src, ':') ? AF_INET6 : AF_INET;
        inet_pton(m.idiag_family, src, m.id.idiag_src);
        inet_pton(m.idiag_family, dst, m.id.idiag_dst);
        return SockDiag::isLoopbackSocket(&m);
    };
    // Cases beyond the sockets of the kernel tests below.
    EXPECT_TRUE(loopback("10.0.0.1", "127.1.2.3"));
    EXPECT_TRUE(loopback("10.0.0.1", "10.0.0.1"));
    EXPECT_FALSE(loopback("10.0.0.127", "1.0.0.127"));
    EXPECT_TRUE(loopback("::ffff:10.1.2.1", "::ffff:10.0.0.127"));  // the last octet counts
    EXPECT_FALSE(loopback("::fffe:10.1.2.127", "::ffff:10.1.2.1"));
    EXPECT_TRUE(loopback("2001:db8::1", "::1"));
    EXPECT_TRUE(loopback("2001:db8::7", "2001:db8::7"));
    inet_diag_msg local = {};
    local.idiag_family = AF_UNIX;
    EXPECT_FALSE(SockDiag::isLoopbackSocket(&local));
    EXPECT_FALSE(SockDiag::isLoopbackSocket(nullptr));
}

// ---- Against the kernel, in a private network namespace ----

// One socket of a test UID: TCP connected to root's listener on `port`, TCP listening (port 0),
// or UDP; and whether the destroy filter counts it as loopback.
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
        {SOCK_STREAM, "::1", "::1", 40003, true},
        {SOCK_STREAM, "2001:db8::1", "2001:db8::2", 40004, false},
        {SOCK_STREAM, "::ffff:10.1.2.127", "::ffff:10.1.2.1", 40005, true},
        {SOCK_STREAM, "::ffff:127.0.0.1", "::ffff:10.1.2.1", 40005, false},
        {SOCK_STREAM, "127.0.0.1", nullptr, 0, true},
        {SOCK_STREAM, "192.0.2.1", nullptr, 0, false},
        {SOCK_DGRAM, "127.0.0.1", nullptr, 0, true},
        {SOCK_DGRAM, "2001:db8::1", nullptr, 0, false},
};
constexpr size_t kKinds = sizeof(kAllKinds) / sizeof(kAllKinds[0]);

socklen_t address(const char* text, uint16_t port, sockaddr_storage* ss) {
    *ss = {};
    auto* sin6 = reinterpret_cast<sockaddr_in6*>(ss);
    auto* sin = reinterpret_cast<sockaddr_in*>(ss);
    if (inet_pton(AF_INET6, text, &sin6->sin6_addr) == 1) {
        sin6->sin6_family = AF_INET6, sin6->sin6_port = htons(port);
        return sizeof(*sin6);
    }
    inet_pton(AF_INET, text, &sin->sin_addr);
    sin->sin_family = AF_INET, sin->sin_port = htons(port);
    return sizeof(*sin);
}

// A socket bound to local:port, then connected to remote:port, or listening when remote is
// null (TCP), or just bound (UDP). -1 on any failure.
int makeSocket(int type, const char* local, const char* remote, uint16_t port) {
    sockaddr_storage ss;
    socklen_t len = address(local, remote ? 0 : port, &ss);
    int fd = socket(ss.ss_family, type | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&ss), len) == 0;
    if (ok && remote) {
        len = address(remote, port, &ss);
        ok = connect(fd, reinterpret_cast<sockaddr*>(&ss), len) == 0;
    } else if (ok && type == SOCK_STREAM) {
        ok = listen(fd, 64) == 0;
    }
    if (!ok) close(fd);
    return ok ? fd : -1;
}

// A forked child that drops to `uid`, makes one socket of every kind and, on each request,
// reports their pending errors (ECONNABORTED once the kernel destroyed them).
class UidSockets {
  public:
    explicit UidSockets(uid_t uid) {
        int down[2], up[2];
        EXPECT_EQ(pipe(down) | pipe(up), 0);
        if ((pid_ = fork()) == 0) {
            for (int fd = 3; fd < 1024; fd++) {
                if (fd != down[0] && fd != up[1]) close(fd);
            }
            std::vector<int> fds;
            if (setgid(uid) == 0 && setuid(uid) == 0) {
                for (const SocketSpec& s : kAllKinds) {
                    fds.push_back(makeSocket(s.type, s.local, s.remote, s.port));
                }
            }
            for (char cmd; read(down[0], &cmd, 1) == 1;) {
                std::vector<int> errors;
                for (int fd : fds) {
                    int err = -1;
                    socklen_t len = sizeof(err);
                    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
                    errors.push_back(err);
                }
                if (write(up[1], errors.data(), sizeof(int) * kKinds) < 0) break;
            }
            _exit(0);
        }
        close(down[0]), close(up[1]);
        to_ = down[1], from_ = up[0];
    }
    ~UidSockets() {
        close(to_), close(from_);
        waitpid(pid_, nullptr, 0);
    }
    // The pending error of each socket of kAllKinds (-1: the socket could not be made).
    std::vector<int> errors() {
        std::vector<int> out(kKinds, -2);
        EXPECT_EQ(write(to_, "c", 1), 1);
        EXPECT_EQ(read(from_, out.data(), sizeof(int) * kKinds), (ssize_t)(sizeof(int) * kKinds));
        return out;
    }

  private:
    pid_t pid_;
    int to_, from_;
};

constexpr uid_t kUidA = 10001;

class SockDiagKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "needs root: private network namespace and setuid";
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        ASSERT_EQ(system("ip link set lo up && for a in 192.0.2.1 192.0.2.2 10.1.2.1 10.1.2.127; "
                         "do ip addr add $a/32 dev lo || exit 1; done && "
                         "ip -6 addr add 2001:db8::1/128 dev lo nodad && "
                         "ip -6 addr add 2001:db8::2/128 dev lo nodad"),
                  0);
        // Root's listeners: the peers of the test UIDs' connections belong to root.
        for (const SocketSpec& s : kAllKinds) {
            if (s.remote == nullptr || s.port == 40005) continue;
            listeners.push_back(makeSocket(SOCK_STREAM, s.remote, nullptr, s.port));
        }
        listeners.push_back(makeSocket(SOCK_STREAM, "::", nullptr, 40005));
        for (int fd : listeners) ASSERT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);
        mlbd::initLogging();
    }
    void TearDown() override {
        for (int fd : listeners) close(fd);
        for (int fd : peers) close(fd);
    }
    // Accepts every pending connection; returns the pending error of each accepted socket.
    std::vector<int> peerErrors() {
        for (int l : listeners) {
            for (int fd; (fd = accept4(l, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) {
                peers.push_back(fd);
            }
        }
        std::vector<int> out;
        for (int fd : peers) {
            int err = 0;
            socklen_t len = sizeof(err);
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            out.push_back(err);
        }
        return out;
    }
    std::vector<int> listeners, peers;
};

TEST_F(SockDiagKernelTest, KillSocketsForUidDestroysExactlyThatUid) {
    UidSockets a(kUidA), b(kUidA + 1);
    ASSERT_EQ(a.errors(), std::vector<int>(kKinds, 0));
    ASSERT_EQ(b.errors(), std::vector<int>(kKinds, 0));
    ASSERT_EQ(peerErrors().size(), 12u);

    CaptureStderr();
    int ret = android::net::killSocketsForUID("10001");
    std::string log = GetCapturedStderr();
    if (contains(log, "Operation not supported")) GTEST_SKIP() << "no CONFIG_INET_DIAG_DESTROY";
    EXPECT_EQ(ret, 0);
    // 6 connected and 2 listening TCP sockets, then 2 UDP sockets, loopback included.
    EXPECT_TRUE(contains(log, "I Mlbd-SockDiag: Destroyed 8 sockets for UID")) << log;
    EXPECT_TRUE(contains(log, "I Mlbd-SockDiag: Destroyed 2 sockets for UID")) << log;
    EXPECT_TRUE(contains(log, "E Mlbd-SockDiag:  SLA_GAMING destroying TCP sockets: 10001"));
    EXPECT_TRUE(contains(log, "E Mlbd-SockDiag:  SLA_GAMING destroying UDP sockets: 10001"));
    EXPECT_EQ(a.errors(), std::vector<int>(kKinds, ECONNABORTED));
    EXPECT_EQ(b.errors(), std::vector<int>(kKinds, 0));
    // Root's ends of B's connections are alive (those of A's were reset by A's destruction).
    std::vector<int> peers = peerErrors();
    EXPECT_EQ(std::count(peers.begin(), peers.end(), 0), 6);

    // A UID without sockets: both passes succeed quietly.
    CaptureStderr();
    EXPECT_EQ(android::net::killSocketsForUID("424242"), 0);
    EXPECT_FALSE(contains(GetCapturedStderr(), "Destroyed"));
    EXPECT_EQ(b.errors(), std::vector<int>(kKinds, 0));
    // Text that is not a UID (it would read as root's 0) resets nothing.
    for (const char* bad : {"", "abc", "1 2", "$(id)", "12345678901", "4294967296"}) {
        EXPECT_EQ(android::net::killSocketsForUID(bad), -EINVAL) << bad;
    }
    EXPECT_EQ(b.errors(), std::vector<int>(kKinds, 0));
}

TEST_F(SockDiagKernelTest, LiveTcpInfosThenDestroyWithoutLoopback) {
    UidSockets a(kUidA);
    ASSERT_EQ(a.errors(), std::vector<int>(kKinds, 0));
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    EXPECT_FALSE(sd.open());  // already open: refused, both sockets kept
    int v4 = 0, v6 = 0, root = 0;
    EXPECT_EQ(sd.getLiveTcpInfos([&](const inet_diag_msg* m, const tcp_info_ext* i, uint32_t len) {
        EXPECT_TRUE(m->idiag_state >= 1 && m->idiag_state <= 3);
        if (m->idiag_uid == 0) {
            root++;
            return;
        }
        EXPECT_EQ(m->idiag_uid, kUidA);
        (m->idiag_family == AF_INET ? v4 : v6)++;
        ASSERT_TRUE(android::net::tcpInfoHasField(i, len, 140, 4));
        EXPECT_EQ(i->tcpi_state, 1);  // TCP_ESTABLISHED
        EXPECT_GT(i->tcpi_rtt, 0u);
        EXPECT_GT(i->tcpi_segs_out, 0u);
    }),
              0);
    // Listeners and UDP are not listed; the mapped connections are IPv6 sockets.
    EXPECT_EQ(v4, 2);
    EXPECT_EQ(v6, 4);
    EXPECT_EQ(root, 6);
    // A dump the kernel refuses at once comes back as its error, and is consumed.
    iovec iov[1];
    EXPECT_LT(sd.sendDumpRequest(IPPROTO_TCP, 200, 0, 0xfff, iov, 1), 0);

    int tcp = sd.destroySockets(IPPROTO_TCP, kUidA, true);
    if (tcp == -EOPNOTSUPP) GTEST_SKIP() << "no CONFIG_INET_DIAG_DESTROY";
    EXPECT_EQ(tcp, 0);
    EXPECT_EQ(sd.destroySockets(IPPROTO_UDP, kUidA, true), 0);
    std::vector<int> errors = a.errors();
    for (size_t i = 0; i < kKinds; i++) {
        EXPECT_EQ(errors[i], kAllKinds[i].loopback ? 0 : ECONNABORTED) << "socket " << i;
    }
}

}  // namespace
