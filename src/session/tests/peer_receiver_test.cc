#include "mirell/session/peer_receiver.h"

#include <gtest/gtest.h>

#include "mirell/base/logging.h"
#include "mirell/media/nal.h"
#include "mirell/testsupport/subprocess.h"
#include "recording_link.h"

namespace mirell::session {
namespace {

using media::Bytes;
using testing::RecordingLink;

const Bytes kSps = {0x67, 0x42, 0xC0, 0x1E, 0xDA};
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80};

Bytes AccessUnit(bool keyframe, const Bytes& sps = kSps) {
  Bytes unit;
  if (keyframe) {
    media::AppendNal(unit, sps);
    media::AppendNal(unit, kPps);
  }
  Bytes slice(2500, 0x77);
  slice[0] = keyframe ? 0x65 : 0x41;
  media::AppendNal(unit, slice);
  return unit;
}

class PeerReceiverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetLogLevel(LogLevel::kInfo);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    video_ = frames_.Subscribe(1000, 0);
    audio_sub_ = audio_.Subscribe(1000, -1);
    receiver_.Start();
  }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }

  void SendVideo(std::uint32_t rtp, bool keyframe, const Bytes& sps = kSps) {
    std::vector<Bytes> packets;
    video_packetizer_.Packetize(AccessUnit(keyframe, sps), rtp, packets);
    for (const Bytes& packet : packets) link_.video_handler(packet);
  }
  void SendAudio(std::uint32_t rtp, std::uint8_t fill = 0x11) {
    std::vector<Bytes> packets;
    audio_packetizer_.Packetize(Bytes(200, fill), rtp, packets);
    for (const Bytes& packet : packets) link_.audio_handler(packet);
  }
  std::vector<encode::EncodedFramePtr> Frames() {
    std::vector<encode::EncodedFramePtr> frames;
    while (auto frame = video_->Pop(0)) frames.push_back(frame);
    return frames;
  }
  std::vector<encode::EncodedAudioFramePtr> Units() {
    std::vector<encode::EncodedAudioFramePtr> units;
    while (auto unit = audio_sub_->TryPop()) units.push_back(unit);
    return units;
  }

  testsupport::TempDir dir_;
  RecordingLink link_;
  streams::FrameBus frames_;
  streams::AudioBus audio_;
  std::shared_ptr<streams::FrameBus::Subscription> video_;
  std::shared_ptr<streams::AudioBus::Subscription> audio_sub_;
  PeerReceiver receiver_{&link_, &frames_, &audio_, 48000};
  media::H264RtpPacketizer video_packetizer_{{96, 0x4D524C56, 1200, 0}};
  media::AacRtpPacketizer audio_packetizer_{{97, 0x4D524C41, 1200, 0}};
};

TEST(TimestampUnwrapper, RunsOnAcrossAWrapAndTakesALatePacketBack) {
  TimestampUnwrapper unwrap;
  EXPECT_EQ(unwrap.Next(0xFFFFF448u), 0xFFFFF448);
  EXPECT_EQ(unwrap.Next(0x00000000u), 0x100000000);        // One 3000-tick step on.
  EXPECT_EQ(unwrap.Next(0xFFFFFFF0u), 0xFFFFFFF0);         // Late, from before the wrap.
  EXPECT_EQ(unwrap.Next(0x00000BB8u), 0x100000BB8);        // And right again.
  EXPECT_EQ(unwrap.Next(0x00001770u), 0x100001770);
}

TEST_F(PeerReceiverTest, FirstVideoIsTimeZeroAndTheClockRisesAcrossAWrap) {
  SendVideo(0xFFFFF448u, true);
  SendVideo(0x00000000u, false);
  SendVideo(0x00000BB8u, false);
  auto frames = Frames();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0]->pts_100ns, 0);
  EXPECT_EQ(frames[1]->pts_100ns, 333333);
  EXPECT_EQ(frames[2]->pts_100ns, 666667);
  EXPECT_TRUE(frames[0]->keyframe);
  EXPECT_FALSE(frames[1]->keyframe);
  EXPECT_EQ(frames[0]->data, AccessUnit(true));
  EXPECT_EQ(frames[0]->duration_100ns, 0);
  EXPECT_EQ(receiver_.video_units(), 3u);
  EXPECT_EQ(Log().find("resume offset"), std::string::npos);  // No handler: offset 0.
}

TEST_F(PeerReceiverTest, AudioBeforeTheFirstVideoUnitIsDroppedAndNotCounted) {
  SendAudio(0, 0x01);
  SendAudio(1024, 0x02);
  EXPECT_TRUE(Units().empty());
  EXPECT_EQ(receiver_.audio_units(), 0u);
  EXPECT_EQ(receiver_.audio_units_before_video(), 2u);
  SendVideo(90000, true);  // One second: audio's base is 48000.
  SendAudio(48000 - 1024, 0x03);  // Older than the first frame.
  SendAudio(48000 + 1024, 0x04);
  auto units = Units();
  ASSERT_EQ(units.size(), 1u);
  EXPECT_EQ(units[0]->data, Bytes(200, 0x04));
  EXPECT_EQ(units[0]->pts_100ns, 213333);
  EXPECT_EQ(units[0]->duration_100ns, 213333);
  EXPECT_EQ(receiver_.audio_units(), 1u);
  EXPECT_EQ(receiver_.audio_units_before_video(), 3u);
}

TEST_F(PeerReceiverTest, TheAudioClockCanBeReplaced) {
  receiver_.SetAudioClock(44100);
  SendVideo(0, true);
  SendAudio(44100);
  auto units = Units();
  ASSERT_EQ(units.size(), 1u);
  EXPECT_EQ(units[0]->pts_100ns, 10000000);
  EXPECT_EQ(units[0]->duration_100ns, 232199);  // 1024 samples at 44100 Hz
}

TEST_F(PeerReceiverTest, ParameterSetsReachTheHandlerOnlyWhenTheyChange) {
  std::vector<Bytes> headers;
  PeerReceiver receiver(&link_, &frames_, &audio_, 48000);
  receiver.SetSequenceHeaderHandler([&](PeerReceiver::ByteSpan bytes) { headers.emplace_back(bytes.begin(), bytes.end()); });
  receiver.Start();
  SendVideo(0, true);
  SendVideo(3000, false);
  SendVideo(6000, true);  // The same parameter sets again.
  Bytes other_sps = kSps;
  other_sps.back() = 0x01;
  SendVideo(9000, true, other_sps);
  ASSERT_EQ(headers.size(), 2u);
  Bytes expected;
  media::AppendNal(expected, kSps);
  media::AppendNal(expected, kPps);
  EXPECT_EQ(headers[0], expected);
  EXPECT_EQ(receiver.SequenceHeader(), headers[1]);
  EXPECT_NE(headers[1], expected);
}

TEST_F(PeerReceiverTest, AResumePointAheadOfTheFirstFrameShiftsBothTracks) {
  PeerReceiver receiver(&link_, &frames_, &audio_, 48000);
  receiver.SetFirstVideoHandler([] { return std::int64_t{40'000'000}; });
  receiver.Start();
  SendVideo(0, true);
  SendVideo(3000, false);
  SendAudio(1024);
  auto frames = Frames();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0]->pts_100ns, 40'000'000);
  EXPECT_EQ(frames[1]->pts_100ns, 40'333'333);
  auto units = Units();
  ASSERT_EQ(units.size(), 1u);
  EXPECT_EQ(units[0]->pts_100ns, 40'213'333);
  EXPECT_NE(Log().find("resume offset=4000ms"), std::string::npos) << Log();
}

TEST_F(PeerReceiverTest, AResumePointOfZeroOrNotAheadLeavesTheTimelineAlone) {
  for (std::int64_t resume : {std::int64_t{0}, std::int64_t{-5}}) {
    streams::FrameBus frames;
    auto subscription = frames.Subscribe(100, 0);
    PeerReceiver receiver(&link_, &frames, &audio_, 48000);
    int calls = 0;
    receiver.SetFirstVideoHandler([&] {
      ++calls;
      return resume;
    });
    receiver.Start();
    SendVideo(0, true);
    SendVideo(3000, false);
    auto first = subscription->Pop(0);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->pts_100ns, 0);
    EXPECT_EQ(subscription->Pop(0)->pts_100ns, 333333);
    EXPECT_EQ(calls, 1);
  }
  EXPECT_EQ(Log().find("resume offset"), std::string::npos);
}

TEST_F(PeerReceiverTest, APacketThatMakesNoUnitDoesNothing) {
  link_.video_handler(Bytes{1, 2, 3});
  link_.audio_handler(Bytes{0x80, 97, 0, 1});
  EXPECT_TRUE(Frames().empty());
  EXPECT_TRUE(Units().empty());
  EXPECT_EQ(receiver_.video_units(), 0u);
}

}  // namespace
}  // namespace mirell::session
