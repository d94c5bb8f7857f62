#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <thread>

#include "Parameters.h"
#include "platform/Platform.h"

namespace {

using Strings = std::vector<std::string>;

// A private MLBD_ROOT with a properties folder and room for the configuration file.
class ParametersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmplPath = mlbd::scratchDirectory() + "/mlbd-params-XXXXXX";
        char* tmpl = &tmplPath[0];
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        setenv("MLBD_ROOT", (root = tmpl).c_str(), 1);
        ASSERT_EQ(system(("mkdir -p " + root + "/properties " + root + "/vendor/etc/sla").c_str()),
                  0);
    }
    void TearDown() override { ASSERT_EQ(system(("rm -rf " + root).c_str()), 0); }
    void setProp(const std::string& name, const std::string& value) {
        std::ofstream(root + "/properties/" + name, std::ios::binary) << value;
    }
    std::unique_ptr<Parameters> withConf(const std::string& text) {
        std::ofstream(root + MLBD_CONF_PATH, std::ios::binary) << text;
        return std::make_unique<Parameters>();
    }
    std::string root;
};

TEST_F(ParametersTest, ConfigurationFile) {
    auto p = withConf(
            "mini_est_interval = 200\n# wifi_threshold=1\nrtt_hist=500# ms\n"
            "SLAEnabled\nwan_threshold=100\nwan_threshold=300\n"
            "min_ratio_change=  -12abc\nestimate_pack_num=abc\nalpha_percent=70\r\n"
            "n_hyst=99999999999999999999\n" +
            std::string(3 * 1024 * 1024, 'x') + "\nt_hyst_s=3");  // no final newline
    // The comment line changes nothing, the character before '#' goes with the comment, a line
    // without '=' is ignored, the last value counts, numbers end at the first non-digit.
    EXPECT_EQ((std::vector<int64_t>{p->get(OPER_MINI_EST_INTERVAL), p->get(OPER_WIFI_THRESHOLD),
                                    p->rtt_hist, p->get(OPER_SLA_ENABLED),
                                    p->get(OPER_WAN_THRESHOLD), p->minRatioChange,
                                    p->estimatePackNum, p->alpha_percent, p->t_hyst_s}),
              (std::vector<int64_t>{200, 1600, 50, 0, 300, -12, 0, 70, 3}));
    // Texts: split at the first '=', only blanks and tabs trimmed, cut at a NUL.
    p = withConf("rtt_server=a=b\n\tports\t=\t80,443,8080\t\nprotocols=http\r\ngaming_whitelist=" +
                 std::string("\0\xff", 2));
    EXPECT_EQ((Strings{p->getGamingRttServer(), p->ports, p->protocols, p->gaming_whitelist}),
              (Strings{"a=b", "80,443,8080", "http\r", ""}));
    char buf[32];
    EXPECT_STREQ(p->getStatsPorts(buf, 8), "ports=8");  // cut to the caller's buffer
    // Dual-stack keys: an IPv6 default target that is not an IPv6 address is dropped.
    p = withConf("ipv6=1\nrtt_server6=2606:4700:4700::1111\nrtt_server=10.0.0.9\n");
    EXPECT_EQ((Strings{"2606:4700:4700::1111", "10.0.0.9", "1"}),
              (Strings{p->rttServer6, p->rttServerDefault, std::to_string(p->isIpv6Enabled())}));
    p = withConf("rtt_server6=1.1.1.1\n");
    EXPECT_EQ((Strings{"", DEFAULT_RTT_SERVER, "0"}),
              (Strings{p->rttServer6, p->rttServerDefault, std::to_string(p->isIpv6Enabled())}));
    // Out of range, a negative id included, reads all ones.
    for (int id : {29, -1}) EXPECT_EQ(p->get(static_cast<OperId>(id)), 0xFFFFFFFFu);
    // A file beyond the 4 MB limit is read up to it and the daemon goes on.
    p = withConf("wan_threshold=42\n" + std::string(5 * 1024 * 1024, '\n') + "wan_threshold=1\n");
    EXPECT_EQ(p->get(OPER_WAN_THRESHOLD), 42u);
}

TEST_F(ParametersTest, InterfaceMap) {
    const std::string kFallback = "rmnet_data0:m:0x5C wlan0::0x5A";
    // Interface property, mode property, the map as "name:flags:mark" in name order (flags m:
    // metered, w: second Wi-Fi), names listed, Wi-Fi records counted.
    const struct {
        const char *ifaces, *mode;
        std::string map;
        int listed, wifiCount;
    } cases[] = {
            {nullptr, "1", "", 0, 0},  // no property: no interfaces and no fallback
            {"wlan0,wlan1,rmnet_data0,eth7", "1",
             "eth7::0x5A rmnet_data0:m:0x5C wlan0::0x5A wlan1:w:0x5B", 4, 3},
            // The mode decides a cellular link's metered flag; a comma in it breaks the record.
            {"ccmni1", "0", "ccmni1::0x5C", 1, 1},
            {"ccmni1", "1,1", kFallback, 1, 1},
            // An empty name fails: the fixed pair replaces the map; every record was counted.
            {"wlan0,,rmnet_data0", "1", kFallback, 3, 3},
            // More than four names are cut to four; a trailing comma adds nothing.
            {"a,b,c,d,e,f,", "1", "a::0x5A b::0x5A c::0x5A d::0x5A", 4, 4},
            // A name that would split a command line or leave /proc/sla fails like an empty one.
            {"wlan0,rmnet data0", "1", kFallback, 2, 3},
            {"wlan0,../x", "1", kFallback, 2, 3},
            {"wlan0,a\tb", "1", kFallback, 2, 3},
            {"wlan0,wlan0", "1", "wlan0::0x5A", 2, 2},  // the later record replaces the earlier
    };
    for (const auto& c : cases) {
        if (c.ifaces) setProp("vendor.sla.ifaces", c.ifaces);
        setProp("vendor.sla.mode", c.mode);
        Parameters p;
        std::string map;
        for (const auto& [name, r] : p.interfaces()) {
            map += (map.empty() ? "" : " ") + name + ":" + (r->metered ? "m" : "") +
                   (r->dblWlan ? "w" : "") + ":" + r->fwmark;
            EXPECT_EQ(name, r->routeTable);
        }
        EXPECT_EQ(map, c.map) << c.ifaces;
        EXPECT_EQ(p.num_interfaces, c.listed) << c.ifaces;
        EXPECT_EQ(p.wifiIfaceCount, c.wifiCount) << c.ifaces;
    }
    // A record of seven fields or without a mark fails; a long name is cut to its field.
    Parameters p;
    EXPECT_EQ(p.parseInterfaceParams("x,0,tbl,0x9,0,0,0"), nullptr);
    EXPECT_EQ(p.parseInterfaceParams("x,0,t,,0,0,0,0"), nullptr);
    std::unique_ptr<InterfaceInfo_t> rec(
            p.parseInterfaceParams(std::string(300, 'n') + ",7,t,m,0,0,0,1"));
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(strlen(rec->name), 127u);
}

TEST_F(ParametersTest, UidLists) {
    std::ofstream(root + MLBD_CONF_PATH) << "uid_whitelist=10123,123456,,10234,\n";
    // instance() splits the whitelist; a UID longer than five digits is left out.
    EXPECT_EQ(Parameters::instance()->getUidWhitelist(), (Strings{"10123", "", "10234"}));
    // The property replaces the file's list unless it reads "0"; an unchanged value changes
    // nothing.
    setProp("vendor.sla.uidwhitelist", "0");
    EXPECT_EQ(Parameters().getUidWhitelistText(), "10123,123456,,10234,");
    setProp("vendor.sla.uidwhitelist", "555,777");
    Parameters p;
    EXPECT_EQ(p.getUidWhitelist(), (Strings{"555", "777"}));
    p.setuidwhitelist("1");
    p.updateuidwhitelist();
    EXPECT_EQ(p.getUidWhitelistText(), "1");
    // Gaming UIDs of any length; a null text keeps the list, an empty one clears it.
    for (const char* text : {"10001,1234567890", static_cast<const char*>(nullptr), ""}) {
        p.setGamingUids(text);
        p.populateGamingUids();
        EXPECT_EQ(p.getGamingUidList().size(), text && !*text ? 0u : 2u);
    }
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
