/*
 * The netlink client's receive path (ReceivePacketAndRunHandler and the wait for replies) with
 * the station query or the family discovery reading what arrives.
 *
 * Input: one mode byte, then length-prefixed chunks, each queued as one datagram on a socketpair
 * that stands in for the netlink socket; a final NLMSG_DONE for the request's sequence number (1)
 * ends every wait at once.
 */
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "FuzzCommon.h"
#include "wificond/net/netlink_utils.h"

using namespace android::wificond;

namespace {

class FuzzNetlink : public NetlinkUtils {
  public:
    int attach() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv) != 0) return -1;
        netlinkFd.reset(sv[0]);
        return sv[1];
    }
    void setFamily(uint16_t id) { messageTypes["nl80211"] = MessageType(id); }
};

volatile int gSink;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    // A socketpair queues at most 10 datagrams: the chunks and the final DONE stay below that.
    auto chunks = mlbd_fuzz::splitChunks(data + 1, size - 1, 6, 8192);

    FuzzNetlink nl;
    int peer = nl.attach();
    if (peer < 0) return 0;
    for (const auto& chunk : chunks) send(peer, chunk.data(), chunk.size(), MSG_DONTWAIT);
    static const uint8_t kDone[20] = {20, 0, 0, 0, 3, 0, 2, 0, 1, 0, 0, 0};
    send(peer, kDone, sizeof(kDone), MSG_DONTWAIT);

    if (mode & 1) {
        gSink = nl.DiscoverFamilyId() + nl.GetFamilyId();
    } else {
        nl.setFamily(0x1c);
        nl.SetStationInfo("aabbccddeeff", "lo");
        gSink = nl.GetStationInfo();
    }
    close(peer);
    return 0;
}
