#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "platform/Platform.h"
#include "stats/SlaStatsImpl.h"
#include "support/CommandRecorder.h"
#include "support/ParametersTestPeer.h"
#include "support/SlaRingTestUtil.h"

namespace {

// A private MLBD_ROOT with wlan0 (Wi-Fi) and rmnet_data0 (cellular, metered), unless a test
// rewrites vendor.sla.ifaces before the parameter store is first built (each test runs in its
// own process).
class SlaStatsImplTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmplPath = mlbd::scratchDirectory() + "/mlbd-statsimpl-XXXXXX";
        char* tmpl = &tmplPath[0];
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        setenv("MLBD_ROOT", (root = tmpl).c_str(), 1);
        ASSERT_EQ(system(("mkdir -p " + root + "/proc/sla " + root + "/properties").c_str()), 0);
        std::ofstream(root + "/properties/vendor.sla.mode") << "1";
        std::ofstream(root + "/properties/vendor.sla.ifaces") << "wlan0,rmnet_data0";
        mlbd::initLogging();
    }
    void TearDown() override {
        SlaStatsImpl::finalize();
        ASSERT_EQ(system(("rm -rf " + root).c_str()), 0);
    }
    std::string sla(const std::string& name) { return root + "/proc/sla/" + name; }
    // Writes a full statistics file: `count` intervals of 100 ms with `bytes` each, the newest
    // 10 ms old in slot `newest`.
    void writeRing(const std::string& iface, uint32_t newest, int count, uint32_t bytes) {
        std::string ring(slatest::kFileBytes, '\0');
        slatest::RingWriter writer(&ring[0]);
        slatest::fillIntervals(writer, newest, slatest::wallMs() - 10, count, 100, bytes);
        std::ofstream(sla(iface + "_mmap")) << ring;
    }

    std::string root;
};

TEST_F(SlaStatsImplTest, ControlFileAndMappingFailures) {
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    // No control file, or a FIFO that nobody reads (fails at once instead of blocking): -1.
    EXPECT_EQ(impl->writeStatsConfFile("enable=1"), -1);
    ASSERT_EQ(mkfifo(sla("config").c_str(), 0600), 0);
    EXPECT_EQ(impl->writeStatsConfFile("enable=1"), -1);

    // A file shorter than the layout would raise SIGBUS when read: refused like a failed open,
    // and after three tries the wrapper stays without statistics.
    std::ofstream(sla("wlan0_mmap")) << std::string(100, 'x');
    writeRing("rmnet_data0", 6, 5, 10240);
    EXPECT_FALSE(impl->initMmap());
    EXPECT_EQ(impl->statsMap.at("wlan0")->stats, nullptr);
    EXPECT_NE(impl->statsMap.at("rmnet_data0")->stats, nullptr);
}

TEST_F(SlaStatsImplTest, RatioCasesAndRebuildDecision) {
    constexpr int kOnly = SLA_CALC_WIFI_ONLY, kAggr = SLA_CALC_AGGREGATE;
    // Rates, ratios before and ratios expected, for wlan0, wlan1 and rmnet_data0 in this order.
    // A negative rate leaves the interface out; with wlan1 there are two Wi-Fi links among three
    // interfaces, so the Wi-Fi threshold 1600 acts as 3200.
    const struct {
        int process, rates[3];
        float old[3], expected[3];
        int minChange, dualWlanOneIdle;
        bool rebuild;
    } cases[] = {
            // Wi-Fi 2000 above 1600: Wi-Fi alone (remaining 1 - 1 - 1.5 leaves cellular nothing).
            {kOnly, {2000, -1, 3000}, {0, 0, 0}, {1, 0, 0}, 2, 0, true},
            // Wi-Fi 800 below 1600: Wi-Fi 0.5, cellular fills the shortfall.
            {kAggr, {800, -1, 2000}, {0, 0, 0}, {0.5, 0, 0.5}, 2, 0, true},
            // 0.5/0.5 to 0.25/0.75 moves a quarter of the connections: rebuilt with 20 %, not
            // 25 % (strictly greater); the ratios are written either way.
            {kAggr, {400, -1, 2000}, {0.5, 0, 0.5}, {0.25, 0, 0.75}, 25, 0, false},
            {kAggr, {400, -1, 2000}, {0.5, 0, 0.5}, {0.25, 0, 0.75}, 20, 0, true},
            // A link without a rate takes what is left.
            {kAggr, {400, -1, 0}, {0, 0, 0}, {0.25, 0, 0.75}, 2, 0, true},
            // No rate anywhere: the Wi-Fi links share everything, cellular gets nothing.
            {kAggr, {0, 0, 0}, {0, 0, 0}, {0.5, 0.5, 0}, 2, 0, true},
            // Two Wi-Fi links: 800 / 3200 each, cellular the other half.
            {kAggr, {800, 800, 1000}, {0, 0, 0}, {0.25, 0.25, 0.5}, 2, 0, true},
            // One of two Wi-Fi links idle: half each, cellular nothing, whatever was computed.
            {kAggr, {800, 0, 1000}, {0.5, 0.5, 0}, {0.5, 0.5, 0}, 2, 1, false},
            // Wi-Fi only, a Wi-Fi link without rate: cellular's 1.5 enters the sums, nothing left.
            {kOnly, {2000, 0, 3000}, {0, 0.3f, 0.2f}, {1, 0, 0}, 2, 0, true},
    };
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    Parameters* params = Parameters::instance();
    auto& ifaces = ParametersTestPeer::interfaces(params);
    ifaces["wlan1"] = new InterfaceInfo_t(*ifaces["wlan0"]);
    const char* names[] = {"wlan0", "wlan1", "rmnet_data0"};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        impl->freeMmap();
        unsigned sums[2] = {0, 0};  // Wi-Fi, cellular
        linkStatsWrapper_t* w[3] = {};
        for (int k = 0; k < 3; ++k) {
            if (c.rates[k] < 0) continue;
            w[k] = impl->statsMap[names[k]] = new linkStatsWrapper_t();
            sums[k == 2] += w[k]->linkRate = static_cast<uint32_t>(c.rates[k]);
            w[k]->interfaceRatio = c.old[k];
        }
        params->wifiIfaceCount = c.rates[1] < 0 ? 1 : 2;
        params->num_interfaces = params->wifiIfaceCount + 1;
        params->minRatioChange = c.minChange;
        const auto process = static_cast<SLA_ratio_calc_process>(c.process);
        EXPECT_EQ(impl->calcSlaRatios(process, sums[1], sums[0], c.dualWlanOneIdle), c.rebuild);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(w[k] ? w[k]->interfaceRatio : 0, c.expected[k]) << k;
    }
}

TEST_F(SlaStatsImplTest, CycleIdleWifiAndFallbacks) {
    std::ofstream(root + "/properties/vendor.sla.ifaces") << "wlan0,wlan1,rmnet_data0";
    writeRing("wlan0", 6, 5, 10240);        // 800 kbit/s
    writeRing("wlan1", 6, 0, 0);            // no sample: idle
    writeRing("rmnet_data0", 6, 5, 25600);  // 2000 kbit/s
    mlbd::ScopedCommandRecorder recorder;
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    Parameters::instance()->bestEstCacheSize = 3;
    ASSERT_TRUE(impl->initMmap());
    ASSERT_TRUE(impl->initMmap());  // again: the earlier wrappers are replaced, not leaked
    linkStatsWrapper_t* wlan = impl->statsMap["wlan0"];
    linkStatsWrapper_t* cell = impl->statsMap["rmnet_data0"];
    // One of the two Wi-Fi links idle: half each, cellular nothing.
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ((std::vector<float>{wlan->interfaceRatio, impl->statsMap["wlan1"]->interfaceRatio,
                                  cell->interfaceRatio}),
              (std::vector<float>{0.5f, 0.5f, 0.0f}));

    // Cellular at 400, under wan_threshold 500, counts as 0 and falls back to its history, which
    // never records the 400; too few intervals (4 < estimate_pack_num 5) is no estimate either.
    writeRing("rmnet_data0", 6, 5, 5120);
    writeRing("wlan0", 6, 4, 25600);
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ((std::vector<unsigned>{cell->linkRate, cell->history.rates.back(), wlan->sampleCount,
                                     wlan->linkRate}),
              (std::vector<unsigned>{2000, 0, 4, 800}));
}

TEST_F(SlaStatsImplTest, VoipStateFile) {
    // At most 21 bytes are read; without a comma in them both outputs stay untouched.
    const struct {
        const char *content, *addressAndPort;
        int ret;
    } cases[] = {
            {nullptr, "|", -1},  // no file
            {"10.0.0.2,5060", "10.0.0.2|5060", 13},
            {"2001:db8:0:0:0:0:0:1,5060", "2001:db8:0:0:0:0:0:1|", 21},
            {"2001:db8:0:0:0:0:0:12,5060", "|", 21},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content != nullptr ? c.content : "no file");
        if (c.content != nullptr) std::ofstream(sla("sla_voip_state")) << c.content;
        char address[64] = {};
        char port[64] = {};
        EXPECT_EQ(SlaStatsImpl::instance()->getSlaVoipState(address, port), c.ret);
        EXPECT_EQ(std::string(address) + "|" + port, c.addressAndPort);
    }
}

}  // namespace
