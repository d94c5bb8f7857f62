// Dual-stack steering rules in a real kernel, with the "ipv6" key set: a private namespace whose
// wlan0 has both families and whose rmnet_data0 is IPv6-only, its IPv4 carried by the 464XLAT
// companion v4-rmnet_data0 (all three veth pairs to a peer namespace that stands for the
// network). The servers 10.99.0.1 and fd99::1 live in the peer; the main tables reach them over
// wlan0, the interface tables over their own link (rmnet_data0's IPv4 over the companion).
// Masquerading gives each link its own source address, so a flow's tracking entry tells by
// which link it left.
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/wait.h>

#include <functional>
#include <map>

#include "iptables/IptablesManager.h"
#include "parameters/ParametersTestPeer.h"
#include "platform/Platform.h"
#include "util/Daemon.h"
#include "util/Netns.h"

namespace {

using mlbd::test::Netns;
using Lines = std::vector<std::string>;
using Flows = std::map<std::string, int>;
constexpr auto npos = std::string::npos;

constexpr uid_t kListed = 10001;
const sockaddr_in kServer4 = {AF_INET, htons(80), {htonl(0x0A630001)}, {}};  // 10.99.0.1:80

Lines outputLines(const std::string& command) {
    Lines lines;
    FILE* p = popen(command.c_str(), "r");
    char buf[4096];
    while (p && fgets(buf, sizeof(buf), p)) lines.emplace_back(buf, strcspn(buf, "\n"));
    if (p) pclose(p);
    return lines;
}

// Tracked TCP flows to port 80 counted by "<server> from <address> mark=<mark>", the address
// being the one the flow left with (its reply's destination).
Flows flows() {
    Flows out;
    for (const std::string& line : outputLines(
                 R"(awk '/ tcp .* dport=80 / { n = 0; m = "";
                     for (i = 1; i <= NF; i++) if ($i ~ /^dst=/) d[++n] = substr($i, 5);
                     else if ($i ~ /^mark=/) m = $i; print d[1], "from", d[2], m }' /proc/net/nf_conntrack)")) {
        ++out[line];
    }
    return out;
}

// The daemon's rules of one family ("" or "6") in mangle and nat, and its routing rules.
Lines savedRules(const char* family) {
    return outputLines(
            std::string("(ip") + family + "tables-save -t mangle; ip" + family +
            "tables-save -t nat; ip -" + (*family ? "6" : "4") +
            " rule show pref 30000) | grep -v '^[#*:]\\|^COMMIT' | grep 'vexa_\\|30000'");
}

// `count` connections to `server` from a child running as kListed; the number that failed.
template <typename Addr>
int connectAs(const Addr& server, int count) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(kListed) != 0 || setuid(kListed) != 0) _exit(100);
        int failed = 0;
        std::vector<int> fds;
        for (int i = 0; i < count; ++i) {
            const int fd = socket(reinterpret_cast<const sockaddr*>(&server)->sa_family,
                                  SOCK_STREAM | SOCK_CLOEXEC, 0);
            failed += connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) != 0;
            fds.push_back(fd);
        }
        for (int fd : fds) close(fd);
        _exit(failed > 255 ? 255 : failed);
    }
    return Netns::waitChild(pid);
}

class DualStackKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (access("/usr/sbin/ip6tables", X_OK) != 0) GTEST_SKIP() << "ip6tables is not installed";
        std::string why;
        if (!Netns::enterPrivate(&why)) GTEST_SKIP() << "real-kernel test skipped: " << why;
        mlbd::initLogging();
        ASSERT_NE("", root_ = mlbd::test::makeRoot("ipv6=1\n"));
        setenv("MLBD_ROOT", root_.c_str(), 1);
        ASSERT_TRUE(net_.startPeer());
        ASSERT_TRUE(net_.addVeth("wlan0", "wlan0-net", "10.77.1.2/24", "10.77.1.1/24"));
        ASSERT_TRUE(net_.addVeth("rmnet_data0", "rmnet0-net", "", ""));
        ASSERT_TRUE(net_.addVeth("v4-rmnet_data0", "clat-net", "192.0.0.4/29", "192.0.0.1/29"));
        const std::string ip = " && system/bin/ip-wrapper-1.0 ";
        ASSERT_EQ(
                0,
                Netns::run("cd " + root_ +
                           " && ln -sf " MLBD_SOURCE_DIR
                           "/tools/host/*-wrapper-1.0 system/bin/ && ln -s /proc/net/nf_conntrack "
                           "proc/net/ && sysctl -qw net.ipv4.tcp_syn_retries=1 "
                           "net.ipv6.conf.all.accept_dad=0 net.ipv4.conf.all.rp_filter=0 && "
                           "ip addr add fd00:1::2/64 dev wlan0 nodad && ip addr add fd00:2::2/64 "
                           "dev rmnet_data0 nodad && ip route add 10.99.0.0/24 via 10.77.1.1 && "
                           "ip -6 route add fd99::/64 via fd00:1::1" +
                           ip + "route add default via 10.77.1.1 dev wlan0 table wlan0" + ip +
                           "-6 route add default via fd00:1::1 dev wlan0 table wlan0" + ip +
                           "route add default via 192.0.0.1 dev v4-rmnet_data0 table rmnet_data0" +
                           ip +
                           "-6 route add default via fd00:2::1 dev rmnet_data0 table rmnet_data0"));
        ASSERT_EQ(0,
                  net_.runInPeer("ip addr add 10.99.0.1/32 dev lo && ip addr add fd99::1/128 dev "
                                 "lo && ip addr add fd00:1::1/64 dev wlan0-net nodad && ip addr "
                                 "add fd00:2::1/64 dev rmnet0-net nodad"));
        // The servers: listening sockets on port 80 in the peer, never accepted from.
        sockaddr_in6 server6 = {AF_INET6, htons(80), 0, {}, 0};
        server6.sin6_addr.s6_addr[0] = 0xfd, server6.sin6_addr.s6_addr[1] = 0x99;
        server6.sin6_addr.s6_addr[15] = 1;
        server6_ = server6;
        for (int* fd : {&listen4_, &listen6_}) {
            const bool v6 = fd == &listen6_;
            *fd = net_.socketInPeer(v6 ? AF_INET6 : AF_INET, SOCK_STREAM);
            ASSERT_EQ(
                    0,
                    v6 ? bind(*fd, reinterpret_cast<const sockaddr*>(&server6), sizeof(server6))
                       : bind(*fd, reinterpret_cast<const sockaddr*>(&kServer4), sizeof(kServer4)));
            ASSERT_EQ(0, listen(*fd, 4096));
        }
        Parameters* params = Parameters::instance();
        ASSERT_TRUE(params->isIpv6Enabled());
        ParametersTestPeer::uidWhitelist(params) = {std::to_string(kListed)};
        mgr_ = IptablesManager::instance();
        ASSERT_EQ(0, mgr_->setup_SLM_iptables_FWMARK_chains());
        ASSERT_EQ(0, mgr_->setup_slm_whitelist() + mgr_->setup_uid_whitelist());
    }
    void TearDown() override {
        for (int fd : {listen4_, listen6_}) {
            if (fd >= 0) close(fd);
        }
        if (mgr_ != nullptr) IptablesManager::clean_SLM_iptables();
        if (!root_.empty()) Netns::run("rm -rf " + root_);
    }
    std::string status() const {
        std::string out;
        for (const std::string& line :
             outputLines("MLBD_ROOT=" + root_ + " " MLBD_BINARY_DIR "/tools/mlbdctl status")) {
            out += line + "\n";
        }
        return out;
    }
    void setRatios(float wlan, float cell) {
        linkStatsWrapper_t w, c;
        snprintf(w.interfaceName, sizeof(w.interfaceName), "wlan0");
        snprintf(c.interfaceName, sizeof(c.interfaceName), "rmnet_data0");
        w.interfaceRatio = wlan;
        c.interfaceRatio = cell;
        std::map<std::string, linkStatsWrapper_t*> wrappers = {{"wlan0", &w}, {"rmnet_data0", &c}};
        ASSERT_EQ(0, mgr_->set_SLA_ratio_iptables(wrappers));
    }

    Netns net_;
    std::string root_;
    IptablesManager* mgr_ = nullptr;
    int listen4_ = -1, listen6_ = -1;
    sockaddr_in6 server6_ = {};
};

// 800 IPv6 connections of a whitelisted UID with Wi-Fi at 0.3 and cellular at 0.7: the Wi-Fi
// share misses 0.3 by 0.1 or more with probability below 2.3e-7 (Hoeffding), a cascade that is
// wrong for IPv6 by 0.4 or more. Then IPv4 over the IPv6-only link leaves through its companion,
// masqueraded; and the shut-down leaves no rule of either family.
TEST_F(DualStackKernelTest, Ipv6SplitsByTheSharesCompanionMasqueradesAndNothingIsLeft) {
    constexpr int kConnections = 800;
    setRatios(0.3f, 0.7f);
    // The same cascade in both families.
    const Lines sla4 = outputLines("iptables-save -t mangle | grep -- '-A vexa_SLA'");
    ASSERT_EQ(2u, sla4.size());
    EXPECT_EQ(sla4, outputLines("ip6tables-save -t mangle | grep -- '-A vexa_SLA'"));
    EXPECT_EQ(0, connectAs(server6_, kConnections));
    Flows got = flows();
    // The tracking table prints IPv6 addresses in full.
    const std::string server = "fd99:0000:0000:0000:0000:0000:0000:0001 from ";
    const int wlan = got[server + "fd00:0001:0000:0000:0000:0000:0000:0002 mark=90"];
    const int cell = got[server + "fd00:0002:0000:0000:0000:0000:0000:0002 mark=92"];
    EXPECT_EQ(kConnections, wlan + cell) << testing::PrintToString(got);
    EXPECT_NEAR(0.3, static_cast<double>(wlan) / kConnections, 0.1) << wlan << " via wlan0";

    setRatios(0.0f, 1.0f);
    EXPECT_EQ(0, connectAs(kServer4, 5));
    EXPECT_EQ(5, flows()["10.99.0.1 from 192.0.0.4 mark=92"]) << testing::PrintToString(flows());

    // Every rule of both families is programmed; the shut-down removes all of them.
    EXPECT_EQ(0, mgr_->setup_SLS_iptables_UID_chains() + mgr_->set_SLS_interface("rmnet_data0"));
    // The same rules in both families, but the companions' masquerades (IPv4 only).
    Lines v4 = savedRules(""), companions;
    for (auto it = v4.begin(); it != v4.end();) {
        const bool companion = it->find(" -o v4-") != std::string::npos;
        if (companion) companions.push_back(*it);
        it = companion ? v4.erase(it) : it + 1;
    }
    EXPECT_EQ(v4, savedRules("6"));
    EXPECT_EQ((Lines{"-A vexa_nat_POSTROUTING_SLM -o v4-wlan0 -j MASQUERADE",
                     "-A vexa_nat_POSTROUTING_SLM -o v4-rmnet_data0 -j MASQUERADE"}),
              companions);
    // mlbdctl reads both families back: healthy; without one IPv6 routing rule, half-programmed.
    EXPECT_NE(npos, status().find("Health: OK (IPv4 and IPv6)\n")) << status();
    ASSERT_EQ(0, Netns::run("ip -6 rule del pref 30000 fwmark 0x5a"));
    EXPECT_NE(npos, status().find("Health: 2 problem(s) (IPv6 half-programmed)\n  - IPv6: ip rule "
                                  "priority 30000 fwmark 0x5a (wlan0) missing\n  - IPv6 links, "
                                  "marks, tables, split or gaming link differ from IPv4\n"))
            << status();
    IptablesManager::clean_SLM_iptables();
    mgr_ = nullptr;
    EXPECT_EQ(Lines{}, savedRules(""));
    EXPECT_EQ(Lines{}, savedRules("6"));
}

}  // namespace
