// Byte builders shared by the netlink tests: messages and attributes as the kernel lays them out.
#pragma once

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace netlink_test {

using Bytes = std::vector<uint8_t>;

inline bool contains(const std::string& log, const char* text) {
    return log.find(text) != std::string::npos;
}

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// `value` as `size` little-endian bytes.
inline Bytes le(uint32_t value, size_t size = 4) {
    Bytes out(size);
    for (size_t i = 0; i < size; i++) out[i] = static_cast<uint8_t>(value >> (8 * i));
    return out;
}

inline Bytes text(const char* s) {
    return Bytes(s, s + strlen(s) + 1);
}

// An attribute: header length (by default 4 + payload), type, payload, then padding (by default
// up to a multiple of 4).
inline Bytes attr(uint16_t type, const Bytes& payload, int length = -1, int pad = -1) {
    if (length < 0) length = static_cast<int>(4 + payload.size());
    if (pad < 0) pad = static_cast<int>(-payload.size() & 3);
    return le(static_cast<uint32_t>(length), 2) + le(type, 2) + payload +
           Bytes(static_cast<size_t>(pad), 0);
}

// A message: netlink header, then for family types (16 and above) the generic netlink header
// with version 1, then `body`.
inline Bytes message(uint16_t type, uint16_t flags, uint32_t seq, uint8_t cmd, const Bytes& body,
                     uint32_t pid = 0) {
    Bytes all = type >= 16 ? Bytes{cmd, 1, 0, 0} + body : body;
    return le(static_cast<uint32_t>(16 + all.size())) + le(type, 2) + le(flags, 2) + le(seq) +
           le(pid) + all;
}

}  // namespace netlink_test
