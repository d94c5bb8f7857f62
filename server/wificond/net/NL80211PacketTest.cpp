#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "wificond/net/NetlinkTestBytes.h"
#include "wificond/net/nl80211_packet.h"

using namespace android::wificond;
using namespace netlink_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// A received message of family 0x1c carrying `attrs`.
NL80211Packet packetWith(const Bytes& attrs) {
    return NL80211Packet(message(0x1c, 0, 0, 19, attrs));
}

TEST(NL80211PacketTest, ValidityAndAttributeSearchOnHostileInput) {
    mlbd::initLogging();
    const struct {
        Bytes data;
        const char* log;  // null: valid
    } messages[] = {
            {message(NLMSG_DONE, 0, 0, 0, {}), nullptr},
            {message(NLMSG_DONE, 0, 0, 0, {}) + Bytes(4), nullptr},  // bytes beyond the length
            {message(NLMSG_ERROR, 0, 0, 0, le(0)), nullptr},
            {Bytes(15, 0), "Cannot retrieve netlink header."},
            {le(19) + le(16, 2) + Bytes(13), "Cannot retrieve generic netlink header."},
            {le(16) + le(0x1c) + Bytes(16), "Cannot retrieve generic netlink header."},
            {message(NLMSG_ERROR, 0, 0, 0, {}), "Broken error message."},
            {le(17) + le(NLMSG_DONE) + Bytes(8), "Discarding incomplete / invalid message."},
            {le(15) + le(NLMSG_NOOP) + Bytes(8), "Discarding incomplete / invalid message."},
    };
    for (const auto& c : messages) {
        CaptureStderr();
        EXPECT_EQ(NL80211Packet(c.data).IsValid(), c.log == nullptr) << "case " << &c - messages;
        std::string log = GetCapturedStderr();
        EXPECT_TRUE(c.log ? contains(log, c.log) && contains(log, " E slm-netlink") : log.empty())
                << log;
    }

    const char* kBroken = "Failed to get attribute: broken nl80211 atrribute.";
    // The 32-bit attribute of type 7, searched for in a packet carrying `attrs`.
    const struct {
        Bytes attrs;
        bool found;
        const char* log;
    } searches[] = {
            {attr(1, le(0)) + attr(2, {1}) + attr(7, le(0x55)), true, nullptr},
            {attr(7, le(1), 6), false, nullptr},  // found, but a length of 6 is not 32 bits
            {attr(7, {}, 0), false, nullptr},
            {attr(1, le(0)) + attr(7, le(1), 12), false, kBroken},  // the match runs past the end
            // A non-matching attribute running past the end, one of length 0, flag bits in the
            // type, or fewer than 4 bytes: not found, quietly.
            {attr(1, le(0), 200) + attr(7, le(1)), false, nullptr},
            {attr(1, {}, 0) + attr(7, le(1)), false, nullptr},
            {attr(0x8007, le(1)), false, nullptr},
            {{8, 0, 7}, false, nullptr},
    };
    for (const auto& c : searches) {
        unsigned int value = 0;
        SCOPED_TRACE(&c - searches);
        CaptureStderr();
        EXPECT_EQ(packetWith(c.attrs).GetAttributeValue(7, &value), c.found);
        std::string log = GetCapturedStderr();
        EXPECT_TRUE(c.log ? contains(log, c.log) : log.empty()) << log;
        EXPECT_EQ(value, c.found ? 0x55u : 0u);
    }
    // Header lengths 1 to 4 of a string attribute read as empty.
    for (int length : {1, 2, 3, 4}) {
        std::string value = "stale";
        EXPECT_TRUE(packetWith(attr(2, {}, length)).GetAttributeValue(2, &value));
        EXPECT_EQ(value, "") << length;
    }
}

}  // namespace
