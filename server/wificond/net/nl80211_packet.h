/*
 * One generic netlink message held as its wire bytes: a 16-byte netlink header, a 4-byte generic
 * netlink header (command, version, reserved) and the attributes from byte 20 on.
 *
 * Received packets may be short or inconsistent: IsValid() tells whether the headers can be
 * trusted, and every accessor reads only bytes that are held (0 for a field that is missing).
 */
#pragma once

#include <linux/netlink.h>
#include <stdint.h>

#include <vector>

#include "wificond/net/nl80211_attribute.h"

namespace android {
namespace wificond {

class NL80211Packet {
  public:
    // Wraps a copy of received bytes.
    explicit NL80211Packet(const std::vector<uint8_t>& data);
    // A new request to generic netlink family `type`: flags NLM_F_REQUEST, version 1.
    NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t pid);

    NL80211Packet(const NL80211Packet&) = default;
    NL80211Packet& operator=(const NL80211Packet&) = default;

    const std::vector<uint8_t>& GetConstData() const { return data_; }
    uint16_t GetMessageType() const;
    uint16_t GetFlags() const;
    bool IsMulti() const;
    uint8_t GetCommand() const;
    uint32_t GetMessageSequence() const;
    uint32_t GetLength() const;

    // Appends an attribute (already padded) and grows the header length by its size.
    void AddAttribute(const BaseNL80211Attr& attribute);

    // Finds the first top-level attribute of type id and copies it into *attribute; returns
    // whether the copy is valid for its type.
    template <typename T>
    bool GetAttribute(int id, NL80211Attr<T>* attribute) const {
        return CopyNL80211Attribute(data_, kAttributesOffset, id, attribute);
    }
    bool GetAttribute(int id, NL80211NestedAttr* attribute) const;

    template <typename T>
    bool GetAttributeValue(int id, T* value) const {
        return GetNL80211AttributeValue(*this, id, value);
    }

    // Whether the headers are complete and the length field fits the bytes held.
    bool IsValid() const;

    // Attributes start after the netlink and generic netlink headers.
    static constexpr size_t kAttributesOffset = 20;

  private:
    std::vector<uint8_t> data_;
};

}  // namespace wificond
}  // namespace android
