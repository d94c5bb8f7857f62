// The steering rules in a real kernel: a private network namespace with two links, wlan0 and
// rmnet_data0 (veth pairs to a peer namespace that stands for the network), rules programmed
// through the host front-end wrappers of tools/host, and traffic from child processes running
// under the UIDs being steered. The server address 10.99.0.1 lives in the peer and is reachable
// over both links; the main routing table sends it over wlan0, the interface tables "wlan0" and
// "rmnet_data0" over their own link. MASQUERADE gives each link its own source address, so the
// connection-tracking entry of a flow tells by which link it left. Both links and the server
// (fd99::1) have IPv6 addresses as well: fd00:1::2 and fd00:2::2, routed alike.
#include <arpa/inet.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <functional>
#include <map>

#include "iptables/IptablesManager.h"
#include "platform/Platform.h"
#include "support/ParametersTestPeer.h"
#include "util/EmulatedLinks.h"
#include "util/Netns.h"

namespace {

using mlbd::test::Netns;
using Lines = std::vector<std::string>;
using Flows = std::map<std::string, int>;

constexpr uid_t kListed = 10001, kGaming = 10002, kUnlisted = 10003;
// How a flow left, as flows() reports it.
const std::string kWlanPlain = "from 10.77.1.2 mark=0", kWlanMarked = "from 10.77.1.2 mark=90",
                  kCellMarked = "from 10.77.2.2 mark=92";
const sockaddr_in kServer = {AF_INET, htons(80), {htonl(0x0A630001)}, {}};  // 10.99.0.1:80

Lines outputLines(const std::string& command) {
    Lines lines;
    FILE* p = popen(command.c_str(), "r");
    char buf[4096];
    while (p && fgets(buf, sizeof(buf), p)) lines.emplace_back(buf, strcspn(buf, "\n"));
    if (p) pclose(p);
    return lines;
}

// The tracked flows to the server, counted by "<proto> <dport> from <address> mark=<mark>"; the
// address is the reply's destination, the one MASQUERADE gave the flow on its way out.
Flows flows() {
    Flows out;
    for (const std::string& line :
         outputLines(R"(awk '/ dst=(10\.99\.0\.1|fd99:[0:]*1) / { d = f = m = "";
            for (i = 4; i <= NF; i++) if ($i ~ /^dport=/ && d == "") d = substr($i, 7);
            else if ($i ~ /^dst=/ && d != "" && f == "") f = substr($i, 5); else if ($i ~ /^mark=/) m = $i;
            print $3, d, "from", f, m }' /proc/net/nf_conntrack)")) {
        ++out[line];
    }
    return out;
}

// The daemon's chains and hooks in mangle and nat, as ip[6]tables-save lists them.
Lines savedRules(const std::string& family = "") {
    return outputLines("(ip" + family + "tables-save -t mangle; ip" + family +
                       "tables-save -t nat) | grep vexa_");
}

// Runs fn in a child that has dropped to `uid`; returns the child's pid.
pid_t forkAs(uid_t uid, const std::function<int()>& fn) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) _exit(100);
        _exit(fn() & 0xff);
    }
    return pid;
}

// A socket connected to the server's `port` (for UDP: after sending one datagram), or -1; over
// IPv6 (fd99::1) when `ipv6`.
int connectTo(int type, uint16_t port, bool ipv6 = false) {
    const int fd = socket(ipv6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in sa = kServer;
    sa.sin_port = htons(port);
    sockaddr_in6 sa6 = {AF_INET6, sa.sin_port, 0, {}, 0};
    inet_pton(AF_INET6, "fd99::1", &sa6.sin6_addr);
    if ((ipv6 ? connect(fd, reinterpret_cast<const sockaddr*>(&sa6), sizeof(sa6))
              : connect(fd, reinterpret_cast<const sockaddr*>(&sa), sizeof(sa))) == 0 &&
        (type == SOCK_STREAM || send(fd, "u", 1, 0) == 1)) {
        return fd;
    }
    close(fd);
    return -1;
}

class IptablesKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (access("/usr/sbin/iptables", X_OK) != 0) GTEST_SKIP() << "iptables is not installed";
        std::string why;
        if (!Netns::enterPrivate(&why)) GTEST_SKIP() << "real-kernel test skipped: " << why;
        mlbd::initLogging();
        char pattern[] = "/tmp/mlbd-ipt-kernel.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        setenv("MLBD_ROOT", (root_ = pattern).c_str(), 1);
        ASSERT_TRUE(net_.startPeer());
        ASSERT_TRUE(net_.addVeth("wlan0", "wlan0-net", "10.77.1.2/24", "10.77.1.1/24"));
        ASSERT_TRUE(net_.addVeth("rmnet_data0", "rmnet0-net", "10.77.2.2/24", "10.77.2.1/24"));
        ASSERT_EQ(0,
                  net_.runInPeer("ip addr add 10.99.0.1/32 dev lo && ip addr add fd99::1 dev lo && "
                                 "ip addr add fd00:1::1/64 dev wlan0-net nodad && ip addr add "
                                 "fd00:2::1/64 dev rmnet0-net nodad"));
        // The host front-ends, wlan0 and a metered rmnet_data0. Replies to a rerouted flow come
        // back on another link than the main table's route; a connection that gets no answer
        // fails after 3 s. Each interface's table routes over its own link.
        const std::string route = " && system/bin/ip-wrapper-1.0 route add default via ";
        const std::string route6 = " && system/bin/ip-wrapper-1.0 -6 route add default via ";
        const std::string script =
                "cd " + root_ + " && mkdir -p system/bin proc/net properties && ln -s " +
                MLBD_SOURCE_DIR
                "/tools/host/*-wrapper-1.0 system/bin/ && ln -s "
                "/proc/net/nf_conntrack proc/net/ && echo wlan0,rmnet_data0 > "
                "properties/vendor.sla.ifaces && echo 1 > properties/vendor.sla.mode && sysctl -qw "
                "net.ipv4.tcp_syn_retries=1 net.ipv4.conf.all.rp_filter=0 "
                "net.ipv4.conf.wlan0.rp_filter=0 net.ipv4.conf.rmnet_data0.rp_filter=0 && ip route "
                "add 10.99.0.0/24 via 10.77.1.1 dev wlan0" +
                route + "10.77.1.1 dev wlan0 table wlan0" + route +
                "10.77.2.1 dev rmnet_data0 table rmnet_data0 && ip addr add fd00:1::2/64 dev wlan0 "
                "nodad && ip addr add fd00:2::2/64 dev rmnet_data0 nodad && ip -6 route add "
                "fd99::/64 via fd00:1::1" +
                route6 + "fd00:1::1 dev wlan0 table wlan0" + route6 +
                "fd00:2::1 dev rmnet_data0 table rmnet_data0";
        ASSERT_EQ(0, Netns::run(script));
        // The server: a socket listening on port 80 in the peer, never accepted from; the peer's
        // kernel completes the connections, queues them and acknowledges their data.
        server_ = net_.socketInPeer(AF_INET6, SOCK_STREAM);  // both families
        const sockaddr_in6 any = {AF_INET6, kServer.sin_port, 0, {}, 0};
        ASSERT_EQ(0, bind(server_, reinterpret_cast<const sockaddr*>(&any), sizeof(any)));
        ASSERT_EQ(0, listen(server_, 4096));
        Parameters* params = Parameters::instance();
        ASSERT_TRUE(params->interfaces().size() == 2 &&
                    params->findInterface("rmnet_data0")->metered);
        ParametersTestPeer::uidWhitelist(params) = {std::to_string(kListed)};
        ParametersTestPeer::gamingUidList(params) = {std::to_string(kGaming)};
        params->ipv6 = dualStack();
        mgr_ = IptablesManager::instance();  // start-up as the daemon does it
        ASSERT_EQ(0, mgr_->setup_SLM_iptables_FWMARK_chains());
    }
    virtual bool dualStack() const { return false; }
    void TearDown() override {
        if (server_ >= 0) close(server_);
        if (mgr_ != nullptr) IptablesManager::clean_SLM_iptables();
        if (!root_.empty()) Netns::run("rm -rf " + root_);
    }
    void setRatios(float wlan, float cell) {
        ASSERT_EQ(0, mlbd::test::setLinkRatios(mgr_, wlan, cell));
    }

    Netns net_;
    std::string root_;
    IptablesManager* mgr_ = nullptr;
    int server_ = -1;
};

TEST_F(IptablesKernelTest, RestartProgramsEachRuleOnceAndShutDownRemovesAll) {
    // A restart without a clean stop: the first object is left behind, as a killed daemon's
    // rules would be.
    static IptablesManager* restarted = new IptablesManager();
    EXPECT_EQ(0, restarted->setup_SLM_iptables_FWMARK_chains());
    const std::string save = " -j CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xffffffff";
    const Lines expected = {
            ":vexa_SLA - [0:0]", ":vexa_SLM - [0:0]", ":vexa_SLM_wapper - [0:0]",
            ":vexa_SLS - [0:0]", ":vexa_fw_rmnet_data0 - [0:0]",
            ":vexa_fw_rmnet_data0_wrapper - [0:0]", ":vexa_fw_wlan0 - [0:0]",
            "-A OUTPUT -j vexa_SLM_wapper", "-A vexa_SLM -j vexa_SLS",
            "-A vexa_SLM -m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark --nfmask "
            "0xffffffff --ctmask 0xffffffff",
            "-A vexa_SLM -j vexa_SLA", "-A vexa_fw_rmnet_data0 -j MARK --set-xmark 0x5c/0xffffffff",
            "-A vexa_fw_rmnet_data0" + save, "-A vexa_fw_rmnet_data0 -j ACCEPT",
            "-A vexa_fw_wlan0 -j MARK --set-xmark 0x5a/0xffffffff", "-A vexa_fw_wlan0" + save,
            "-A vexa_fw_wlan0 -j ACCEPT", ":vexa_nat_POSTROUTING_SLM - [0:0]",
            "-A POSTROUTING -j vexa_nat_POSTROUTING_SLM",
            // The last interface created (wlan0, by name order) comes first.
            "-A vexa_nat_POSTROUTING_SLM -o wlan0 -j MASQUERADE",
            "-A vexa_nat_POSTROUTING_SLM -o rmnet_data0 -j MASQUERADE"};
    EXPECT_EQ(expected, savedRules());
    // One routing rule per mark, into the table named after the interface (the kernel refuses
    // the second run's identical rule).
    const std::string tableId = root_ + "/system/bin/ip-wrapper-1.0 --table-id ";
    EXPECT_EQ((Lines{"30000:\tfrom all fwmark 0x5a lookup " + outputLines(tableId + "wlan0").at(0),
                     "30000:\tfrom all fwmark 0x5c lookup " +
                             outputLines(tableId + "rmnet_data0").at(0)}),
              outputLines("ip -4 rule show pref 30000 | sort"));

    // Shut-down after every kind of rule has been programmed leaves nothing behind.
    EXPECT_EQ(0, mgr_->setup_slm_whitelist() + mgr_->setup_uid_whitelist());
    EXPECT_EQ(0, mgr_->setup_SLS_iptables_UID_chains());
    EXPECT_EQ(0, mgr_->set_SLS_interface("wlan0"));
    setRatios(0.5f, 0.5f);
    ASSERT_EQ(39u, savedRules().size());  // all of them programmed
    IptablesManager::clean_SLM_iptables();
    mgr_ = nullptr;
    EXPECT_EQ(Lines{}, savedRules());
    EXPECT_EQ(Lines{}, outputLines("ip -4 rule show pref 30000"));
}

// 800 connections from a whitelisted UID, with Wi-Fi at 0.3 and cellular at 0.7. The Wi-Fi count
// is binomial; by Hoeffding's bound its share misses 0.3 by 0.1 or more with probability at most
// 2 * exp(-2 * 800 * 0.1^2) = 2.3e-7, so a chance failure is rarer than one run in a million. A
// wrong cascade (0.3 read as the cellular share, or the conditional probability skipped) moves
// the share by 0.4 or more.
TEST_F(IptablesKernelTest, NewConnectionsSplitInProportionAndKeepTheirLink) {
    constexpr int kConnections = 800;
    EXPECT_EQ(0, mgr_->setup_slm_whitelist() + mgr_->setup_uid_whitelist());
    setRatios(0.3f, 0.7f);
    // All connections are opened, the ratio rules are rebuilt (all to Wi-Fi), then every
    // connection sends data and closes: those packets must still leave by the first link. A
    // packet of a masqueraded flow that leaves by another link is dropped by NAT, which also
    // deletes the flow's tracking entry; so every flow still tracked, with its link's mark, kept
    // its link.
    const pid_t client = forkAs(kListed, [] {
        std::vector<int> fds;
        for (int i = 0; i < kConnections; ++i) fds.push_back(connectTo(SOCK_STREAM, 80));
        raise(SIGSTOP);  // the test rebuilds the rules meanwhile
        int failed = 0;
        for (int fd : fds) failed += fd < 0 || write(fd, "d", 1) != 1 || close(fd) != 0;
        return failed;
    });
    int status = 0;
    ASSERT_EQ(client, waitpid(client, &status, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(status));
    setRatios(1.0f, 0.0f);
    kill(client, SIGCONT);
    EXPECT_EQ(0, Netns::waitChild(client));

    Flows got = flows();
    const int wlan = got["tcp 80 " + kWlanMarked], cell = got["tcp 80 " + kCellMarked];
    EXPECT_EQ((Flows{{"tcp 80 " + kWlanMarked, wlan}, {"tcp 80 " + kCellMarked, cell}}), got);
    EXPECT_EQ(kConnections, wlan + cell);
    EXPECT_NEAR(0.3, static_cast<double>(wlan) / kConnections, 0.1) << wlan << " via wlan0";
    EXPECT_EQ(wlan, mgr_->get_nf_conntrack_mark_number("0x5A"));
    EXPECT_EQ(cell, mgr_->get_nf_conntrack_mark_number("0x5C"));
}

TEST_F(IptablesKernelTest, OnlyListedUidsAreSteeredAndGamingFollowsTheSelection) {
    EXPECT_EQ(0, mgr_->setup_slm_whitelist() + mgr_->setup_uid_whitelist());
    EXPECT_EQ(0, mgr_->setup_SLS_iptables_UID_chains());
    // Ratio-steered web traffic all goes to cellular; the main table sends everything to Wi-Fi.
    setRatios(0.0f, 1.0f);
    // Per UID and selected link: how its TCP to port 80 and its UDP to port 9999 leave. DNS
    // always keeps the main table, unmarked.
    const struct {
        uid_t uid;
        const char* selected;
        std::string tcp, udp;
    } cases[] = {
            {kUnlisted, "rmnet_data0", kWlanPlain, kWlanPlain},
            {kListed, "rmnet_data0", kCellMarked, kWlanPlain},
            {kGaming, "rmnet_data0", kCellMarked, kCellMarked},
            {kGaming, "wlan0", kWlanMarked, kWlanMarked},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(0, mgr_->set_SLS_interface(test.selected));
        const Flows before = flows();
        EXPECT_EQ(0, Netns::waitChild(forkAs(test.uid, [] {
                      int failed = 0;
                      for (const uint16_t port : {9999, 53, 80, 80, 80}) {
                          const int fd = connectTo(port == 80 ? SOCK_STREAM : SOCK_DGRAM, port);
                          failed += fd < 0 || close(fd) != 0;
                      }
                      return failed;
                  })));
        Flows added = flows();
        for (const auto& flow : before) {
            if ((added[flow.first] -= flow.second) == 0) added.erase(flow.first);
        }
        const Flows expected = {{"tcp 80 " + test.tcp, 3},
                                {"udp 9999 " + test.udp, 1},
                                {"udp 53 " + kWlanPlain, 1}};
        EXPECT_EQ(expected, added) << "UID " << test.uid << ", selected " << test.selected;
    }
}

// With the "ipv6" key: 800 IPv6 connections of a whitelisted UID split 0.3 to Wi-Fi and 0.7 to
// cellular as the IPv4 ones are (the same bound as above); IPv4 rerouted onto cellular's 464XLAT
// companion v4-rmnet_data0 is masqueraded to its address; both families hold the same rules (but
// the companions' masquerades); mlbdctl reads them back and flags a missing IPv6 rule; the
// shut-down leaves no rule of either family.
class IptablesKernelIpv6Test : public IptablesKernelTest {
    bool dualStack() const override { return true; }
};

TEST_F(IptablesKernelIpv6Test, SplitCompanionMasqueradeStatusAndShutDown) {
    ASSERT_TRUE(net_.addVeth("v4-rmnet_data0", "clat-net", "192.0.0.4/29", "192.0.0.1/29"));
    ASSERT_EQ(0, Netns::run("cd " + root_ + " && mkdir -p vendor/etc/sla && echo ipv6=1 >" +
                            (MLBD_CONF_PATH + 1)));  // for mlbdctl
    EXPECT_EQ(0, mgr_->setup_slm_whitelist() + mgr_->setup_uid_whitelist());
    setRatios(0.3f, 0.7f);
    EXPECT_EQ(0, Netns::waitChild(forkAs(kListed, [] {
                  for (int i = 0; i < 800; ++i) close(connectTo(SOCK_STREAM, 80, true));
                  return 0;
              })));
    const std::string from = "tcp 80 from fd00:000";  // IPv6 addresses are listed in full
    const int wlan = flows()[from + "1:0000:0000:0000:0000:0000:0002 mark=90"],
              cell = flows()[from + "2:0000:0000:0000:0000:0000:0002 mark=92"];
    EXPECT_EQ(800, wlan + cell);
    EXPECT_NEAR(0.3, wlan / 800.0, 0.1) << wlan << " via wlan0";

    ASSERT_EQ(0, Netns::run(root_ + "/system/bin/ip-wrapper-1.0 route replace default via "
                                    "192.0.0.1 dev v4-rmnet_data0 table rmnet_data0"));
    setRatios(0.0f, 1.0f);
    EXPECT_EQ(0,
              Netns::waitChild(forkAs(kListed, [] { return close(connectTo(SOCK_STREAM, 80)); })));
    EXPECT_EQ(1, flows()["tcp 80 from 192.0.0.4 mark=92"]);

    Lines v4 = savedRules();
    auto companions = std::stable_partition(v4.begin(), v4.end(), [](const std::string& rule) {
        return rule.find(" -o v4-") == std::string::npos;
    });
    EXPECT_EQ((Lines{"-A vexa_nat_POSTROUTING_SLM -o v4-wlan0 -j MASQUERADE",
                     "-A vexa_nat_POSTROUTING_SLM -o v4-rmnet_data0 -j MASQUERADE"}),
              Lines(companions, v4.end()));
    v4.erase(companions, v4.end());
    EXPECT_EQ(v4, savedRules("6"));
    EXPECT_EQ(outputLines("ip -4 rule show pref 30000"), outputLines("ip -6 rule show pref 30000"));
    const std::string status =
            "MLBD_ROOT=" + root_ + " " MLBD_BINARY_DIR "/tools/mlbdctl status | grep -A3 Health";
    EXPECT_EQ(Lines{"Health: OK (IPv4 and IPv6)"}, outputLines(status));
    ASSERT_EQ(0, Netns::run("ip -6 rule del pref 30000 fwmark 0x5a"));
    EXPECT_EQ((Lines{"Health: 2 problem(s) (IPv6 half-programmed)",
                     "  - IPv6: ip rule priority 30000 fwmark 0x5a (wlan0) missing",
                     "  - IPv6 links, marks, tables, split or gaming link differ from IPv4"}),
              outputLines(status));
    IptablesManager::clean_SLM_iptables();
    mgr_ = nullptr;
    EXPECT_EQ(Lines{}, savedRules());
    EXPECT_EQ(Lines{}, savedRules("6"));
    EXPECT_EQ(Lines{}, outputLines("ip -6 rule show pref 30000"));
}

}  // namespace
