// The attribute search of packets and nested attributes, and the typed readers on what it finds.
// Input: two bytes of wanted attribute type, then the message bytes.
#include "FuzzCommon.h"
#include "wificond/net/nl80211_packet.h"

using namespace android::wificond;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const int id = data[0] | (data[1] << 8);
    std::vector<uint8_t> bytes(data + 2, data + size);
    mlbd_fuzz::readAttribute(NL80211Packet(bytes), id);
    mlbd_fuzz::readAttribute(NL80211NestedAttr(bytes), id);
    // Attributes copied out of received bytes read only what they hold.
    mlbd_fuzz::gSink = NL80211Attr<std::string>(bytes).GetValue().size() +
                       NL80211Attr<std::vector<uint8_t>>(bytes).GetValue().size() +
                       NL80211Attr<unsigned int>(bytes).GetValue() +
                       NL80211Attr<signed char>(bytes).IsValid();
    return 0;
}
