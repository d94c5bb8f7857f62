#define LOG_TAG "slm-netlink"

#include "wificond/net/nl80211_attribute.h"

#include <android-base/logging.h>

#include <algorithm>

namespace android {
namespace wificond {

namespace {

constexpr size_t kHeaderSize = 4;

uint16_t ReadU16(const std::vector<uint8_t>& data, size_t offset) {
    uint16_t value;
    memcpy(&value, data.data() + offset, sizeof(value));
    return value;
}

void WriteU16(std::vector<uint8_t>* data, size_t offset, uint16_t value) {
    memcpy(data->data() + offset, &value, sizeof(value));
}

}  // namespace

bool FindNL80211Attribute(const std::vector<uint8_t>& data, size_t begin, size_t end, int id,
                          size_t* found_begin, size_t* found_end) {
    if (end > data.size()) end = data.size();
    if (begin >= end || end - begin < kHeaderSize) return false;
    size_t current = begin;
    while (true) {
        uint16_t length = ReadU16(data, current);
        uint16_t type = ReadU16(data, current + 2);
        size_t next = current + NL80211AttrAlign(length);
        if (type == id) {
            if (next > end) {
                LOG(ERROR) << "Failed to get attribute: broken nl80211 atrribute.";
                return false;
            }
            *found_begin = current;
            *found_end = next;
            return true;
        }
        // A zero length would never move on: the rest cannot be walked.
        if (length == 0) return false;
        if (next > end || end - next < kHeaderSize) return false;
        current = next;
    }
}

BaseNL80211Attr::BaseNL80211Attr(int id, const std::vector<uint8_t>& raw_buffer) {
    InitHeaderAndResize(id, static_cast<int>(raw_buffer.size()));
    std::copy(raw_buffer.begin(), raw_buffer.end(), data_.begin() + kHeaderSize);
}

void BaseNL80211Attr::InitHeaderAndResize(int attribute_id, int payload_length) {
    data_.assign(NL80211AttrAlign(kHeaderSize + payload_length), 0);
    WriteU16(&data_, 0, static_cast<uint16_t>(payload_length + kHeaderSize));
    WriteU16(&data_, 2, static_cast<uint16_t>(attribute_id));
}

uint16_t BaseNL80211Attr::GetHeaderLength() const {
    return data_.size() < kHeaderSize ? 0 : ReadU16(data_, 0);
}

int BaseNL80211Attr::GetAttributeId() const {
    return data_.size() < kHeaderSize ? 0 : ReadU16(data_, 2);
}

bool BaseNL80211Attr::IsValid() const {
    return data_.size() >= kHeaderSize && NL80211AttrAlign(GetHeaderLength()) == data_.size();
}

bool NL80211Attr<unsigned int>::IsValid() const {
    return data_.size() == 8 && GetHeaderLength() == 8;
}

bool NL80211Attr<unsigned short>::IsValid() const {
    return data_.size() == 8 && GetHeaderLength() == 6;
}

bool NL80211Attr<signed char>::IsValid() const {
    return BaseNL80211Attr::IsValid() && data_.size() == 8 && GetHeaderLength() == 5;
}

NL80211Attr<std::string>::NL80211Attr(int id, const std::string& str) {
    InitHeaderAndResize(id, static_cast<int>(str.size() + 1));
    std::copy(str.begin(), str.end(), data_.begin() + kHeaderSize);
}

std::string NL80211Attr<std::string>::GetValue() const {
    size_t length = GetHeaderLength();
    // A header length of 0 to 4 leaves no payload at all.
    if (length <= kHeaderSize) return std::string();
    size_t end = std::min(length, data_.size());
    while (end > kHeaderSize && data_[end - 1] == 0) end--;
    return std::string(data_.begin() + kHeaderSize, data_.begin() + end);
}

std::vector<uint8_t> NL80211Attr<std::vector<uint8_t>>::GetValue() const {
    size_t length = GetHeaderLength();
    if (length <= kHeaderSize) return std::vector<uint8_t>();
    size_t end = std::min(length, data_.size());
    return std::vector<uint8_t>(data_.begin() + kHeaderSize, data_.begin() + end);
}

NL80211NestedAttr::NL80211NestedAttr(int id) {
    InitHeaderAndResize(id, 0);
}

NL80211NestedAttr::NL80211NestedAttr(const std::vector<uint8_t>& data) {
    data_ = data;
}

bool NL80211NestedAttr::GetAttribute(int id, NL80211NestedAttr* attribute) const {
    return CopyNL80211Attribute(data_, kHeaderSize, id, attribute);
}

bool NL80211NestedAttr::GetListOfNestedAttributes(
        std::vector<NL80211NestedAttr>* attribute_list) const {
    std::vector<NL80211NestedAttr> list;
    size_t pos = kHeaderSize;
    const size_t end = data_.size();
    if (end < pos || end - pos < kHeaderSize) {
        *attribute_list = std::move(list);
        return true;
    }
    while (true) {
        size_t length = NL80211AttrAlign(ReadU16(data_, pos));
        if (length > end - pos) {
            LOG(ERROR) << "Failed to get list of nested attributes: invalid nla_len.";
            return false;
        }
        NL80211NestedAttr item(
                std::vector<uint8_t>(data_.begin() + pos, data_.begin() + pos + length));
        if (!item.IsValid()) return false;
        list.push_back(std::move(item));
        pos += length;
        if (end - pos < kHeaderSize) break;
    }
    *attribute_list = std::move(list);
    return true;
}

}  // namespace wificond
}  // namespace android
