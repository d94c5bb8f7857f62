/*
 * Link-rate estimation over the kernel module's sample ring.
 *
 * The ring is walked backwards from the newest record. Each closing record (kind 2, flags 0)
 * ends one measurement interval whose start is the nearest older record that is not an
 * intermediate one (kind 1); the interval's bytes and length are summed, newest first, until
 * the summed time fills the ideal window, a sample is stale, or an unwritten slot is reached.
 *
 * The module writes the ring while it is read. Every field is loaded once per use with a plain
 * atomic load, the newest-slot number is range-checked before any slot is addressed, and the
 * walk takes at most one ring's worth of steps in total (start searches included), so torn or
 * garbage content yields some rate or 0, never an endless loop or a read outside the mapping.
 */
#include "SlaStatsData.h"

#include <android/log.h>
#include <endian.h>
#include <sys/time.h>

#include "parameters/Parameters.h"

#define LOG_TAG "Mlbd-SlaStatsData"

namespace {

// Every predecessor step of one estimate, start searches included, counts against this budget.
// The walk only ever moves backwards, so within it no slot is read twice: a walk that would come
// back round to its newest record is reading inconsistent content.
constexpr unsigned kMaxWalkSteps = sla::kRingLast - 1;

inline uint32_t predecessor(uint32_t slot) {
    return slot <= 1 ? sla::kRingLast : slot - 1;
}

}  // namespace

SlaStatsData::SlaStatsData(void* mapping, bool isWlan) : mapping_(mapping), isWlan_(isWlan) {}

uint32_t SlaStatsData::loadHeaderWord(size_t offset) const {
    const uint32_t* p =
            reinterpret_cast<const uint32_t*>(static_cast<const uint8_t*>(mapping_) + offset);
    return le32toh(__atomic_load_n(p, __ATOMIC_RELAXED));
}

SlaStatsData::Record SlaStatsData::loadRecord(uint32_t slot) const {
    const uint8_t* base = static_cast<const uint8_t*>(mapping_) + sla::kSlotSize * slot;
    Record rec;
    rec.timestampMs = le64toh(__atomic_load_n(
            reinterpret_cast<const uint64_t*>(base + sla::kTimestampOffset), __ATOMIC_RELAXED));
    rec.bytes = le32toh(__atomic_load_n(reinterpret_cast<const uint32_t*>(base + sla::kBytesOffset),
                                        __ATOMIC_RELAXED));
    rec.kind = __atomic_load_n(base + sla::kKindOffset, __ATOMIC_RELAXED);
    rec.flags = __atomic_load_n(base + sla::kFlagsOffset, __ATOMIC_RELAXED);
    return rec;
}

unsigned SlaStatsData::linkRateEstimate(unsigned* intervalCount) {
    if (loadHeaderWord(sla::kMagicOffset) != sla::kStatsMagic) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "SLA stat colletct is not ready");
        return 0;
    }
    if (intervalCount != nullptr) *intervalCount = 0;

    struct timeval tv;
    gettimeofday(&tv, nullptr);
    // One millisecond ahead of the clock, on purpose.
    const uint64_t nowMs =
            static_cast<uint64_t>(tv.tv_sec) * 1000 + 1 + static_cast<uint64_t>(tv.tv_usec) / 1000;

    uint32_t slot = loadHeaderWord(sla::kWriteIndexOffset);
    if (slot == 0) {
        slot = sla::kRingLast;
    } else if (slot > sla::kRingLast) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s:Index(%u) out of bound!",
                            isWlan_ ? "WLAN" : "WWAN", slot - 1);
        // That slot lies beyond the file: no estimate this cycle.
        current_ = nullptr;
        return 0;
    }
    current_ = static_cast<const uint8_t*>(mapping_) + sla::kSlotSize * slot;

    Parameters* params = Parameters::instance();
    const uint64_t staleMs = params->get(OPER_MINI_STALE_INTERVAL);
    const uint32_t window = params->get(OPER_IDEAL_EST_WINDOW);
    const uint32_t minRateWindow = params->get(OPER_MINI_RATE_WINDOW);

    uint32_t sumMs = 0;
    uint64_t sumBytes = 0;
    unsigned count = 0;
    unsigned steps = 0;

    Record rec = loadRecord(slot);
    while (rec.timestampMs != 0) {
        if (nowMs > rec.timestampMs + staleMs) break;

        if (rec.kind != sla::kKindClosing || rec.flags != 0) {
            if (steps++ == kMaxWalkSteps) break;
            slot = predecessor(slot);
            rec = loadRecord(slot);
            continue;  // an unwritten slot ends the loop
        }

        // The interval's start: the nearest older record that is not an intermediate one.
        if (steps++ == kMaxWalkSteps) break;
        uint32_t startSlot = predecessor(slot);
        Record start = loadRecord(startSlot);
        bool outOfSteps = false;
        while (start.timestampMs != 0 && start.kind == sla::kKindIntermediate) {
            if (steps++ == kMaxWalkSteps) {
                outOfSteps = true;
                break;
            }
            startSlot = predecessor(startSlot);
            start = loadRecord(startSlot);
        }
        if (outOfSteps || start.timestampMs == 0) break;

        const uint32_t dt = static_cast<uint32_t>(rec.timestampMs - start.timestampMs);
        const uint32_t total = sumMs + dt;
        // Leave out an interval that would overshoot the window by more than what is missing.
        if (total >= window && (total - window) > (window - sumMs)) break;

        ++count;
        sumBytes += rec.bytes;
        sumMs = total;
        if (total >= window) break;

        // The start of this interval may close the next older one.
        slot = startSlot;
        rec = start;
    }

    if (intervalCount != nullptr) *intervalCount = count;
    if (sumMs < minRateWindow || sumMs == 0) return 0;
    // Bytes per millisecond to kbit/s (1 kbit = 1024 bits); the shift comes before the division.
    return static_cast<uint32_t>(((sumBytes * 8000) >> 10) / sumMs);
}
