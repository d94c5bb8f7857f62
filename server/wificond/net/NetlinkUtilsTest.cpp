#include <errno.h>
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "platform/Platform.h"
#include "wificond/net/NetlinkTestBytes.h"
#include "wificond/net/netlink_utils.h"

using namespace android::wificond;
using namespace netlink_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr uint16_t kFamily = 0x1c;

Bytes station(uint32_t seq, uint16_t flags, const Bytes& staInfo) {
    return message(kFamily, flags, seq, 19, attr(3, le(2)) + attr(21, staInfo));
}

Bytes signal(int8_t dbm) {
    return attr(7, {static_cast<uint8_t>(dbm)});
}

Bytes control(uint16_t type, uint32_t seq, const Bytes& body = le(0)) {
    return message(type, 0, seq, 0, body);
}

// The client with its members open to the test.
class TestNetlink : public NetlinkUtils {
  public:
    using NetlinkUtils::interfaceIndex, NetlinkUtils::messageHandlers, NetlinkUtils::messageTypes,
            NetlinkUtils::netlinkFd, NetlinkUtils::sequenceNumber, NetlinkUtils::stationMac;
    // Puts the client on one end of a datagram socketpair; returns the other end.
    int attachFake() {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv), 0);
        netlinkFd.reset(sv[0]);
        return sv[1];
    }
};

// Plays the kernel on a socketpair: waits for one request, then sends the datagrams that
// `answer` makes from the request's sequence number.
class FakeKernel {
  public:
    using Answer = std::function<std::vector<Bytes>(uint32_t seq)>;
    FakeKernel(int fd, Answer answer) : fd_(fd) {
        thread_ = std::thread([this, answer] {
            pollfd pfd = {fd_, POLLIN, 0};
            uint8_t buf[1024];
            ssize_t n = poll(&pfd, 1, 3000) == 1 ? recv(fd_, buf, sizeof(buf), 0) : 0;
            if (n < 16) return;
            request_.assign(buf, buf + n);
            uint32_t seq = request_[8] | request_[9] << 8 | request_[10] << 16 | request_[11] << 24;
            for (const Bytes& d : answer ? answer(seq) : std::vector<Bytes>()) {
                EXPECT_EQ(send(fd_, d.data(), d.size(), 0), static_cast<ssize_t>(d.size()));
            }
        });
    }
    ~FakeKernel() { request(), close(fd_); }
    const Bytes& request() {
        if (thread_.joinable()) thread_.join();
        return request_;
    }

  private:
    int fd_;
    Bytes request_;
    std::thread thread_;
};

TEST(NetlinkUtilsTest, StationQueryAgainstFakeKernel) {
    mlbd::initLogging();
    const struct {
        FakeKernel::Answer answer;
        int32_t dbm;
        std::vector<const char*> logs;
    } cases[] = {
            {[](uint32_t s) -> std::vector<Bytes> { return {station(s, 0, signal(-58))}; },
             -58,
             {"D slm-netlink: interface_index is 0"}},
            {[](uint32_t s) -> std::vector<Bytes> { return {station(s, 0, attr(1, le(9)))}; },
             0,
             {"E slm-netlink: Failed to get NL80211_STA_INFO_SIGNAL"}},
            {[](uint32_t s) -> std::vector<Bytes> { return {station(s, 0, attr(7, le(0xc4)))}; },
             0,
             {"Failed to get NL80211_STA_INFO_SIGNAL"}},
            {[](uint32_t s) -> std::vector<Bytes> {
                 return {message(kFamily, 0, s, 19, attr(3, le(2)))};
             },
             0,
             {"Failed to get NL80211_ATTR_STA_INFO"}},
            // The kernel's error: its first error byte is read as the command.
            {[](uint32_t s) -> std::vector<Bytes> {
                 return {control(NLMSG_ERROR, s, le(-ENOENT) + Bytes(16))};
             },
             0,
             {"Wrong command in response to a get station request: 254"}},
            // Multi-part over three reads: the first part is the answer.
            {[](uint32_t s) -> std::vector<Bytes> {
                 return {station(s, NLM_F_MULTI, signal(-40)), station(s, NLM_F_MULTI, signal(-41)),
                         control(NLMSG_DONE, s)};
             },
             -40,
             {}},
            // Another sequence number (the rest of that read is dropped), a broken read, an
            // invalid message, then a multicast notification in front of the answer.
            {[](uint32_t s) -> std::vector<Bytes> {
                 Bytes invalid = station(s, 0, signal(-3));
                 invalid[0] += 4;
                 return {station(s + 1000, 0, signal(-1)) + station(s, 0, signal(-2)), Bytes(10),
                         invalid, station(0, 0, signal(-4)) + station(s, 0, signal(-70))};
             },
             -70,
             {"W slm-netlink: No handler for message: 1001", "E slm-netlink: payload is broken.",
              "E slm-netlink: Receive invalid packet"}},
            // Replies that end the wait with nothing to read.
            {[](uint32_t s) -> std::vector<Bytes> { return {control(NLMSG_DONE, s)}; },
             0,
             {"E slm-netlink: NL80211_CMD_GET_STATION failed"}},
            {[](uint32_t s) -> std::vector<Bytes> { return {control(NLMSG_OVERRUN, s, {})}; },
             0,
             {"E slm-netlink: Get message overrun notification", "NL80211_CMD_GET_STATION failed"}},
            // No reply at all: about one second, then a failure.
            {nullptr,
             0,
             {"E slm-netlink: Failed to poll netlink fd: time out \n",
              "NL80211_CMD_GET_STATION failed"}},
    };
    for (const auto& c : cases) {
        TestNetlink nl;
        nl.messageTypes["nl80211"] = MessageType(kFamily);
        FakeKernel kernel(nl.attachFake(), c.answer);
        CaptureStderr();
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(nl.GetStationInfo(), c.dbm);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - start)
                          .count();
        std::string log = GetCapturedStderr();
        for (const char* line : c.logs) EXPECT_TRUE(contains(log, line)) << log;
        EXPECT_TRUE(c.answer ? ms < 500 : ms >= 950 && ms < 1500) << ms;
        EXPECT_TRUE(nl.messageHandlers.empty());
        // The request: the family, GET_STATION, the interface and the (still zero) address.
        EXPECT_EQ(kernel.request(), message(kFamily, NLM_F_REQUEST, 1, 17,
                                            attr(3, le(0)) + attr(6, Bytes(6)), getpid()));
    }
}

TEST(NetlinkUtilsTest, MultiPartRepliesAreCollectedUntilDone) {
    TestNetlink nl;
    FakeKernel kernel(nl.attachFake(), [](uint32_t s) -> std::vector<Bytes> {
        return {station(s, NLM_F_MULTI, signal(-1)) + station(s, NLM_F_MULTI, signal(-2)) +
                control(NLMSG_DONE, s)};
    });
    std::vector<std::unique_ptr<const NL80211Packet>> responses;
    ASSERT_TRUE(nl.SendMessageAndGetResponses(NL80211Packet(kFamily, 17, 77, 0), &responses));
    ASSERT_EQ(responses.size(), 2u);
    EXPECT_TRUE(responses[0]->IsMulti() && responses[1]->GetMessageType() == kFamily);
    EXPECT_TRUE(nl.messageHandlers.empty());
}

TEST(NetlinkUtilsTest, FamilyRepliesAndStationSettings) {
    mlbd::initLogging();
    TestNetlink nl;
    EXPECT_EQ(nl.GetFamilyId(), 0);
    EXPECT_EQ(nl.messageTypes.count("nl80211"), 1u);  // an empty entry is made
    Bytes id = attr(CTRL_ATTR_FAMILY_ID, le(kFamily, 2));
    auto family = [](uint8_t cmd, const Bytes& attrs) {
        return std::make_unique<const NL80211Packet>(message(GENL_ID_CTRL, 0, 1, cmd, attrs));
    };
    const struct {
        std::unique_ptr<const NL80211Packet> packet;
        const char* log;
    } cases[] = {
            {std::make_unique<const NL80211Packet>(control(NLMSG_ERROR, 1, le(-2) + Bytes(16))),
             "Wrong message type for new family message"},
            {family(CTRL_CMD_GETFAMILY, id), "Wrong command for new family message"},
            {family(CTRL_CMD_NEWFAMILY, attr(2, text("x"))), "Failed to get family id"},
            {family(CTRL_CMD_NEWFAMILY, id), "Failed to get family name"},
            {family(CTRL_CMD_NEWFAMILY, id + attr(2, text("other"))),
             "W slm-netlink: Ignoring none nl80211 netlink families"},
            {family(CTRL_CMD_NEWFAMILY,
                    id + attr(2, text("nl80211")) +
                            attr(CTRL_ATTR_MCAST_GROUPS,
                                 attr(1, attr(1, text("mlme"))) +
                                         attr(2, attr(1, text("x")) + attr(2, le(7))))),
             "E slm-netlink: Failed to get group id"},
            {family(CTRL_CMD_NEWFAMILY,
                    id + attr(2, text("nl80211")) +
                            attr(CTRL_ATTR_MCAST_GROUPS,
                                 attr(1, attr(1, text("scan")) + attr(2, le(5))) +
                                         attr(2, attr(2, le(6))) + attr(3, attr(1, text("mlme"))) +
                                         attr(4, attr(1, text("vendor")) + attr(2, le(9))))),
             "E slm-netlink: Failed to get group name"},
    };
    for (const auto& c : cases) {
        CaptureStderr();
        nl.OnNewFamily(std::make_unique<const NL80211Packet>(*c.packet));
        std::string log = GetCapturedStderr();
        EXPECT_TRUE(contains(log, c.log)) << log;
    }
    EXPECT_EQ(nl.GetFamilyId(), kFamily);
    EXPECT_EQ(nl.messageTypes.size(), 2u);  // "other" is recorded under its own name
    EXPECT_EQ(nl.messageTypes["nl80211"].groups,
              (std::map<std::string, uint32_t>{{"scan", 5}, {"vendor", 9}}));

    // Discovery through a fake kernel that answers for another family.
    nl.messageTypes.clear();
    {
        FakeKernel kernel(nl.attachFake(), [&](uint32_t s) -> std::vector<Bytes> {
            return {message(GENL_ID_CTRL, 0, s, CTRL_CMD_NEWFAMILY, id + attr(2, text("nl8021")))};
        });
        CaptureStderr();
        EXPECT_FALSE(nl.DiscoverFamilyId());
        EXPECT_TRUE(
                contains(GetCapturedStderr(), "E slm-netlink: Failed to get NL80211 family id"));
        EXPECT_EQ(kernel.request(),
                  message(GENL_ID_CTRL, NLM_F_REQUEST, nl.sequenceNumber, CTRL_CMD_GETFAMILY,
                          attr(2, text("nl80211")), getpid()));
    }
    EXPECT_EQ(nl.messageTypes.count("nl8021"), 1u);

    // Sequence numbers never use 0.
    nl.sequenceNumber = 0xfffffffe;
    EXPECT_EQ(nl.GetSequenceNumber(), 0xffffffffu);
    EXPECT_EQ(nl.GetSequenceNumber(), 1u);

    // Station settings: two hex digits per byte from the start, missing bytes are 0.
    const struct {
        const char* bssid;
        Bytes mac;
    } macs[] = {
            {"aabbccddeeff", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}},
            {"AABBCCDDEEFF0011", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}},
            {"aa:bb:cc:dd:ee:ff", {0xaa, 0x00, 0x0b, 0xcc, 0x00, 0x0d}},
            {"0102030", {1, 2, 3, 0, 0, 0}},
            {"1g-1 f", {1, 0, 0, 0, 0, 0}},
            {"", {0, 0, 0, 0, 0, 0}},
    };
    for (const auto& m : macs) {
        memset(nl.stationMac, 0x55, sizeof(nl.stationMac));
        nl.SetStationInfo(m.bssid, "lo");
        EXPECT_EQ(Bytes(nl.stationMac, nl.stationMac + 6), m.mac) << m.bssid;
        EXPECT_EQ(nl.interfaceIndex, if_nametoindex("lo"));
    }
    nl.SetStationInfo("aabbccddeeff", "wlan-none");
    EXPECT_EQ(nl.interfaceIndex, 0u);
}

// ---- Against the kernel's generic netlink controller (this kernel has no nl80211) ----

TEST(NetlinkKernelTest, DiscoveryFailsAndTheControllerAnswers) {
    if (getuid() != 0) GTEST_SKIP() << "needs root: SO_RCVBUFFORCE";
    mlbd::initLogging();
    if (if_nametoindex("wlan0") == 0) {
        CaptureStderr();
        EXPECT_FALSE(NetlinkUtils::instance()->Start());
        std::string log = GetCapturedStderr();
        // The controller answers with an error, which is not a family reply.
        EXPECT_TRUE(contains(log, "D slm-netlink: bind succeed and fd is ")) << log;
        EXPECT_TRUE(contains(log, "E slm-netlink: Wrong message type for new family message"));
        EXPECT_TRUE(contains(log, "E slm-netlink: Failed to get NL80211 family id")) << log;
    }

    // The same transport finds a family that exists.
    TestNetlink nl;
    ASSERT_TRUE(nl.SetupSocket(&nl.netlinkFd));
    NL80211Packet request(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, nl.GetSequenceNumber(), getpid());
    request.AddAttribute(NL80211Attr<std::string>(CTRL_ATTR_FAMILY_NAME, "nlctrl"));
    std::unique_ptr<const NL80211Packet> reply;
    ASSERT_TRUE(nl.SendMessageAndGetSingleResponse(request, &reply));
    nl.OnNewFamily(std::move(reply));
    EXPECT_EQ(nl.messageTypes["nlctrl"].family_id, GENL_ID_CTRL);
    EXPECT_EQ(nl.messageTypes["nlctrl"].groups.count("notify"), 1u);

    // A dump of every family is multi-part, collected up to (not including) its DONE.
    std::vector<std::unique_ptr<const NL80211Packet>> families;
    ASSERT_TRUE(nl.SendMessageAndGetResponses(
            NL80211Packet(message(GENL_ID_CTRL, NLM_F_REQUEST | NLM_F_DUMP, nl.GetSequenceNumber(),
                                  CTRL_CMD_GETFAMILY, {})),
            &families));
    ASSERT_GE(families.size(), 2u);
    std::string names;
    for (const auto& f : families) {
        std::string name;
        EXPECT_TRUE(f->IsMulti() && f->GetAttributeValue(CTRL_ATTR_FAMILY_NAME, &name));
        names += name + " ";
    }
    EXPECT_TRUE(contains(names, "nlctrl ")) << names;
    EXPECT_TRUE(nl.messageHandlers.empty());
}

}  // namespace
