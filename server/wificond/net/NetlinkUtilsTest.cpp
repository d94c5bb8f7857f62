#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <chrono>

#include "platform/Platform.h"
#include "support/NetlinkTestBytes.h"
#include "wificond/net/netlink_utils.h"

using namespace android::wificond;
using namespace netlink_test;

namespace {

constexpr uint16_t kFamily = 0x1c;

// A station reply to the first request (sequence number 1).
Bytes station(uint16_t flags, const Bytes& staInfo, uint32_t seq = 1) {
    return message(kFamily, flags, seq, 19, attr(3, le(2)) + attr(21, staInfo));
}

Bytes signal(int8_t dbm) {
    return attr(7, {static_cast<uint8_t>(dbm)});
}

// The client with its members open to the test.
struct TestNetlink : NetlinkUtils {
    using NetlinkUtils::messageHandlers, NetlinkUtils::messageTypes, NetlinkUtils::netlinkFd,
            NetlinkUtils::sequenceNumber;
};

TEST(NetlinkUtilsTest, StationQueryAgainstFakePeer) {
    mlbd::initLogging();
    const Bytes kDone = message(NLMSG_DONE, 0, 1, 0, le(0));
    Bytes invalid = station(0, signal(-3));
    invalid[0] += 4;
    // The datagrams the peer has queued when the query starts, the signal read and a log line
    // of the path taken.
    const struct {
        std::vector<Bytes> replies;
        int32_t dbm;
        std::vector<const char*> logs;
    } cases[] = {
            {{station(0, signal(-58))}, -58, {}},
            {{station(0, attr(1, le(9)))}, 0, {"Failed to get NL80211_STA_INFO_SIGNAL"}},
            {{message(kFamily, 0, 1, 19, {})}, 0, {"Failed to get NL80211_ATTR_STA_INFO"}},
            // The kernel's error: its first error byte is read as the command.
            {{message(NLMSG_ERROR, 0, 1, 0, le(-ENOENT) + Bytes(16))}, 0, {"request: 254"}},
            // Multi-part over three reads: the first part is the answer.
            {{station(NLM_F_MULTI, signal(-40)), station(NLM_F_MULTI, signal(-41)), kDone},
             -40,
             {}},
            // Another sequence number (the rest of that read is dropped), a broken read, an
            // invalid message, then a multicast notification in front of the answer.
            {{station(0, signal(-1), 1001) + station(0, signal(-2)), Bytes(10), invalid,
              station(0, signal(-4), 0) + station(0, signal(-70))},
             -70,
             {"W slm-netlink: No handler for message: 1001", "E slm-netlink: payload is broken.",
              "E slm-netlink: Receive invalid packet"}},
            // A bare DONE ends the wait with no reply to read.
            {{kDone}, 0, {"E slm-netlink: NL80211_CMD_GET_STATION failed"}},
            // No reply at all: about one second, then a failure.
            {{}, 0, {"E slm-netlink: Failed to poll netlink fd: time out \n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        TestNetlink nl;
        nl.messageTypes["nl80211"] = MessageType(kFamily);
        nl.sequenceNumber = 0xffffffff;  // the next one is 1: 0 is never used
        // Two hex digits per byte from the start, missing ones 0.
        nl.SetStationInfo("0A0b0C0", "lo");
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv), 0);
        nl.netlinkFd.reset(sv[0]);
        android::base::unique_fd peer(sv[1]);
        for (const Bytes& d : c.replies) {
            ASSERT_EQ(send(peer, d.data(), d.size(), 0), (ssize_t)d.size());
        }
        testing::internal::CaptureStderr();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(nl.GetStationInfo(), c.dbm);
        const auto ms = (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(1);
        std::string log = testing::internal::GetCapturedStderr();
        for (const char* line : c.logs) EXPECT_TRUE(contains(log, line)) << log;
        EXPECT_TRUE(c.replies.empty() ? ms >= 950 && ms < 1500 : ms < 500) << ms;
        EXPECT_TRUE(nl.messageHandlers.empty());
        // The request: the family, GET_STATION, the interface and the station's address.
        Bytes request(256);
        request.resize(std::max<ssize_t>(0, recv(peer, request.data(), 256, MSG_DONTWAIT)));
        EXPECT_EQ(request,
                  message(kFamily, NLM_F_REQUEST, 1, 17,
                          attr(3, le(if_nametoindex("lo"))) + attr(6, {0x0a, 0x0b, 0x0c, 0, 0, 0}),
                          getpid()));
        // Nothing more queued: a further receive returns at once.
        nl.ReceivePacketAndRunHandler(nl.netlinkFd);
    }
}

// Against the kernel's generic netlink controller (this kernel has no nl80211): discovery fails,
// and the same transport finds a family that exists.
TEST(NetlinkKernelTest, DiscoveryFailsAndTheControllerAnswers) {
    if (getuid() != 0) GTEST_SKIP() << "needs root: SO_RCVBUFFORCE";
    if (if_nametoindex("wlan0") == 0) {
        EXPECT_FALSE(NetlinkUtils::instance()->Start());
        // With no family to ask, a station query does not wait for a reply that cannot come.
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(NetlinkUtils::instance()->GetStationInfo(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    }
    TestNetlink nl;
    ASSERT_TRUE(nl.SetupSocket(&nl.netlinkFd));
    NL80211Packet request(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, nl.GetSequenceNumber(), getpid());
    request.AddAttribute(NL80211Attr<std::string>(CTRL_ATTR_FAMILY_NAME, "nlctrl"));
    std::unique_ptr<const NL80211Packet> reply;
    ASSERT_TRUE(nl.SendMessageAndGetSingleResponse(request, &reply));
    nl.OnNewFamily(std::move(reply));
    EXPECT_EQ(nl.messageTypes["nlctrl"].family_id, GENL_ID_CTRL);
    EXPECT_EQ(nl.messageTypes["nlctrl"].groups.count("notify"), 1u);
}

}  // namespace
