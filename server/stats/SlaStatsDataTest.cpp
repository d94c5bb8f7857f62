#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>

#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "stats/SlaRingTestUtil.h"
#include "stats/SlaStatsData.h"
#include "stats/SlaStatsImpl.h"

using slatest::GuardedRing;
using slatest::RingWriter;
using slatest::wallMs;

namespace {

// Each test runs in its own process: the parameter store is built from an empty MLBD_ROOT
// (built-in defaults: stale 1500 ms, window 500 ms, rate window 50 ms).
class SlaStatsDataTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/mlbd-statsdata-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("MLBD_ROOT", root.c_str(), 1);
        params = Parameters::instance();
        ASSERT_TRUE(ring.ok());
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + root + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    unsigned estimate(unsigned* count, bool isWlan = true) {
        SlaStatsData data(ring.data(), isWlan);
        return data.linkRateEstimate(count);
    }

    std::string root;
    Parameters* params = nullptr;
    GuardedRing ring;
};

// kbit/s as the reader computes it: bytes * 8000 / 1024 per millisecond, shift first.
uint32_t kbps(uint64_t bytes, uint32_t ms) {
    return static_cast<uint32_t>(((bytes * 8000) >> 10) / ms);
}

TEST_F(SlaStatsDataTest, WalksBackFromNewestAcrossTheWrap) {
    RingWriter w = ring.writer();
    const uint64_t now = wallMs();

    // Five 100 ms intervals of 10240 bytes fill the 500 ms window exactly: 800 kbit/s.
    slatest::fillIntervals(w, 6, now - 10, 5, 100, 10240);
    unsigned count = 99;
    EXPECT_EQ(estimate(&count), 800u);
    EXPECT_EQ(count, 5u);

    // Newest in slot 2: the walk goes 2, 1, then 1279, 1278, ... (the header is no record).
    w.clear();
    slatest::fillIntervals(w, 2, now - 10, 5, 100, 25600);
    EXPECT_EQ(estimate(&count), 2000u);
    EXPECT_EQ(count, 5u);
    // The header itself looks like an unwritten-slot stop if it were walked into: it is not.
    w.header(slatest::kMagic, 2);
    EXPECT_EQ(estimate(&count), 2000u);

    // writeIndex 0 makes slot 1279 the newest record.
    w.clear();
    slatest::fillIntervals(w, 1279, now - 10, 5, 100, 10240);
    w.writeIndex(0);
    EXPECT_EQ(estimate(&count), 800u);
    EXPECT_EQ(count, 5u);
    // writeIndex 1279 names the same slot.
    w.writeIndex(1279);
    EXPECT_EQ(estimate(&count), 800u);
    // An older slot as newest sees only what lies before it.
    w.writeIndex(1277);
    EXPECT_EQ(estimate(&count), 800u);  // 3 intervals of the same size: same rate
    EXPECT_EQ(count, 3u);

    // Records after the newest slot (in ring order) are never looked at.
    w.clear();
    slatest::fillIntervals(w, 10, now - 10, 3, 100, 10240);
    w.record(11, now - 5, 999999, 2);
    EXPECT_EQ(estimate(&count), 800u);
    EXPECT_EQ(count, 3u);

    // A null count pointer is allowed.
    EXPECT_EQ(estimate(nullptr), 800u);
}

TEST_F(SlaStatsDataTest, StaleUnwrittenAndNotReady) {
    RingWriter w = ring.writer();
    const uint64_t now = wallMs();
    unsigned count = 42;

    // Wrong magic: 0, logged, count untouched.
    slatest::fillIntervals(w, 6, now - 10, 5, 100, 10240);
    w.header(0x12345678, 6);
    testing::internal::CaptureStderr();
    mlbd::initLogging();
    EXPECT_EQ(estimate(&count), 0u);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("E Mlbd-SlaStatsData: SLA stat colletct is not ready"), std::string::npos)
            << log;
    EXPECT_EQ(count, 42u);

    // Newest record older than mini_stale_interval: 0 and no interval.
    w.clear();
    slatest::fillIntervals(w, 6, now - 1600, 5, 100, 10240);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);
    // Exactly 1500 ms old is stale too: "now" is taken one millisecond ahead.
    w.clear();
    slatest::fillIntervals(w, 6, wallMs() - 1500, 5, 100, 10240);
    EXPECT_EQ(estimate(&count), 0u);
    // A longer staleness limit accepts the same ring.
    params->operValues[OPER_MINI_STALE_INTERVAL] = 5000;
    EXPECT_EQ(estimate(&count), 800u);
    params->operValues[OPER_MINI_STALE_INTERVAL] = 1500;

    // Fresh newest intervals, older ones stale: only the fresh ones count.
    w.clear();
    slatest::fillIntervals(w, 20, now - 1300, 5, 100, 10240);  // 1300..1800 ms old
    unsigned rate = estimate(&count);
    EXPECT_EQ(count, 2u);  // the closes at 1300 and 1400 ms; the one at 1500 is stale
    EXPECT_EQ(rate, kbps(2 * 10240, 200));

    // A single closing record with no written slot before it: no start, 0.
    w.clear();
    w.record(5, now - 10, 5000, 2);
    w.header(slatest::kMagic, 5);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);
    // Newest slot never written: 0.
    w.clear();
    w.header(slatest::kMagic, 7);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);

    // An estimate shorter than mini_rate_window (50 ms) is no estimate, though it was counted.
    w.clear();
    slatest::fillIntervals(w, 6, now - 10, 2, 20, 1000);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 2u);
    params->operValues[OPER_MINI_RATE_WINDOW] = 40;
    EXPECT_EQ(estimate(&count), kbps(2000, 40));
    // A zero-length sum with no minimum is still no estimate (no division by zero).
    params->operValues[OPER_MINI_RATE_WINDOW] = 0;
    w.clear();
    w.record(3, now - 10, 100, 0);
    w.record(4, now - 10, 100, 2);
    w.header(slatest::kMagic, 4);
    EXPECT_EQ(estimate(&count), 0u);
}

TEST_F(SlaStatsDataTest, IntermediateAndUnusableRecords) {
    RingWriter w = ring.writer();
    const uint64_t now = wallMs();
    unsigned count = 0;

    // start(0) - intermediate - intermediate - close: one 300 ms interval; the intermediate
    // records' own bytes are not added.
    w.record(1, now - 310, 0, 0);
    w.record(2, now - 210, 7777, 1);
    w.record(3, now - 110, 7777, 1);
    w.record(4, now - 10, 30000, 2);
    w.header(slatest::kMagic, 4);
    EXPECT_EQ(estimate(&count), kbps(30000, 300));
    EXPECT_EQ(count, 1u);

    // A closing record can start the next newer interval; a start of kind 0, 3 or 255 all work.
    w.clear();
    w.record(1, now - 410, 0, 255);
    w.record(2, now - 310, 1000, 2);
    w.record(3, now - 210, 2000, 3);
    w.record(4, now - 110, 3000, 2);
    w.record(5, now - 10, 4000, 2);
    w.header(slatest::kMagic, 5);
    EXPECT_EQ(estimate(&count), kbps(1000 + 3000 + 4000, 300));
    EXPECT_EQ(count, 3u);  // slot 3 only starts slot 4's interval: 2, 4 and 5 close

    // Newest records that do not close an interval (kind 0, flags set) are stepped over.
    w.clear();
    slatest::fillIntervals(w, 6, now - 100, 5, 100, 10240);
    w.record(7, now - 50, 1, 0);
    w.record(8, now - 20, 1, 2, 0x01);
    w.record(9, now - 10, 1, 1);
    w.header(slatest::kMagic, 9);
    EXPECT_EQ(estimate(&count), 800u);
    EXPECT_EQ(count, 5u);
    // A flagged closing record inside the walk is skipped, and it still starts the interval
    // that follows it.
    w.record(4, now - 300, 10240, 2, 0x80);
    EXPECT_EQ(estimate(&count), kbps(4 * 10240, 400));
    EXPECT_EQ(count, 4u);  // slots 6, 5 (started by 4), 3 and 2; slot 4 closes nothing

    // Only intermediate records before a close: no start found, 0.
    w.clear();
    for (uint32_t s = 1; s <= 1279; ++s) w.record(s, now - 10, 100, 1);
    w.record(640, now - 5, 5000, 2);
    w.header(slatest::kMagic, 640);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);
}

TEST_F(SlaStatsDataTest, WindowAndOvershootRule) {
    RingWriter w = ring.writer();
    const uint64_t now = wallMs();
    unsigned count = 0;

    // A first interval of 600 ms with a 500 ms window is used (overshoot 100 <= shortfall 500).
    w.record(1, now - 1010, 0, 0);
    w.record(2, now - 610, 9000, 2);  // 400 ms interval, older
    w.record(3, now - 10, 60000, 2);  // 600 ms interval, newest
    w.header(slatest::kMagic, 3);
    EXPECT_EQ(estimate(&count), kbps(60000, 600));
    EXPECT_EQ(count, 1u);

    // 450 ms, then an older 550 ms interval that would bring it to 1000: overshoot 500 >
    // shortfall 50, so it is left out.
    w.clear();
    w.record(1, now - 1010, 0, 0);
    w.record(2, now - 460, 55000, 2);
    w.record(3, now - 10, 45000, 2);
    w.header(slatest::kMagic, 3);
    EXPECT_EQ(estimate(&count), kbps(45000, 450));
    EXPECT_EQ(count, 1u);
    // An older interval that overshoots by no more than the shortfall is taken: 450 + 100.
    w.record(1, now - 560, 0, 0);
    w.record(2, now - 460, 10000, 2);
    EXPECT_EQ(estimate(&count), kbps(55000, 550));
    EXPECT_EQ(count, 2u);
    // Overshoot equal to the shortfall is still taken: 300 + 400 (overshoot 200 = 200).
    w.clear();
    w.record(1, now - 710, 0, 0);
    w.record(2, now - 310, 40000, 2);
    w.record(3, now - 10, 30000, 2);
    w.header(slatest::kMagic, 3);
    EXPECT_EQ(estimate(&count), kbps(70000, 700));
    EXPECT_EQ(count, 2u);

    // The window is read anew at every estimate.
    w.clear();
    slatest::fillIntervals(w, 30, now - 10, 20, 100, 10240);
    EXPECT_EQ(estimate(&count), 800u);
    EXPECT_EQ(count, 5u);
    params->operValues[OPER_IDEAL_EST_WINDOW] = 1000;
    EXPECT_EQ(estimate(&count), 800u);
    EXPECT_EQ(count, 10u);

    // 64-bit byte sum and product: five full 32-bit counts in 500 ms.
    params->operValues[OPER_IDEAL_EST_WINDOW] = 500;
    w.clear();
    slatest::fillIntervals(w, 6, now - 10, 5, 100, 0xFFFFFFFFu);
    EXPECT_EQ(estimate(&count), 335544319u);
    // The result is cut to 32 bits: one full count in 1 ms is 33554431992 kbit/s.
    params->operValues[OPER_IDEAL_EST_WINDOW] = 1;
    params->operValues[OPER_MINI_RATE_WINDOW] = 1;
    w.clear();
    slatest::fillIntervals(w, 6, now - 10, 1, 1, 0xFFFFFFFFu);
    EXPECT_EQ(estimate(&count), static_cast<unsigned>(33554431992ull & 0xFFFFFFFFull));
    // Shift before division: 1023 bytes in 1 ms is 7992 kbit/s (7992.1875 truncated).
    w.clear();
    slatest::fillIntervals(w, 6, now - 10, 1, 1, 1023);
    EXPECT_EQ(estimate(&count), 7992u);
}

TEST_F(SlaStatsDataTest, OutOfBoundIndexAndHostileRings) {
    RingWriter w = ring.writer();
    const uint64_t now = wallMs();
    unsigned count = 5;

    // writeIndex beyond the ring: logged with the index minus one; nothing outside the file is
    // read (the guard pages would fault), no estimate.
    mlbd::initLogging();
    slatest::fillIntervals(w, 6, now - 10, 5, 100, 10240);
    for (uint32_t index : {1280u, 1281u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        w.writeIndex(index);
        testing::internal::CaptureStderr();
        SlaStatsData wlan(ring.data(), true);
        EXPECT_EQ(wlan.linkRateEstimate(&count), 0u);
        EXPECT_EQ(wlan.currentRecord(), nullptr);
        SlaStatsData wwan(ring.data(), false);
        EXPECT_EQ(wwan.linkRateEstimate(&count), 0u);
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("WLAN:Index(" + std::to_string(index - 1) + ") out of bound!"),
                  std::string::npos)
                << log;
        EXPECT_NE(log.find("WWAN:Index(" + std::to_string(index - 1) + ") out of bound!"),
                  std::string::npos);
        EXPECT_EQ(count, 0u);
    }
    w.writeIndex(6);
    SlaStatsData data(ring.data(), true);
    EXPECT_EQ(data.linkRateEstimate(&count), 800u);
    EXPECT_EQ(data.currentRecord(), static_cast<uint8_t*>(ring.data()) + 16 * 6);

    // Every slot a fresh closing record with the same timestamp: each interval is 0 ms and the
    // window never fills. The walk must end after one turn of the ring.
    w.clear();
    for (uint32_t s = 1; s <= 1279; ++s) w.record(s, now, 1000, 2);
    w.header(slatest::kMagic, 100);
    params->operValues[OPER_MINI_RATE_WINDOW] = 0;
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 1278u);  // one interval per step until just before slot 100 comes back
    params->operValues[OPER_MINI_RATE_WINDOW] = 50;

    // Fresh intermediate records everywhere, a close only at the newest slot.
    for (uint32_t s = 1; s <= 1279; ++s) w.record(s, now, 1000, 1);
    w.record(100, now, 1000, 2);
    EXPECT_EQ(estimate(&count), 0u);
    // Fresh non-closing records everywhere.
    for (uint32_t s = 1; s <= 1279; ++s) w.record(s, now, 1000, 0);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);

    // All bytes 0xFF (magic wrong) and all 0xFF behind a valid header.
    memset(ring.data(), 0xFF, slatest::kFileBytes);
    EXPECT_EQ(estimate(&count), 0u);
    w.header(slatest::kMagic, 1279);
    EXPECT_EQ(estimate(&count), 0u);
    w.header(slatest::kMagic, 0);
    EXPECT_EQ(estimate(&count), 0u);

    // Random rings, and timestamps in the future (negative intervals wrap in 32 bits).
    std::mt19937_64 rng(12345);
    for (int round = 0; round < 3000; ++round) {
        uint8_t* bytes = static_cast<uint8_t*>(ring.data());
        for (size_t i = 0; i < slatest::kFileBytes; i += 8) {
            uint64_t v = rng();
            memcpy(bytes + i, &v, 8);
        }
        // Bias towards plausible content so the walk gets going.
        for (uint32_t s = 1; s <= 1279; ++s) {
            if (rng() % 4 != 0) {
                w.record(s, now - rng() % 3000 + 1000, static_cast<uint32_t>(rng()),
                         static_cast<uint8_t>(rng() % 4), rng() % 8 == 0 ? 1 : 0);
            }
        }
        w.header(slatest::kMagic, static_cast<uint32_t>(rng() % 1400));
        params->operValues[OPER_IDEAL_EST_WINDOW] = static_cast<uint32_t>(rng() % 5000);
        params->operValues[OPER_MINI_RATE_WINDOW] = static_cast<uint32_t>(rng() % 100);
        count = 0;
        estimate(&count);
        EXPECT_LE(count, 1279u);
    }
}

TEST_F(SlaStatsDataTest, HistoryKeepsRecentMaximum) {
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    linkHistory_t h;

    // Cache size 0: the rate passes through and the history is not touched.
    params->bestEstCacheSize = 0;
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(h, 700, params), 700u);
    EXPECT_TRUE(h.rates.empty());
    EXPECT_EQ(h.maxRate, 0u);

    // Cache 3: 100, 0, 0 give 100 each; a fourth 0 pushes 100 out and gives 0.
    params->bestEstCacheSize = 3;
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(h, 100, params), 100u);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(h, 0, params), 100u);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(h, 0, params), 100u);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(h, 0, params), 0u);
    EXPECT_EQ(h.rates.size(), 3u);
    EXPECT_EQ(h.maxRate, 0u);

    // The maximum follows the window: 5, 9, 7, then 9 leaves after three more.
    linkHistory_t g;
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(g, 5, params), 5u);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(g, 9, params), 9u);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(g, 7, params), 9u);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(g, 1, params), 9u);  // 5 leaves
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(g, 2, params), 7u);  // 9 leaves: recomputed
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(g, 3, params), 3u);  // 7 leaves
    // A value equal to the maximum leaving while a copy stays keeps the maximum.
    linkHistory_t e;
    for (unsigned v : {4u, 4u, 1u}) impl->getMaxLinkRateFromHistory(e, v, params);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(e, 2, params), 4u);

    // Lowering the cache size shrinks the history by at most one per call.
    linkHistory_t s;
    params->bestEstCacheSize = 5;
    for (unsigned v : {50u, 40u, 30u, 20u, 10u}) impl->getMaxLinkRateFromHistory(s, v, params);
    params->bestEstCacheSize = 2;
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(s, 1, params), 40u);
    EXPECT_EQ(s.rates.size(), 5u);
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(s, 1, params), 30u);
    EXPECT_EQ(s.rates.size(), 5u);

    // A negative size from a broken configuration disables the history like 0.
    params->bestEstCacheSize = -1;
    linkHistory_t n;
    EXPECT_EQ(impl->getMaxLinkRateFromHistory(n, 9, params), 9u);
    EXPECT_TRUE(n.rates.empty());
    SlaStatsImpl::finalize();
}

}  // namespace
