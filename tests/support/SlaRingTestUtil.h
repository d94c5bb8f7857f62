// Test helper: writes statistics files the way the kernel module lays them out, for unit tests,
// the binary test and the benchmark. Offsets are spelled out here on purpose rather than taken
// from the reader's constants, so that a layout mistake on either side shows up.
//
//   header (offset 0): u32 magic 0x686A7379, u32 reserved, u32 writeIndex, u32 reserved
//   record k (offset 16*k, k = 1..1279): u64 timestampMs, u32 bytes, u16 reserved, u8 kind,
//                                        u8 flags
#pragma once

#include <stdint.h>
#include <sys/time.h>

namespace slatest {

constexpr uint32_t kMagic = 0x686A7379;
constexpr size_t kFileBytes = 20480;

inline uint64_t wallMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

// Little-endian stores into a ring at `base`, which spans kFileBytes.
class RingWriter {
  public:
    explicit RingWriter(void* base) : base_(static_cast<uint8_t*>(base)) {}

    void header(uint32_t magic, uint32_t writeIndex) {
        putLe(0, magic, 4);
        putLe(8, writeIndex, 4);
    }
    void record(uint32_t slot, uint64_t ms, uint32_t bytes, uint8_t kind, uint8_t flags = 0) {
        const size_t at = 16 * static_cast<size_t>(slot);
        putLe(at, ms, 8);
        putLe(at + 8, bytes, 4);
        // Bytes 12..13 reserved (zero), 14 kind, 15 flags.
        putLe(at + 12, static_cast<uint32_t>(kind) << 16 | static_cast<uint32_t>(flags) << 24, 4);
    }

  private:
    void putLe(size_t at, uint64_t value, int width) {
        for (int i = 0; i < width; ++i) base_[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
    uint8_t* base_;
};

// Fills `w` with `count` closing intervals of `intervalMs` each, `bytes` per interval, the
// newest at `newestMs` in slot `newestSlot`, preceded by one start record (kind 0); sets the
// header last. Slots wrap from 1 back to 1279 as the module's ring does.
inline void fillIntervals(RingWriter& w, uint32_t newestSlot, uint64_t newestMs, int count,
                          uint32_t intervalMs, uint32_t bytes) {
    uint32_t slot = newestSlot;
    for (int i = 0; i <= count; ++i, newestMs -= intervalMs) {
        w.record(slot, newestMs, i == count ? 0 : bytes, i == count ? 0 : 2);
        slot = slot <= 1 ? 1279 : slot - 1;
    }
    w.header(kMagic, newestSlot == 1279 ? 0 : newestSlot);
}

}  // namespace slatest
