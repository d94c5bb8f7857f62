// The netlink client's receive path (ReceivePacketAndRunHandler and the wait for replies) with
// the station query or the family discovery reading what arrives.
//
// Input: one mode byte, then length-prefixed chunks, each queued as one datagram on a socketpair
// that stands in for the netlink socket; a final NLMSG_DONE for the request's sequence number (1)
// ends every wait at once.
#include <sys/socket.h>
#include <unistd.h>

#include "FuzzCommon.h"
#include "wificond/net/netlink_utils.h"

namespace {

struct FuzzNetlink : android::wificond::NetlinkUtils {
    using NetlinkUtils::messageTypes, NetlinkUtils::netlinkFd;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int sv[2];
    if (size < 1 || socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
    FuzzNetlink nl;
    nl.netlinkFd.reset(sv[0]);
    // A socketpair queues at most 10 datagrams: the chunks and the final DONE stay below that.
    for (const auto& chunk : mlbd_fuzz::splitChunks(data + 1, size - 1, 6, 8192)) {
        send(sv[1], chunk.data(), chunk.size(), MSG_DONTWAIT);
    }
    static const uint8_t kDone[20] = {20, 0, 0, 0, 3, 0, 2, 0, 1, 0, 0, 0};
    send(sv[1], kDone, sizeof(kDone), MSG_DONTWAIT);
    if (data[0] & 1) {
        mlbd_fuzz::gSink = nl.DiscoverFamilyId() + nl.GetFamilyId();
    } else {
        nl.messageTypes["nl80211"] = android::wificond::MessageType(0x1c);
        nl.SetStationInfo("aabbccddeeff", "lo");
        mlbd_fuzz::gSink = nl.GetStationInfo();
    }
    close(sv[1]);
    return 0;
}
