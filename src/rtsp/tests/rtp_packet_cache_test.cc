// Packets made once per unit and remembered; each player's header written over them.
#include "rtp_packet_cache.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "mirell/media/rtp.h"

namespace mirell::rtsp {
namespace {

encode::EncodedFramePtr Frame(std::size_t size) {
  auto frame = std::make_shared<encode::EncodedFrame>();
  frame->data = {0, 0, 0, 1, 0x65};
  frame->data.resize(size, 0x33);
  frame->keyframe = true;
  return frame;
}

TEST(RtpPacketCache, AUnitIsPacketizedOnceWhileRemembered) {
  RtpPacketCache cache(2, 1u << 20, 1200);
  const auto first = Frame(3000);
  const auto packets = cache.Video(first);
  ASSERT_EQ(packets->size(), 3u) << "3000 bytes in FU-A fragments of at most 1200";
  EXPECT_EQ(cache.Video(first), packets);
  EXPECT_EQ(cache.packetized_units(), 1u);
  media::RtpPacketView last;
  ASSERT_TRUE(media::ParseRtpPacket(packets->back(), last));
  EXPECT_TRUE(last.marker);
  EXPECT_EQ(last.payload_type, 96);

  auto unit = std::make_shared<encode::EncodedAudioFrame>();
  unit->data.assign(200, 0x21);
  const auto audio = cache.Audio(unit);
  ASSERT_EQ(audio->size(), 1u);
  EXPECT_EQ(cache.Audio(unit), audio);
  EXPECT_EQ(cache.packetized_units(), 2u);

  // A third unit pushes the oldest out: asked for again, it is packetized again, the same way.
  cache.Video(Frame(100));
  const auto again = cache.Video(first);
  EXPECT_NE(again, packets);
  ASSERT_EQ(again->size(), packets->size());
  for (std::size_t i = 0; i < packets->size(); ++i) {
    // The same packets but for the placeholder sequence numbers, which nobody sends.
    EXPECT_EQ((*again)[i][1], (*packets)[i][1]);
    EXPECT_TRUE(std::equal((*again)[i].begin() + 4, (*again)[i].end(), (*packets)[i].begin() + 4,
                           (*packets)[i].end()));
  }
  EXPECT_EQ(cache.packetized_units(), 4u);
}

TEST(RtpPacketCache, WhatItHoldsIsBoundedInBytesToo) {
  RtpPacketCache cache(100, 10'000, 1200);
  const auto big = Frame(4000);
  cache.Video(big);
  cache.Video(Frame(4000));
  EXPECT_LE(cache.remembered_bytes(), 10'000u);
  cache.Video(Frame(4000));  // The oldest goes to make room.
  EXPECT_LE(cache.remembered_bytes(), 10'000u);
  cache.Video(big);
  EXPECT_EQ(cache.packetized_units(), 4u) << "the first was forgotten";
  cache.Video(Frame(20'000));  // Beyond the whole allowance: packetized, never remembered.
  EXPECT_LE(cache.remembered_bytes(), 10'000u);
  EXPECT_GT(cache.remembered_bytes(), 0u);
}

TEST(RtpPacketCache, APlayersHeaderKeepsMarkerAndPayloadTypeAndSetsItsOwnFields) {
  RtpPacketCache cache(4, 1u << 20, 1200);
  const auto packets = cache.Video(Frame(500));
  std::vector<std::uint8_t> packet = packets->front();
  WriteRtpHeader(packets->front(), 0xFFFF, 0x01020304, 0xA0B0C0D0, packet.data());
  media::RtpPacketView view;
  ASSERT_TRUE(media::ParseRtpPacket(packet, view));
  EXPECT_EQ(view.sequence_number, 0xFFFF);
  EXPECT_EQ(view.timestamp, 0x01020304u);
  EXPECT_EQ(view.ssrc, 0xA0B0C0D0u);
  EXPECT_TRUE(view.marker);
  EXPECT_EQ(view.payload_type, 96);
  EXPECT_EQ(view.payload.size(), 500u - 4u) << "the NAL unit without its start code";
}

}  // namespace
}  // namespace mirell::rtsp
