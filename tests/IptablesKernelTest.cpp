/*
 * The steering rules in a real kernel: a private network namespace with two links, wlan0 and
 * rmnet_data0 (veth pairs to a peer namespace that stands for the network), rules programmed
 * through the host front-end wrappers of tools/host, and TCP/UDP traffic from processes running
 * under the UIDs being steered. The server address 10.99.0.1 lives in the peer and is reachable
 * over both links; the main routing table sends it over wlan0, the interface tables "wlan0" and
 * "rmnet_data0" over their own link. MASQUERADE gives each link its own source address, so the
 * server sees which link a connection used.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "iptables/IptablesManager.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "util/Netns.h"

namespace {

using mlbd::test::Netns;

constexpr const char* kServer = "10.99.0.1";
constexpr const char* kWlanSource = "10.77.1.2";
constexpr const char* kCellSource = "10.77.2.2";
constexpr uid_t kWhitelistedUid = 10001;
constexpr uid_t kGamingUid = 10002;
constexpr uid_t kUnlistedUid = 10003;

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string capture(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream ss(text);
    for (std::string line; std::getline(ss, line);) lines.push_back(line);
    return lines;
}

void setTimeouts(int fd, int seconds) {
    struct timeval tv = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
}

sockaddr_in serverAddr(uint16_t port) {
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    inet_pton(AF_INET, kServer, &sa.sin_addr);
    return sa;
}

// ---- The network side (runs in the peer namespace) ----

void writeAll(int fd, const std::string& text) {
    size_t off = 0;
    while (off < text.size()) {
        ssize_t n = write(fd, text.data() + off, text.size() - off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        off += static_cast<size_t>(n);
    }
}

int bindSocket(int type, uint16_t port) {
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (type == SOCK_DGRAM) setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof(one));
    sockaddr_in sa = serverAddr(port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) return -1;
    if (type == SOCK_STREAM && listen(fd, 1024) != 0) return -1;
    return fd;
}

// TCP echo on port 80 and UDP echo on ports 9999 and 53. Reports one line per accepted TCP
// connection, "T <source>", and per datagram, "U <port> <arrival interface> <source>", on
// `records`; "R" once listening.
int serve(int records) {
    int tcp = bindSocket(SOCK_STREAM, 80);
    int udp[2] = {bindSocket(SOCK_DGRAM, 9999), bindSocket(SOCK_DGRAM, 53)};
    if (tcp < 0 || udp[0] < 0 || udp[1] < 0) return 1;
    writeAll(records, "R\n");
    std::vector<pollfd> fds = {{tcp, POLLIN, 0}, {udp[0], POLLIN, 0}, {udp[1], POLLIN, 0}};
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return 2;
        }
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            int fd = fds[i].fd;
            if (fd == tcp) {
                sockaddr_in peer = {};
                socklen_t len = sizeof(peer);
                int c = accept4(tcp, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
                if (c < 0) continue;
                char text[INET_ADDRSTRLEN] = {};
                inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text));
                writeAll(records, std::string("T ") + text + "\n");
                fds.push_back({c, POLLIN, 0});
            } else if (fd == udp[0] || fd == udp[1]) {
                char data[64];
                char control[256];
                sockaddr_in from = {};
                iovec iov = {data, sizeof(data)};
                msghdr msg = {};
                msg.msg_name = &from;
                msg.msg_namelen = sizeof(from);
                msg.msg_iov = &iov;
                msg.msg_iovlen = 1;
                msg.msg_control = control;
                msg.msg_controllen = sizeof(control);
                ssize_t n = recvmsg(fd, &msg, 0);
                if (n < 0) continue;
                char ifname[IF_NAMESIZE] = "?";
                for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
                    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                        in_pktinfo info;
                        memcpy(&info, CMSG_DATA(c), sizeof(info));
                        if_indextoname(info.ipi_ifindex, ifname);
                    }
                }
                char text[INET_ADDRSTRLEN] = {};
                inet_ntop(AF_INET, &from.sin_addr, text, sizeof(text));
                writeAll(records, std::string("U ") + (fd == udp[0] ? "9999 " : "53 ") + ifname +
                                          " " + text + "\n");
                sendto(fd, data, n, 0, reinterpret_cast<sockaddr*>(&from), msg.msg_namelen);
            } else {
                char buf[256];
                ssize_t n = read(fd, buf, sizeof(buf));
                if (n > 0) writeAll(fd, std::string(buf, n));
                // The server closes first on "z", so the device side keeps no TIME_WAIT socket:
                // a TIME_WAIT acknowledgement belongs to no UID, is therefore not marked, and a
                // masqueraded connection's tracking entry dies when it leaves by another link.
                if (n <= 0 || memchr(buf, 'z', n) != nullptr) {
                    close(fd);
                    fds.erase(fds.begin() + i);
                    --i;
                }
            }
        }
    }
}

// ---- The device side (runs in the test's namespace, under a steered UID) ----

// Connects to the server's port 80 and checks one echo; returns the socket or -1.
int connectAndEcho() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setTimeouts(fd, 3);
    sockaddr_in sa = serverAddr(80);
    char c = 'x';
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 || write(fd, &c, 1) != 1 ||
        read(fd, &c, 1) != 1) {
        close(fd);
        return -1;
    }
    return fd;
}

bool echoAgain(int fd) {
    char c = 'y';
    return write(fd, &c, 1) == 1 && read(fd, &c, 1) == 1 && c == 'y';
}

// Last echo: the server then closes, and so do we once its end has arrived.
bool echoAndClose(int fd) {
    char c = 'z';
    bool ok = write(fd, &c, 1) == 1 && read(fd, &c, 1) == 1 && c == 'z' && read(fd, &c, 1) == 0;
    close(fd);
    return ok;
}

// Sends one datagram to the server's `port` and waits for its echo.
bool udpEcho(uint16_t port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setTimeouts(fd, 3);
    sockaddr_in sa = serverAddr(port);
    char c = 'u';
    bool ok = sendto(fd, &c, 1, 0, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 1 &&
              recv(fd, &c, 1, 0) == 1;
    close(fd);
    return ok;
}

// Runs fn in a child that has dropped to `uid`; returns fn's result (0 = success).
int runAs(uid_t uid, const std::function<int()>& fn) {
    pid_t pid = fork();
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) _exit(100);
        _exit(fn() & 0xff);
    }
    return Netns::waitChild(pid);
}

// n short connections, each with two echoes; returns the number that failed. Gives up after a
// few failures, so that broken steering fails fast instead of waiting out every time-out.
int shortConnections(int n) {
    int failed = 0;
    for (int i = 0; i < n && failed < 3; ++i) {
        int fd = connectAndEcho();
        if (fd < 0 || !echoAndClose(fd)) ++failed;
    }
    return failed;
}

// ---- The fixture ----

class IptablesKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* tool : {"/usr/sbin/iptables", "/usr/sbin/ip"}) {
            if (access(tool, X_OK) != 0) GTEST_SKIP() << tool << " is not installed";
        }
        std::string why;
        if (!Netns::enterPrivate(&why)) GTEST_SKIP() << "real-kernel test skipped: " << why;
        mlbd::initLogging();

        char pattern[] = "/tmp/mlbd-ipt-kernel.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        root_ = pattern;
        setenv("MLBD_ROOT", root_.c_str(), 1);
        for (const char* dir : {"/system", "/system/bin", "/proc", "/proc/net", "/properties"}) {
            ASSERT_EQ(0, mkdir((root_ + dir).c_str(), 0755));
        }
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
            ASSERT_EQ(0, symlink((std::string(MLBD_SOURCE_DIR) + "/tools/host/" + tool).c_str(),
                                 (root_ + "/system/bin/" + tool).c_str()));
        }
        ASSERT_EQ(0, symlink("/proc/net/nf_conntrack", (root_ + "/proc/net/nf_conntrack").c_str()));
        std::ofstream(root_ + "/properties/vendor.sla.ifaces") << "wlan0,rmnet_data0\n";
        std::ofstream(root_ + "/properties/vendor.sla.mode") << "1\n";

        ASSERT_TRUE(net_.startPeer());
        ASSERT_TRUE(net_.addVeth("wlan0", "wlan0-net", "10.77.1.2/24", "10.77.1.1/24"));
        ASSERT_TRUE(net_.addVeth("rmnet_data0", "rmnet0-net", "10.77.2.2/24", "10.77.2.1/24"));
        ASSERT_EQ(0, net_.runInPeer(std::string("ip addr add ") + kServer + "/32 dev lo"));
        // Replies to a rerouted connection come back on the other link than the main table's.
        for (const char* dev : {"all", "default", "wlan0", "rmnet_data0"}) {
            std::ofstream(std::string("/proc/sys/net/ipv4/conf/") + dev + "/rp_filter") << "0\n";
        }
        const std::string ipw = root_ + "/system/bin/ip-wrapper-1.0";
        ASSERT_EQ(0, Netns::run("ip route add 10.99.0.0/24 via 10.77.1.1 dev wlan0"));
        ASSERT_EQ(0, Netns::run(ipw + " route add default via 10.77.1.1 dev wlan0 table wlan0"));
        ASSERT_EQ(0, Netns::run(ipw + " route add default via 10.77.2.1 dev rmnet_data0 table "
                                      "rmnet_data0"));

        params_ = Parameters::instance();
        ASSERT_EQ(2u, params_->interfaces.size());
        ASSERT_TRUE(params_->interfaces.at("rmnet_data0")->metered);
        ready_ = true;
    }

    void TearDown() override {
        if (server_ > 0) {
            kill(server_, SIGKILL);
            Netns::waitChild(server_);
        }
        if (records_ >= 0) close(records_);
        if (ready_) IptablesManager::clean_SLM_iptables();
        if (!root_.empty()) Netns::run("rm -rf " + root_);
    }

    // Start-up as the daemon does it.
    IptablesManager* startUp() {
        IptablesManager* mgr = IptablesManager::instance();
        EXPECT_EQ(0, mgr->setup_SLM_iptables_FWMARK_chains());
        return mgr;
    }

    void startServer() {
        int fds[2];
        ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
        server_ = net_.startInPeer([fds] {
            close(fds[0]);
            return serve(fds[1]);
        });
        close(fds[1]);
        records_ = fds[0];
        ASSERT_GT(server_, 0);
        std::vector<std::string> ready = readRecords(1);
        ASSERT_EQ(std::vector<std::string>{"R"}, ready);
    }

    // Reads `count` record lines from the server (waits at most 10 s).
    std::vector<std::string> readRecords(size_t count) {
        std::vector<std::string> lines;
        while (lines.size() < count) {
            size_t nl = pending_.find('\n');
            if (nl != std::string::npos) {
                lines.push_back(pending_.substr(0, nl));
                pending_.erase(0, nl + 1);
                continue;
            }
            pollfd p = {records_, POLLIN, 0};
            if (poll(&p, 1, 10000) <= 0) break;
            char buf[4096];
            ssize_t n = read(records_, buf, sizeof(buf));
            if (n <= 0) break;
            pending_.append(buf, n);
        }
        return lines;
    }

    // Per-chain rule lists of one table, from iptables-save; only the daemon's chains and the two
    // built-in chains it hooks.
    std::map<std::string, std::vector<std::string>> chains(const char* table) {
        std::map<std::string, std::vector<std::string>> out;
        for (const std::string& line :
             splitLines(capture(std::string("iptables-save -t ") + table))) {
            if (line.rfind(":vexa_", 0) == 0) {
                out[line.substr(1, line.find(' ') - 1)];
            } else if (line.rfind("-A ", 0) == 0) {
                std::string chain = line.substr(3, line.find(' ', 3) - 3);
                if (chain.rfind("vexa_", 0) == 0 || chain == "OUTPUT" || chain == "POSTROUTING") {
                    out[chain].push_back(line.substr(4 + chain.size()));
                }
            }
        }
        return out;
    }

    std::vector<std::string> rulesAt30000() {
        std::vector<std::string> out;
        for (const std::string& line : splitLines(capture("ip -4 rule show"))) {
            if (line.rfind("30000:", 0) == 0) out.push_back(line);
        }
        return out;
    }

    std::string tableId(const char* name) {
        std::string id = capture(root_ + "/system/bin/ip-wrapper-1.0 --table-id " + name);
        while (!id.empty() && id.back() == '\n') id.pop_back();
        return id;
    }

    // Local connection-tracking entries of TCP connections to the server's port 80.
    std::vector<std::string> webConntrack() {
        std::vector<std::string> out;
        for (const std::string& line : splitLines(slurp("/proc/net/nf_conntrack"))) {
            if (line.find(" tcp ") != std::string::npos &&
                line.find(std::string("dst=") + kServer + " ") != std::string::npos &&
                line.find("dport=80 ") != std::string::npos) {
                out.push_back(line);
            }
        }
        return out;
    }

    void setRatios(IptablesManager* mgr, float wlan, float cell) {
        linkStatsWrapper_t w, c;
        snprintf(w.interfaceName, sizeof(w.interfaceName), "wlan0");
        snprintf(c.interfaceName, sizeof(c.interfaceName), "rmnet_data0");
        w.interfaceRatio = wlan;
        c.interfaceRatio = cell;
        std::map<std::string, linkStatsWrapper_t*> wrappers = {{"wlan0", &w}, {"rmnet_data0", &c}};
        ASSERT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    }

    // Counts server records by the source address of TCP connections.
    static std::map<std::string, int> bySource(const std::vector<std::string>& records) {
        std::map<std::string, int> out;
        for (const std::string& r : records) {
            if (r.rfind("T ", 0) == 0) ++out[r.substr(2)];
        }
        return out;
    }

    Netns net_;
    std::string root_;
    Parameters* params_ = nullptr;
    pid_t server_ = -1;
    int records_ = -1;
    std::string pending_;
    bool ready_ = false;
};

TEST_F(IptablesKernelTest, StartUpProgramsExactlyTheSkeletonAlsoAfterARestart) {
    startUp();
    // A restart without a clean stop: the constructor and the mark chains run again over the
    // rules of the first run. The first object is kept, as a killed daemon would leave its rules.
    static IptablesManager* restarted = new IptablesManager();
    EXPECT_EQ(0, restarted->setup_SLM_iptables_FWMARK_chains());

    const std::string restore =
            "-m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark --nfmask 0xffffffff "
            "--ctmask 0xffffffff";
    const std::string save = "-j CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xffffffff";
    std::map<std::string, std::vector<std::string>> mangle = {
            {"OUTPUT", {"-j vexa_SLM_wapper"}},
            {"vexa_SLM_wapper", {}},
            {"vexa_SLM", {"-j vexa_SLS", restore, "-j vexa_SLA"}},
            {"vexa_SLS", {}},
            {"vexa_SLA", {}},
            {"vexa_fw_wlan0", {"-j MARK --set-xmark 0x5a/0xffffffff", save, "-j ACCEPT"}},
            {"vexa_fw_rmnet_data0", {"-j MARK --set-xmark 0x5c/0xffffffff", save, "-j ACCEPT"}},
            {"vexa_fw_rmnet_data0_wrapper", {}},
    };
    EXPECT_EQ(mangle, chains("mangle"));
    // Both interfaces masqueraded, the last created (wlan0, by name order) first.
    std::map<std::string, std::vector<std::string>> nat = {
            {"POSTROUTING", {"-j vexa_nat_POSTROUTING_SLM"}},
            {"vexa_nat_POSTROUTING_SLM",
             {"-o wlan0 -j MASQUERADE", "-o rmnet_data0 -j MASQUERADE"}},
    };
    EXPECT_EQ(nat, chains("nat"));
    // One routing rule per mark, into the table named after the interface (the kernel refuses
    // the second run's identical rule).
    std::vector<std::string> rules = {
            "30000:\tfrom all fwmark 0x5a lookup " + tableId("wlan0") + " ",
            "30000:\tfrom all fwmark 0x5c lookup " + tableId("rmnet_data0") + " ",
    };
    std::vector<std::string> got = rulesAt30000();
    for (std::string& r : got) r += " ";  // compare whole words
    std::sort(rules.begin(), rules.end());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(rules, got);
}

// 840 connections (800 short ones, 40 held across a rebuild of the ratio rules) from a
// whitelisted UID, with Wi-Fi at 0.3 and cellular at 0.7. The Wi-Fi count is binomial; by
// Hoeffding's bound the share misses 0.3 by 0.1 or more with probability at most
// 2 * exp(-2 * 840 * 0.1^2) = 1.0e-7, so a chance failure is rarer than one run in a million. A
// wrong cascade (0.3 read as the cellular share, or the conditional probability skipped) moves
// the share by 0.4 or more.
TEST_F(IptablesKernelTest, NewConnectionsSplitInProportionAndKeepTheirLink) {
    constexpr int kShort = 800;
    constexpr int kHeld = 40;
    IptablesManager* mgr = startUp();
    params_->uidWhitelist = {std::to_string(kWhitelistedUid)};
    EXPECT_EQ(0, mgr->setup_slm_whitelist());
    EXPECT_EQ(0, mgr->setup_uid_whitelist());
    setRatios(mgr, 0.3f, 0.7f);
    startServer();
    // Packets of port-80 connections counted in the network by arrival link, and any packet that
    // arrives on one link carrying the other link's source address.
    for (const char* rule : {
                 "-i wlan0-net -p tcp --dport 80 --syn -m comment --comment syn-wlan",
                 "-i rmnet0-net -p tcp --dport 80 --syn -m comment --comment syn-cell",
                 "-i wlan0-net ! -s 10.77.1.2 -p tcp --dport 80 -m comment --comment stray-wlan",
                 "-i rmnet0-net ! -s 10.77.2.2 -p tcp --dport 80 -m comment --comment stray-cell",
         }) {
        ASSERT_EQ(0, net_.runInPeer(std::string("iptables -w -A INPUT ") + rule));
    }

    // The held connections: open, rebuild the ratio rules (all to Wi-Fi), then talk again.
    int sync[2], go[2];
    ASSERT_EQ(0, pipe(sync));
    ASSERT_EQ(0, pipe(go));
    pid_t held = fork();
    if (held == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(kWhitelistedUid) != 0 ||
            setuid(kWhitelistedUid) != 0) {
            _exit(100);
        }
        std::vector<int> fds;
        for (int i = 0; i < kHeld; ++i) fds.push_back(connectAndEcho());
        char c = 's';
        (void)!write(sync[1], &c, 1);
        (void)!read(go[0], &c, 1);
        int failed = 0;
        for (size_t i = 0; i < fds.size() && failed < 3; ++i) {
            failed += fds[i] < 0 || !echoAgain(fds[i]) || !echoAndClose(fds[i]);
        }
        _exit(failed);
    }
    char c;
    ASSERT_EQ(1, read(sync[0], &c, 1));
    setRatios(mgr, 1.0f, 0.0f);
    ASSERT_EQ(1, write(go[1], &c, 1));
    EXPECT_EQ(0, Netns::waitChild(held)) << "held connections failed after the rebuild";
    for (int fd : {sync[0], sync[1], go[0], go[1]}) close(fd);

    setRatios(mgr, 0.3f, 0.7f);
    EXPECT_EQ(0, runAs(kWhitelistedUid, [] { return shortConnections(kShort); }));

    std::map<std::string, int> sources = bySource(readRecords(kShort + kHeld));
    const int wlan = sources[kWlanSource];
    const int cell = sources[kCellSource];
    ASSERT_EQ(kShort + kHeld, wlan + cell) << "connections that arrived from another source";
    const double share = static_cast<double>(wlan) / (kShort + kHeld);
    EXPECT_NEAR(0.3, share, 0.1) << wlan << " on wlan0, " << cell << " on rmnet_data0";

    // Every connection carries the mark of the link it left by.
    int marked[2] = {0, 0};
    std::string wrong;
    for (const std::string& line : webConntrack()) {
        bool viaWlan = line.find(std::string("dst=") + kWlanSource + " ") != std::string::npos;
        if (line.find(viaWlan ? " mark=90 " : " mark=92 ") == std::string::npos) {
            wrong += line + "\n";
        } else {
            ++marked[viaWlan ? 0 : 1];
        }
    }
    EXPECT_EQ("", wrong.substr(0, 2000));
    EXPECT_EQ(wlan, marked[0]);
    EXPECT_EQ(cell, marked[1]);
    EXPECT_EQ(wlan, mgr->get_nf_conntrack_mark_number("0x5A"));
    EXPECT_EQ(cell, mgr->get_nf_conntrack_mark_number("0x5C"));

    // No packet of any connection changed link during its life.
    const std::string counters = root_ + "/peer-counters";
    ASSERT_EQ(0, net_.runInPeer("iptables-save -c -t filter > " + counters));
    std::map<std::string, long> count;
    for (const std::string& line : splitLines(slurp(counters))) {
        size_t at = line.find("--comment ");
        if (line.rfind("[", 0) != 0 || at == std::string::npos) continue;
        count[line.substr(at + 10)] = atol(line.c_str() + 1);
    }
    EXPECT_EQ(0, count["stray-wlan"]);
    EXPECT_EQ(0, count["stray-cell"]);
    EXPECT_GE(count["syn-wlan"], wlan);
    EXPECT_GE(count["syn-cell"], cell);
}

TEST_F(IptablesKernelTest, OnlyListedUidsAreSteeredAndGamingFollowsTheSelection) {
    IptablesManager* mgr = startUp();
    params_->uidWhitelist = {std::to_string(kWhitelistedUid)};
    params_->gamingUidList = {std::to_string(kGamingUid)};
    EXPECT_EQ(0, mgr->setup_slm_whitelist());
    EXPECT_EQ(0, mgr->setup_uid_whitelist());
    EXPECT_EQ(0, mgr->setup_SLS_iptables_UID_chains());
    // Everything steered by ratio goes to cellular; the main table goes over Wi-Fi.
    setRatios(mgr, 0.0f, 1.0f);
    startServer();
    constexpr int kEach = 20;

    auto tcpSources = [&](uid_t uid) {
        EXPECT_EQ(0, runAs(uid, [] { return shortConnections(kEach); }));
        return bySource(readRecords(kEach));
    };
    auto datagrams = [&](uid_t uid) {
        EXPECT_EQ(0, runAs(uid, [] { return udpEcho(9999) && udpEcho(53) ? 0 : 1; }));
        return readRecords(2);
    };

    // Not on any list: the main table, unmarked.
    EXPECT_EQ((std::map<std::string, int>{{kWlanSource, kEach}}), tcpSources(kUnlistedUid));
    for (const std::string& line : webConntrack())
        EXPECT_NE(std::string::npos, line.find(" mark=0 "));
    // Whitelisted: the ratio rules send it to cellular.
    EXPECT_EQ((std::map<std::string, int>{{kCellSource, kEach}}), tcpSources(kWhitelistedUid));

    // Gaming on the selected link: TCP and UDP follow it, DNS keeps the main table.
    EXPECT_EQ(0, mgr->set_SLS_interface("rmnet_data0"));
    EXPECT_EQ((std::map<std::string, int>{{kCellSource, kEach}}), tcpSources(kGamingUid));
    EXPECT_EQ((std::vector<std::string>{"U 9999 rmnet0-net 10.77.2.2", "U 53 wlan0-net 10.77.1.2"}),
              datagrams(kGamingUid));
    EXPECT_EQ(0, mgr->set_SLS_interface("wlan0"));
    EXPECT_EQ((std::map<std::string, int>{{kWlanSource, kEach}}), tcpSources(kGamingUid));
    EXPECT_EQ((std::vector<std::string>{"U 9999 wlan0-net 10.77.1.2", "U 53 wlan0-net 10.77.1.2"}),
              datagrams(kGamingUid));
    // The Wi-Fi choice is a mark too, not just the main table's default (TCP and one datagram).
    EXPECT_EQ(kEach + 1, mgr->get_nf_conntrack_mark_number("0x5A"));
    // DNS was never marked.
    for (const std::string& line : splitLines(slurp("/proc/net/nf_conntrack"))) {
        if (line.find("dport=53 ") != std::string::npos) {
            EXPECT_NE(std::string::npos, line.find(" mark=0 ")) << line;
        }
    }
}

TEST_F(IptablesKernelTest, ShutDownLeavesNothingBehind) {
    IptablesManager* mgr = startUp();
    params_->uidWhitelist = {std::to_string(kWhitelistedUid)};
    params_->gamingUidList = {std::to_string(kGamingUid)};
    EXPECT_EQ(0, mgr->setup_slm_whitelist());
    EXPECT_EQ(0, mgr->setup_uid_whitelist());
    EXPECT_EQ(0, mgr->setup_SLS_iptables_UID_chains());
    EXPECT_EQ(0, mgr->set_SLS_interface("wlan0"));
    setRatios(mgr, 0.5f, 0.5f);
    ASSERT_NE(std::string::npos, capture("iptables-save").find("vexa_sls_uid_wlan0"));
    ASSERT_EQ(2u, rulesAt30000().size());

    IptablesManager::clean_SLM_iptables();
    std::string all = capture("iptables-save -t mangle") + capture("iptables-save -t nat");
    EXPECT_EQ(std::string::npos, all.find("vexa_")) << all;
    EXPECT_NE(std::string::npos, all.find(":OUTPUT ACCEPT"));  // the tables were read
    EXPECT_TRUE(rulesAt30000().empty());
}

}  // namespace
