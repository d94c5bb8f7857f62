// Byte builders shared by the netlink tests (generic netlink and sock_diag): messages and
// attributes as the kernel lays them out.
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

// The in-memory bytes of a kernel record.
template <typename T>
Bytes raw(const T& value) {
    auto p = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(p, p + sizeof(value));
}

// An attribute: header length (by default 4 + payload), type, payload, then zero padding up to a
// multiple of 4.
inline Bytes attr(uint16_t type, const Bytes& payload, int length = -1) {
    if (length < 0) length = static_cast<int>(4 + payload.size());
    return le(static_cast<uint32_t>(length), 2) + le(type, 2) + payload +
           Bytes(-payload.size() & 3);
}

// A netlink message: the 16-byte header, then `body`.
inline Bytes nlmsg(uint16_t type, uint16_t flags, const Bytes& body, uint32_t seq = 0,
                   uint32_t pid = 0) {
    return le(static_cast<uint32_t>(16 + body.size())) + le(type, 2) + le(flags, 2) + le(seq) +
           le(pid) + body;
}

// A generic netlink message: for family types (16 and above) the generic header with version 1
// comes before `body`.
inline Bytes message(uint16_t type, uint16_t flags, uint32_t seq, uint8_t cmd, const Bytes& body,
                     uint32_t pid = 0) {
    return nlmsg(type, flags, type >= 16 ? Bytes{cmd, 1, 0, 0} + body : body, seq, pid);
}

}  // namespace netlink_test
