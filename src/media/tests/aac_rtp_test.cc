#include "mirell/media/aac_rtp.h"

#include <gtest/gtest.h>

#include "mirell/base/error.h"
#include "rtp_test_util.h"

namespace mirell::media {
namespace {

using testing::Filled;

AacRtpPacketizerConfig Config(std::size_t max_payload_size) { return {97, 0x0A0B0C0D, max_payload_size, 500}; }

std::string CheckText(const std::function<void()>& action) {
  try {
    action();
  } catch (const Error& error) {
    const std::string what = error.what();
    return what.substr(what.find("check failed: "));
  }
  return "no throw";
}

TEST(AacRtpPacketizer, PayloadSize16FailsAnd17CarriesOneByte) {
  EXPECT_EQ(CheckText([] { AacRtpPacketizer p(Config(16)); }),
            "check failed: config_.max_payload_size > kRtpHeaderSize + kAuHeaderSectionBytes - "
            "max_payload_size 16 leaves no room for an AAC payload");
  AacRtpPacketizer packetizer(Config(17));
  std::vector<Bytes> packets;
  packetizer.Packetize(Bytes{1, 2, 3}, 0, packets);
  ASSERT_EQ(packets.size(), 3u);
  for (const auto& packet : packets) EXPECT_EQ(packet.size(), 17u);
}

TEST(AacRtpPacketizer, SizeLimitIs8191) {
  AacRtpPacketizer packetizer(Config(1200));
  std::vector<Bytes> packets;
  packetizer.Packetize(Filled(8191, 0x21), 0, packets);
  EXPECT_EQ(packets.size(), 7u);
  EXPECT_EQ(CheckText([&] { packetizer.Packetize(Filled(8192, 0x21), 0, packets); }),
            "check failed: access_unit.size() <= kMaxAuSize - AAC access unit of 8192 bytes does not "
            "fit a 13-bit size field");
  // The empty test comes first even for a packetizer that would refuse everything else.
  packetizer.Packetize(Bytes{}, 0, packets);
  EXPECT_EQ(packets.size(), 7u);
}

TEST(AacRtpPacketizer, OnePacketAt1184AndTwoAt1185) {
  AacRtpPacketizer packetizer(Config(1200));
  std::vector<Bytes> packets;
  packetizer.Packetize(Filled(1184, 0x21), 48000, packets);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].size(), 1200u);
  EXPECT_TRUE(packets[0][1] & 0x80);
  EXPECT_EQ(Bytes(packets[0].begin() + 12, packets[0].begin() + 16),
            (Bytes{0x00, 0x10, static_cast<std::uint8_t>((1184 << 3) >> 8), static_cast<std::uint8_t>(1184 << 3)}));

  packets.clear();
  packetizer.Packetize(Filled(1185, 0x21), 49024, packets);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_FALSE(packets[0][1] & 0x80);
  EXPECT_TRUE(packets[1][1] & 0x80);
  for (const auto& packet : packets) {
    const unsigned au_size = static_cast<unsigned>(packet[14] << 8 | packet[15]) >> 3;
    EXPECT_EQ(au_size, 1185u);
    RtpPacketView view;
    ASSERT_TRUE(ParseRtpPacket(packet, view));
    EXPECT_EQ(view.timestamp, 49024u);
    EXPECT_EQ(view.payload_type, 97);
  }
  EXPECT_EQ(packets[1].size(), 16u + 1u);
  EXPECT_EQ(packetizer.next_sequence(), 503);
}

TEST(AudioSpecificConfig, KnownValues) {
  EXPECT_EQ(MakeAacLcAudioSpecificConfig(48000, 2), (Bytes{0x11, 0x90}));
  EXPECT_EQ(MakeAacLcAudioSpecificConfig(44100, 1), (Bytes{0x12, 0x08}));
}

TEST(AudioSpecificConfig, RefusesOddRatesAndChannels) {
  EXPECT_EQ(CheckText([] { MakeAacLcAudioSpecificConfig(47999, 2); }),
            "check failed: frequency_index >= 0 - 47999 Hz is not an MPEG-4 sampling frequency");
  EXPECT_EQ(CheckText([] { MakeAacLcAudioSpecificConfig(48000, 0); }),
            "check failed: channels >= 1 && channels <= 2 - 0 channels is outside what we encode");
  EXPECT_EQ(CheckText([] { MakeAacLcAudioSpecificConfig(48000, 3); }),
            "check failed: channels >= 1 && channels <= 2 - 3 channels is outside what we encode");
}

TEST(Hex, EncodeAndDecode) {
  EXPECT_EQ(HexEncode(Bytes{0x11, 0x90, 0xAB, 0x0F}), "1190ab0f");
  EXPECT_EQ(HexDecode("1190ab0f"), (Bytes{0x11, 0x90, 0xAB, 0x0F}));
  EXPECT_EQ(HexDecode("1190AB0F"), HexDecode("1190ab0f"));
  EXPECT_TRUE(HexDecode("119").empty());
  EXPECT_TRUE(HexDecode("11g0").empty());
  EXPECT_TRUE(HexDecode("").empty());
  EXPECT_EQ(HexEncode(Bytes{}), "");
}

TEST(AacRtpDepacketizer, PayloadOfFourBytesIsTooShort) {
  AacRtpDepacketizer depacketizer;
  AacAccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(testing::Packet(1, 0, true, {0, 0x10, 0, 0x08}, 97), unit));
  EXPECT_EQ(depacketizer.bad_packets(), 1u);
  EXPECT_TRUE(depacketizer.Push(testing::Packet(2, 0, true, {0, 0x10, 0, 0x08, 0x77}, 97), unit));
  EXPECT_EQ(unit.bytes, (Bytes{0x77}));
}

TEST(AacRtpDepacketizer, RefusesGroupedUnitsAndZeroSize) {
  AacRtpDepacketizer depacketizer;
  AacAccessUnit unit;
  EXPECT_FALSE(depacketizer.Push(testing::Packet(1, 0, true, {0, 0x20, 0, 0x08, 0, 0x08, 1, 2}, 97), unit));
  EXPECT_FALSE(depacketizer.Push(testing::Packet(2, 0, true, {0, 0x10, 0, 0x07, 1}, 97), unit));
  EXPECT_EQ(depacketizer.bad_packets(), 2u);
}

TEST(AacRtpDepacketizer, BytesBeyondSizeAreIgnored) {
  AacRtpDepacketizer depacketizer;
  AacAccessUnit unit;
  EXPECT_TRUE(depacketizer.Push(testing::Packet(1, 7, true, {0, 0x10, 0, 0x10, 1, 2, 3}, 97), unit));
  EXPECT_EQ(unit.bytes, (Bytes{1, 2}));
  EXPECT_EQ(unit.rtp_timestamp, 7u);
}

TEST(AacRoundTrip, FragmentedUnitsComeBackWhole) {
  AacRtpPacketizer packetizer(Config(200));
  AacRtpDepacketizer depacketizer;
  std::vector<Bytes> packets;
  const Bytes first = Filled(500, 0x21, 0x11);
  const Bytes second = Filled(300, 0x21, 0x22);
  packetizer.Packetize(first, 1024, packets);
  packetizer.Packetize(second, 2048, packets);
  std::vector<AacAccessUnit> units;
  for (const auto& packet : packets) {
    AacAccessUnit unit;
    if (depacketizer.Push(packet, unit)) units.push_back(unit);
  }
  ASSERT_EQ(units.size(), 2u);
  EXPECT_EQ(units[0].bytes, first);
  EXPECT_EQ(units[0].rtp_timestamp, 1024u);
  EXPECT_EQ(units[1].bytes, second);
  EXPECT_EQ(units[1].rtp_timestamp, 2048u);
}

TEST(AacRtpDepacketizer, LostMiddleFragmentDropsThatUnitOnly) {
  AacRtpPacketizer packetizer(Config(200));
  AacRtpDepacketizer depacketizer;
  std::vector<Bytes> packets;
  packetizer.Packetize(Filled(500, 0x21, 0x11), 1024, packets);  // Three fragments.
  const std::size_t second_unit = packets.size();
  const Bytes next = Filled(400, 0x21, 0x22);
  packetizer.Packetize(next, 2048, packets);
  std::vector<AacAccessUnit> units;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    if (i == 1) continue;  // The middle fragment of the first unit.
    AacAccessUnit unit;
    if (depacketizer.Push(packets[i], unit)) units.push_back(unit);
  }
  ASSERT_EQ(units.size(), 1u);
  EXPECT_EQ(units[0].bytes, next);
  EXPECT_EQ(depacketizer.lost_packets(), 1u);
  EXPECT_GE(depacketizer.abandoned_units(), 1u);
  EXPECT_GT(second_unit, 2u);
}

TEST(AacRtpDepacketizer, DuplicateAndLateAreBad) {
  AacRtpDepacketizer depacketizer;
  AacAccessUnit unit;
  const Bytes packet = testing::Packet(5, 0, true, {0, 0x10, 0, 0x08, 1}, 97);
  EXPECT_TRUE(depacketizer.Push(packet, unit));
  EXPECT_FALSE(depacketizer.Push(packet, unit));
  EXPECT_FALSE(depacketizer.Push(testing::Packet(4, 0, true, {0, 0x10, 0, 0x08, 1}, 97), unit));
  EXPECT_EQ(depacketizer.bad_packets(), 2u);
}

}  // namespace
}  // namespace mirell::media
