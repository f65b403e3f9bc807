#include <gtest/gtest.h>

#include <set>

#include "mirell/media/rtp.h"
#include "rtp_test_util.h"

namespace mirell::media {
namespace {

TEST(RtpHeader, ExactBytes) {
  Bytes packet;
  AppendRtpHeader(packet, 0xE0, true, 0x1234, 0x89ABCDEF, 0x01020304);
  EXPECT_EQ(packet, (Bytes{0x80, 0xE0, 0x12, 0x34, 0x89, 0xAB, 0xCD, 0xEF, 1, 2, 3, 4}));
  packet.clear();
  AppendRtpHeader(packet, 97, false, 0, 0, 0);
  EXPECT_EQ(packet[1], 97);
}

TEST(ParseRtpPacket, FillsTheView) {
  const Bytes packet = testing::Packet(65535, 90000, true, {1, 2, 3}, 97);
  RtpPacketView view;
  ASSERT_TRUE(ParseRtpPacket(packet, view));
  EXPECT_EQ(view.payload_type, 97);
  EXPECT_TRUE(view.marker);
  EXPECT_EQ(view.sequence_number, 65535);
  EXPECT_EQ(view.timestamp, 90000u);
  EXPECT_EQ(view.ssrc, 0x11223344u);
  EXPECT_EQ(Bytes(view.payload.begin(), view.payload.end()), (Bytes{1, 2, 3}));
}

TEST(ParseRtpPacket, HeaderOnlyParsesWithEmptyPayload) {
  RtpPacketView view;
  ASSERT_TRUE(ParseRtpPacket(testing::Packet(1, 2, false, {}), view));
  EXPECT_TRUE(view.payload.empty());
}

TEST(ParseRtpPacket, RefusesShortOrWrongVersion) {
  RtpPacketView view;
  view.sequence_number = 77;
  Bytes packet = testing::Packet(1, 2, false, {5});
  EXPECT_FALSE(ParseRtpPacket(ByteSpan(packet).first(11), view));
  packet[0] = 0x40;
  EXPECT_FALSE(ParseRtpPacket(packet, view));
  packet[0] = 0x82;  // Two CSRCs that are not there.
  EXPECT_FALSE(ParseRtpPacket(packet, view));
  EXPECT_EQ(view.sequence_number, 77) << "nothing written on failure";
}

TEST(ParseRtpPacket, CsrcExtensionAndPadding) {
  Bytes packet = testing::Packet(1, 2, false, {});
  packet[0] = 0x80 | 0x20 | 0x10 | 0x01;       // Padding, extension, one CSRC.
  packet.insert(packet.end(), {9, 9, 9, 9});   // CSRC
  packet.insert(packet.end(), {0xBE, 0xDE, 0, 1, 7, 7, 7, 7});  // Extension of one word.
  packet.insert(packet.end(), {0xAA, 0xBB});   // Payload
  packet.insert(packet.end(), {0, 0, 3});      // Three bytes of padding.
  RtpPacketView view;
  ASSERT_TRUE(ParseRtpPacket(packet, view));
  EXPECT_EQ(Bytes(view.payload.begin(), view.payload.end()), (Bytes{0xAA, 0xBB}));
}

TEST(ParseRtpPacket, PaddingCountZeroOrTooLargeIsRefused) {
  Bytes packet = testing::Packet(1, 2, false, {1, 2, 0});
  packet[0] |= 0x20;
  RtpPacketView view;
  EXPECT_FALSE(ParseRtpPacket(packet, view));
  packet.back() = 16;
  EXPECT_FALSE(ParseRtpPacket(packet, view));
  packet.back() = 3;
  ASSERT_TRUE(ParseRtpPacket(packet, view));
  EXPECT_TRUE(view.payload.empty());
}

TEST(ParseRtpPacket, ExtensionLongerThanPacketIsRefused) {
  Bytes packet = testing::Packet(1, 2, false, {0, 0, 0, 5});
  packet[0] |= 0x10;
  RtpPacketView view;
  EXPECT_FALSE(ParseRtpPacket(packet, view));
  EXPECT_FALSE(ParseRtpPacket(ByteSpan(packet).first(15), view));
}

TEST(SequenceDelta, WrapsAt16Bits) {
  EXPECT_EQ(SequenceDelta(0, 65535), 1);
  EXPECT_EQ(SequenceDelta(5, 5), 0);
  EXPECT_EQ(SequenceDelta(4, 5), -1);
  EXPECT_EQ(SequenceDelta(10, 5), 5);
}

TEST(RandomRtpValue, VariesBetweenCalls) {
  std::set<std::uint32_t> values;
  for (int i = 0; i < 16; ++i) values.insert(RandomRtpValue());
  EXPECT_GT(values.size(), 12u);
}

TEST(DrawRtpIdentity, KeepsGivenValues) {
  const auto identity = DrawRtpIdentity(42, 7);
  EXPECT_EQ(identity.ssrc, 42u);
  EXPECT_EQ(identity.first_sequence, 7);
}

}  // namespace
}  // namespace mirell::media
