/*
 * Netlink attributes held as the bytes they are on the wire: a 4-byte header (16-bit length of
 * header plus payload, 16-bit type), the payload, and zero padding up to a multiple of 4.
 *
 * Attributes built here are always well formed; attributes copied out of received messages may
 * not be, so every reader checks lengths against the bytes actually held and IsValid() tells
 * whether an attribute has the shape its type expects.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace android {
namespace wificond {

// Rounds an attribute length up to a multiple of 4 (0xFFFF rounds to 0x10000).
inline uint32_t NL80211AttrAlign(uint32_t length) {
    return (length + 3) & ~3u;
}

/*
 * Finds the first attribute of type `id` (all 16 bits compared) among the attributes in
 * data[begin, end). On success sets [*found_begin, *found_end) to the attribute, padding
 * included. Fails without a log line when the attribute is not there, when a preceding attribute
 * runs past the end, or at an attribute of length 0 (which would never advance); fails with a
 * log line when the matching attribute itself runs past the end.
 */
bool FindNL80211Attribute(const std::vector<uint8_t>& data, size_t begin, size_t end, int id,
                          size_t* found_begin, size_t* found_end);

// Copies the first attribute of type `id` among data[begin, end of data) into *attribute (an
// attribute class built from its bytes) and returns whether the copy is valid for that class.
template <typename Attr>
bool CopyNL80211Attribute(const std::vector<uint8_t>& data, size_t begin, int id, Attr* attribute) {
    size_t found_begin;
    size_t found_end;
    if (!FindNL80211Attribute(data, begin, data.size(), id, &found_begin, &found_end)) {
        return false;
    }
    *attribute = Attr(std::vector<uint8_t>(data.begin() + found_begin, data.begin() + found_end));
    return attribute->IsValid();
}

class BaseNL80211Attr {
  public:
    // An attribute whose payload is `raw_buffer`.
    BaseNL80211Attr(int id, const std::vector<uint8_t>& raw_buffer);
    virtual ~BaseNL80211Attr() = default;

    BaseNL80211Attr(const BaseNL80211Attr&) = default;
    BaseNL80211Attr& operator=(const BaseNL80211Attr&) = default;

    // At least a header, and the header length rounded up to 4 is the number of bytes held.
    virtual bool IsValid() const;

    const std::vector<uint8_t>& GetConstData() const { return data_; }
    // The header type, or 0 when not even a header is held.
    int GetAttributeId() const;

  protected:
    BaseNL80211Attr() = default;
    // Resizes to a header plus `payload_length` rounded up to 4 (zero-filled) and writes the
    // header.
    void InitHeaderAndResize(int attribute_id, int payload_length);
    // The header length field, or 0 when not even a header is held.
    uint16_t GetHeaderLength() const;

    std::vector<uint8_t> data_;
};

template <typename T>
class NL80211Attr;

// Integer payloads: unsigned int (32-bit), unsigned short (16-bit), signed char (8-bit).
template <typename T>
class NL80211IntegerAttr : public BaseNL80211Attr {
  public:
    // The value read at byte 4, or 0 when fewer bytes are held.
    T GetValue() const {
        T value = 0;
        if (data_.size() >= 4 + sizeof(T)) memcpy(&value, data_.data() + 4, sizeof(T));
        return value;
    }

  protected:
    NL80211IntegerAttr(int id, T value) {
        InitHeaderAndResize(id, sizeof(T));
        memcpy(data_.data() + 4, &value, sizeof(T));
    }
    explicit NL80211IntegerAttr(const std::vector<uint8_t>& data) { data_ = data; }
};

template <>
class NL80211Attr<unsigned int> : public NL80211IntegerAttr<unsigned int> {
  public:
    NL80211Attr(int id, unsigned int value) : NL80211IntegerAttr(id, value) {}
    explicit NL80211Attr(const std::vector<uint8_t>& data) : NL80211IntegerAttr(data) {}
    bool IsValid() const override;
};

template <>
class NL80211Attr<unsigned short> : public NL80211IntegerAttr<unsigned short> {
  public:
    NL80211Attr(int id, unsigned short value) : NL80211IntegerAttr(id, value) {}
    explicit NL80211Attr(const std::vector<uint8_t>& data) : NL80211IntegerAttr(data) {}
    bool IsValid() const override;
};

template <>
class NL80211Attr<signed char> : public NL80211IntegerAttr<signed char> {
  public:
    NL80211Attr(int id, signed char value) : NL80211IntegerAttr(id, value) {}
    explicit NL80211Attr(const std::vector<uint8_t>& data) : NL80211IntegerAttr(data) {}
    bool IsValid() const override;
};

// A text payload, sent with a terminating NUL.
template <>
class NL80211Attr<std::string> : public BaseNL80211Attr {
  public:
    NL80211Attr(int id, const std::string& str);
    explicit NL80211Attr(const std::vector<uint8_t>& data) { data_ = data; }
    // The payload without any of its trailing NULs; empty when the header length is below 5.
    std::string GetValue() const;
};

// A payload of raw bytes (for example a MAC address).
template <>
class NL80211Attr<std::vector<uint8_t>> : public BaseNL80211Attr {
  public:
    NL80211Attr(int id, const std::vector<uint8_t>& raw_buffer) : BaseNL80211Attr(id, raw_buffer) {}
    explicit NL80211Attr(const std::vector<uint8_t>& data) { data_ = data; }
    // The payload as the header length gives it, cut to the bytes held.
    std::vector<uint8_t> GetValue() const;
};

// An attribute whose payload is a run of further attributes.
// The value of the first attribute of type `id` that `owner` (a packet or a nested attribute)
// holds, read as a T; false when it is missing or not valid as a T.
template <typename T, typename Owner>
bool GetNL80211AttributeValue(const Owner& owner, int id, T* value) {
    NL80211Attr<T> attribute{std::vector<uint8_t>()};
    if (!owner.GetAttribute(id, &attribute)) return false;
    *value = attribute.GetValue();
    return true;
}

class NL80211NestedAttr : public BaseNL80211Attr {
  public:
    // An empty nested attribute: a 4-byte header of length 4.
    explicit NL80211NestedAttr(int id);
    // Wraps a copy of an attribute's bytes.
    explicit NL80211NestedAttr(const std::vector<uint8_t>& data);

    // Finds the first attribute of type id in the payload and copies it into *attribute;
    // returns whether the copy is valid for its type.
    template <typename T>
    bool GetAttribute(int id, NL80211Attr<T>* attribute) const {
        return CopyNL80211Attribute(data_, 4, id, attribute);
    }
    bool GetAttribute(int id, NL80211NestedAttr* attribute) const;

    template <typename T>
    bool GetAttributeValue(int id, T* value) const {
        return GetNL80211AttributeValue(*this, id, value);
    }

    // Splits the payload into nested attributes. On failure *attribute_list is left unchanged.
    bool GetListOfNestedAttributes(std::vector<NL80211NestedAttr>* attribute_list) const;
};

}  // namespace wificond
}  // namespace android
