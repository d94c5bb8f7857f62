#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "iptables/IptablesManager.h"
#include "iptables/execnetd.h"
#include "platform/Platform.h"

namespace {

using Lines = std::vector<std::string>;

class IptablesManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mlbd::initLogging();
        char pattern[] = "/tmp/iptables-test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        root_ = pattern;
        setenv("MLBD_ROOT", root_.c_str(), 1);
        params_ = Parameters::instance();
        params_->interfaces.clear();
        params_->uidWhitelist.clear();
        params_->dblWlanUidWhitelist.clear();
        params_->gamingUidList.clear();
    }
    void TearDown() override {
        IptablesManager::clean_SLM_iptables();
        params_->interfaces.clear();
        std::string cmd = "rm -rf " + root_;
        ASSERT_EQ(0, system(cmd.c_str()));
    }

    InterfaceInfo_t* addIface(const char* name, const char* fwmark, bool metered, bool dblWlan) {
        records_.emplace_back(new InterfaceInfo_t());
        InterfaceInfo_t* rec = records_.back().get();
        snprintf(rec->name, sizeof(rec->name), "%s", name);
        snprintf(rec->routeTable, sizeof(rec->routeTable), "%s", name);
        snprintf(rec->fwmark, sizeof(rec->fwmark), "%s", fwmark);
        rec->metered = metered;
        rec->dblWlan = dblWlan;
        params_->interfaces[name] = rec;
        return rec;
    }
    void addStandardIfaces() {
        addIface("wlan0", "0x5A", false, false);
        addIface("rmnet_data0", "0x5C", true, false);
    }

    // A command line as written for the device, with the host's path prefix.
    std::string dev(const std::string& line) const { return root_ + line; }
    Lines dev(const Lines& lines) const {
        Lines out;
        for (const std::string& l : lines) out.push_back(dev(l));
        return out;
    }

    std::string root_;
    Parameters* params_ = nullptr;
    std::vector<std::unique_ptr<InterfaceInfo_t>> records_;
    linkStatsWrapper_t w_;
};

#define IPT "/system/bin/iptables-wrapper-1.0 -w -t "

const Lines kSkeleton = {
        IPT "mangle -N vexa_SLM",
        IPT "mangle -F vexa_SLM",
        IPT "mangle -N vexa_SLA",
        IPT "mangle -F vexa_SLA",
        IPT "mangle -N vexa_SLS",
        IPT "mangle -F vexa_SLS",
        IPT "mangle -N vexa_SLM_wapper",
        IPT "mangle -F vexa_SLM_wapper",
        IPT "mangle -I vexa_SLM 1 -j vexa_SLS",
        IPT "mangle -I vexa_SLM 2 -m state --state ESTABLISHED,RELATED -j CONNMARK --restore-mark",
        IPT "mangle -I vexa_SLM 3 -j vexa_SLA",
        IPT "mangle -D OUTPUT -j vexa_SLM_wapper",
        IPT "mangle -I OUTPUT -j vexa_SLM_wapper",
        IPT "nat -F vexa_nat_POSTROUTING_SLM",
        IPT "nat -N vexa_nat_POSTROUTING_SLM",
        IPT "nat -D POSTROUTING -j vexa_nat_POSTROUTING_SLM",
        IPT "nat -I POSTROUTING -j vexa_nat_POSTROUTING_SLM",
};

const Lines kTeardown = {
        IPT "mangle -D OUTPUT -j vexa_SLM_wapper",
        IPT "nat -D POSTROUTING -j vexa_nat_POSTROUTING_SLM",
        IPT "nat -F vexa_nat_POSTROUTING_SLM",
        IPT "nat -X vexa_nat_POSTROUTING_SLM",
        IPT "mangle -F vexa_SLM_wapper",
        IPT "mangle -X vexa_SLM_wapper",
        IPT "mangle -F vexa_SLM",
        IPT "mangle -X vexa_SLM",
        IPT "mangle -F vexa_SLA",
        IPT "mangle -X vexa_SLA",
        IPT "mangle -F vexa_SLS",
        IPT "mangle -X vexa_SLS",
};

Lines concat(std::initializer_list<Lines> parts) {
    Lines out;
    for (const Lines& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST_F(IptablesManagerTest, SkeletonBuiltOnceAndTornDownCompletely) {
    mlbd::ScopedCommandRecorder rec;
    IptablesManager::clean_SLM_iptables();  // nothing built yet: nothing to do
    EXPECT_TRUE(rec.lines().empty());

    IptablesManager* first = IptablesManager::instance();
    EXPECT_EQ(dev(kSkeleton), rec.lines());
    EXPECT_EQ(first, IptablesManager::instance());
    EXPECT_EQ(17u, rec.lines().size());

    // Shut-down with no interfaces: the twelve skeleton commands only.
    rec.clear();
    testing::internal::CaptureStderr();
    IptablesManager::clean_SLM_iptables();
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(dev(kTeardown), rec.lines());
    EXPECT_NE(
            std::string::npos,
            log.find(
                    "D Mlbd-iptablesManager: ~IptablesManager IptablesManager Distructor called "));
    EXPECT_EQ(std::string::npos, log.find(" E ")) << log;
    rec.clear();
    IptablesManager::clean_SLM_iptables();  // a second call finds nothing to free
    EXPECT_TRUE(rec.lines().empty());

    // With interfaces and gaming UIDs: skeleton, then selection chains, then mark chains, each
    // walk in interface-name order.
    addStandardIfaces();
    params_->gamingUidList = {"10061", "10062"};
    IptablesManager::instance();
    rec.clear();
    IptablesManager::clean_SLM_iptables();
    const Lines slsRemoval = {
            IPT "mangle -F vexa_SLS",
            IPT "mangle -F vexa_sls_rmnet_data0",
            IPT "mangle -F vexa_sls_uid_rmnet_data0",
            IPT "mangle -X vexa_sls_rmnet_data0",
            IPT "mangle -X vexa_sls_uid_rmnet_data0",
            IPT "mangle -D vexa_SLM_wapper -m owner --uid-owner 10061 -j vexa_SLM",
            IPT "mangle -D vexa_SLM_wapper -m owner --uid-owner 10062 -j vexa_SLM",
            IPT "mangle -F vexa_SLS",
            IPT "mangle -F vexa_sls_wlan0",
            IPT "mangle -F vexa_sls_uid_wlan0",
            IPT "mangle -X vexa_sls_wlan0",
            IPT "mangle -X vexa_sls_uid_wlan0",
            IPT "mangle -D vexa_SLM_wapper -m owner --uid-owner 10061 -j vexa_SLM",
            IPT "mangle -D vexa_SLM_wapper -m owner --uid-owner 10062 -j vexa_SLM",
    };
    const Lines fwRemoval = {
            IPT "mangle -F vexa_fw_rmnet_data0_wrapper",
            IPT "mangle -X vexa_fw_rmnet_data0_wrapper",
            IPT "mangle -F vexa_fw_rmnet_data0",
            IPT "mangle -X vexa_fw_rmnet_data0",
            "/system/bin/ip-wrapper-1.0 -4 rule del fwmark 0x5C prio 30000",
            IPT "nat -F vexa_nat_POSTROUTING_SLM",
            IPT "nat -X vexa_nat_POSTROUTING_SLM",
            IPT "mangle -F vexa_fw_wlan0",
            IPT "mangle -X vexa_fw_wlan0",
            "/system/bin/ip-wrapper-1.0 -4 rule del fwmark 0x5A prio 30000",
            IPT "nat -F vexa_nat_POSTROUTING_SLM",
            IPT "nat -X vexa_nat_POSTROUTING_SLM",
    };
    EXPECT_EQ(dev(concat({kTeardown, slsRemoval, fwRemoval})), rec.lines());
}

TEST_F(IptablesManagerTest, MarkChainsAndRoutingRulesPerInterface) {
    InterfaceInfo_t* wlan0 = addIface("wlan0", "0x5A", false, false);
    InterfaceInfo_t* wlan1 = addIface("wlan1", "0x5B", false, true);
    InterfaceInfo_t* rmnet = addIface("rmnet_data0", "0x5C", true, false);
    snprintf(rmnet->routeTable, sizeof(rmnet->routeTable), "92");
    mlbd::ScopedCommandRecorder rec;

    EXPECT_EQ(0, IptablesManager::instance()->setup_SLM_iptables_FWMARK_chains());
    const Lines expected = {
            IPT "mangle -N vexa_fw_rmnet_data0",
            IPT "mangle -F vexa_fw_rmnet_data0",
            IPT "mangle -N vexa_fw_rmnet_data0_wrapper",
            IPT "mangle -F vexa_fw_rmnet_data0_wrapper",
            IPT "mangle -A vexa_fw_rmnet_data0 -j MARK --set-mark 0x5C",
            IPT "mangle -A vexa_fw_rmnet_data0 -j CONNMARK --save-mark",
            IPT "mangle -A vexa_fw_rmnet_data0 -j ACCEPT",
            "/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5C table 92 prio 30000",
            IPT "nat -I vexa_nat_POSTROUTING_SLM -o rmnet_data0 -j MASQUERADE",
            IPT "mangle -N vexa_fw_wlan0",
            IPT "mangle -F vexa_fw_wlan0",
            IPT "mangle -A vexa_fw_wlan0 -j MARK --set-mark 0x5A",
            IPT "mangle -A vexa_fw_wlan0 -j CONNMARK --save-mark",
            IPT "mangle -A vexa_fw_wlan0 -j ACCEPT",
            "/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5A table wlan0 prio 30000",
            IPT "nat -I vexa_nat_POSTROUTING_SLM -o wlan0 -j MASQUERADE",
            IPT "mangle -N vexa_fw_wlan1",
            IPT "mangle -F vexa_fw_wlan1",
            IPT "mangle -N vexa_fw_wlan1_wrapper",
            IPT "mangle -F vexa_fw_wlan1_wrapper",
            IPT "mangle -A vexa_fw_wlan1 -j MARK --set-mark 0x5B",
            IPT "mangle -A vexa_fw_wlan1 -j CONNMARK --save-mark",
            IPT "mangle -A vexa_fw_wlan1 -j ACCEPT",
            "/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5B table wlan1 prio 30000",
            IPT "nat -I vexa_nat_POSTROUTING_SLM -o wlan1 -j MASQUERADE",
    };
    Lines got(rec.lines().begin() + 17, rec.lines().end());
    EXPECT_EQ(dev(expected), got);

    // Removal of a plain interface issues nothing for a wrapper chain.
    rec.clear();
    EXPECT_EQ(0, IptablesManager::instance()->remove_SLM_FWMARK_chain_for_iface(wlan0));
    EXPECT_EQ(dev(Lines{
                      IPT "mangle -F vexa_fw_wlan0",
                      IPT "mangle -X vexa_fw_wlan0",
                      "/system/bin/ip-wrapper-1.0 -4 rule del fwmark 0x5A prio 30000",
                      IPT "nat -F vexa_nat_POSTROUTING_SLM",
                      IPT "nat -X vexa_nat_POSTROUTING_SLM",
              }),
              rec.lines());
    rec.clear();
    EXPECT_EQ(0, IptablesManager::instance()->remove_SLM_FWMARK_chain_for_iface(wlan1));
    EXPECT_EQ(dev(IPT "mangle -F vexa_fw_wlan1_wrapper"), rec.lines().at(0));
    EXPECT_EQ(dev(IPT "mangle -X vexa_fw_wlan1_wrapper"), rec.lines().at(1));
    EXPECT_EQ(7u, rec.lines().size());

    // A null record runs nothing and says so.
    rec.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, IptablesManager::instance()->create_SLM_FWMARK_chain_for_iface(nullptr));
    EXPECT_EQ(-1, IptablesManager::instance()->remove_SLM_FWMARK_chain_for_iface(nullptr));
    params_->interfaces["zz_null"] = nullptr;
    EXPECT_EQ(-1, IptablesManager::instance()->setup_SLM_iptables_FWMARK_chains());
    std::string log = testing::internal::GetCapturedStderr();
    params_->interfaces.erase("zz_null");
    EXPECT_NE(
            std::string::npos,
            log.find("create_SLM_FWMARK_chain_for_iface, Creating FWMARK Chain for a NULL iface"));
    EXPECT_NE(std::string::npos,
              log.find("remove_SLM_FWMARK_chain_for_iface, Remove FWMARK Chain for a NULL iface"));
    EXPECT_NE(std::string::npos,
              log.find("setup_SLM_iptables_FWMARK_chains Failure when creating FWMARK tables for "
                       "all interfaces \n"));
    EXPECT_EQ(std::string::npos, log.find("Creating FWMARK for interface"));  // null: no name
    EXPECT_EQ(25u, rec.lines().size());  // the three real interfaces were still created
}

TEST_F(IptablesManagerTest, RatioCascade) {
    addStandardIfaces();
    addIface("wlan1", "0x5B", false, true);
    IptablesManager* mgr = IptablesManager::instance();
    mlbd::ScopedCommandRecorder rec;
    linkStatsWrapper_t w0, w1, r0;
    snprintf(w0.interfaceName, sizeof(w0.interfaceName), "wlan0");
    snprintf(w1.interfaceName, sizeof(w1.interfaceName), "wlan1");
    snprintf(r0.interfaceName, sizeof(r0.interfaceName), "rmnet_data0");
#define RULE                                                                                 \
    IPT "mangle -A vexa_SLA --match multiport -p tcp --dports 80,443,8080 -m state --state " \
        "NEW -m statistic --mode random --probability "
    const std::string flush = dev(IPT "mangle -F vexa_SLA");

    // Half and half: cellular comes second although its name sorts first, through its wrapper.
    w0.interfaceRatio = 0.5f;
    r0.interfaceRatio = 0.5f;
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{"wlan0", &w0}, {"rmnet_data0", &r0}};
    EXPECT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    EXPECT_EQ((Lines{flush, dev(RULE "0.500000 -j vexa_fw_wlan0"),
                     dev(RULE "1.000000 -j vexa_fw_rmnet_data0_wrapper")}),
              rec.lines());

    // The second Wi-Fi link goes through its wrapper; conditional probability 0.25 / 0.75.
    rec.clear();
    w0.interfaceRatio = 0.25f;
    w1.interfaceRatio = 0.25f;
    r0.interfaceRatio = 0.3f;
    wrappers = {{"wlan0", &w0}, {"wlan1", &w1}, {"rmnet_data0", &r0}, {"ghost", nullptr}};
    EXPECT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    EXPECT_EQ((Lines{flush, dev(RULE "0.250000 -j vexa_fw_wlan0"),
                     dev(RULE "0.333333 -j vexa_fw_wlan1_wrapper"),
                     dev(RULE "0.600000 -j vexa_fw_rmnet_data0_wrapper")}),
              rec.lines());

    // A first ratio of 1.0 leaves nothing for the later rules.
    rec.clear();
    w0.interfaceRatio = 1.0f;
    w1.interfaceRatio = 0.2f;
    r0.interfaceRatio = 0.0f;
    wrappers = {{"wlan0", &w0}, {"wlan1", &w1}, {"rmnet_data0", &r0}};
    EXPECT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    EXPECT_EQ((Lines{flush, dev(RULE "1.000000 -j vexa_fw_wlan0"),
                     dev(RULE "0.000000 -j vexa_fw_wlan1_wrapper"),
                     dev(RULE "0.000000 -j vexa_fw_rmnet_data0_wrapper")}),
              rec.lines());

    // An empty map only flushes; an unknown interface is skipped with an error.
    rec.clear();
    wrappers.clear();
    EXPECT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    EXPECT_EQ(Lines{flush}, rec.lines());
    linkStatsWrapper_t unknown;
    memset(unknown.interfaceName, 'x', sizeof(unknown.interfaceName));  // not even terminated
    wrappers = {{"x", &unknown}};
    rec.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(Lines{flush}, rec.lines());
    EXPECT_NE(std::string::npos, log.find("set_SLA_ratio_iptables no interface record for xxxx"));
}

TEST_F(IptablesManagerTest, ConntrackMarkCount) {
    addStandardIfaces();
    IptablesManager* mgr = IptablesManager::instance();
    EXPECT_EQ(0, mgr->get_nf_conntrack_mark_number("0x5A"));  // no file: 0
    ASSERT_EQ(0, mkdir((root_ + "/proc").c_str(), 0755));
    ASSERT_EQ(0, mkdir((root_ + "/proc/net").c_str(), 0755));
    std::ofstream f(root_ + "/proc/net/nf_conntrack");
    f << "ipv4 2 tcp 6 117 TIME_WAIT src=10.0.0.2 dst=10.9.0.1 sport=1 dport=80 mark=90 use=1\n"
         "ipv4 2 tcp 6 117 TIME_WAIT src=10.0.0.2 dst=10.9.0.1 sport=2 dport=80 mark=901 use=1\n"
         "ipv4 2 udp 17 29 src=10.0.0.2 dst=10.9.0.1 sport=3 dport=53 mark=0 use=1\n"
         "ipv4 2 tcp 6 117 ESTABLISHED src=10.0.0.2 dst=10.9.0.1 mark=92 use=1\n"
      << std::string(5000, 'y') << " mark=91\n"
      << "mark=92 mark=92 at the end without newline";
    f.close();
    EXPECT_EQ(2, mgr->get_nf_conntrack_mark_number("0x5A"));  // mark=901 counts too
    EXPECT_EQ(1, mgr->get_nf_conntrack_mark_number("0x5B"));  // a 5000-byte line, once
    EXPECT_EQ(2, mgr->get_nf_conntrack_mark_number("0x5C"));  // one count per line
    EXPECT_EQ(1, mgr->get_nf_conntrack_mark_number("0x5D"));  // unknown marks search mark=0
    EXPECT_EQ(1, mgr->get_nf_conntrack_mark_number("0x5a"));  // the text is not parsed

    w_.interfaceRatio = 1.0f;
    snprintf(w_.interfaceName, sizeof(w_.interfaceName), "wlan0");
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{"wlan0", &w_}};
    mlbd::ScopedCommandRecorder rec;
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, mgr->set_SLA_ratio_iptables(wrappers));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos,
              log.find("handle->interfaceRatio: 1.000000 handle->interfaceName: wlan0\n"));
    EXPECT_NE(std::string::npos, log.find("Updated Ratio: 1.000000\n"));
    EXPECT_NE(std::string::npos,
              log.find("nf_conntrack interface wlan0 fwmark 0x5A socket number 2\n"));
}

TEST_F(IptablesManagerTest, WhitelistChains) {
    addStandardIfaces();
    addIface("wlan1", "0x5B", false, true);
    params_->uidWhitelist = {"10001", "10002"};
    params_->dblWlanUidWhitelist = {"10003"};
    params_->gamingUidList = {"10004", "10001"};
    IptablesManager* mgr = IptablesManager::instance();
    mlbd::ScopedCommandRecorder rec;

    EXPECT_EQ(0, mgr->setup_uid_whitelist());
    EXPECT_EQ(dev(Lines{
                      IPT "mangle -F vexa_fw_rmnet_data0_wrapper ",
                      IPT "mangle -A vexa_fw_rmnet_data0_wrapper -m owner --uid-owner 10001 -j "
                          "vexa_fw_rmnet_data0",
                      IPT "mangle -A vexa_fw_rmnet_data0_wrapper -m owner --uid-owner 10002 -j "
                          "vexa_fw_rmnet_data0",
              }),
              rec.lines());
    rec.clear();
    EXPECT_EQ(0, mgr->setup_double_wlan_uid_whitelist());
    EXPECT_EQ(dev(Lines{
                      IPT "mangle -F vexa_fw_wlan1_wrapper ",
                      IPT
                      "mangle -A vexa_fw_wlan1_wrapper -m owner --uid-owner 10003 -j vexa_fw_wlan1",
              }),
              rec.lines());
    rec.clear();
    EXPECT_EQ(0, mgr->setup_slm_whitelist());
    EXPECT_EQ(dev(Lines{
                      IPT "mangle -F vexa_SLM_wapper",
                      IPT "mangle -A vexa_SLM_wapper -m owner --uid-owner 10003 -j vexa_SLM",
                      IPT "mangle -A vexa_SLM_wapper -m owner --uid-owner 10001 -j vexa_SLM",
                      IPT "mangle -A vexa_SLM_wapper -m owner --uid-owner 10002 -j vexa_SLM",
                      IPT "mangle -A vexa_SLM_wapper -m owner --uid-owner 10004 -j vexa_SLM",
                      IPT "mangle -A vexa_SLM_wapper -m owner --uid-owner 10001 -j vexa_SLM",
              }),
              rec.lines());

    // Without a metered interface there is nothing to whitelist.
    params_->interfaces.erase("rmnet_data0");
    rec.clear();
    EXPECT_EQ(0, mgr->setup_uid_whitelist());
    EXPECT_TRUE(rec.lines().empty());
}

TEST_F(IptablesManagerTest, SelectionChains) {
    addStandardIfaces();
    params_->gamingUidList = {"10070"};
    IptablesManager* mgr = IptablesManager::instance();
    mlbd::ScopedCommandRecorder rec;

    EXPECT_EQ(0, mgr->create_SLS_iptables_UID_for_interface(params_->interfaces["wlan0"]));
    EXPECT_EQ(
            dev(Lines{
                    IPT "mangle -N vexa_sls_wlan0",
                    IPT "mangle -F vexa_sls_wlan0",
                    IPT "mangle -A vexa_sls_wlan0 -p udp ! --dport 53 -j vexa_fw_wlan0",
                    IPT "mangle -A vexa_sls_wlan0 -p tcp -j vexa_fw_wlan0",
                    IPT "mangle -A vexa_sls_wlan0 -j ACCEPT",
                    IPT "mangle -N vexa_sls_uid_wlan0",
                    IPT "mangle -F vexa_sls_uid_wlan0",
                    IPT "mangle -A vexa_sls_uid_wlan0 -m owner --uid-owner 10070 -j vexa_sls_wlan0",
            }),
            rec.lines());

    // An empty gaming list still builds both chains; both interfaces, in name order.
    params_->gamingUidList.clear();
    rec.clear();
    EXPECT_EQ(0, mgr->setup_SLS_iptables_UID_chains());
    ASSERT_EQ(14u, rec.lines().size());
    EXPECT_EQ(dev(IPT "mangle -N vexa_sls_rmnet_data0"), rec.lines()[0]);
    EXPECT_EQ(dev(IPT "mangle -F vexa_sls_uid_wlan0"), rec.lines()[13]);

    rec.clear();
    EXPECT_EQ(0, mgr->set_SLS_interface("wlan0"));
    EXPECT_EQ(dev(Lines{
                      "/system/bin/iptables-wrapper-1.0  -w -t mangle -F vexa_SLS",
                      "/system/bin/iptables-wrapper-1.0  -w -t mangle -A vexa_SLS -j "
                      "vexa_sls_uid_wlan0",
              }),
              rec.lines());

    rec.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, mgr->create_SLS_iptables_UID_for_interface(nullptr));
    EXPECT_EQ(-1, mgr->remove_SLS_iptables_UID_for_interface(nullptr));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(rec.lines().empty());
    EXPECT_NE(
            std::string::npos,
            log.find("create_SLS_iptables_UID_for_interface, Creating UID Chain for a NULL iface"));
    EXPECT_NE(
            std::string::npos,
            log.find("remove_SLS_iptables_UID_for_interface, Creating UID Chain for a NULL iface"));
}

// Every command fails to start (no descriptor is left for its output pipe): each operation still
// issues all its commands and reports the failure as its rules say.
TEST_F(IptablesManagerTest, CommandsThatCannotStartAreCountedButAllAttempted) {
    addStandardIfaces();
    params_->uidWhitelist = {"10001", "10002"};
    params_->gamingUidList = {"10004"};
    IptablesManager* mgr;
    {
        mlbd::ScopedCommandRecorder rec;
        mgr = IptablesManager::instance();
    }
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> fds;
    testing::internal::CaptureStderr();
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fds.push_back(fd);

    int fw = mgr->create_SLM_FWMARK_chain_for_iface(params_->interfaces["rmnet_data0"]);
    int slm = mgr->setup_slm_whitelist();
    int uid = mgr->setup_uid_whitelist();
    linkStatsWrapper_t w;
    snprintf(w.interfaceName, sizeof(w.interfaceName), "wlan0");
    w.interfaceRatio = 1.0f;
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{"wlan0", &w}};
    int ratio = mgr->set_SLA_ratio_iptables(wrappers);
    int sls = mgr->setup_SLS_iptables_UID_chains();
    int sw = mgr->set_SLS_interface("rmnet_data0");

    for (int fd : fds) close(fd);
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));

    EXPECT_EQ(-1, fw);
    EXPECT_EQ(-4, slm);  // the flush and three UIDs: the raw sum
    EXPECT_EQ(-3, uid);
    EXPECT_EQ(-1, ratio);
    EXPECT_EQ(-1, sls);
    EXPECT_EQ(-1, sw);
    size_t fails = 0;
    for (size_t at = 0; (at = log.find("SEND SLA NDC COMMAND - FAIL  ", at)) != std::string::npos;
         ++at) {
        ++fails;
    }
    // 9 + 4 + 3 + 2 + 2 * 8 + 2 command lines were attempted.
    EXPECT_EQ(36u, fails);
    for (const char* text : {
                 "create_SLM_FWMARK_chain_for_iface Failue when creating FWMARK tables for "
                 "interface "
                 "rmnet_data0 \n",
                 "set_SLA_ratio_iptables Failure when setting SLA Ratios \n",
                 "create_SLS_iptables_UID_for_interface Failue when creating UID tables for "
                 "interface "
                 "wlan0 \n",
                 "setup_SLS_iptables_UID_chains Creating UID chain for interface rmnet_data0 "
                 "failed\n",
                 "setup_SLS_iptables_UID_chains Failure when creating SLS UID tables for all "
                 "interfaces \n",
                 "set_SLS_interface Failue during SLS interface switch  rmnet_data0 "
                 "vexa_sls_uid_rmnet_data0 \n",
         }) {
        EXPECT_NE(std::string::npos, log.find(text)) << text;
    }
}

TEST_F(IptablesManagerTest, HostileUidsAndNamesRunOnlyTheWrapper) {
    addStandardIfaces();
    const Lines hostile = {
            "10001 -j DROP", "\"10002\"",   "10003;reboot", "$(reboot)", "`id`",   "",
            "0123",          "12345678901", "-1",           "１２３",    " 10004", "10005\n"};
    params_->uidWhitelist = hostile;
    params_->uidWhitelist.push_back("10006");
    params_->gamingUidList = hostile;
    params_->gamingUidList.push_back("0");
    params_->dblWlanUidWhitelist = {"4294967294"};
    IptablesManager* mgr;
    {
        mlbd::ScopedCommandRecorder quiet;
        mgr = IptablesManager::instance();
    }

    // A fake front-end that records its arguments, one per line, to show what really runs.
    const std::string bin = root_ + "/system/bin";
    ASSERT_EQ(0, system(("mkdir -p " + bin).c_str()));
    const std::string out = root_ + "/argv";
    std::ofstream(bin + "/iptables-wrapper-1.0")
            << "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done >> " << out
            << "\necho >> " << out << "\n";
    ASSERT_EQ(0, chmod((bin + "/iptables-wrapper-1.0").c_str(), 0755));

    testing::internal::CaptureStderr();
    EXPECT_EQ(0, mgr->setup_slm_whitelist());
    EXPECT_EQ(0, mgr->set_SLS_interface("x;touch${IFS}/tmp/pwned-by-name"));
    std::string log = testing::internal::GetCapturedStderr();

    std::ifstream in(out);
    std::stringstream ss;
    ss << in.rdbuf();
    EXPECT_EQ(
            "[-w][-t][mangle][-F][vexa_SLM_wapper]\n"
            "[-w][-t][mangle][-A][vexa_SLM_wapper][-m][owner][--uid-owner][4294967294][-j][vexa_"
            "SLM]\n"
            "[-w][-t][mangle][-A][vexa_SLM_wapper][-m][owner][--uid-owner][10006][-j][vexa_SLM]\n"
            "[-w][-t][mangle][-A][vexa_SLM_wapper][-m][owner][--uid-owner][0][-j][vexa_SLM]\n"
            "[-w][-t][mangle][-F][vexa_SLS]\n"
            "[-w][-t][mangle][-A][vexa_SLS][-j][vexa_sls_uid_x;touch${IFS}/tmp/pwned-by-name]\n",
            ss.str());
    EXPECT_NE(0, access("/tmp/pwned-by-name", F_OK));
    // Each refused UID text is reported at ERROR, once per list it stands on.
    size_t refused = 0;
    for (size_t at = 0; (at = log.find(" E Mlbd-iptablesManager: setup_slm_whitelist refusing UID",
                                       at)) != std::string::npos;
         ++at) {
        ++refused;
    }
    EXPECT_EQ(2 * hostile.size(), refused);

    // The same texts, through the recorder: no command line of any operation carries them.
    mlbd::ScopedCommandRecorder rec;
    mgr->setup_uid_whitelist();
    mgr->setup_SLS_iptables_UID_chains();
    mgr->cleanup_SLS_iptables_UID_chains();
    for (const std::string& line : rec.lines()) {
        for (const char* bad : {"DROP", "\"", ";", "$(", "`", "0123", "12345678901", "-1 "}) {
            EXPECT_EQ(std::string::npos, line.find(bad)) << line;
        }
    }

    EXPECT_TRUE(IptablesManager::isValidUidText("0"));
    EXPECT_TRUE(IptablesManager::isValidUidText("9999999999"));
    EXPECT_FALSE(IptablesManager::isValidUidText("00"));
    EXPECT_FALSE(
            IptablesManager::isValidUidText(std::string("1\0"
                                                        "2",
                                                        3)));
}

// The longest command the daemon builds from realistic inputs (15-character interface names, the
// longest UIDs and marks, device paths) stays far below the 511-character limit.
TEST_F(IptablesManagerTest, LongestCommandFitsWithRoom) {
    setenv("MLBD_ROOT", "", 1);
    InterfaceInfo_t* a = addIface("rmnet_data01234", "0xFFFFFFFF", true, true);
    InterfaceInfo_t* b = addIface("wlan01234567890", "0xFFFFFFFF", false, true);
    params_->uidWhitelist = {"4294967294"};
    params_->dblWlanUidWhitelist = {"4294967294"};
    params_->gamingUidList = {"4294967294"};
    mlbd::ScopedCommandRecorder rec;
    IptablesManager* mgr = IptablesManager::instance();
    mgr->setup_SLM_iptables_FWMARK_chains();
    mgr->setup_uid_whitelist();
    mgr->setup_double_wlan_uid_whitelist();
    mgr->setup_slm_whitelist();
    mgr->setup_SLS_iptables_UID_chains();
    mgr->set_SLS_interface(a->name);
    linkStatsWrapper_t wa, wb;
    snprintf(wa.interfaceName, sizeof(wa.interfaceName), "%s", a->name);
    snprintf(wb.interfaceName, sizeof(wb.interfaceName), "%s", b->name);
    wa.interfaceRatio = 0.123456f;
    wb.interfaceRatio = 0.5f;
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{a->name, &wa}, {b->name, &wb}};
    mgr->set_SLA_ratio_iptables(wrappers);
    IptablesManager::clean_SLM_iptables();
    size_t longest = 0;
    for (const std::string& line : rec.lines()) longest = std::max(longest, line.size());
    RecordProperty("longest_command", static_cast<int>(longest));
    EXPECT_GT(longest, 200u);  // the ratio rule into a wrapper chain
    EXPECT_LT(longest, 260u);
}

TEST_F(IptablesManagerTest, OverlongCommandEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "fast");  // the child shares this fixture's folder
    addStandardIfaces();
    // A host prefix long enough to push every command over 511 characters.
    setenv("MLBD_ROOT", ("/tmp/" + std::string(480, 'r')).c_str(), 1);
    EXPECT_DEATH(IptablesManager::instance()->set_SLS_interface("wlan0"),
                 "F Mlbd-iptablesManager: formatChecked: text of [0-9]+ characters does not fit "
                 "in 512 bytes");
}

}  // namespace
