/*
 * Validity of a received message and every header accessor, then attribute reads on valid ones
 * and a copy that grows by an attribute.
 */
#include <string>
#include <vector>

#include "FuzzCommon.h"
#include "wificond/net/nl80211_packet.h"

using namespace android::wificond;

namespace {
volatile size_t gSink;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    NL80211Packet packet(std::vector<uint8_t>(data, data + size));
    size_t sum = packet.GetMessageType() + packet.GetCommand() + packet.GetMessageSequence() +
                 packet.IsMulti() + packet.GetLength();
    if (packet.IsValid()) {
        unsigned short familyId = 0;
        std::string name;
        packet.GetAttributeValue(1, &familyId);
        packet.GetAttributeValue(2, &name);
        sum += familyId + name.size();
        NL80211Packet copy = packet;
        copy.AddAttribute(NL80211Attr<std::string>(2, name));
        sum += copy.IsValid();
    }
    gSink = sum;
    return 0;
}
