#include <gtest/gtest.h>
#include <string.h>

#include <vector>

#include "platform/Platform.h"
#include "stats/SlaStatsData.h"
#include "stats/SlaStatsImpl.h"
#include "support/SlaRingTestUtil.h"

using slatest::kFileBytes;
using slatest::kMagic;

namespace {

// kbit/s as the reader computes it: bytes * 8000 / 1024 per millisecond, shift first.
unsigned kbps(uint64_t bytes, uint32_t ms) {
    return static_cast<unsigned>(((bytes * 8000) >> 10) / ms);
}

// Each test runs in its own process, with the parameter store built from a root without any
// file (defaults: stale 1500 ms, window 500 ms, rate window 50 ms). The ring is on the heap, so
// that the sanitizer builds catch any read outside its 20480 bytes.
class SlaStatsDataTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("MLBD_ROOT", "/nonexistent/mlbd-root", 1);
        params = Parameters::instance();
    }
    unsigned estimate(unsigned* count) {
        return SlaStatsData(ring.data(), true).linkRateEstimate(count);
    }

    Parameters* params = nullptr;
    std::vector<uint8_t> ring = std::vector<uint8_t>(kFileBytes);
    slatest::RingWriter w{ring.data()};
};

// fillIntervals() arguments, with the newest record's age in ms.
struct Fill {
    uint32_t newestSlot, ageMs, count, intervalMs, bytes;
};
// One record in the slot after the previous one, with its age in ms.
struct Rec {
    uint32_t ageMs, bytes, kind, flags = 0;
};
struct WalkCase {
    std::vector<Fill> fills;
    uint32_t firstSlot;  // of recs
    std::vector<Rec> recs;
    uint32_t writeIndex, rate, count, window = 500, rateWindow = 50, magic = kMagic;
};

// Ages are relative to the time of the estimate.
const WalkCase kWalks[] = {
        // Five 100 ms intervals of 10240 bytes fill the 500 ms window: 800 kbit/s.
        {{{6, 10, 5, 100, 10240}}, 0, {}, 6, 800, 5},
        // Not ready (wrong magic): 0, and the interval count keeps its previous value.
        {{{6, 10, 5, 100, 10240}}, 0, {}, 6, 0, 99, 500, 50, 0x12345678},
        // writeIndex beyond the ring: no estimate, and nothing outside the file is read.
        {{{6, 10, 5, 100, 10240}}, 0, {}, 1280, 0, 0},
        // Newest in slot 2: the walk goes 2, 1, 1279, 1278...; the header is no record.
        {{{2, 10, 5, 100, 25600}}, 0, {}, 2, 2000, 5},
        // writeIndex 0 is slot 1279.
        {{{1279, 10, 5, 100, 10240}}, 0, {}, 0, 800, 5},
        // Stale at 1500 ms old, since "now" is taken one ms ahead.
        {{{6, 1500, 5, 100, 10240}}, 0, {}, 6, 0, 0},
        // A close with no written slot before it; a newest slot never written.
        {{}, 5, {{10, 5000, 2}}, 5, 0, 0},
        {{}, 0, {}, 7, 0, 0},
        // 40 ms summed is under mini_rate_window 50, though counted.
        {{{6, 10, 2, 20, 1000}}, 0, {}, 6, 0, 2},
        // Zero-length sums with no minimum: no estimate, no division by zero. Every slot a fresh
        // close with the same timestamp never fills the window: the walk ends after one turn.
        {{}, 3, {{10, 100, 0}, {10, 100, 2}}, 4, 0, 1, 500, 0},
        {{{100, 10, 1278, 0, 1000}}, 0, {}, 100, 0, 1278, 500, 0},
        // Intermediate records are skipped looking for the start (kind 255 here), their bytes
        // not added.
        {{}, 1, {{310, 0, 255}, {210, 7777, 1}, {10, 30000, 2}}, 3, kbps(30000, 300), 1},
        // A close starts the next newer interval, so does kind 3; slot 1 finds no start.
        {{}, 1, {{310, 900, 2}, {210, 5, 3}, {110, 900, 2}, {10, 900, 2}}, 4, kbps(1800, 200), 2},
        // Newest records closing nothing (kind 0, flagged close, intermediate) are stepped over.
        {{{6, 100, 5, 100, 10240}}, 7, {{50, 1, 0}, {20, 1, 2, 1}, {10, 1, 1}}, 9, 800, 5},
        // A flagged close inside the walk closes nothing but still starts the next interval.
        {{{6, 100, 5, 100, 10240}}, 4, {{300, 10240, 2, 0x80}}, 6, kbps(4 * 10240, 400), 4},
        // Overshoot rule, window 500: a first interval of 600 ms is used (overshoot 100 <=
        // shortfall 500); 450 then 550 is not (500 > 50); 450 + 100 is; 300 + 400 is (200 = 200).
        {{}, 1, {{1010, 0, 0}, {610, 9000, 2}, {10, 60000, 2}}, 3, kbps(60000, 600), 1},
        {{}, 1, {{1010, 0, 0}, {460, 55000, 2}, {10, 45000, 2}}, 3, kbps(45000, 450), 1},
        {{}, 1, {{560, 0, 0}, {460, 10000, 2}, {10, 45000, 2}}, 3, kbps(55000, 550), 2},
        {{}, 1, {{710, 0, 0}, {310, 40000, 2}, {10, 30000, 2}}, 3, kbps(70000, 700), 2},
        // 64-bit sum and product; the result cut to 32 bits (33554431992); shift before the
        // division (1023 bytes in 1 ms: 7992.19).
        {{{6, 10, 5, 100, 0xFFFFFFFF}}, 0, {}, 6, 335544319, 5},
        {{{6, 10, 1, 1, 0xFFFFFFFF}}, 0, {}, 6, static_cast<unsigned>(33554431992ull), 1, 1, 1},
        {{{6, 10, 1, 1, 1023}}, 0, {}, 6, 7992, 1, 1, 1},
};

TEST_F(SlaStatsDataTest, BackwardWalk) {
    for (const WalkCase& c : kWalks) {
        SCOPED_TRACE(&c - kWalks);
        const uint64_t now = slatest::wallMs();
        memset(ring.data(), 0, kFileBytes);
        for (const Fill& f : c.fills) {
            slatest::fillIntervals(w, f.newestSlot, now - f.ageMs, f.count, f.intervalMs, f.bytes);
        }
        uint32_t slot = c.firstSlot;
        for (const Rec& r : c.recs) w.record(slot++, now - r.ageMs, r.bytes, r.kind, r.flags);
        w.header(c.magic, c.writeIndex);
        params->operValues[OPER_IDEAL_EST_WINDOW] = c.window;
        params->operValues[OPER_MINI_RATE_WINDOW] = c.rateWindow;
        unsigned count = 99;
        EXPECT_EQ(estimate(&count), c.rate);
        EXPECT_EQ(count, c.count);
        EXPECT_EQ(estimate(nullptr), c.rate);
    }
    // Intermediate records in every slot but the newest: the search for a start ends after one
    // turn of the ring. All bytes 0xFF: no estimate either.
    unsigned count = 42;
    for (uint32_t s = 1; s <= 1279; ++s) w.record(s, slatest::wallMs(), 1000, s == 100 ? 2 : 1);
    w.header(kMagic, 100);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);
    memset(ring.data(), 0xFF, kFileBytes);
    w.header(kMagic, 1279);
    EXPECT_EQ(estimate(&count), 0u);
}

TEST_F(SlaStatsDataTest, HistoryKeepsRecentMaximum) {
    // One history through all steps, each {cache size, rate in, maximum out, history length}:
    // a size of 0 leaves it untouched; 100, 0, 0 give 100 until the 100 leaves; 9 leaving makes
    // 7 the maximum; a 3 leaving while a copy stays keeps 3; a lowered size lets one value leave
    // per call; a negative size from a broken configuration disables it.
    const unsigned steps[][4] = {{0, 700, 700, 0}, {3, 100, 100, 1}, {3, 0, 100, 2}, {3, 0, 100, 3},
                                 {3, 0, 0, 3},     {3, 5, 5, 3},     {3, 9, 9, 3},   {3, 7, 9, 3},
                                 {3, 1, 9, 3},     {3, 2, 7, 3},     {3, 3, 3, 3},   {3, 3, 3, 3},
                                 {3, 0, 3, 3},     {3, 0, 3, 3},     {5, 50, 50, 4}, {5, 40, 50, 5},
                                 {5, 30, 50, 5},   {2, 1, 50, 5},    {~0u, 9, 9, 5}};
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    linkHistory_t h;
    for (const auto& step : steps) {
        params->bestEstCacheSize = static_cast<int32_t>(step[0]);
        EXPECT_EQ(impl->getMaxLinkRateFromHistory(h, step[1], params), step[2]) << &step - steps;
        EXPECT_EQ(h.rates.size(), step[3]) << &step - steps;
    }
    SlaStatsImpl::finalize();
}

}  // namespace
