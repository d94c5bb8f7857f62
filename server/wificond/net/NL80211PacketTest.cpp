#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "support/NetlinkTestBytes.h"
#include "wificond/net/nl80211_packet.h"

using namespace android::wificond;
using namespace netlink_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

TEST(NL80211PacketTest, ValidityAndAttributeSearchOnHostileInput) {
    mlbd::initLogging();
    // Valid: bytes beyond the length are allowed. Invalid: short of a netlink header, of a
    // generic netlink header (family types), of an error code (errors), or a length beyond the
    // bytes held or below a header.
    const std::pair<Bytes, bool> messages[] = {
            {message(NLMSG_DONE, 0, 0, 0, {}) + Bytes(4), true},
            {message(NLMSG_ERROR, 0, 0, 0, le(0)), true},
            {Bytes(15, 0), false},
            {le(19) + le(16, 2) + Bytes(13), false},
            {le(16) + le(0x1c) + Bytes(16), false},
            {message(NLMSG_ERROR, 0, 0, 0, {}), false},
            {le(17) + le(NLMSG_DONE) + Bytes(8), false},
            {le(15) + le(NLMSG_NOOP) + Bytes(8), false},
    };
    for (const auto& [data, valid] : messages) {
        EXPECT_EQ(NL80211Packet(data).IsValid(), valid) << &data - &messages[0].first;
    }
    // The 32-bit attribute of type 7 in a packet of family 0x1c carrying `attrs`: found (its
    // value is 0x55), or not, and whether that is logged.
    const struct {
        Bytes attrs;
        bool found, logged;
    } searches[] = {
            {attr(1, le(0)) + attr(2, {1}) + attr(7, le(0x55)), true, false},
            {attr(7, le(1), 6), false, false},  // found, but a length of 6 is not 32 bits
            {attr(7, {}, 0), false, false},
            {attr(1, le(0)) + attr(7, le(1), 12), false, true},  // the match runs past the end
            // A non-matching attribute running past the end, one of length 0, flag bits in the
            // type, or fewer than 4 bytes: not found, quietly.
            {attr(1, le(0), 200) + attr(7, le(1)), false, false},
            {attr(1, {}, 0) + attr(7, le(1)), false, false},
            {attr(0x8007, le(1)), false, false},
            {{8, 0, 7}, false, false},
    };
    for (const auto& c : searches) {
        unsigned int value = 0;
        CaptureStderr();
        EXPECT_EQ(NL80211Packet(message(0x1c, 0, 0, 19, c.attrs)).GetAttributeValue(7, &value),
                  c.found);
        EXPECT_EQ(contains(GetCapturedStderr(), "broken nl80211 atrribute"), c.logged);
        EXPECT_EQ(value, c.found ? 0x55u : 0u) << &c - searches;
    }
}

}  // namespace
