/*
 * One aggregation cycle: the rate estimate of every mapped interface plus the split-ratio
 * calculation, with the command runner only recording. Also the walk alone, typical and worst
 * case, with a count of heap allocations (the walk must make none).
 */
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "iptables/IptablesManager.h"
#include "parameters/Parameters.h"
#include "stats/SlaStatsData.h"
#include "stats/SlaStatsImpl.h"
#include "support/CommandRecorder.h"
#include "support/SlaRingTestUtil.h"

// Counts every heap allocation of the process. The replacements pair malloc with free
// themselves; GCC cannot see that once they are inlined into their callers.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
static std::atomic<uint64_t> gAllocations{0};

void* operator new(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    return operator new(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}

namespace {

// A private root with wlan0 and rmnet_data0 statistics files, mapped by the daemon's code and
// written by the benchmark. Log lines are formatted as usual but not written anywhere.
struct Fixture {
    Fixture() {
        char tmpl[] = "/tmp/mlbd-ratiobench-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) abort();
        root = tmpl;
        setenv("MLBD_ROOT", root.c_str(), 1);
        for (const char* d : {"/proc", "/proc/sla", "/properties"}) {
            mkdir((root + d).c_str(), 0755);
        }
        std::ofstream(root + "/properties/vendor.sla.ifaces") << "wlan0,rmnet_data0";
        std::ofstream(root + "/properties/vendor.sla.mode") << "1";
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger([](const struct __android_logger_data*, const char*) {});

        params = Parameters::instance();
        // The rings are written once: keep them fresh for the whole run.
        params->operValues[OPER_MINI_STALE_INTERVAL] = 1000u * 3600 * 24;
        for (const char* name : {"wlan0", "rmnet_data0"}) {
            std::string path = root + "/proc/sla/" + name + "_mmap";
            int fd = open(path.c_str(), O_RDWR | O_CREAT, 0644);
            if (fd < 0 || ftruncate(fd, slatest::kFileBytes) != 0) abort();
            void* m = mmap(nullptr, slatest::kFileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            close(fd);
            if (m == MAP_FAILED) abort();
            maps.push_back(m);
        }
        setRates(10240, 25600);  // 800 and 2000 kbit/s
        impl = SlaStatsImpl::instance();
        if (!impl->initMmap()) abort();
        IptablesManager::instance();
    }
    void setRates(uint32_t wlanBytes, uint32_t cellBytes) {
        const uint64_t now = slatest::wallMs();
        slatest::RingWriter wlan(maps[0]);
        slatest::RingWriter cell(maps[1]);
        slatest::fillIntervals(wlan, 700, now, 20, 100, wlanBytes);
        slatest::fillIntervals(cell, 700, now, 20, 100, cellBytes);
    }

    std::string root;
    mlbd::ScopedCommandRecorder recorder;
    Parameters* params = nullptr;
    SlaStatsImpl* impl = nullptr;
    std::vector<void*> maps;
};

Fixture& fixture() {
    // Built on first use and never destroyed (the daemon's singletons point into it); its root
    // goes when the process ends.
    static Fixture* f = new Fixture();
    static const int removeRootAtExit =
            atexit([] { (void)!system(("rm -rf " + fixture().root).c_str()); });
    (void)removeRootAtExit;
    return *f;
}

// Steady rates: estimates and ratios, no rebuild.
void BM_RatioCycle(benchmark::State& state) {
    Fixture& f = fixture();
    f.setRates(10240, 25600);
    f.impl->evalAndSetSLAInterfaceRatio();
    f.recorder.clear();
    const uint64_t before = gAllocations.load();
    for (auto _ : state) {
        f.impl->evalAndSetSLAInterfaceRatio();
    }
    state.counters["allocs/cycle"] = static_cast<double>(gAllocations.load() - before) /
                                     static_cast<double>(state.iterations());
    if (!f.recorder.lines().empty()) state.SkipWithError("steady rates rebuilt the rules");
}
BENCHMARK(BM_RatioCycle);

// Rates that flip every cycle: estimates, ratios and the rebuild of the ratio rules (three
// recorded commands and two connection counts).
void BM_RatioCycleWithRebuild(benchmark::State& state) {
    Fixture& f = fixture();
    bool high = false;
    // Two rings written once, selected by switching writeIndex between two parts of the ring.
    const uint64_t now = slatest::wallMs();
    slatest::RingWriter wlan(f.maps[0]);
    slatest::fillIntervals(wlan, 700, now, 20, 100, 10240);   // slots 680..700: 800 kbit/s
    slatest::fillIntervals(wlan, 1000, now, 20, 100, 25600);  // slots 980..1000: 2000 kbit/s
    for (auto _ : state) {
        high = !high;
        wlan.header(slatest::kMagic, high ? 1000 : 700);
        f.impl->evalAndSetSLAInterfaceRatio();
        if (f.recorder.lines().size() > 30000) f.recorder.clear();
    }
    f.recorder.clear();
}
BENCHMARK(BM_RatioCycleWithRebuild);

// Times the walk over Wi-Fi's ring as it stands; fails the run if the walk allocates.
void runWalk(benchmark::State& state, Fixture& f) {
    SlaStatsData data(f.maps[0], true);
    unsigned count = 0;
    const uint64_t before = gAllocations.load();
    for (auto _ : state) {
        benchmark::DoNotOptimize(data.linkRateEstimate(&count));
    }
    const uint64_t allocations = gAllocations.load() - before;
    state.counters["allocs"] = static_cast<double>(allocations);
    state.counters["intervals"] = count;
    if (allocations != 0) state.SkipWithError("the walk allocated");
}

// One interface's walk over a typical ring (five intervals fill the window).
void BM_LinkRateEstimate(benchmark::State& state) {
    Fixture& f = fixture();
    f.setRates(10240, 25600);
    f.params->operValues[OPER_IDEAL_EST_WINDOW] = 500;
    runWalk(state, f);
}
BENCHMARK(BM_LinkRateEstimate);

// The worst case: every slot a fresh closing record and a window that never fills, so the walk
// runs until its step bound.
void BM_LinkRateEstimateWholeRing(benchmark::State& state) {
    Fixture& f = fixture();
    const uint64_t now = slatest::wallMs();
    slatest::RingWriter wlan(f.maps[0]);
    slatest::fillIntervals(wlan, 700, now, 1278, 1, 100);
    f.params->operValues[OPER_IDEAL_EST_WINDOW] = 1000000;
    runWalk(state, f);
    f.params->operValues[OPER_IDEAL_EST_WINDOW] = 500;
    f.setRates(10240, 25600);
}
BENCHMARK(BM_LinkRateEstimateWholeRing);

}  // namespace

BENCHMARK_MAIN();
