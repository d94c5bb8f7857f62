// Validity of a received message and every header accessor, then attribute reads on valid ones
// and a copy that grows by an attribute.
#include "FuzzCommon.h"
#include "wificond/net/nl80211_packet.h"

using namespace android::wificond;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    NL80211Packet packet(std::vector<uint8_t>(data, data + size));
    mlbd_fuzz::gSink = packet.GetMessageType() + packet.GetCommand() + packet.GetMessageSequence() +
                       packet.IsMulti() + packet.GetLength();
    if (!packet.IsValid()) return 0;
    std::string name;
    packet.GetAttributeValue(2, &name);
    mlbd_fuzz::readAttribute(packet, 1);
    NL80211Packet copy = packet;
    copy.AddAttribute(NL80211Attr<std::string>(2, name));
    mlbd_fuzz::gSink = copy.IsValid();
    return 0;
}
