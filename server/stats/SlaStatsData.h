/*
 * One interface's view of the SLA kernel module's statistics file.
 *
 * The module publishes, per interface, a 20480-byte file of 1280 little-endian slots of 16 bytes:
 * slot 0 is the header (magic, newest slot number), slots 1..1279 a ring of byte-count records.
 * The daemon maps the file read-only and shared, and reads it while the module writes it, with no
 * synchronisation: every field is loaded once per use, and any content (torn, stale or garbage
 * records) yields some rate or 0 within a bounded walk that never leaves the mapping.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace sla {

// File layout shared with the kernel module.
constexpr uint32_t kStatsMagic = 0x686A7379;
constexpr size_t kSlotSize = 16;
constexpr uint32_t kSlotCount = 1280;                      // header + ring
constexpr uint32_t kRingLast = kSlotCount - 1;             // 1279: highest record slot
constexpr size_t kStatsFileSize = kSlotSize * kSlotCount;  // 20480

// Header (slot 0) field offsets.
constexpr size_t kMagicOffset = 0;
constexpr size_t kWriteIndexOffset = 8;

// Record field offsets within a slot.
constexpr size_t kTimestampOffset = 0;
constexpr size_t kBytesOffset = 8;
constexpr size_t kKindOffset = 14;
constexpr size_t kFlagsOffset = 15;

// Record kinds.
constexpr uint8_t kKindIntermediate = 1;
constexpr uint8_t kKindClosing = 2;

}  // namespace sla

class SlaStatsData {
  public:
    // `mapping` is the start of a mapping of at least sla::kStatsFileSize bytes; it stays owned by
    // the caller. `isWlan` only names the link in log texts ("WLAN" or "WWAN").
    SlaStatsData(void* mapping, bool isWlan);

    // The link's recent rate in kbit/s (1 kbit = 1024 bits), 0 when there is no valid estimate.
    // Stores the number of measurement intervals used into *intervalCount (when not null), except
    // when the file is not ready (wrong magic), which leaves it untouched. Allocates nothing.
    unsigned linkRateEstimate(unsigned* intervalCount);

    void* mapping() const { return mapping_; }
    // The newest record found by the last estimate; null before the first one, or when the
    // header named a slot outside the ring.
    const void* currentRecord() const { return current_; }

  private:
    struct Record {
        uint64_t timestampMs;
        uint32_t bytes;
        uint8_t kind;
        uint8_t flags;
    };

    Record loadRecord(uint32_t slot) const;
    uint32_t loadHeaderWord(size_t offset) const;

    void* mapping_;
    bool isWlan_;
    const void* current_ = nullptr;
};
