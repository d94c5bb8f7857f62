#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "iptables/IptablesManager.h"
#include "iptables/execnetd.h"
#include "parameters/ParametersTestPeer.h"
#include "platform/Platform.h"

namespace {

using Lines = std::vector<std::string>;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// Expected command lines, written without the front-end: "rule ..." for the ip front-end (with
// "-4"), "/..." as they stand, anything else for the iptables front-end (with "-w -t").
Lines cmds(std::initializer_list<std::string> tails) {
    Lines out;
    for (const std::string& tail : tails) {
        out.push_back(tail[0] == '/' ? tail
                      : tail.rfind("rule ", 0) == 0
                              ? "/system/bin/ip-wrapper-1.0 -4 " + tail
                              : "/system/bin/iptables-wrapper-1.0 -w -t " + tail);
    }
    return out;
}

Lines operator+(Lines first, const Lines& then) {
    first.insert(first.end(), then.begin(), then.end());
    return first;
}

// A ratio rule of vexa_SLA; `tail` is the probability and the jump.
std::string ratio(const char* tail) {
    return std::string(
                   "mangle -A vexa_SLA --match multiport -p tcp --dports 80,443,8080 -m state "
                   "--state NEW -m statistic --mode random --probability ") +
           tail;
}

size_t occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// Device paths (no host prefix); every command is recorded and none runs, unless a test says so.
class IptablesManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mlbd::initLogging();
        setenv("MLBD_ROOT", "", 1);
        params_ = Parameters::instance();
        ParametersTestPeer::interfaces(params_).clear();
        ParametersTestPeer::uidWhitelist(params_) = {"10001", "10002"};
        ParametersTestPeer::dblWlanUidWhitelist(params_) = {"10003"};
        ParametersTestPeer::gamingUidList(params_) = {"10004"};
        add({"wlan0", "90", false, false, false, 0, 0, "0x5A"});
        add({"rmnet_data0", "92", true, false, false, 0, 0, "0x5C"});
    }
    void TearDown() override {
        rec_ = std::make_unique<mlbd::ScopedCommandRecorder>();
        IptablesManager::clean_SLM_iptables();
        ParametersTestPeer::interfaces(params_).clear();
    }

    // Records are written {name, routeTable, metered, dblWlan, isDefault, cost, bias, fwmark}.
    void add(const InterfaceInfo_t& rec) {
        ParametersTestPeer::interfaces(params_)[rec.name] = &(records_[rec.name] = rec);
    }

    int setSla(const std::map<std::string, float>& ratios) {
        std::map<std::string, linkStatsWrapper_t*> wrappers;
        for (const auto& entry : ratios) {
            linkStatsWrapper_t& w = wrappers_[entry.first];
            snprintf(w.interfaceName, sizeof(w.interfaceName), "%s", entry.first.c_str());
            w.interfaceRatio = entry.second;
            wrappers[entry.first] = &w;
        }
        return IptablesManager::instance()->set_SLA_ratio_iptables(wrappers);
    }

    Lines take() {
        Lines lines = rec_->lines();
        rec_->clear();
        return lines;
    }

    Parameters* params_ = nullptr;
    std::map<std::string, InterfaceInfo_t> records_;
    std::map<std::string, linkStatsWrapper_t> wrappers_;
    std::unique_ptr<mlbd::ScopedCommandRecorder> rec_ =
            std::make_unique<mlbd::ScopedCommandRecorder>();
};

// Each operation issues exactly these command lines, in this order: interfaces in name order,
// Wi-Fi ratio rules before cellular ones, shut-down from the skeleton to the mark chains.
TEST_F(IptablesManagerTest, CommandSequences) {
    add({"wlan1", "91", false, true, false, 0, 0, "0x5B"});
    IptablesManager::clean_SLM_iptables();  // nothing built yet: nothing to do
    IptablesManager* mgr = nullptr;
    auto sla = [&](std::map<std::string, float> ratios) {
        return [&, ratios] { return setSla(ratios); };
    };
    const struct {
        const char* what;
        std::function<int()> run;
        Lines expected;
    } steps[] = {
            {"constructor, once",
             [&] {
                 mgr = IptablesManager::instance();
                 return mgr == IptablesManager::instance() ? 0 : 1;
             },
             cmds({"mangle -N vexa_SLM", "mangle -F vexa_SLM", "mangle -N vexa_SLA",
                   "mangle -F vexa_SLA", "mangle -N vexa_SLS", "mangle -F vexa_SLS",
                   "mangle -N vexa_SLM_wapper", "mangle -F vexa_SLM_wapper",
                   "mangle -I vexa_SLM 1 -j vexa_SLS",
                   "mangle -I vexa_SLM 2 -m state --state ESTABLISHED,RELATED -j CONNMARK "
                   "--restore-mark",
                   "mangle -I vexa_SLM 3 -j vexa_SLA", "mangle -D OUTPUT -j vexa_SLM_wapper",
                   "mangle -I OUTPUT -j vexa_SLM_wapper", "nat -F vexa_nat_POSTROUTING_SLM",
                   "nat -N vexa_nat_POSTROUTING_SLM",
                   "nat -D POSTROUTING -j vexa_nat_POSTROUTING_SLM",
                   "nat -I POSTROUTING -j vexa_nat_POSTROUTING_SLM"})},
            {"mark chains, a wrapper chain for the metered and the second Wi-Fi link",
             [&] { return mgr->setup_SLM_iptables_FWMARK_chains(); },
             cmds({"mangle -N vexa_fw_rmnet_data0", "mangle -F vexa_fw_rmnet_data0",
                   "mangle -N vexa_fw_rmnet_data0_wrapper", "mangle -F vexa_fw_rmnet_data0_wrapper",
                   "mangle -A vexa_fw_rmnet_data0 -j MARK --set-mark 0x5C",
                   "mangle -A vexa_fw_rmnet_data0 -j CONNMARK --save-mark",
                   "mangle -A vexa_fw_rmnet_data0 -j ACCEPT",
                   "rule add fwmark 0x5C table 92 prio 30000",
                   "nat -I vexa_nat_POSTROUTING_SLM -o rmnet_data0 -j MASQUERADE"}) +
                     cmds({"mangle -N vexa_fw_wlan0", "mangle -F vexa_fw_wlan0",
                           "mangle -A vexa_fw_wlan0 -j MARK --set-mark 0x5A",
                           "mangle -A vexa_fw_wlan0 -j CONNMARK --save-mark",
                           "mangle -A vexa_fw_wlan0 -j ACCEPT",
                           "rule add fwmark 0x5A table 90 prio 30000",
                           "nat -I vexa_nat_POSTROUTING_SLM -o wlan0 -j MASQUERADE"}) +
                     cmds({"mangle -N vexa_fw_wlan1", "mangle -F vexa_fw_wlan1",
                           "mangle -N vexa_fw_wlan1_wrapper", "mangle -F vexa_fw_wlan1_wrapper",
                           "mangle -A vexa_fw_wlan1 -j MARK --set-mark 0x5B",
                           "mangle -A vexa_fw_wlan1 -j CONNMARK --save-mark",
                           "mangle -A vexa_fw_wlan1 -j ACCEPT",
                           "rule add fwmark 0x5B table 91 prio 30000",
                           "nat -I vexa_nat_POSTROUTING_SLM -o wlan1 -j MASQUERADE"})},
            {"metered whitelist", [&] { return mgr->setup_uid_whitelist(); },
             cmds({"mangle -F vexa_fw_rmnet_data0_wrapper ",
                   "mangle -A vexa_fw_rmnet_data0_wrapper -m owner --uid-owner 10001 -j "
                   "vexa_fw_rmnet_data0",
                   "mangle -A vexa_fw_rmnet_data0_wrapper -m owner --uid-owner 10002 -j "
                   "vexa_fw_rmnet_data0"})},
            {"second Wi-Fi whitelist", [&] { return mgr->setup_double_wlan_uid_whitelist(); },
             cmds({"mangle -F vexa_fw_wlan1_wrapper ",
                   "mangle -A vexa_fw_wlan1_wrapper -m owner --uid-owner 10003 -j vexa_fw_wlan1"})},
            {"entry whitelist", [&] { return mgr->setup_slm_whitelist(); },
             cmds({"mangle -F vexa_SLM_wapper",
                   "mangle -A vexa_SLM_wapper -m owner --uid-owner 10003 -j vexa_SLM",
                   "mangle -A vexa_SLM_wapper -m owner --uid-owner 10001 -j vexa_SLM",
                   "mangle -A vexa_SLM_wapper -m owner --uid-owner 10002 -j vexa_SLM",
                   "mangle -A vexa_SLM_wapper -m owner --uid-owner 10004 -j vexa_SLM"})},
            {"selection chains",
             [&] { return mgr->create_SLS_iptables_UID_for_interface(&records_["wlan0"]); },
             cmds({"mangle -N vexa_sls_wlan0", "mangle -F vexa_sls_wlan0",
                   "mangle -A vexa_sls_wlan0 -p udp ! --dport 53 -j vexa_fw_wlan0",
                   "mangle -A vexa_sls_wlan0 -p tcp -j vexa_fw_wlan0",
                   "mangle -A vexa_sls_wlan0 -j ACCEPT", "mangle -N vexa_sls_uid_wlan0",
                   "mangle -F vexa_sls_uid_wlan0",
                   "mangle -A vexa_sls_uid_wlan0 -m owner --uid-owner 10004 -j vexa_sls_wlan0"})},
            {"switch", [&] { return mgr->set_SLS_interface("wlan0"); },
             cmds({"/system/bin/iptables-wrapper-1.0  -w -t mangle -F vexa_SLS",
                   "/system/bin/iptables-wrapper-1.0  -w -t mangle -A vexa_SLS -j "
                   "vexa_sls_uid_wlan0"})},
            {"ratios 0.5 0.5", sla({{"wlan0", 0.5f}, {"rmnet_data0", 0.5f}}),
             cmds({"mangle -F vexa_SLA", ratio("0.500000 -j vexa_fw_wlan0"),
                   ratio("1.000000 -j vexa_fw_rmnet_data0_wrapper")})},
            {"ratios 0.25 0.25 0.3",
             sla({{"wlan0", 0.25f}, {"wlan1", 0.25f}, {"rmnet_data0", 0.3f}}),
             cmds({"mangle -F vexa_SLA", ratio("0.250000 -j vexa_fw_wlan0"),
                   ratio("0.333333 -j vexa_fw_wlan1_wrapper"),
                   ratio("0.600000 -j vexa_fw_rmnet_data0_wrapper")})},
            {"ratio 1.0 first", sla({{"wlan0", 1.0f}, {"rmnet_data0", 0.0f}}),
             cmds({"mangle -F vexa_SLA", ratio("1.000000 -j vexa_fw_wlan0"),
                   ratio("0.000000 -j vexa_fw_rmnet_data0_wrapper")})},
            {"no ratios", sla({}), cmds({"mangle -F vexa_SLA"})},
            {"shut-down, one interface left",
             [&] {
                 ParametersTestPeer::interfaces(params_).erase("wlan0");
                 ParametersTestPeer::interfaces(params_).erase("wlan1");
                 IptablesManager::clean_SLM_iptables();
                 IptablesManager::clean_SLM_iptables();  // the second call finds nothing
                 return 0;
             },
             cmds({"mangle -D OUTPUT -j vexa_SLM_wapper",
                   "nat -D POSTROUTING -j vexa_nat_POSTROUTING_SLM",
                   "nat -F vexa_nat_POSTROUTING_SLM", "nat -X vexa_nat_POSTROUTING_SLM",
                   "mangle -F vexa_SLM_wapper", "mangle -X vexa_SLM_wapper", "mangle -F vexa_SLM",
                   "mangle -X vexa_SLM", "mangle -F vexa_SLA", "mangle -X vexa_SLA",
                   "mangle -F vexa_SLS", "mangle -X vexa_SLS"}) +
                     cmds({"mangle -F vexa_SLS", "mangle -F vexa_sls_rmnet_data0",
                           "mangle -F vexa_sls_uid_rmnet_data0", "mangle -X vexa_sls_rmnet_data0",
                           "mangle -X vexa_sls_uid_rmnet_data0",
                           "mangle -D vexa_SLM_wapper -m owner --uid-owner 10004 -j vexa_SLM"}) +
                     cmds({"mangle -F vexa_fw_rmnet_data0_wrapper",
                           "mangle -X vexa_fw_rmnet_data0_wrapper", "mangle -F vexa_fw_rmnet_data0",
                           "mangle -X vexa_fw_rmnet_data0", "rule del fwmark 0x5C prio 30000",
                           "nat -F vexa_nat_POSTROUTING_SLM", "nat -X vexa_nat_POSTROUTING_SLM"})},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(0, step.run()) << step.what;
        EXPECT_EQ(step.expected, take()) << step.what;
    }
}

// No command can be started (no descriptor is free for an output pipe): every operation still
// issues all its commands and reports the failure, the whitelists as the raw sum of results.
TEST_F(IptablesManagerTest, CommandsThatCannotStartAreCountedButAllAttempted) {
    IptablesManager* mgr = IptablesManager::instance();
    rec_.reset();
    struct rlimit saved, low;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    low = {64, saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> fds;
    CaptureStderr();
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fds.push_back(fd);
    const std::vector<int> results = {
            mgr->create_SLM_FWMARK_chain_for_iface(&records_["rmnet_data0"]),
            mgr->setup_slm_whitelist(),
            mgr->setup_uid_whitelist(),
            setSla({{"wlan0", 1.0f}}),
            mgr->setup_SLS_iptables_UID_chains(),
            mgr->set_SLS_interface("rmnet_data0")};
    for (int fd : fds) close(fd);
    const std::string log = GetCapturedStderr();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ((std::vector<int>{-1, -5, -3, -1, -1, -1}), results);
    // 9 + 5 + 3 + 2 + 2 * 8 + 2 command lines were attempted.
    EXPECT_EQ(37u, occurrences(log, "SEND SLA NDC COMMAND - FAIL  ")) << log;
    EXPECT_NE(std::string::npos, log.find("E Mlbd-iptablesManager: set_SLS_interface Failue during "
                                          "SLS interface switch  rmnet_data0 "
                                          "vexa_sls_uid_rmnet_data0 \n"));
}

// UID texts with blanks, quotes, semicolons or command substitutions never enter a command line:
// only plain decimal numbers do (the others are logged at ERROR). Ratio entries that are null or
// name no known interface (their name not even terminated) are skipped.
TEST_F(IptablesManagerTest, HostileInputNeverEntersACommandLine) {
    Lines hostile = {
            "10001 -j DROP", "\"10002\"",   "10003;reboot", "$(reboot)", "`id`",   "",
            "0123",          "12345678901", "-1",           "１２３",    " 10004", "10005\n"};
    hostile.push_back(std::string{'1', '\0', '2'});  // an embedded NUL
    ParametersTestPeer::uidWhitelist(params_) = ParametersTestPeer::gamingUidList(params_) =
            hostile;
    ParametersTestPeer::uidWhitelist(params_).push_back("10006");
    ParametersTestPeer::gamingUidList(params_).push_back("0");
    ParametersTestPeer::dblWlanUidWhitelist(params_) = {"4294967294"};
    IptablesManager* mgr = IptablesManager::instance();
    take();
    CaptureStderr();
    EXPECT_EQ(0, mgr->setup_slm_whitelist());
    const std::string log = GetCapturedStderr();
    EXPECT_EQ(cmds({"mangle -F vexa_SLM_wapper",
                    "mangle -A vexa_SLM_wapper -m owner --uid-owner 4294967294 -j vexa_SLM",
                    "mangle -A vexa_SLM_wapper -m owner --uid-owner 10006 -j vexa_SLM",
                    "mangle -A vexa_SLM_wapper -m owner --uid-owner 0 -j vexa_SLM"}),
              take());
    EXPECT_EQ(2 * hostile.size(),
              occurrences(log, " E Mlbd-iptablesManager: setup_slm_whitelist refusing UID"));
    linkStatsWrapper_t unknown;
    memset(unknown.interfaceName, 'x', sizeof(unknown.interfaceName));
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{"ghost", nullptr}, {"x", &unknown}};
    EXPECT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    mgr->setup_uid_whitelist();
    mgr->setup_SLS_iptables_UID_chains();
    mgr->cleanup_SLS_iptables_UID_chains();
    for (const std::string& line : take()) {
        for (const char* bad : {"DROP", "\"", ";", "$(", "`", "0123", "12345678901", "-1 "}) {
            EXPECT_EQ(std::string::npos, line.find(bad)) << line;
        }
    }
}

// The longest command built from realistic inputs (15-character interface names, the longest
// UIDs and marks) stays far below the 511-character limit; a longer one ends the process instead
// of running cut.
TEST_F(IptablesManagerTest, CommandLengthLimit) {
    ParametersTestPeer::interfaces(params_).clear();
    add({"rmnet_data01234", "4294967295", true, true, false, 0, 0, "0xFFFFFFFF"});
    add({"wlan01234567890", "4294967295", false, true, false, 0, 0, "0xFFFFFFFF"});
    ParametersTestPeer::uidWhitelist(params_) = ParametersTestPeer::dblWlanUidWhitelist(params_) =
            ParametersTestPeer::gamingUidList(params_) = {"4294967294"};
    IptablesManager* mgr = IptablesManager::instance();
    mgr->setup_SLM_iptables_FWMARK_chains();
    mgr->setup_uid_whitelist();
    mgr->setup_double_wlan_uid_whitelist();
    mgr->setup_slm_whitelist();
    mgr->setup_SLS_iptables_UID_chains();
    mgr->set_SLS_interface("rmnet_data01234");
    setSla({{"rmnet_data01234", 0.123456f}, {"wlan01234567890", 0.5f}});
    IptablesManager::clean_SLM_iptables();
    size_t longest = 0;
    for (const std::string& line : take()) longest = std::max(longest, line.size());
    RecordProperty("longest_command", static_cast<int>(longest));
    EXPECT_GT(longest, 200u);  // the ratio rule into a wrapper chain
    EXPECT_LT(longest, 260u);

    GTEST_FLAG_SET(death_test_style, "fast");
    setenv("MLBD_ROOT", ("/tmp/" + std::string(480, 'r')).c_str(), 1);
    EXPECT_DEATH(IptablesManager::instance(),
                 "F Mlbd-iptablesManager: formatChecked: text of [0-9]+ characters does not fit "
                 "in 512 bytes");
}

}  // namespace
