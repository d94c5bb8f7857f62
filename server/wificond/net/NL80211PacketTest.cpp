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

TEST(NL80211PacketTest, BuildsRequestsByteForByte) {
    NL80211Packet p(0x1c, 17, 0x01020304, 4321);
    p.AddAttribute(NL80211Attr<unsigned int>(3, 0xaabbccdd));
    p.AddAttribute(NL80211Attr<std::vector<uint8_t>>(6, {1, 2, 3, 4, 5, 6}));
    p.AddAttribute(NL80211Attr<std::string>(2, "nl80211"));
    p.AddAttribute(NL80211Attr<unsigned short>(1, 0x1234));
    p.AddAttribute(NL80211Attr<signed char>(7, -60));
    p.AddAttribute(NL80211NestedAttr(21));
    p.AddAttribute(BaseNL80211Attr(9, Bytes(5, 7)));
    EXPECT_EQ(p.GetConstData(),
              message(0x1c, NLM_F_REQUEST, 0x01020304, 17,
                      attr(3, le(0xaabbccdd)) + attr(6, {1, 2, 3, 4, 5, 6}) +
                              attr(2, text("nl80211")) + attr(1, le(0x1234, 2)) + attr(7, {0xc4}) +
                              attr(21, {}) + attr(9, Bytes(5, 7)),
                      4321));
    EXPECT_TRUE(p.IsValid());
    EXPECT_EQ(p.GetMessageType(), 0x1c);
    EXPECT_EQ(p.GetCommand(), 17);
    EXPECT_EQ(p.GetMessageSequence(), 0x01020304u);
    EXPECT_FALSE(p.IsMulti());
    // Round trip through the typed readers.
    unsigned int u32 = 0;
    unsigned short u16 = 0;
    signed char s8 = 0;
    std::string name;
    std::vector<uint8_t> mac;
    EXPECT_TRUE(p.GetAttributeValue(3, &u32) && p.GetAttributeValue(1, &u16) &&
                p.GetAttributeValue(7, &s8) && p.GetAttributeValue(2, &name) &&
                p.GetAttributeValue(6, &mac));
    EXPECT_EQ(u32, 0xaabbccddu);
    EXPECT_EQ(u16, 0x1234);
    EXPECT_EQ(s8, -60);
    EXPECT_EQ(name, "nl80211");
    EXPECT_EQ(mac, Bytes({1, 2, 3, 4, 5, 6}));
}

TEST(NL80211PacketTest, ValidityOfReceivedMessages) {
    mlbd::initLogging();
    const struct {
        Bytes data;
        const char* log;  // null: valid
    } cases[] = {
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
    for (const auto& c : cases) {
        CaptureStderr();
        EXPECT_EQ(NL80211Packet(c.data).IsValid(), c.log == nullptr) << c.data.size();
        std::string log = GetCapturedStderr();
        EXPECT_TRUE(c.log ? contains(log, c.log) && contains(log, " E slm-netlink") : log.empty())
                << log;
    }
    // Accessors read nothing beyond the bytes held.
    NL80211Packet empty{Bytes()};
    EXPECT_EQ(empty.GetMessageType() + empty.GetCommand() + empty.GetMessageSequence(), 0u);
    EXPECT_EQ(NL80211Packet(message(NLMSG_DONE, NLM_F_MULTI, 0, 0, {})).GetCommand(), 0);
    EXPECT_TRUE(NL80211Packet(message(NLMSG_DONE, NLM_F_MULTI, 0, 0, {})).IsMulti());
}

TEST(NL80211PacketTest, AttributeSearchOnHostileInput) {
    mlbd::initLogging();
    unsigned int u32 = 0;
    signed char s8 = 0;
    std::string name;
    // A 32-bit attribute whose length says 6: found and copied, but not valid as 32 bits.
    NL80211Attr<unsigned int> out{Bytes()};
    EXPECT_FALSE(packetWith(attr(3, le(1), 6)).GetAttribute(3, &out));
    EXPECT_EQ(out.GetConstData().size(), 8u);
    // Signed 8-bit 0xC4 is -60, found after other attributes.
    EXPECT_TRUE(
            packetWith(attr(1, le(0)) + attr(2, {1}) + attr(7, {0xc4})).GetAttributeValue(7, &s8));
    EXPECT_EQ(s8, -60);
    // All trailing NULs go, embedded ones stay; header lengths 1 to 4 read as empty.
    EXPECT_TRUE(packetWith(attr(2, text("nl80211") + Bytes(2))).GetAttributeValue(2, &name));
    EXPECT_EQ(name, "nl80211");
    EXPECT_TRUE(packetWith(attr(2, {'a', 0, 'b', 0, 0})).GetAttributeValue(2, &name));
    EXPECT_EQ(name, std::string("a\0b", 3));
    for (int length : {1, 2, 3, 4}) {
        EXPECT_TRUE(packetWith(attr(2, {}, length)).GetAttributeValue(2, &name));
        EXPECT_EQ(name, "") << length;
    }
    // The matching attribute runs past the end: logged as broken.
    CaptureStderr();
    EXPECT_FALSE(packetWith(attr(1, le(0)) + attr(7, le(1), 12)).GetAttributeValue(7, &u32));
    EXPECT_TRUE(
            contains(GetCapturedStderr(), "Failed to get attribute: broken nl80211 atrribute."));
    // A non-matching attribute running past the end, one of length 0, flag bits in the type, or
    // fewer than 4 bytes: not found, quietly.
    CaptureStderr();
    EXPECT_FALSE(packetWith(attr(1, le(0), 200) + attr(7, le(1))).GetAttributeValue(7, &u32));
    EXPECT_FALSE(packetWith(attr(1, {}, 0) + attr(7, le(1))).GetAttributeValue(7, &u32));
    EXPECT_FALSE(packetWith(attr(0x8007, le(1))).GetAttributeValue(7, &u32));
    EXPECT_FALSE(packetWith({8, 0, 7}).GetAttributeValue(7, &u32));
    EXPECT_EQ(GetCapturedStderr(), "");
    // A matching attribute of length 0 is not valid; values of short attributes read as 0.
    EXPECT_FALSE(packetWith(attr(7, {}, 0)).GetAttributeValue(7, &u32));
    EXPECT_EQ(NL80211Attr<unsigned int>(Bytes{8, 0}).GetValue(), 0u);
}

TEST(NL80211PacketTest, NestedAttributesAndLists) {
    mlbd::initLogging();
    std::vector<NL80211NestedAttr> list(3, NL80211NestedAttr(9));
    EXPECT_TRUE(NL80211NestedAttr(7).GetListOfNestedAttributes(&list));
    EXPECT_TRUE(list.empty());
    // Two groups as the controller sends them; the second has no name.
    NL80211NestedAttr groups(0);
    ASSERT_TRUE(packetWith(attr(1, le(0x10, 2)) +
                           attr(7, attr(1, attr(1, text("abc")) + attr(2, le(5))) +
                                           attr(2, attr(2, le(6)))))
                        .GetAttribute(7, &groups));
    ASSERT_TRUE(groups.GetListOfNestedAttributes(&list));
    ASSERT_EQ(list.size(), 2u);
    std::string name;
    unsigned int id = 0;
    EXPECT_TRUE(list[0].GetAttributeValue(1, &name) && list[0].GetAttributeValue(2, &id));
    EXPECT_EQ(name + std::to_string(id), "abc5");
    EXPECT_FALSE(list[1].GetAttributeValue(1, &name));
    EXPECT_TRUE(list[1].GetAttributeValue(2, &id));
    EXPECT_EQ(id, 6u);
    // An item running past the end is logged; an item of length 0 fails (no endless loop);
    // both leave the list as it was.
    CaptureStderr();
    EXPECT_FALSE(NL80211NestedAttr(attr(7, attr(1, le(1), 16))).GetListOfNestedAttributes(&list));
    EXPECT_TRUE(contains(GetCapturedStderr(),
                         "Failed to get list of nested attributes: invalid nla_len."));
    EXPECT_FALSE(NL80211NestedAttr(attr(7, attr(1, {}) + attr(2, {}, 0)))
                         .GetListOfNestedAttributes(&list));
    EXPECT_EQ(list.size(), 2u);
    // Fewer than 4 bytes after the header: an empty list.
    EXPECT_TRUE(NL80211NestedAttr(Bytes{7, 0, 7, 0, 1, 2, 3}).GetListOfNestedAttributes(&list));
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(NL80211NestedAttr(attr(1, {1})).IsValid());
    EXPECT_FALSE(NL80211NestedAttr(attr(1, {1}, 5, 7)).IsValid());
}

}  // namespace
