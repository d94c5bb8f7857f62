#define LOG_TAG "slm-netlink"

#include "wificond/net/netlink_utils.h"

#include <android-base/logging.h>
#include <android/log.h>
#include <errno.h>
#include <linux/genetlink.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace android {
namespace wificond {

namespace {

constexpr const char* kTag = "slm-netlink";

// Both the kernel receive buffer and our read buffer.
constexpr int kReceiveBufferSize = 8192;
// Total wait for all the parts of one reply.
constexpr int kMaxReplyWaitMs = 1000;

constexpr size_t kNetlinkHeaderSize = sizeof(nlmsghdr);

constexpr const char* kNl80211FamilyName = "nl80211";

// nl80211 commands and attributes used by the station query.
constexpr uint8_t kNl80211CmdGetStation = 17;
constexpr uint8_t kNl80211CmdNewStation = 19;
constexpr int kNl80211AttrIfindex = 3;
constexpr int kNl80211AttrMac = 6;
constexpr int kNl80211AttrStaInfo = 21;
constexpr int kNl80211StaInfoSignal = 7;

constexpr size_t kMacLength = 6;

// Shared by every read: reads run under callMutex, or from one thread at a time.
alignas(4) uint8_t gReceiveBuffer[kReceiveBufferSize];

// Reads hexadecimal digits from the start of text until the first other character (0 when none).
uint8_t ParseHexByte(const std::string& text) {
    unsigned value = 0;
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            break;
        }
        value = value * 16 + static_cast<unsigned>(digit);
    }
    return static_cast<uint8_t>(value);
}

}  // namespace

void AppendPacket(std::vector<std::unique_ptr<const NL80211Packet>>* responses,
                  std::unique_ptr<const NL80211Packet> packet) {
    responses->push_back(std::move(packet));
}

NetlinkUtils* NetlinkUtils::instance() {
    static NetlinkUtils* const sInstance = new NetlinkUtils();
    return sInstance;
}

bool NetlinkUtils::Start() {
    std::lock_guard<std::mutex> lock(callMutex);
    if (!SetupSocket(&netlinkFd)) {
        LOG(ERROR) << "Failed to setup synchronous netlink socket";
        return false;
    }
    return DiscoverFamilyId();
}

bool NetlinkUtils::SetupSocket(android::base::unique_fd* fd) {
    fd->reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC));
    if (fd->get() < 0) {
        LOG(ERROR) << "Failed to create netlink socket";
        return false;
    }
    int bufferSize = kReceiveBufferSize;
    if (setsockopt(fd->get(), SOL_SOCKET, SO_RCVBUFFORCE, &bufferSize, sizeof(bufferSize)) < 0) {
        LOG(ERROR) << "Failed to set uevent socket SO_RCVBUFFORCE option";
        return false;
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    if (bind(fd->get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
        LOG(ERROR) << "Failed to bind netlink socket";
        return false;
    }
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "bind succeed and fd is %d\n", fd->get());
    return true;
}

bool NetlinkUtils::SendMessageInternal(const NL80211Packet& packet, int fd) {
    const std::vector<uint8_t>& data = packet.GetConstData();
    ssize_t sent;
    do {
        sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    if (sent == -1) {
        PLOG(ERROR) << "Failed to send netlink message";
        return false;
    }
    // The bytes are shown as text, so the line ends at the first zero byte (within the length).
    std::string shown(data.begin(), data.end());
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "send message data is %s", shown.c_str());
    return true;
}

bool NetlinkUtils::SendMessageAndGetResponses(
        const NL80211Packet& packet, std::vector<std::unique_ptr<const NL80211Packet>>* responses,
        int wakeFd) {
    if (!SendMessageInternal(packet, netlinkFd.get())) return false;
    const uint32_t sequence = packet.GetMessageSequence();
    messageHandlers[sequence] = [responses](std::unique_ptr<const NL80211Packet> reply) {
        AppendPacket(responses, std::move(reply));
    };

    // The budget covers all the parts of the reply together.
    const auto start = std::chrono::steady_clock::now();
    int timeLeft = kMaxReplyWaitMs;
    while (timeLeft > 0) {
        if (messageHandlers.find(sequence) == messageHandlers.end()) return true;
        // A negative wakeFd is ignored by poll.
        pollfd pfd[2] = {{netlinkFd.get(), POLLIN, 0}, {wakeFd, POLLIN, 0}};
        int ret = poll(pfd, 2, timeLeft);
        if (ret > 0 && pfd[1].revents != 0) {
            LOG(ERROR) << "Netlink reply wait ended: the caller is stopping";
            messageHandlers.erase(sequence);
            return false;
        }
        if (ret == -1) {
            PLOG(ERROR) << "Failed to poll netlink fd";
            messageHandlers.erase(sequence);
            return false;
        }
        if (ret == 0) {
            LOG(ERROR) << "Failed to poll netlink fd: time out ";
            messageHandlers.erase(sequence);
            return false;
        }
        ReceivePacketAndRunHandler(netlinkFd.get());
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - start);
        timeLeft = kMaxReplyWaitMs - static_cast<int>(elapsed.count());
    }
    if (messageHandlers.find(sequence) == messageHandlers.end()) return true;
    LOG(ERROR) << "Timeout waiting for netlink reply messages";
    messageHandlers.erase(sequence);
    return false;
}

bool NetlinkUtils::SendMessageAndGetSingleResponse(const NL80211Packet& packet,
                                                   std::unique_ptr<const NL80211Packet>* response,
                                                   int wakeFd) {
    std::vector<std::unique_ptr<const NL80211Packet>> responses;
    if (!SendMessageAndGetResponses(packet, &responses, wakeFd)) return false;
    // A reply that was only NLMSG_DONE completes the wait but carries nothing to read.
    if (responses.empty()) return false;
    *response = std::move(responses.front());
    return true;
}

void NetlinkUtils::ReceivePacketAndRunHandler(int fd) {
    // Never waits: the reply's wait is the poll of SendMessageAndGetResponses, bounded by its
    // budget, so a reply that never ends holds no thread (nor the call lock) beyond that.
    ssize_t length = recv(fd, gReceiveBuffer, sizeof(gReceiveBuffer), MSG_DONTWAIT);
    if (length == -1) {
        LOG(ERROR) << "Failed to read packet from buffer";
        return;
    }
    if (length == 0) return;
    const size_t received = static_cast<size_t>(length);
    if (received < kNetlinkHeaderSize) {
        LOG(ERROR) << "payload is broken.";
        return;
    }

    size_t pos = 0;
    while (true) {
        uint32_t messageLength;
        memcpy(&messageLength, gReceiveBuffer + pos, sizeof(messageLength));
        // Never copy past what was read: a length beyond it makes the packet invalid below.
        size_t copied = std::min<size_t>(messageLength, received - pos);
        auto packet = std::make_unique<NL80211Packet>(
                std::vector<uint8_t>(gReceiveBuffer + pos, gReceiveBuffer + pos + copied));
        pos += copied;
        // Validity also guarantees that the message was at least a header long, so pos moved.
        if (!packet->IsValid()) {
            LOG(ERROR) << "Receive invalid packet";
            return;
        }

        const uint32_t sequence = packet->GetMessageSequence();
        // Sequence 0 is a multicast notification: nobody waits for it.
        if (sequence != 0) {
            auto handler = messageHandlers.find(sequence);
            if (handler == messageHandlers.end()) {
                LOG(WARNING) << "No handler for message: " << sequence;
                return;
            }
            const uint16_t type = packet->GetMessageType();
            if (type == NLMSG_DONE || type == NLMSG_NOOP) {
                messageHandlers.erase(handler);
                return;
            }
            if (type == NLMSG_OVERRUN) {
                LOG(ERROR) << "Get message overrun notification";
                messageHandlers.erase(handler);
                return;
            }
            const bool multi = packet->IsMulti();
            handler->second(std::move(packet));
            if (!multi) messageHandlers.erase(sequence);
        }

        if (pos >= received) return;
        if (received - pos < kNetlinkHeaderSize) {
            LOG(ERROR) << "payload is broken.";
            return;
        }
    }
}

uint32_t NetlinkUtils::GetSequenceNumber() {
    if (sequenceNumber < UINT32_MAX) {
        sequenceNumber++;
    } else {
        sequenceNumber = 1;
    }
    return sequenceNumber;
}

bool NetlinkUtils::DiscoverFamilyId() {
    NL80211Packet request(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, GetSequenceNumber(),
                          static_cast<uint32_t>(getpid()));
    request.AddAttribute(NL80211Attr<std::string>(CTRL_ATTR_FAMILY_NAME, kNl80211FamilyName));
    std::unique_ptr<const NL80211Packet> response;
    if (!SendMessageAndGetSingleResponse(request, &response)) {
        LOG(ERROR) << "Failed to get NL80211 family info";
        return false;
    }
    OnNewFamily(std::move(response));
    if (messageTypes.find(kNl80211FamilyName) == messageTypes.end()) {
        LOG(ERROR) << "Failed to get NL80211 family id";
        return false;
    }
    return true;
}

void NetlinkUtils::OnNewFamily(std::unique_ptr<const NL80211Packet> packet) {
    if (packet == nullptr) return;
    if (packet->GetMessageType() != GENL_ID_CTRL) {
        LOG(ERROR) << "Wrong message type for new family message";
        return;
    }
    if (packet->GetCommand() != CTRL_CMD_NEWFAMILY) {
        LOG(ERROR) << "Wrong command for new family message";
        return;
    }
    uint16_t familyId;
    if (!packet->GetAttributeValue(CTRL_ATTR_FAMILY_ID, &familyId)) {
        LOG(ERROR) << "Failed to get family id";
        return;
    }
    std::string familyName;
    if (!packet->GetAttributeValue(CTRL_ATTR_FAMILY_NAME, &familyName)) {
        LOG(ERROR) << "Failed to get family name";
        return;
    }
    if (familyName != kNl80211FamilyName) {
        LOG(WARNING) << "Ignoring none nl80211 netlink families";
    }
    MessageType& family = messageTypes[familyName] = MessageType(familyId);

    NL80211NestedAttr groupsAttribute(0);
    std::vector<NL80211NestedAttr> groups;
    if (!packet->GetAttribute(CTRL_ATTR_MCAST_GROUPS, &groupsAttribute) ||
        !groupsAttribute.GetListOfNestedAttributes(&groups)) {
        return;
    }
    for (const NL80211NestedAttr& group : groups) {
        std::string groupName;
        if (!group.GetAttributeValue(CTRL_ATTR_MCAST_GRP_NAME, &groupName)) {
            LOG(ERROR) << "Failed to get group name";
            continue;
        }
        uint32_t groupId;
        if (!group.GetAttributeValue(CTRL_ATTR_MCAST_GRP_ID, &groupId)) {
            LOG(ERROR) << "Failed to get group id";
            continue;
        }
        family.groups[groupName] = groupId;
    }
}

uint16_t NetlinkUtils::GetFamilyId() {
    return messageTypes[kNl80211FamilyName].family_id;
}

void NetlinkUtils::SetStationInfo(const std::string& bssid, const std::string& ifname) {
    std::lock_guard<std::mutex> lock(callMutex);
    interfaceIndex = if_nametoindex(ifname.c_str());
    // Two digits per byte from the start; a short text leaves the remaining bytes at 0.
    uint8_t mac[kMacLength] = {0, 0, 0, 0, 0, 0};
    for (size_t i = 0; i < kMacLength && 2 * i < bssid.size(); i++) {
        mac[i] = ParseHexByte(bssid.substr(2 * i, 2));
    }
    memcpy(stationMac, mac, sizeof(stationMac));
}

int32_t NetlinkUtils::GetStationInfo(int wakeFd) {
    std::lock_guard<std::mutex> lock(callMutex);
    // Without the family (no Wi-Fi driver, or discovery failed) a request would only wait out
    // the reply time-out: nothing would answer it.
    const auto family = messageTypes.find(kNl80211FamilyName);
    if (family == messageTypes.end() || family->second.family_id == 0) return 0;
    const uint16_t familyId = GetFamilyId();
    NL80211Packet request(familyId, kNl80211CmdGetStation, GetSequenceNumber(),
                          static_cast<uint32_t>(getpid()));
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "interface_index is %d",
                        static_cast<int>(interfaceIndex));
    request.AddAttribute(NL80211Attr<unsigned int>(kNl80211AttrIfindex, interfaceIndex));
    request.AddAttribute(NL80211Attr<std::vector<uint8_t>>(
            kNl80211AttrMac, std::vector<uint8_t>(stationMac, stationMac + kMacLength)));

    std::unique_ptr<const NL80211Packet> response;
    if (!SendMessageAndGetSingleResponse(request, &response, wakeFd)) {
        LOG(ERROR) << "NL80211_CMD_GET_STATION failed";
        return 0;
    }
    if (response->GetCommand() != kNl80211CmdNewStation) {
        LOG(ERROR) << "Wrong command in response to a get station request: "
                   << static_cast<int>(response->GetCommand());
        return 0;
    }
    NL80211NestedAttr stationInfo(0);
    if (!response->GetAttribute(kNl80211AttrStaInfo, &stationInfo)) {
        LOG(ERROR) << "Failed to get NL80211_ATTR_STA_INFO";
        return 0;
    }
    int8_t signal;
    if (!stationInfo.GetAttributeValue(kNl80211StaInfoSignal, &signal)) {
        LOG(ERROR) << "Failed to get NL80211_STA_INFO_SIGNAL";
        return 0;
    }
    return signal;
}

}  // namespace wificond
}  // namespace android
