/*
 * The attribute search of packets and nested attributes, and the typed readers on what it finds.
 * Input: two bytes of wanted attribute type, then the message bytes.
 */
#include <string>
#include <vector>

#include "FuzzCommon.h"
#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

using namespace android::wificond;

namespace {

volatile size_t gSink;

template <typename Holder>
void readAll(const Holder& holder, int id) {
    unsigned int u32 = 0;
    unsigned short u16 = 0;
    signed char s8 = 0;
    std::string text;
    std::vector<uint8_t> raw;
    holder.GetAttributeValue(id, &u32);
    holder.GetAttributeValue(id, &u16);
    holder.GetAttributeValue(id, &s8);
    holder.GetAttributeValue(id, &text);
    holder.GetAttributeValue(id, &raw);
    NL80211NestedAttr nested(0);
    if (holder.GetAttribute(id, &nested)) {
        nested.GetAttributeValue(id, &u32);
        nested.GetAttributeValue(id, &text);
    }
    gSink = u32 + u16 + s8 + text.size() + raw.size() + nested.GetConstData().size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const int id = data[0] | (data[1] << 8);
    std::vector<uint8_t> bytes(data + 2, data + size);
    readAll(NL80211Packet(bytes), id);
    readAll(NL80211NestedAttr(bytes), id);
    // Attributes copied out of received bytes read only what they hold.
    gSink = NL80211Attr<std::string>(bytes).GetValue().size() +
            NL80211Attr<std::vector<uint8_t>>(bytes).GetValue().size() +
            NL80211Attr<unsigned int>(bytes).GetValue() + NL80211Attr<signed char>(bytes).IsValid();
    return 0;
}
