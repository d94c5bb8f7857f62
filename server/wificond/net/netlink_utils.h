/*
 * The daemon's generic netlink client: one synchronous socket, the discovery of the nl80211
 * family id, and the query of the associated station's signal strength.
 *
 * A request is sent, a handler is registered under its sequence number, and the replies carrying
 * that number are collected until the last part arrives or 1000 ms have passed.
 *
 * Start, SetStationInfo and GetStationInfo take one lock, so the VoIP monitor's thread may query
 * the station while the control thread sets the station or restarts the client. The lower-level
 * calls take no lock of their own: they run inside those three, or from one thread at a time.
 *
 * A caller that must be able to stop while a query waits for its reply passes a wake-up
 * descriptor (an eventfd): once it is readable, the wait ends at once as a failed query.
 */
#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "wificond/net/nl80211_packet.h"

namespace android {
namespace wificond {

// A discovered generic netlink family: its id and its multicast groups (name to group id).
struct MessageType {
    MessageType() = default;
    explicit MessageType(uint16_t id) : family_id(id) {}

    uint16_t family_id = 0;
    std::map<std::string, uint32_t> groups;
};

// Appends a received packet to *responses: the handler of SendMessageAndGetResponses.
void AppendPacket(std::vector<std::unique_ptr<const NL80211Packet>>* responses,
                  std::unique_ptr<const NL80211Packet> packet);

class NetlinkUtils {
  public:
    using MessageHandler = std::function<void(std::unique_ptr<const NL80211Packet>)>;

    // The process-wide client, created on the first call and never destroyed.
    static NetlinkUtils* instance();

    virtual ~NetlinkUtils() = default;
    NetlinkUtils(const NetlinkUtils&) = delete;
    NetlinkUtils& operator=(const NetlinkUtils&) = delete;

    // Sets up the socket and discovers the nl80211 family. A second call replaces the socket.
    bool Start();

    // Creates, sizes and binds a generic netlink socket into *fd (closing what it held).
    bool SetupSocket(android::base::unique_fd* fd);
    bool SendMessageInternal(const NL80211Packet& packet, int fd);
    // Sends packet and collects every reply part carrying its sequence number. The wait also
    // ends, as a failure, when wakeFd (if not -1) becomes readable.
    bool SendMessageAndGetResponses(const NL80211Packet& packet,
                                    std::vector<std::unique_ptr<const NL80211Packet>>* responses,
                                    int wakeFd = -1);
    // As above, keeping the first reply. A success without any reply is a failure.
    bool SendMessageAndGetSingleResponse(const NL80211Packet& packet,
                                         std::unique_ptr<const NL80211Packet>* response,
                                         int wakeFd = -1);
    // Reads one datagram from fd, without waiting for one, and hands each message in it to its
    // handler.
    void ReceivePacketAndRunHandler(int fd);

    // Asks the controller for the "nl80211" family; true when it is known afterwards.
    bool DiscoverFamilyId();
    // Records the family described by a controller reply in messageTypes.
    void OnNewFamily(std::unique_ptr<const NL80211Packet> packet);
    // The nl80211 family id, or 0 when it has not been discovered.
    uint16_t GetFamilyId();

    // Stores the station to query: bssid is 12 hexadecimal digits without separators.
    void SetStationInfo(const std::string& bssid, const std::string& ifname);
    // The station's signal in dBm, or 0 on any failure.
    int32_t GetStationInfo() { return GetStationInfo(-1); }
    // As above; the wait for the reply ends, as a failure, once wakeFd is readable.
    int32_t GetStationInfo(int wakeFd);

    // The next request sequence number: 1 after 0xFFFFFFFF, so 0 is never used.
    uint32_t GetSequenceNumber();

  protected:
    NetlinkUtils() = default;

    // The members are protected so that tests can attach the client to one end of a socketpair
    // (netlinkFd) and play the kernel from the other end with crafted replies.
    android::base::unique_fd netlinkFd;
    std::map<uint32_t, MessageHandler> messageHandlers;
    std::map<std::string, MessageType> messageTypes;
    uint8_t stationMac[6] = {0, 0, 0, 0, 0, 0};
    uint32_t sequenceNumber = 0;
    uint32_t interfaceIndex = 0;
    // Serialises Start, SetStationInfo and GetStationInfo; a test holds it to swap the socket.
    std::mutex callMutex;
};

}  // namespace wificond
}  // namespace android
