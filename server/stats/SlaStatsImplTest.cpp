#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "iptables/IptablesManager.h"
#include "iptables/execnetd.h"
#include "platform/Platform.h"
#include "stats/SlaRingTestUtil.h"
#include "stats/SlaStatsData.h"
#include "stats/SlaStatsImpl.h"

using slatest::RingWriter;
using slatest::wallMs;

namespace {

// A private MLBD_ROOT whose /proc/sla/config is a FIFO held open by the test, so that every
// command the daemon writes can be read back in order. Each test runs in its own process and
// chooses its interfaces (properties) before the parameter store is first built.
class SlaStatsImplTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/mlbd-statsimpl-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("MLBD_ROOT", root.c_str(), 1);
        for (const char* d : {"/proc", "/proc/sla", "/properties"}) {
            ASSERT_EQ(mkdir((root + d).c_str(), 0755), 0);
        }
        setProp("vendor.sla.ifaces", "wlan0,rmnet_data0");
        setProp("vendor.sla.mode", "1");
        mlbd::initLogging();
    }
    void TearDown() override {
        SlaStatsImpl::finalize();
        for (auto& m : maps) munmap(m, slatest::kFileBytes);
        if (fifo >= 0) close(fifo);
        std::string cmd = "rm -rf '" + root + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    void setProp(const std::string& name, const std::string& value) {
        std::ofstream(root + "/properties/" + name) << value;
    }
    std::string sla(const std::string& name) { return root + "/proc/sla/" + name; }
    void openControlFifo() {
        ASSERT_EQ(mkfifo(sla("config").c_str(), 0600), 0);
        fifo = open(sla("config").c_str(), O_RDWR | O_NONBLOCK);
        ASSERT_GE(fifo, 0);
    }
    // Everything written to the control file since the last call, raw.
    std::string drainRaw() {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = read(fifo, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }
    // The same, split at the terminating NULs.
    std::vector<std::string> drain() {
        std::string raw = drainRaw();
        std::vector<std::string> cmds;
        size_t start = 0;
        while (start < raw.size()) {
            size_t end = raw.find('\0', start);
            EXPECT_NE(end, std::string::npos) << "command without its NUL";
            if (end == std::string::npos) end = raw.size();
            cmds.push_back(raw.substr(start, end - start));
            start = end + 1;
        }
        return cmds;
    }
    // Creates the statistics file at full size and maps it writable for the test's ring.
    RingWriter statsFile(const std::string& iface) {
        int fd = open(sla(iface + "_mmap").c_str(), O_RDWR | O_CREAT, 0644);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(ftruncate(fd, slatest::kFileBytes), 0);
        void* m = mmap(nullptr, slatest::kFileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        EXPECT_NE(m, MAP_FAILED);
        maps.push_back(m);
        return RingWriter(m);
    }
    linkStatsWrapper_t* addWrapper(SlaStatsImpl* impl, const char* name, uint32_t rate) {
        auto* w = new linkStatsWrapper_t();
        snprintf(w->interfaceName, sizeof(w->interfaceName), "%s", name);
        w->linkRate = rate;
        impl->statsMap[name] = w;
        return w;
    }

    std::string root;
    int fifo = -1;
    std::vector<void*> maps;
};

TEST_F(SlaStatsImplTest, ControlFileCommandsInOrder) {
    openControlFifo();
    statsFile("wlan0");
    statsFile("rmnet_data0");
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    EXPECT_EQ(impl, SlaStatsImpl::instance());

    // Every text goes out with its NUL, in its own write.
    EXPECT_EQ(impl->writeStatsConfFile("abc"), 0);
    EXPECT_EQ(drainRaw(), std::string("abc\0", 4));

    // Protocols, ports, one iface= per interface in name order, then enable=1 after mapping.
    EXPECT_TRUE(impl->enableSLA(true));
    EXPECT_EQ(drain(), (std::vector<std::string>{"protocols=http,https", "ports=80,443",
                                                 "iface=rmnet_data0", "iface=wlan0", "enable=1"}));
    ASSERT_EQ(impl->statsMap.size(), 2u);
    for (auto& e : impl->statsMap) {
        EXPECT_STREQ(e.second->interfaceName, e.first.c_str());
        EXPECT_NE(e.second->stats, nullptr);
        EXPECT_EQ(e.second->interfaceRatio, 0.0f);
        EXPECT_EQ(e.second->linkRate, 0u);
    }

    // Disabling unmaps first, then writes enable=0.
    EXPECT_TRUE(impl->enableSLA(false));
    EXPECT_EQ(drain(), (std::vector<std::string>{"enable=0"}));
    EXPECT_TRUE(impl->statsMap.empty());

    // Enabling twice without a disable replaces (and releases) the earlier wrappers.
    EXPECT_TRUE(impl->enableSLA(true));
    EXPECT_TRUE(impl->enableSLA(true));
    EXPECT_EQ(impl->statsMap.size(), 2u);
    drain();

    // VoIP tracking: UID before enabling, disabling before the UID is rewritten.
    EXPECT_EQ(impl->enableSlaVoipState(true, "10123"), 0);
    EXPECT_EQ(drain(), (std::vector<std::string>{"voip_uid=10123", "voip_enable=1"}));
    EXPECT_EQ(impl->enableSlaVoipState(false, "10123"), 0);
    EXPECT_EQ(drain(), (std::vector<std::string>{"voip_enable=0", "voip_uid=10123"}));

    // No interfaces: only protocols, ports and enable=1.
    Parameters* params = Parameters::instance();
    params->ports = "80,443,8080";
    params->protocols = "tcp";
    for (auto& e : params->interfaces) delete e.second;
    params->interfaces.clear();
    EXPECT_TRUE(impl->enableSLA(true));
    EXPECT_EQ(drain(),
              (std::vector<std::string>{"protocols=tcp", "ports=80,443,8080", "enable=1"}));
    // With no interface configured, initMmap reports whether nothing is mapped: the wrappers of
    // the earlier enable are still there.
    EXPECT_FALSE(impl->initMmap());
    impl->freeMmap();
    EXPECT_TRUE(impl->initMmap());
}

TEST_F(SlaStatsImplTest, ControlFileFailures) {
    SlaStatsImpl* impl = SlaStatsImpl::instance();

    // No control file at all.
    testing::internal::CaptureStderr();
    EXPECT_EQ(impl->writeStatsConfFile("enable=1"), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("E Mlbd-SlaStatsImpl: open stats config file failed:No such file or "
                       "directory"),
              std::string::npos)
            << log;
    EXPECT_NE(log.find("D Mlbd-SlaStatsImpl: writeStatsConfFile:enable=1"), std::string::npos);

    // A FIFO nobody reads: fails at once instead of blocking the daemon.
    ASSERT_EQ(mkfifo(sla("config").c_str(), 0600), 0);
    EXPECT_EQ(impl->writeStatsConfFile("enable=1"), -1);
    EXPECT_EQ(impl->enableSlaVoipState(true, "1"), -1);

    // A reader that is gone by the time of the write: EPIPE, and no SIGPIPE kills the process.
    int rd = open(sla("config").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(rd, 0);
    std::atomic<bool> stop{false};
    std::thread closer([&] {
        // Close the read end while the writer may be between its open and its write.
        while (!stop.load()) {
            usleep(200);
            close(rd);
            rd = open(sla("config").c_str(), O_RDONLY | O_NONBLOCK);
        }
    });
    testing::internal::CaptureStderr();
    for (int i = 0; i < 2000; ++i) impl->writeStatsConfFile("x");
    testing::internal::GetCapturedStderr();
    stop = true;
    closer.join();
    if (rd >= 0) close(rd);

    // The final enable= decides enableSLA's result.
    unlink(sla("config").c_str());
    statsFile("wlan0");
    statsFile("rmnet_data0");
    EXPECT_FALSE(impl->enableSLA(true));
    EXPECT_EQ(impl->statsMap.size(), 2u);
    EXPECT_FALSE(impl->enableSLA(false));
    EXPECT_TRUE(impl->statsMap.empty());
}

TEST_F(SlaStatsImplTest, MappingFailuresAreFailedOpens) {
    openControlFifo();
    SlaStatsImpl* impl = SlaStatsImpl::instance();

    // Hostile names never open anything outside the folder, nor a cut path.
    EXPECT_EQ(impl->getStatsMmap("../../evil"), nullptr);
    EXPECT_EQ(impl->getStatsMmap(""), nullptr);
    EXPECT_EQ(impl->getStatsMmap(std::string(200, 'a')), nullptr);
    EXPECT_NE(access((root + "/evil_mmap").c_str(), F_OK), 0);

    // A file shorter than the layout would fault when read: refused like a failed open.
    std::ofstream(sla("wlan0_mmap")) << std::string(100, 'x');
    testing::internal::CaptureStderr();
    EXPECT_EQ(impl->getStatsMmap("wlan0"), nullptr);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("E Mlbd-SlaStatsImpl: mmap file " + sla("wlan0_mmap") +
                       " too short: 100 bytes, 20480 expected"),
              std::string::npos)
            << log;

    // A directory in the file's place cannot be opened.
    mkdir(sla("rmnet_data0_mmap").c_str(), 0755);
    testing::internal::CaptureStderr();
    EXPECT_EQ(impl->getStatsMmap("rmnet_data0"), nullptr);
    log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("E Mlbd-SlaStatsImpl: open mmap file failed:Is a directory"),
              std::string::npos)
            << log;

    // initMmap tries three times, 500 ms apart, then keeps a wrapper without statistics.
    const uint64_t start = wallMs();
    EXPECT_FALSE(impl->initMmap());
    const uint64_t took = wallMs() - start;
    EXPECT_GE(took, 2900u);  // two interfaces, 1.5 s each
    ASSERT_EQ(impl->statsMap.size(), 2u);
    EXPECT_EQ(impl->statsMap["wlan0"]->stats, nullptr);
    EXPECT_EQ(impl->statsMap["rmnet_data0"]->stats, nullptr);
    // Wrappers without statistics are left out of the estimates but still get a share.
    {
        mlbd::ScopedCommandRecorder recorder;
        impl->evalAndSetSLAInterfaceRatio();
        EXPECT_EQ(impl->statsMap["wlan0"]->sampleCount, 0u);
        EXPECT_FLOAT_EQ(impl->statsMap["wlan0"]->interfaceRatio, 1.0f);  // no rate anywhere
        EXPECT_FLOAT_EQ(impl->statsMap["rmnet_data0"]->interfaceRatio, 0.0f);
    }
    impl->freeMmap();

    // A file that is missing gets created empty by the open and is then too short; once the
    // module (here: the test) gives it its full size, it maps and is read live.
    unlink(sla("wlan0_mmap").c_str());
    EXPECT_EQ(impl->getStatsMmap("wlan0"), nullptr);
    EXPECT_EQ(access(sla("wlan0_mmap").c_str(), F_OK), 0);
    RingWriter w = statsFile("wlan0");
    void* mapping = impl->getStatsMmap("wlan0");
    ASSERT_NE(mapping, nullptr);
    SlaStatsData data(mapping, true);
    unsigned count = 0;
    slatest::fillIntervals(w, 6, wallMs() - 10, 5, 100, 10240);
    EXPECT_EQ(data.linkRateEstimate(&count), 800u);
    slatest::fillIntervals(w, 12, wallMs() - 10, 5, 100, 25600);
    EXPECT_EQ(data.linkRateEstimate(&count), 2000u);
    munmap(mapping, sla::kStatsFileSize);
}

TEST_F(SlaStatsImplTest, RatioCasesAndRebuildDecision) {
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    Parameters* params = Parameters::instance();
    ASSERT_EQ(params->wifiIfaceCount, 1);
    params->minRatioChange = 2;
    linkStatsWrapper_t* wlan = addWrapper(impl, "wlan0", 2000);
    linkStatsWrapper_t* cell = addWrapper(impl, "rmnet_data0", 3000);

    // Wi-Fi above the threshold: Wi-Fi alone, cellular nothing; the first change rebuilds.
    EXPECT_TRUE(impl->calcSlaRatios(SLA_CALC_WIFI_ONLY, 3000, 2000, 0));
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 1.0f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.0f);
    // Same again: nothing moved, no rebuild.
    EXPECT_FALSE(impl->calcSlaRatios(SLA_CALC_WIFI_ONLY, 3000, 2000, 0));

    // Wi-Fi 800 below 1600: Wi-Fi 0.5, cellular fills the shortfall 0.5.
    wlan->linkRate = 800;
    cell->linkRate = 2000;
    EXPECT_TRUE(impl->calcSlaRatios(SLA_CALC_AGGREGATE, 2000, 800, 0));
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.5f);

    // 0.5/0.5 to 0.25/0.75 moves 0.25 of the connections: rebuilt with 20 %, not with 25 %.
    wlan->linkRate = 400;
    params->minRatioChange = 25;
    EXPECT_FALSE(impl->calcSlaRatios(SLA_CALC_AGGREGATE, 2000, 400, 0));
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 0.25f);  // written even without a rebuild
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.75f);
    wlan->interfaceRatio = 0.5f;
    cell->interfaceRatio = 0.5f;
    params->minRatioChange = 20;
    EXPECT_TRUE(impl->calcSlaRatios(SLA_CALC_AGGREGATE, 2000, 400, 0));

    // A link without a rate takes what is left: Wi-Fi 0.25, cellular rate 0 gets 0.75.
    cell->linkRate = 0;
    impl->calcSlaRatios(SLA_CALC_AGGREGATE, 0, 400, 0);
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 0.25f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.75f);

    // No rate anywhere: the Wi-Fi links share everything, cellular nothing.
    wlan->linkRate = 0;
    impl->calcSlaRatios(SLA_CALC_AGGREGATE, 0, 0, 0);
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 1.0f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.0f);

    // Wi-Fi-only with a third link without rate: remaining is 1 - 1 - 1.5 < 0, no share for it.
    linkStatsWrapper_t* extra = addWrapper(impl, "rmnet_data1", 0);  // not configured: metered
    extra->interfaceRatio = 0.3f;
    wlan->linkRate = 2000;
    cell->linkRate = 3000;
    impl->calcSlaRatios(SLA_CALC_WIFI_ONLY, 3000, 2000, 0);
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 1.0f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.0f);
    EXPECT_FLOAT_EQ(extra->interfaceRatio, 0.0f);

    // An unknown process value changes no computed ratio; it is logged per interface.
    wlan->interfaceRatio = 0.7f;
    cell->interfaceRatio = 0.2f;
    testing::internal::CaptureStderr();
    impl->calcSlaRatios(static_cast<SLA_ratio_calc_process>(7), 3000, 2000, 0);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("E Mlbd-SlaStatsImpl: calcSlaRatios unexpected behavior in calc ratio"),
              std::string::npos)
            << log;
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 0.7f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.2f);

    // No threshold configured: no division by zero, Wi-Fi links get nothing from it.
    params->operValues[OPER_WIFI_THRESHOLD] = 0;
    wlan->linkRate = 0;
    cell->linkRate = 1000;
    extra->linkRate = 1000;
    impl->calcSlaRatios(SLA_CALC_AGGREGATE, 2000, 0, 0);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(extra->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(wlan->interfaceRatio, 0.0f);

    // An empty map: nothing to rebuild.
    SlaStatsImpl::finalize();
    EXPECT_FALSE(SlaStatsImpl::instance()->calcSlaRatios(SLA_CALC_AGGREGATE, 0, 0, 0));
}

TEST_F(SlaStatsImplTest, TwoWifiLinks) {
    setProp("vendor.sla.ifaces", "wlan0,wlan1,rmnet_data0");
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    Parameters* params = Parameters::instance();
    ASSERT_EQ(params->wifiIfaceCount, 2);
    ASSERT_EQ(params->num_interfaces, 3);
    linkStatsWrapper_t* w0 = addWrapper(impl, "wlan0", 800);
    linkStatsWrapper_t* w1 = addWrapper(impl, "wlan1", 800);
    linkStatsWrapper_t* cell = addWrapper(impl, "rmnet_data0", 1000);

    // Two Wi-Fi links among three interfaces double the threshold: 1600 acts as 3200.
    testing::internal::CaptureStderr();
    impl->calcSlaRatios(SLA_CALC_AGGREGATE, 1000, 1600, 0);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("LREThreshold = 3200.000000"), std::string::npos) << log;
    EXPECT_FLOAT_EQ(w0->interfaceRatio, 0.25f);
    EXPECT_FLOAT_EQ(w1->interfaceRatio, 0.25f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.5f);

    // One of them idle: half each, cellular nothing, whatever was computed.
    w1->linkRate = 0;
    impl->calcSlaRatios(SLA_CALC_AGGREGATE, 1000, 800, 1);
    EXPECT_FLOAT_EQ(w0->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(w1->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.0f);

    // No rate anywhere: each Wi-Fi link gets 1 / 2.
    w0->linkRate = 0;
    cell->linkRate = 0;
    impl->calcSlaRatios(SLA_CALC_AGGREGATE, 0, 0, 0);
    EXPECT_FLOAT_EQ(w0->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(w1->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(cell->interfaceRatio, 0.0f);

    // Through the cycle: wlan1 has no samples and no history, so it counts as the idle one.
    RingWriter f0 = statsFile("wlan0");
    RingWriter f1 = statsFile("wlan1");
    RingWriter fc = statsFile("rmnet_data0");
    SlaStatsImpl::finalize();
    impl = SlaStatsImpl::instance();
    EXPECT_TRUE(impl->initMmap());
    f1.header(slatest::kMagic, 1);
    slatest::fillIntervals(f0, 6, wallMs() - 10, 5, 100, 10240);
    slatest::fillIntervals(fc, 6, wallMs() - 10, 5, 100, 10240);
    mlbd::ScopedCommandRecorder recorder;
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_FLOAT_EQ(impl->statsMap["wlan0"]->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(impl->statsMap["wlan1"]->interfaceRatio, 0.5f);
    EXPECT_FLOAT_EQ(impl->statsMap["rmnet_data0"]->interfaceRatio, 0.0f);
}

TEST_F(SlaStatsImplTest, CycleProgramsRatioRules) {
    RingWriter wlan = statsFile("wlan0");
    RingWriter cell = statsFile("rmnet_data0");
    mlbd::ScopedCommandRecorder recorder;
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    Parameters* params = Parameters::instance();
    params->bestEstCacheSize = 3;
    ASSERT_TRUE(impl->initMmap());
    IptablesManager::instance();  // its chain skeleton is not what this test looks at

    // Wi-Fi 800 and cellular 2000 kbit/s: 0.5 each, as probabilities 0.5 then 1.0.
    slatest::fillIntervals(wlan, 6, wallMs() - 10, 5, 100, 10240);
    slatest::fillIntervals(cell, 6, wallMs() - 10, 5, 100, 25600);
    recorder.clear();
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(impl->statsMap["wlan0"]->linkRate, 800u);
    EXPECT_EQ(impl->statsMap["rmnet_data0"]->linkRate, 2000u);
    EXPECT_EQ(impl->statsMap["wlan0"]->sampleCount, 5u);
    std::vector<std::string> lines = recorder.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("-t mangle -F vexa_SLA"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("--probability 0.500000 -j vexa_fw_wlan0"), std::string::npos)
            << lines[1];
    EXPECT_NE(lines[2].find("--probability 1.000000 -j vexa_fw_rmnet_data0_wrapper"),
              std::string::npos)
            << lines[2];

    // Same rates: no rebuild.
    recorder.clear();
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_TRUE(recorder.lines().empty());

    // Wi-Fi at 2000 exceeds 1600: Wi-Fi alone.
    slatest::fillIntervals(wlan, 6, wallMs() - 10, 5, 100, 25600);
    impl->evalAndSetSLAInterfaceRatio();
    lines = recorder.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[1].find("--probability 1.000000 -j vexa_fw_wlan0"), std::string::npos);
    EXPECT_NE(lines[2].find("--probability 0.000000 -j vexa_fw_rmnet_data0_wrapper"),
              std::string::npos);

    // Cellular at 400 (below wan_threshold 500) counts as 0 and falls back to its history,
    // which never records the 400.
    slatest::fillIntervals(cell, 6, wallMs() - 10, 5, 100, 5120);
    impl->evalAndSetSLAInterfaceRatio();
    linkStatsWrapper_t* c = impl->statsMap["rmnet_data0"];
    EXPECT_EQ(c->linkRate, 2000u);
    EXPECT_EQ(c->history.maxRate, 2000u);
    EXPECT_EQ(c->history.rates.back(), 0u);

    // Too few intervals (4 < estimate_pack_num 5) is no estimate either; Wi-Fi falls back too.
    wlan.clear();
    slatest::fillIntervals(wlan, 6, wallMs() - 10, 4, 100, 25600);
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(impl->statsMap["wlan0"]->sampleCount, 4u);
    EXPECT_EQ(impl->statsMap["wlan0"]->linkRate, 2000u);  // best of 800, 800, 2000, 2000

    // A file that turns unready gives 0 and keeps its previous interval count.
    wlan.header(0, 6);
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(impl->statsMap["wlan0"]->sampleCount, 4u);
}

TEST_F(SlaStatsImplTest, DisableWhileCycling) {
    openControlFifo();
    RingWriter wlan = statsFile("wlan0");
    RingWriter cell = statsFile("rmnet_data0");
    slatest::fillIntervals(wlan, 6, wallMs() - 10, 5, 100, 10240);
    slatest::fillIntervals(cell, 6, wallMs() - 10, 5, 100, 25600);
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    mlbd::ScopedCommandRecorder recorder;
    ASSERT_TRUE(impl->enableSLA(true));

    // The control thread switches aggregation off and on while the main loop evaluates: the
    // mappings are never released in the middle of a cycle.
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; i < 100; ++i) {
            impl->enableSLA(i % 2 != 0);
            drainRaw();
        }
        impl->enableSLA(true);
        done = true;
    });
    int cycles = 0;
    while (!done.load() || cycles < 50) {
        impl->evalAndSetSLAInterfaceRatio();
        ++cycles;
    }
    control.join();
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(impl->statsMap.size(), 2u);
}

TEST_F(SlaStatsImplTest, VoipStateFile) {
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    auto state = [&](const std::string& text) {
        std::ofstream(sla("sla_voip_state"), std::ios::binary) << text;
    };
    char address[64];
    char port[64];
    auto clear = [&] {
        memset(address, 0, sizeof(address));
        memset(port, 0, sizeof(port));
    };

    // Missing file: -1 and logged.
    clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(impl->getSlaVoipState(address, port), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("E Mlbd-SlaStatsImpl: open voip state file failed:No such file"),
              std::string::npos)
            << log;

    state("10.0.0.2,5060");
    clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(impl->getSlaVoipState(address, port), 13);
    log = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(address, "10.0.0.2");
    EXPECT_STREQ(port, "5060");
    EXPECT_NE(log.find("getSlaVoipState 2 is address=10.0.0.2 port=5060 ret=13"), std::string::npos)
            << log;

    // No comma: the count, buffers untouched.
    state("10.0.0.2:5060");
    clear();
    strcpy(address, "keep");
    EXPECT_EQ(impl->getSlaVoipState(address, port), 13);
    EXPECT_STREQ(address, "keep");
    EXPECT_STREQ(port, "");

    // A trailing newline stays with the port.
    state("10.0.0.2,5060\n");
    clear();
    EXPECT_EQ(impl->getSlaVoipState(address, port), 14);
    EXPECT_STREQ(port, "5060\n");

    // Longer than 21 bytes: cut at 21; a comma beyond is not seen.
    state("2001:db8:0:0:0:0:0:1,5060");
    clear();
    EXPECT_EQ(impl->getSlaVoipState(address, port), 21);
    EXPECT_STREQ(address, "2001:db8:0:0:0:0:0:1");
    EXPECT_STREQ(port, "");
    state("2001:db8:0:0:0:0:0:12,5060");
    clear();
    EXPECT_EQ(impl->getSlaVoipState(address, port), 21);
    EXPECT_STREQ(address, "");
    // A comma at the very end: empty port; at the start: empty address.
    state(",1");
    clear();
    EXPECT_EQ(impl->getSlaVoipState(address, port), 2);
    EXPECT_STREQ(address, "");
    EXPECT_STREQ(port, "1");
    // Empty file: 0.
    state("");
    EXPECT_EQ(impl->getSlaVoipState(address, port), 0);

    // finalize() without an instance does nothing; a new instance starts empty.
    SlaStatsImpl::finalize();
    SlaStatsImpl::finalize();
    EXPECT_TRUE(SlaStatsImpl::instance()->statsMap.empty());
}

}  // namespace
