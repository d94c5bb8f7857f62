#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "Parameters.h"

namespace {

// A private MLBD_ROOT with a properties folder and an optional configuration file.
class ParametersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/mlbd-params-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("MLBD_ROOT", root.c_str(), 1);
        mkdir((root + "/properties").c_str(), 0755);
        mkdir((root + "/vendor").c_str(), 0755);
        mkdir((root + "/vendor/etc").c_str(), 0755);
        mkdir((root + "/vendor/etc/sla").c_str(), 0755);
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + root + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    void setProp(const std::string& name, const std::string& value) {
        std::ofstream(root + "/properties/" + name, std::ios::binary) << value;
    }
    void writeConf(const std::string& text) {
        std::ofstream(root + "/vendor/etc/sla/mlbd.conf", std::ios::binary) << text;
    }
    std::string root;
};

TEST_F(ParametersTest, DefaultsWithoutFileOrProperties) {
    Parameters p;
    // Slots 0..14, then the spare slots read 0 and ids beyond 28 (or negative) read all ones.
    const uint32_t slots[] = {0, 1600, 500, 1000, 1500, 500, 50, 50, 2000, 0, 500, 0, 0, 0, 1};
    for (int id = 0; id < 15; ++id) EXPECT_EQ(p.get(static_cast<OperId>(id)), slots[id]) << id;
    for (int id : {13, 28}) EXPECT_EQ(p.get(static_cast<OperId>(id)), 0u);
    for (int id : {29, 1000, -1}) EXPECT_EQ(p.get(static_cast<OperId>(id)), 0xFFFFFFFFu);
    EXPECT_EQ(p.getGamingRttServer(), DEFAULT_RTT_SERVER);
    EXPECT_EQ(std::vector<int>({p.rttServerPort.load(), p.ping_period_ms, p.min_ping_times,
                                p.ping_interval_ms, p.alpha_percent, p.n_hyst, p.rtt_min_cap_ms,
                                p.gaming_poll_freq_cnt, p.rtt_entry_threshold, p.rtt_exit_threshold,
                                p.estimatePackNum, p.minRatioChange}),
              std::vector<int>({443, 0, 5, 500, 60, 1, 10, 5, 90, 130, 5, 2}));
    char buf[64];
    EXPECT_STREQ(p.getStatsProtocols(buf, sizeof(buf)), "protocols=http,https");
    EXPECT_STREQ(p.getStatsPorts(buf, sizeof(buf)), "ports=80,443");
    // No interface property: no interfaces and no fallback.
    EXPECT_EQ(p.num_interfaces, 0);
    EXPECT_TRUE(p.interfaces().empty());
    EXPECT_STREQ(p.lastUidWhitelistProp, "0");
}

TEST_F(ParametersTest, ConfigurationLineRules) {
    writeConf(
            "mini_est_interval = 200\n"
            "  # comment=1\n"
            "# wifi_threshold=1\n"
            "ping_interval_ms=500 # ms\n"
            "rtt_hist=500# ms\n"
            "rtt_server=a=b\n"
            "SLAEnabled\n"
            "unknown_key=5\n"
            "=7\n"
            "wan_threshold=100\n"
            "wan_threshold=300\n"
            "min_ratio_change=  -12abc\n"
            "estimate_pack_num=abc\n"
            "\tports\t=\t80,443,8080\t\n"
            "alpha_percent=70\r\n"
            "protocols=http\r\n"
            "uid_whitelist=10123,10234\n"
            "n_hyst=99999999999999999999\n"
            "t_hyst_s=3");  // no final newline
    Parameters p;
    EXPECT_EQ(p.get(OPER_MINI_EST_INTERVAL), 200u);
    EXPECT_EQ(p.get(OPER_WIFI_THRESHOLD), 1600u);
    EXPECT_EQ(p.ping_interval_ms, 500);
    EXPECT_EQ(p.rtt_hist, 50);  // the character before '#' goes with the comment
    EXPECT_EQ(p.getGamingRttServer(), "a=b");
    EXPECT_EQ(p.get(OPER_SLA_ENABLED), 0u);
    EXPECT_EQ(p.get(OPER_WAN_THRESHOLD), 300u);
    EXPECT_EQ(p.minRatioChange, -12);
    EXPECT_EQ(p.estimatePackNum, 0);
    EXPECT_EQ(p.ports, "80,443,8080");
    EXPECT_EQ(p.alpha_percent, 70);    // atoi stops at the carriage return
    EXPECT_EQ(p.protocols, "http\r");  // text keeps it: only blanks and tabs are trimmed
    EXPECT_EQ(p.t_hyst_s, 3);
    char buf[32];
    EXPECT_STREQ(p.getStatsPorts(buf, sizeof(buf)), "ports=80,443,8080");
    EXPECT_STREQ(p.getStatsPorts(buf, 8), "ports=8");  // cut to the caller's buffer
    EXPECT_EQ(p.getUidWhitelistText(), "10123,10234");

    std::string s = "  #";
    EXPECT_EQ(Parameters::trim(s), "");
    s = "#x";
    EXPECT_EQ(Parameters::trim(s), "#x");
    s = " \t a b \t ";
    EXPECT_EQ(Parameters::trim(s), "a b");
}

TEST_F(ParametersTest, HostileConfigurationFile) {
    std::string conf = "mini_est_interval=250\n";
    conf += std::string(3 * 1024 * 1024, 'x') + "\n";   // one huge line
    conf += std::string("ports=\0\xff\xfe", 9) + "\n";  // NUL and 0xFF bytes
    conf += std::string("rtt_server=\xff\xff\n");
    conf += "wifi_threshold=1234\n";
    writeConf(conf);
    Parameters p;
    EXPECT_EQ(p.get(OPER_MINI_EST_INTERVAL), 250u);
    EXPECT_EQ(p.ports, "");  // the value ends at the NUL
    EXPECT_EQ(p.getGamingRttServer(), "\xff\xff");
    EXPECT_EQ(p.get(OPER_WIFI_THRESHOLD), 1234u);

    // A file far beyond the size limit is read up to the limit and the daemon goes on.
    writeConf("wan_threshold=42\n" + std::string(5 * 1024 * 1024, '\n') + "wan_threshold=1\n");
    Parameters q;
    EXPECT_EQ(q.get(OPER_WAN_THRESHOLD), 42u);
}

TEST_F(ParametersTest, PropertiesRules) {
    setProp("vendor.sla.enabled", "2\n");
    Parameters p;
    EXPECT_EQ(p.get(OPER_SLA_ENABLED), 2u);
    setProp("vendor.sla.enabled", "garbage");
    EXPECT_EQ(p.getSLAVendorProp(), 0);
    setProp("vendor.sla.enabled", " 1x");
    EXPECT_EQ(p.getSLAVendorProp(), 1);
    EXPECT_EQ(p.get(OPER_SLA_ENABLED), 1u);
    unlink((root + "/properties/vendor.sla.enabled").c_str());
    EXPECT_EQ(p.getSLAVendorProp(), 0);
    setProp("vendor.sla.enabled", std::string(100000, '7'));  // longer than any property value
    p.getSLAVendorProp();

    char value[PROP_VALUE_MAX + 8];
    memset(value, 'z', sizeof(value));
    setProp("x.long", std::string(500, 'a') + "\n");
    EXPECT_EQ(mlbd::getProperty("x.long", value, "d"), PROP_VALUE_MAX - 1);
    EXPECT_EQ(value[PROP_VALUE_MAX - 1], '\0');
    setProp("x.nl", "a\n\n");  // only one trailing newline is dropped
    EXPECT_EQ(mlbd::getProperty("x.nl", value, "d"), 2);
    EXPECT_STREQ(value, "a\n");
    EXPECT_EQ(mlbd::getProperty("../x.nl", value, "dflt"), 4);  // no way out of the folder
    EXPECT_STREQ(value, "dflt");
    EXPECT_EQ(mlbd::getProperty("x.missing", value, nullptr), 0);

    p.setWlanInterface("abcdefghijklmnopqrst");
    EXPECT_STREQ(p.wlanInterface, "abcdefghijklmno");
    p.setWlanInterface(nullptr);
    EXPECT_STREQ(p.wlanInterface, "abcdefghijklmno");
    p.setGamingConnectStatus(true);
    p.reset();
    EXPECT_TRUE(p.isGamingConnectStatus());
}

TEST_F(ParametersTest, InterfaceDescriptionsAndRoles) {
    setProp("vendor.sla.ifaces", "wlan0,wlan1,rmnet_data0,eth7");
    Parameters p;
    EXPECT_EQ(p.num_interfaces, 4);
    EXPECT_EQ(p.interface_0, "wlan0,0,wlan0,0x5A,1,0,0,0");
    EXPECT_EQ(p.interface_1, "wlan1,0,wlan1,0x5B,0,0,0,1");
    EXPECT_EQ(p.interface_2, "rmnet_data0,1,rmnet_data0,0x5C,0,0,0,0");
    EXPECT_EQ(p.interface_3, "eth7,0,eth7,0x5A,0,0,0,0");
    ASSERT_EQ(p.interfaces().size(), 4u);
    EXPECT_EQ(p.wifiIfaceCount, 3);
    InterfaceInfo_t* w1 = p.interfaces().at("wlan1");
    EXPECT_TRUE(w1->dblWlan);
    EXPECT_FALSE(w1->isDefault);
    EXPECT_STREQ(w1->fwmark, "0x5B");
    InterfaceInfo_t* cell = p.interfaces().at("rmnet_data0");
    EXPECT_TRUE(cell->metered);
    EXPECT_STREQ(cell->routeTable, "rmnet_data0");
    EXPECT_EQ(std::string(p.interfaces().begin()->first), "eth7");  // ordered by name

    // Field conversions; empty fields count; seven fields fail.
    InterfaceInfo_t* rec = p.parseInterfaceParams("x,7,tbl,0x9,0,-3,12abc,1");
    ASSERT_NE(rec, nullptr);
    EXPECT_TRUE(rec->metered);
    EXPECT_EQ(rec->cost, -3);
    EXPECT_EQ(rec->bias, 12);
    EXPECT_TRUE(rec->dblWlan);
    delete rec;
    EXPECT_EQ(p.parseInterfaceParams("x,0,tbl,0x9,0,0,0"), nullptr);
    EXPECT_EQ(p.parseInterfaceParams(""), nullptr);
    EXPECT_EQ(p.parseInterfaceParams("x,0,,0x9,0,0,0,0"), nullptr);
    // A long name is cut to 127 characters.
    rec = p.parseInterfaceParams(std::string(300, 'n') + ",0,t,m,0,0,0,0");
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(strlen(rec->name), 127u);
    delete rec;
    EXPECT_FALSE(p.validateInterfaceParams(nullptr));
}

TEST_F(ParametersTest, InterfaceFallbackAndLimits) {
    // An empty name fails; the whole map becomes the fixed pair, num_interfaces stays.
    setProp("vendor.sla.ifaces", "wlan0,,rmnet_data0");
    {
        Parameters p;
        EXPECT_EQ(p.num_interfaces, 3);
        ASSERT_EQ(p.interfaces().size(), 2u);
        EXPECT_STREQ(p.interfaces().at("wlan0")->fwmark, "0x5A");
        EXPECT_TRUE(p.interfaces().at("rmnet_data0")->metered);
        EXPECT_TRUE(p.interfaces().at("rmnet_data0")->isDefault);
        // wlan0, the empty name and the fallback wlan0 were all counted.
        EXPECT_EQ(p.wifiIfaceCount, 3);
    }
    // The mode property decides a cellular link's metered flag; a comma in it breaks the
    // description and brings the fallback.
    setProp("vendor.sla.ifaces", "ccmni1");
    setProp("vendor.sla.mode", "0");
    {
        Parameters p;
        ASSERT_EQ(p.interfaces().size(), 1u);
        EXPECT_FALSE(p.interfaces().at("ccmni1")->metered);
        EXPECT_STREQ(p.interfaces().at("ccmni1")->fwmark, "0x5C");
    }
    setProp("vendor.sla.mode", "1,1");
    {
        Parameters p;
        EXPECT_EQ(p.interfaces().size(), 2u);
        EXPECT_EQ(p.interfaces().count("ccmni1"), 0u);
    }
    // More than four names are cut to four; a trailing comma adds nothing.
    setProp("vendor.sla.ifaces", "a,b,c,d,e,f,");
    setProp("vendor.sla.mode", "1");
    {
        Parameters p;
        EXPECT_EQ(p.num_interfaces, 4);
        EXPECT_EQ(p.interfaces().size(), 4u);
        EXPECT_EQ(p.interfaces().count("e"), 0u);
    }
    // A name that would split a command line or leave /proc/sla fails like an empty one.
    for (const char* bad : {"wlan0,rmnet data0", "wlan0,../x", "wlan0,a\tb"}) {
        setProp("vendor.sla.ifaces", bad);
        Parameters p;
        EXPECT_EQ(p.interfaces().size(), 2u) << bad;
        EXPECT_EQ(p.interfaces().count("rmnet_data0"), 1u) << bad;
    }
    // A duplicate name replaces the earlier record.
    setProp("vendor.sla.ifaces", "wlan0,wlan0");
    {
        Parameters p;
        EXPECT_EQ(p.interfaces().size(), 1u);
    }
}

TEST_F(ParametersTest, UidLists) {
    writeConf("uid_whitelist=10123,123456,,10234,\n");
    {
        mlbd::initLogging();
        testing::internal::CaptureStderr();
        Parameters* p = Parameters::instance();  // instance() splits the whitelist
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(p->getUidWhitelist(), (std::vector<std::string>{"10123", "", "10234"}));
        EXPECT_NE(log.find(" E Mlbd-SlaParameters: populateuidwhitelist token length error is 6\n"),
                  std::string::npos)
                << log;
    }
    // The property replaces the file's list unless it reads "0".
    setProp("vendor.sla.uidwhitelist", "0");
    {
        Parameters p;
        EXPECT_EQ(p.getUidWhitelistText(), "10123,123456,,10234,");
    }
    setProp("vendor.sla.uidwhitelist", "555,777");
    Parameters p;
    p.populateuidwhitelist();
    EXPECT_EQ(p.getUidWhitelist(), (std::vector<std::string>{"555", "777"}));
    EXPECT_STREQ(p.lastUidWhitelistProp, "555,777");
    p.setuidwhitelist("1");  // an equal property value changes nothing
    p.updateuidwhitelist();
    EXPECT_EQ(p.getUidWhitelistText(), "1");

    p.setGamingUids("10001,1234567890,10001");
    p.populateGamingUids();
    EXPECT_EQ(p.getGamingUidList(), (std::vector<std::string>{"10001", "1234567890", "10001"}));
    p.setGamingUids(nullptr);
    p.populateGamingUids();
    EXPECT_EQ(p.getGamingUids(), "10001,1234567890,10001");
    EXPECT_EQ(p.getGamingUidList().size(), 3u);
    p.setGamingUids("");
    p.populateGamingUids();
    EXPECT_TRUE(p.getGamingUidList().empty());

    p.setDblWlanUidWhitelist("1,22,333333");
    p.populateDblWlanUidWhitelist();
    EXPECT_EQ(p.getDblWlanUidWhitelist(), (std::vector<std::string>{"1", "22"}));
}

// The control thread replaces lists and the probe target while other threads read them; a
// reader always sees one whole value (run under ThreadSanitizer).
TEST_F(ParametersTest, ConcurrentReadersSeeWholeValues) {
    Parameters p;
    std::thread writer([&p] {
        for (int i = 0; i < 2000; ++i) {
            p.setGamingUids(i % 2 ? "1,2,3" : "4");
            p.populateGamingUids();
            p.setRttTarget(i % 2 ? "10.0.0.1" : "10.0.0.22", i % 2 ? 1 : 22);
            p.rtt_exit_threshold = i;
        }
    });
    for (int i = 0; i < 2000; ++i) {
        size_t n = p.getGamingUidList().size();
        EXPECT_TRUE(n == 0 || n == 1 || n == 3) << n;
        std::string server;
        int32_t port = 0;
        p.getRttTarget(&server, &port);
        EXPECT_EQ(server.size(), port == 443 ? strlen(DEFAULT_RTT_SERVER) : 8u + (port == 22));
    }
    writer.join();
}

}  // namespace
