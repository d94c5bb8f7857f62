#define LOG_TAG "slm-netlink"

#include "wificond/net/nl80211_packet.h"

#include <android-base/logging.h>
#include <string.h>

namespace android {
namespace wificond {

namespace {

constexpr size_t kNetlinkHeaderSize = sizeof(nlmsghdr);
static_assert(kNetlinkHeaderSize == 16, "netlink header is 16 bytes");
// Offsets of the header fields.
constexpr size_t kLengthOffset = 0;
constexpr size_t kTypeOffset = 4;
constexpr size_t kFlagsOffset = 6;
constexpr size_t kSequenceOffset = 8;
constexpr size_t kPidOffset = 12;
constexpr size_t kCommandOffset = 16;
constexpr size_t kVersionOffset = 17;
// First generic netlink family id; types below are netlink control messages.
constexpr uint16_t kMinFamilyType = 16;

template <typename T>
T ReadField(const std::vector<uint8_t>& data, size_t offset) {
    T value = 0;
    if (data.size() >= offset + sizeof(T)) memcpy(&value, data.data() + offset, sizeof(T));
    return value;
}

template <typename T>
void WriteField(std::vector<uint8_t>* data, size_t offset, T value) {
    memcpy(data->data() + offset, &value, sizeof(T));
}

}  // namespace

NL80211Packet::NL80211Packet(const std::vector<uint8_t>& data) : data_(data) {}

NL80211Packet::NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t pid)
    : data_(kAttributesOffset, 0) {
    WriteField<uint32_t>(&data_, kLengthOffset, kAttributesOffset);
    WriteField<uint16_t>(&data_, kTypeOffset, type);
    WriteField<uint16_t>(&data_, kFlagsOffset, NLM_F_REQUEST);
    WriteField<uint32_t>(&data_, kSequenceOffset, sequence);
    WriteField<uint32_t>(&data_, kPidOffset, pid);
    WriteField<uint8_t>(&data_, kCommandOffset, command);
    WriteField<uint8_t>(&data_, kVersionOffset, 1);
}

uint32_t NL80211Packet::GetLength() const {
    return ReadField<uint32_t>(data_, kLengthOffset);
}

uint16_t NL80211Packet::GetMessageType() const {
    return ReadField<uint16_t>(data_, kTypeOffset);
}

uint16_t NL80211Packet::GetFlags() const {
    return ReadField<uint16_t>(data_, kFlagsOffset);
}

bool NL80211Packet::IsMulti() const {
    return (GetFlags() & NLM_F_MULTI) != 0;
}

uint8_t NL80211Packet::GetCommand() const {
    return ReadField<uint8_t>(data_, kCommandOffset);
}

uint32_t NL80211Packet::GetMessageSequence() const {
    return ReadField<uint32_t>(data_, kSequenceOffset);
}

void NL80211Packet::AddAttribute(const BaseNL80211Attr& attribute) {
    const std::vector<uint8_t>& bytes = attribute.GetConstData();
    if (data_.size() < kNetlinkHeaderSize) return;
    data_.insert(data_.end(), bytes.begin(), bytes.end());
    WriteField<uint32_t>(&data_, kLengthOffset, GetLength() + static_cast<uint32_t>(bytes.size()));
}

bool NL80211Packet::GetAttribute(int id, NL80211NestedAttr* attribute) const {
    return CopyNL80211Attribute(data_, kAttributesOffset, id, attribute);
}

bool NL80211Packet::IsValid() const {
    if (data_.size() < kNetlinkHeaderSize) {
        LOG(ERROR) << "Cannot retrieve netlink header.";
        return false;
    }
    const uint32_t length = GetLength();
    const uint16_t type = GetMessageType();
    if (type >= kMinFamilyType) {
        if (data_.size() < kAttributesOffset || length < kAttributesOffset) {
            LOG(ERROR) << "Cannot retrieve generic netlink header.";
            return false;
        }
    } else if (type == NLMSG_ERROR) {
        // A netlink header and the 32-bit error code.
        if (data_.size() < kNetlinkHeaderSize + sizeof(int32_t) ||
            length < kNetlinkHeaderSize + sizeof(int32_t)) {
            LOG(ERROR) << "Broken error message.";
            return false;
        }
    }
    if (length < kNetlinkHeaderSize || length > data_.size()) {
        LOG(ERROR) << "Discarding incomplete / invalid message.";
        return false;
    }
    return true;
}

}  // namespace wificond
}  // namespace android
