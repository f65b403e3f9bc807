#include "mirell/media/h264_rtp.h"

#include <gtest/gtest.h>

#include "mirell/base/error.h"
#include "rtp_test_util.h"

namespace mirell::media {
namespace {

using testing::Filled;
using testing::Packet;

RtpPacketizerConfig Config(std::size_t max_payload_size, std::uint16_t sequence = 100) {
  return {96, 0x01020304, max_payload_size, sequence};
}

Bytes Unit(const std::vector<Bytes>& nals) {
  Bytes unit;
  for (const auto& nal : nals) AppendNal(unit, nal);
  return unit;
}

std::uint16_t SequenceOf(const Bytes& packet) { return static_cast<std::uint16_t>(packet[2] << 8 | packet[3]); }
bool MarkerOf(const Bytes& packet) { return (packet[1] & 0x80) != 0; }

TEST(H264RtpPacketizer, PayloadSizeOf14FailsTheCheck) {
  try {
    H264RtpPacketizer packetizer(Config(14));
    FAIL();
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find(
                  ": check failed: config_.max_payload_size > kRtpHeaderSize + 2 - max_payload_size 14 "
                  "is too small to carry an FU-A fragment"),
              std::string::npos)
        << error.what();
  }
}

TEST(H264RtpPacketizer, PayloadSizeOf15FragmentsOneByteAtATime) {
  H264RtpPacketizer packetizer(Config(15));
  std::vector<Bytes> packets;
  packetizer.Packetize(Unit({{0x65, 1, 2, 3}}), 0, packets);
  ASSERT_EQ(packets.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(packets[i].size(), 15u);
    EXPECT_EQ(packets[i][12], (0x65 & 0xE0) | 28);
    EXPECT_EQ(packets[i][14], i + 1);
  }
  EXPECT_EQ(packets[0][13], 0x80 | 5);
  EXPECT_EQ(packets[1][13], 5);
  EXPECT_EQ(packets[2][13], 0x40 | 5);
  // Three bytes fit in a single packet.
  packets.clear();
  packetizer.Packetize(Unit({{0x41, 1, 2}}), 0, packets);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].size(), 15u);
}

TEST(H264RtpPacketizer, NalOf1188BytesFitsAndOf1189Fragments) {
  H264RtpPacketizer packetizer(Config(1200));
  std::vector<Bytes> packets;
  packetizer.Packetize(Unit({Filled(1188, 0x41)}), 9, packets);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].size(), 1200u);
  EXPECT_TRUE(MarkerOf(packets[0]));

  packets.clear();
  packetizer.Packetize(Unit({Filled(1189, 0x41)}), 9, packets);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[0].size(), 1200u);  // 12 + 2 + 1186 bytes after the NAL header.
  EXPECT_EQ(packets[1].size(), 12u + 2u + 2u);
  EXPECT_FALSE(MarkerOf(packets[0]));
  EXPECT_TRUE(MarkerOf(packets[1]));
}

TEST(H264RtpPacketizer, MarkerOnlyOnTheLastPacketOfTheUnit) {
  H264RtpPacketizer packetizer(Config(1200));
  std::vector<Bytes> packets;
  packetizer.Packetize(Unit({{0x67, 1, 2}, {0x68, 3}, Filled(3000, 0x65)}), 1234, packets);
  ASSERT_EQ(packets.size(), 2u + 3u);
  for (std::size_t i = 0; i < packets.size(); ++i) {
    EXPECT_EQ(MarkerOf(packets[i]), i + 1 == packets.size()) << i;
    RtpPacketView view;
    ASSERT_TRUE(ParseRtpPacket(packets[i], view));
    EXPECT_EQ(view.timestamp, 1234u);
    EXPECT_EQ(view.ssrc, 0x01020304u);
    EXPECT_EQ(view.payload_type, 96);
    EXPECT_EQ(SequenceOf(packets[i]), 100 + i);
  }
  EXPECT_EQ(packetizer.next_sequence(), 105);
}

TEST(H264RtpPacketizer, TrailingZerosAndZeroNalsNeverReachTheWire) {
  H264RtpPacketizer packetizer(Config(1200));
  std::vector<Bytes> packets;
  const Bytes unit = {0, 0, 0, 1, 0x41, 7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0x41, 8, 0, 0, 0};
  packetizer.Packetize(unit, 0, packets);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(Bytes(packets[0].begin() + 12, packets[0].end()), (Bytes{0x41, 7}));
  EXPECT_EQ(Bytes(packets[1].begin() + 12, packets[1].end()), (Bytes{0x41, 8}));
  EXPECT_EQ(packetizer.next_sequence(), 102);
}

TEST(H264RtpPacketizer, NoStartCodeNoPacketsNoSequence) {
  H264RtpPacketizer packetizer(Config(1200));
  std::vector<Bytes> packets = {Bytes{1}};
  packetizer.Packetize(Bytes{0x41, 1, 2}, 0, packets);
  EXPECT_EQ(packets.size(), 1u) << "not cleared, nothing added";
  EXPECT_EQ(packetizer.next_sequence(), 100);
}

TEST(H264RtpPacketizer, SequenceWrapsAndIsDrawnWhenZero) {
  H264RtpPacketizer packetizer(Config(1200, 65535));
  std::vector<Bytes> packets;
  packetizer.Packetize(Unit({{0x41, 1}, {0x41, 2}}), 0, packets);
  EXPECT_EQ(SequenceOf(packets[0]), 65535);
  EXPECT_EQ(SequenceOf(packets[1]), 0);
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(packets[0], unit));
  EXPECT_TRUE(depacketizer.Push(packets[1], unit));
  EXPECT_EQ(depacketizer.lost_packets(), 0u);
  EXPECT_EQ(depacketizer.bad_packets(), 0u);

  H264RtpPacketizer drawn({96, 0, 1200, 0});
  EXPECT_NE(drawn.ssrc(), 0u);  // A drawn 0 could stand, with odds of 1 in 2^32.
}

TEST(H264RoundTrip, UnitComesBackWhole) {
  H264RtpPacketizer packetizer(Config(1200));
  H264RtpDepacketizer depacketizer;
  const Bytes original = Unit({{0x67, 0x42, 0, 0x1F}, {0x68, 0xCE}, Filled(5000, 0x65, 0x5A)});
  std::vector<Bytes> packets;
  packetizer.Packetize(original, 3000, packets);
  H264AccessUnit unit;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    EXPECT_EQ(depacketizer.Push(packets[i], unit), i + 1 == packets.size());
  }
  EXPECT_EQ(unit.annex_b, original);
  EXPECT_EQ(unit.rtp_timestamp, 3000u);
  EXPECT_TRUE(unit.keyframe);
}

TEST(H264RtpDepacketizer, DuplicateIsRefusedWithoutCorruptingTheUnit) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  const Bytes first = Packet(10, 90, false, {0x41, 1});
  EXPECT_FALSE(depacketizer.Push(first, unit));
  EXPECT_FALSE(depacketizer.Push(first, unit));
  EXPECT_EQ(depacketizer.bad_packets(), 1u);
  EXPECT_TRUE(depacketizer.Push(Packet(11, 90, true, {0x41, 2}), unit));
  EXPECT_EQ(unit.annex_b, Unit({{0x41, 1}, {0x41, 2}}));
  EXPECT_FALSE(unit.keyframe);
  // Late packet: refused too.
  EXPECT_FALSE(depacketizer.Push(Packet(9, 180, true, {0x41, 3}), unit));
  EXPECT_EQ(depacketizer.bad_packets(), 2u);
}

TEST(H264RtpDepacketizer, GapCorruptsTheUnit) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(Packet(10, 90, false, {0x41, 1}), unit));
  EXPECT_FALSE(depacketizer.Push(Packet(13, 90, true, {0x41, 2}), unit));
  EXPECT_EQ(depacketizer.lost_packets(), 2u);
  EXPECT_EQ(depacketizer.dropped_units(), 1u);
  EXPECT_TRUE(depacketizer.Push(Packet(14, 180, true, {0x41, 3}), unit));
  EXPECT_EQ(unit.rtp_timestamp, 180u);
}

TEST(H264RtpDepacketizer, OrphanContinuationDropsTheUnitAtItsMarker) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(Packet(1, 90, false, {0x7C, 0x05, 1, 2}), unit));
  EXPECT_EQ(depacketizer.lost_packets(), 1u);
  EXPECT_FALSE(depacketizer.Push(Packet(2, 90, true, {0x41, 3}), unit));
  EXPECT_EQ(depacketizer.dropped_units(), 1u);
  EXPECT_EQ(depacketizer.lost_packets(), 1u);
  // Then it recovers by itself.
  EXPECT_TRUE(depacketizer.Push(Packet(3, 180, true, {0x65, 9}), unit));
  EXPECT_TRUE(unit.keyframe);
}

// A sender that keeps one time stamp and never sets the marker: the unit is dropped at the cap,
// the rest of it is ignored, and the next time stamp starts afresh.
TEST(H264RtpDepacketizer, AUnitThatNeverEndsIsDroppedAtTheCap) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  const Bytes nal = Filled(1200, 0x41);
  const std::size_t packets = H264RtpDepacketizer::kMaxAccessUnitBytes / (nal.size() + 4) + 2;
  std::uint16_t sequence = 1;
  for (std::size_t i = 0; i < packets; ++i) {
    EXPECT_FALSE(depacketizer.Push(Packet(sequence++, 90, false, nal), unit));
  }
  EXPECT_EQ(depacketizer.oversized_units(), 1u);
  EXPECT_FALSE(depacketizer.Push(Packet(sequence++, 90, true, nal), unit)) << "its marker ends nothing";
  EXPECT_EQ(depacketizer.dropped_units(), 1u);
  EXPECT_TRUE(depacketizer.Push(Packet(sequence++, 180, true, {0x65, 7}), unit));
  EXPECT_EQ(unit.rtp_timestamp, 180u);
  EXPECT_EQ(depacketizer.oversized_units(), 1u);
}

TEST(H264RtpDepacketizer, AFragmentRunThatNeverEndsIsDroppedAtTheCap) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  Bytes start = Filled(1200, 0x7C);
  start[1] = 0x85;  // FU-A start of an IDR slice.
  Bytes middle = Filled(1200, 0x7C);
  middle[1] = 0x05;
  std::uint16_t sequence = 1;
  EXPECT_FALSE(depacketizer.Push(Packet(sequence++, 90, false, start), unit));
  const std::size_t packets = H264RtpDepacketizer::kMaxAccessUnitBytes / (middle.size() - 2) + 2;
  for (std::size_t i = 0; i < packets; ++i) {
    EXPECT_FALSE(depacketizer.Push(Packet(sequence++, 90, false, middle), unit));
  }
  EXPECT_EQ(depacketizer.oversized_units(), 1u);
  // The next time stamp ends the dropped unit, and the next unit comes whole.
  EXPECT_TRUE(depacketizer.Push(Packet(sequence++, 180, true, {0x41, 1}), unit));
  EXPECT_EQ(unit.rtp_timestamp, 180u);
  EXPECT_EQ(depacketizer.dropped_units(), 1u);
}

TEST(H264RtpDepacketizer, LostMarkerIsEndedByTheNextTimestamp) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(Packet(1, 90, false, {0x65, 1}), unit));
  EXPECT_TRUE(depacketizer.Push(Packet(2, 180, false, {0x41, 2}), unit));
  EXPECT_EQ(unit.annex_b, Unit({{0x65, 1}}));
  EXPECT_EQ(unit.rtp_timestamp, 90u);
  EXPECT_TRUE(unit.keyframe);
  EXPECT_TRUE(depacketizer.Push(Packet(3, 180, true, {0x41, 3}), unit));
  EXPECT_EQ(unit.annex_b, Unit({{0x41, 2}, {0x41, 3}}));
}

TEST(H264RtpDepacketizer, SecondDeliveryOverwritesTheFirst) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(Packet(1, 90, false, {0x41, 1}), unit));
  EXPECT_TRUE(depacketizer.Push(Packet(2, 180, true, {0x41, 2}), unit));
  EXPECT_EQ(unit.annex_b, Unit({{0x41, 2}}));
  EXPECT_EQ(unit.rtp_timestamp, 180u);
}

TEST(H264RtpDepacketizer, StapAIsUnpacked) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  const Bytes stap = {0x18, 0, 3, 0x67, 1, 2, 0, 2, 0x68, 3};
  EXPECT_FALSE(depacketizer.Push(Packet(1, 90, false, stap), unit));
  EXPECT_TRUE(depacketizer.Push(Packet(2, 90, true, {0x65, 4}), unit));
  EXPECT_EQ(unit.annex_b, Unit({{0x67, 1, 2}, {0x68, 3}, {0x65, 4}}));
  EXPECT_EQ(depacketizer.bad_packets(), 0u);
}

TEST(H264RtpDepacketizer, StapAWithOverrunningSizeCorrupts) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(Packet(1, 90, true, {0x18, 0, 9, 0x67, 1}), unit));
  EXPECT_EQ(depacketizer.bad_packets(), 1u);
  EXPECT_EQ(depacketizer.dropped_units(), 1u);
  EXPECT_FALSE(depacketizer.Push(Packet(2, 180, true, {0x18, 0, 0, 0x67}), unit));
  EXPECT_EQ(depacketizer.bad_packets(), 2u);
}

TEST(H264RtpDepacketizer, UnitWithOnlyParameterSetsIsKey) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_TRUE(depacketizer.Push(Packet(1, 90, true, {0x67, 1}), unit));
  EXPECT_TRUE(unit.keyframe);
}

TEST(H264RtpDepacketizer, UnknownTypesAndEmptyPayloadsAreBad) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  for (const int t : {0, 25, 26, 27, 29, 30, 31}) {
    const auto type = static_cast<std::uint8_t>(t);
    EXPECT_FALSE(depacketizer.Push(Packet(type, 90, true, {type, 1}), unit));
  }
  EXPECT_EQ(depacketizer.bad_packets(), 7u);
  EXPECT_FALSE(depacketizer.Push(Packet(40, 90, true, {}), unit));
  EXPECT_FALSE(depacketizer.Push(Bytes{1, 2, 3}, unit));
  EXPECT_EQ(depacketizer.bad_packets(), 9u);
  EXPECT_FALSE(depacketizer.Push(Packet(41, 90, true, {0x7C}), unit)) << "FU-A of one byte";
  EXPECT_EQ(depacketizer.bad_packets(), 10u);
}

TEST(H264RtpDepacketizer, MarkerInsideAFragmentCorrupts) {
  H264RtpDepacketizer depacketizer;
  H264AccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(Packet(1, 90, true, {0x7C, 0x85, 1}), unit));
  EXPECT_EQ(depacketizer.dropped_units(), 1u);
}

}  // namespace
}  // namespace mirell::media
