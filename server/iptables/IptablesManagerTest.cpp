#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "iptables/IptablesManager.h"
#include "platform/Platform.h"
#include "support/CommandRecorder.h"
#include "support/ParametersTestPeer.h"

namespace {

using Lines = std::vector<std::string>;
using Peer = ParametersTestPeer;

// Expected iptables front-end lines, written without "/system/bin/iptables-wrapper-1.0 -w -t ".
Lines cmds(std::initializer_list<std::string> tails) {
    Lines out;
    for (const std::string& t : tails) out.push_back("/system/bin/iptables-wrapper-1.0 -w -t " + t);
    return out;
}

// A ratio rule of vexa_SLA, without its probability and jump.
const std::string kRatio =
        "mangle -A vexa_SLA --match multiport -p tcp --dports 80,443,8080 -m state --state NEW -m "
        "statistic --mode random --probability ";

// Device paths (no host prefix); every command is recorded and none runs.
class IptablesManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mlbd::initLogging();
        setenv("MLBD_ROOT", "", 1);
        Peer::uidWhitelist(params_) = {"10001", "10002"};
        Peer::dblWlanUidWhitelist(params_) = {"10003"};
        Peer::gamingUidList(params_) = {"10004"};
        // Records are {name, routeTable, metered, dblWlan, isDefault, cost, bias, fwmark}.
        setInterfaces({{"wlan0", "90", false, false, false, 0, 0, "0x5A"},
                       {"wlan1", "91", false, true, false, 0, 0, "0x5B"},
                       {"rmnet_data0", "92", true, false, false, 0, 0, "0x5C"}});
    }
    void TearDown() override {
        rec_ = std::make_unique<mlbd::ScopedCommandRecorder>();
        IptablesManager::clean_SLM_iptables();
        IptablesManager::clean_SLM_iptables();  // the second call finds nothing to free
        Peer::interfaces(params_).clear();
    }
    void setInterfaces(const std::vector<InterfaceInfo_t>& records) {
        records_ = records;
        Peer::interfaces(params_).clear();
        for (InterfaceInfo_t& r : records_) Peer::interfaces(params_)[r.name] = &r;
    }
    int setSla(const std::map<std::string, float>& ratios) {
        return setSlaOn(IptablesManager::instance(), ratios);
    }
    int setSlaOn(IptablesManager* mgr, const std::map<std::string, float>& ratios) {
        std::map<std::string, linkStatsWrapper_t*> wrappers;
        for (const auto& [name, ratio] : ratios) {
            linkStatsWrapper_t& w = *(wrappers[name] = &wrappers_[name]);
            snprintf(w.interfaceName, sizeof(w.interfaceName), "%s", name.c_str());
            w.interfaceRatio = ratio;
        }
        return mgr->set_SLA_ratio_iptables(wrappers);
    }
    Lines take() {
        Lines lines = rec_->lines();
        rec_->clear();
        return lines;
    }

    Parameters* params_ = Parameters::instance();
    std::vector<InterfaceInfo_t> records_;
    std::map<std::string, linkStatsWrapper_t> wrappers_;
    std::unique_ptr<mlbd::ScopedCommandRecorder> rec_ =
            std::make_unique<mlbd::ScopedCommandRecorder>();
};

// Each operation runs exactly these command lines, in this order (the skeleton, the mark
// chains, the metered whitelist, the selection and the shut-down are checked against the kernel
// by IptablesKernelTest).
TEST_F(IptablesManagerTest, CommandSequences) {
    IptablesManager* mgr = IptablesManager::instance();
    take();
    auto expect = [&](int result, const Lines& expected) {
        EXPECT_EQ(0, result);
        EXPECT_EQ(expected, take());
    };
    expect(mgr->setup_double_wlan_uid_whitelist(),
           cmds({"mangle -F vexa_fw_wlan1_wrapper ",
                 "mangle -A vexa_fw_wlan1_wrapper -m owner --uid-owner 10003 -j vexa_fw_wlan1"}));
    expect(mgr->setup_slm_whitelist(),
           cmds({"mangle -F vexa_SLM_wapper",
                 "mangle -A vexa_SLM_wapper -m owner --uid-owner 10003 -j vexa_SLM",
                 "mangle -A vexa_SLM_wapper -m owner --uid-owner 10001 -j vexa_SLM",
                 "mangle -A vexa_SLM_wapper -m owner --uid-owner 10002 -j vexa_SLM",
                 "mangle -A vexa_SLM_wapper -m owner --uid-owner 10004 -j vexa_SLM"}));
    // Wi-Fi before cellular, each the conditional share of what the earlier rules leave; with
    // nothing left the share is 0, not a division by zero.
    expect(setSla({{"wlan0", 0.25f}, {"wlan1", 0.25f}, {"rmnet_data0", 0.3f}}),
           cmds({"mangle -F vexa_SLA", kRatio + "0.250000 -j vexa_fw_wlan0",
                 kRatio + "0.333333 -j vexa_fw_wlan1_wrapper",
                 kRatio + "0.600000 -j vexa_fw_rmnet_data0_wrapper"}));
    expect(setSla({{"wlan0", 1.0f}, {"rmnet_data0", 0}}),
           cmds({"mangle -F vexa_SLA", kRatio + "1.000000 -j vexa_fw_wlan0",
                 kRatio + "0.000000 -j vexa_fw_rmnet_data0_wrapper"}));
    expect(setSla({}), cmds({"mangle -F vexa_SLA"}));
}

// UID texts with blanks, quotes, semicolons or command substitutions never enter a command line:
// only plain decimal numbers do. Ratio entries that are null or name no known interface (their
// name not even terminated) are skipped.
TEST_F(IptablesManagerTest, HostileInputNeverEntersACommandLine) {
    Lines hostile = {
            "10001 -j DROP", "\"10002\"",   "10003;reboot", "$(reboot)", "`id`",   "",
            "0123",          "12345678901", "-1",           "１２３",    " 10004", "10005\n"};
    hostile.push_back(std::string{'1', '\0', '2'});  // an embedded NUL
    for (auto* list : {&Peer::uidWhitelist, &Peer::dblWlanUidWhitelist, &Peer::gamingUidList}) {
        list(params_) = hostile;
    }
    Peer::uidWhitelist(params_).push_back("10006");
    Peer::gamingUidList(params_).push_back("0");
    Peer::dblWlanUidWhitelist(params_).push_back("4294967294");
    IptablesManager* mgr = IptablesManager::instance();
    linkStatsWrapper_t unknown;
    memset(unknown.interfaceName, 'x', sizeof(unknown.interfaceName));
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{"ghost", nullptr}, {"x", &unknown}};
    EXPECT_EQ(0, mgr->setup_slm_whitelist() + mgr->setup_uid_whitelist() +
                         mgr->setup_double_wlan_uid_whitelist() +
                         mgr->set_SLA_ratio_iptables(wrappers) +
                         mgr->setup_SLS_iptables_UID_chains() +
                         mgr->cleanup_SLS_iptables_UID_chains());
    std::set<std::string> owners;  // every argument after --uid-owner
    for (const std::string& line : take()) {
        const size_t at = line.find("--uid-owner ");
        if (at != line.npos) owners.insert(line.substr(at + 12, line.find(' ', at + 12) - at - 12));
        EXPECT_EQ(std::string::npos, line.find("vexa_fw_x")) << line;
    }
    EXPECT_EQ((std::set<std::string>{"0", "10006", "4294967294"}), owners);
}

// The whole life of the rules with an IPv6 front-end in place, in three set-ups: "ipv6" 0 (no
// IPv6 command at all: the lines are those checked above), "ipv6" 1 with the front-end missing
// (logged, then the same lines), and "ipv6" 1: per operation its IPv4 lines, with the masquerade
// of each link's v4- companion after the link's own, then the same arguments again for IPv6.
TEST_F(IptablesManagerTest, BothFamiliesPerOperation) {
    std::string tmpl = mlbd::scratchDirectory() + "/mlbd-ipt6-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(&tmpl[0]));
    const std::string root = tmpl.c_str(), bin = root + "/system/bin/";
    setenv("MLBD_ROOT", root.c_str(), 1);
    const std::string ipt4 = bin + "iptables-wrapper-1.0 ", ipt6 = bin + "ip6tables-wrapper-1.0 ",
                      ip = bin + "ip-wrapper-1.0 ";
    IptablesManager* mgr = nullptr;
    const std::vector<std::function<int()>> ops = {
            [&] { return (mgr = new IptablesManager()) ? 0 : -1; },
            [&] { return mgr->setup_SLM_iptables_FWMARK_chains(); },
            [&] { return mgr->setup_slm_whitelist(); },
            [&] { return mgr->setup_uid_whitelist(); },
            [&] { return mgr->setup_SLS_iptables_UID_chains(); },
            [&] { return mgr->set_SLS_interface("rmnet_data0"); },
            [&] {
                return setSlaOn(mgr, {{"wlan0", 0.25f}, {"rmnet_data0", 0.5f}});
            },
            [&] { return mgr->cleanup_SLS_iptables_UID_chains(); },
            [&] { return delete mgr, 0; },
    };
    std::vector<Lines> ipv4Only;
    for (const int setup : {0, 1, 2}) {
        SCOPED_TRACE(setup);
        params_->ipv6 = setup != 0;
        ASSERT_EQ(0, system(("rm -rf " + bin + " && mkdir -p " + bin).c_str()));
        if (setup == 2) {
            ASSERT_EQ(0, system(("touch " + ipt6 + " && chmod 755 " + ipt6).c_str()));
        }
        testing::internal::CaptureStderr();
        for (size_t i = 0; i < ops.size(); ++i) {
            take();
            EXPECT_EQ(0, ops[i]());
            const Lines lines = take();
            if (setup == 0) ipv4Only.push_back(lines);
            const std::string all = testing::PrintToString(lines);
            for (const char* ipv6Only : {"ip6tables", " -6 ", "v4-"}) {
                EXPECT_TRUE(setup > 0 || all.find(ipv6Only) == all.npos) << ipv6Only;
            }
            // Set-up 2: the IPv4 lines with the companions' masquerades, then the IPv6 forms
            // ("-4 rule" becoming "-6 rule": routing rules, ratio rules with the same texts).
            Lines expected, ipv6;
            for (const std::string& line : ipv4Only[i]) {
                expected.push_back(line);
                const size_t at = line.find(" -o ");
                if (setup == 2 && at != line.npos) {
                    expected.push_back(line.substr(0, at + 4) + "v4-" + line.substr(at + 4));
                }
                ipv6.push_back(line.compare(0, ipt4.size(), ipt4) == 0
                                       ? ipt6 + line.substr(ipt4.size())
                                       : ip + "-6" + line.substr(ip.size() + 2));
            }
            if (setup == 2) expected.insert(expected.end(), ipv6.begin(), ipv6.end());
            EXPECT_EQ(expected, lines);
        }
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(setup == 1, log.find("IPv6 steering skipped: " + ipt6.substr(0, ipt6.size() - 1) +
                                       " cannot be run (No such file or directory); IPv4 "
                                       "steering goes on") != log.npos);
    }
    ASSERT_EQ(0, system(("rm -rf " + root).c_str()));
}

// A command longer than 511 characters ends the process instead of running cut.
TEST_F(IptablesManagerTest, OverlongCommandAborts) {
    GTEST_FLAG_SET(death_test_style, "fast");
    setenv("MLBD_ROOT", ("/tmp/" + std::string(480, 'r')).c_str(), 1);
    EXPECT_DEATH(IptablesManager::instance(),
                 "F Mlbd-iptablesManager: formatChecked: text of [0-9]+ characters does not fit "
                 "in 512 bytes");
}

}  // namespace
