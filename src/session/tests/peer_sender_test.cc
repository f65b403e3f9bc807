#include "mirell/session/peer_sender.h"

#include <gtest/gtest.h>

#include "mirell/testsupport/eventually.h"

#include <chrono>
#include <thread>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/media/rtp.h"
#include "mirell/testsupport/subprocess.h"
#include "recording_link.h"

namespace mirell::session {
namespace {

using testing::RecordingLink;

constexpr std::int64_t kBase = 123'456'789;  // Bus time of the viewer's first frame, 100 ns.

encode::EncodedFramePtr Frame(std::int64_t pts, bool keyframe, std::size_t size = 3000) {
  auto frame = std::make_shared<encode::EncodedFrame>();
  frame->data = {0, 0, 0, 1, static_cast<std::uint8_t>(keyframe ? 0x65 : 0x41)};
  frame->data.resize(size, 0x5A);
  frame->pts_100ns = pts;
  frame->keyframe = keyframe;
  return frame;
}

encode::EncodedAudioFramePtr Unit(std::int64_t pts, std::uint8_t fill = 0x21) {
  auto unit = std::make_shared<encode::EncodedAudioFrame>();
  unit->data.assign(300, fill);
  unit->pts_100ns = pts;
  unit->duration_100ns = 213333;
  return unit;
}

std::vector<media::RtpPacketView> Parse(const std::vector<RecordingLink::Bytes>& packets) {
  std::vector<media::RtpPacketView> views;
  for (const auto& packet : packets) {
    media::RtpPacketView view;
    EXPECT_TRUE(media::ParseRtpPacket(packet, view));
    views.push_back(view);
  }
  return views;
}

using testsupport::Eventually;

class PeerSenderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetLogLevel(LogLevel::kInfo);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
  }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }
  // Starts the sender and waits until it reads the buses.
  void StartAndWait(PeerSender& sender, bool with_audio = true) {
    sender.Start();
    ASSERT_TRUE(Eventually([&] {
      return frames_.SubscriberCount() == 1 && (!with_audio || audio_.SubscriberCount() == 1);
    }));
  }

  testsupport::TempDir dir_;
  RecordingLink link_;
  streams::FrameBus frames_;
  streams::AudioBus audio_;
};

TEST(PeerSenderClock, VideoAndAudioArithmetic) {
  EXPECT_EQ(PeerSender::VideoRtpTime(kBase, kBase), 0);
  EXPECT_EQ(PeerSender::VideoRtpTime(kBase + 333333, kBase), 3000);
  EXPECT_EQ(PeerSender::VideoRtpTime(kBase + 666667, kBase), 6000);
  EXPECT_EQ(PeerSender::VideoRtpTime(kBase - 333333, kBase), -3000);
  EXPECT_EQ(PeerSender::AudioRtpTime(kBase + 213333, kBase, 48000), 1024);
  EXPECT_EQ(PeerSender::AudioRtpTime(kBase + 10000000, kBase, 44100), 44100);
}

TEST_F(PeerSenderTest, ALateJoinersFirstFrameIsRtpTimeZeroAndFramesFollowOnTheClock) {
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  StartAndWait(sender);
  frames_.Publish(Frame(kBase - 333333, false));  // Not a keyframe: the subscription skips it.
  EXPECT_EQ(sender.first_picture_at(), 0) << "nothing has gone out";
  const std::int64_t before = SteadyNowNs();
  frames_.Publish(Frame(kBase, true));
  frames_.Publish(Frame(kBase + 333333, false));
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 2; }));
  sender.Stop();
  EXPECT_GE(sender.first_picture_at(), before);
  EXPECT_LE(sender.first_picture_at(), SteadyNowNs());
  const auto sent = link_.video();
  auto packets = Parse(sent);
  ASSERT_GE(packets.size(), 2u);
  EXPECT_EQ(packets.front().timestamp, 0u);
  EXPECT_EQ(packets.back().timestamp, 3000u);
  EXPECT_TRUE(packets.back().marker);
  for (const auto& packet : packets) {
    EXPECT_EQ(packet.ssrc, transport::kVideoSsrc);
    EXPECT_EQ(packet.payload_type, 96);
  }
  for (const auto& packet : link_.video()) EXPECT_LE(packet.size(), transport::kMaxRtpPacketSize);
  std::uint64_t bytes = 0;
  for (const auto& packet : link_.video()) bytes += packet.size();
  EXPECT_EQ(sender.bytes_sent(), bytes);
  std::string log = Log();
  // 2995 bytes of NAL behind its header, 1186 to an FU-A packet: three packets.
  EXPECT_NE(log.find("first frame packets=3\n"), std::string::npos) << log;
  EXPECT_NE(log.find("frames=2 au=0 bytes=0.0MiB"), std::string::npos) << log;
}

TEST_F(PeerSenderTest, AudioWaitsForTheFirstFrameAndOlderUnitsAreDiscarded) {
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  StartAndWait(sender);
  audio_.Publish(Unit(kBase - 200000, 0x01));  // Before the base: never sent.
  audio_.Publish(Unit(kBase + 213333, 0x02));  // 1024 samples after it.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(link_.audio().empty());  // Queued until the first frame.
  frames_.Publish(Frame(kBase, true));
  frames_.Publish(Frame(kBase + 333333, false));  // A second round sends the queued audio.
  ASSERT_TRUE(Eventually([&] { return sender.units_sent() == 1 && sender.frames_sent() == 2; }));
  frames_.Publish(Frame(kBase + 666666, false));
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 3; }));
  sender.Stop();
  const auto sent = link_.audio();  // Parsed views point into it.
  auto packets = Parse(sent);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].timestamp, 1024u);
  EXPECT_EQ(packets[0].ssrc, transport::kAudioSsrc);
  EXPECT_EQ(packets[0].payload_type, 97);
  EXPECT_EQ(packets[0].payload.back(), 0x02);
  EXPECT_EQ(sender.units_sent(), 1u);
}

TEST_F(PeerSenderTest, AudioBeyondThirtyTwoUnitsBeforeTheFirstFrameIsDroppedByTheBus) {
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  StartAndWait(sender);
  for (int i = 0; i < 40; ++i) audio_.Publish(Unit(kBase + i * 213333));
  frames_.Publish(Frame(kBase, true));
  frames_.Publish(Frame(kBase + 333333, false));
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 2 && sender.units_sent() == 32; }));
  sender.Stop();
  const auto sent = link_.audio();
  auto packets = Parse(sent);
  ASSERT_EQ(packets.size(), 32u);
  EXPECT_EQ(packets.front().timestamp, 8u * 1024u);  // The oldest eight went.
}

TEST_F(PeerSenderTest, WithoutAnAudioBusOnlyVideoRuns) {
  PeerSender sender(&link_, &frames_, nullptr, 48000);
  StartAndWait(sender, false);
  audio_.Publish(Unit(kBase));
  frames_.Publish(Frame(kBase, true));
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 1; }));
  sender.Stop();
  EXPECT_EQ(audio_.SubscriberCount(), 0u);
  EXPECT_TRUE(link_.audio().empty());
  EXPECT_EQ(sender.units_sent(), 0u);
  EXPECT_EQ(frames_.SubscriberCount(), 0u);  // Unsubscribed on the way out.
}

TEST_F(PeerSenderTest, AFrameWhosePacketsAreAllRefusedStillCounts) {
  link_.accept = false;
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  StartAndWait(sender);
  frames_.Publish(Frame(kBase, true));
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 1; }));
  EXPECT_EQ(sender.first_picture_at(), 0) << "a refused frame is no picture for the viewer";
  EXPECT_EQ(Log().find("first frame packets="), std::string::npos);
  link_.accept = true;
  frames_.Publish(Frame(kBase + 333333, false));
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 2; }));
  sender.Stop();
  std::string log = Log();
  EXPECT_NE(log.find("video track closed, refused=1"), std::string::npos) << log;
  // The first frame that went out is the viewer's first picture.
  EXPECT_NE(sender.first_picture_at(), 0);
  EXPECT_NE(log.find("first frame packets="), std::string::npos) << log;
  const auto sent = link_.video();
  EXPECT_EQ(Parse(sent).front().timestamp, 3000u);
}

TEST_F(PeerSenderTest, RefusalsAreLoggedAtOneThirtyAndEveryThreeHundred) {
  link_.accept = false;
  PeerSender sender(&link_, &frames_, nullptr, 48000);
  StartAndWait(sender, false);
  for (int i = 0; i < 600; ++i) {
    frames_.Publish(Frame(kBase + i * 333333, i == 0, 100));
    if (i % 4 == 3) {
      ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == static_cast<std::uint64_t>(i + 1); }));
    }
  }
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 600; }));
  sender.Stop();
  std::string log = Log();
  std::size_t lines = 0;
  for (std::size_t at = log.find("video track closed"); at != std::string::npos;
       at = log.find("video track closed", at + 1)) {
    ++lines;
  }
  EXPECT_EQ(lines, 4u) << log;  // 1, 30, 300, 600
  EXPECT_NE(log.find("refused=600"), std::string::npos);
}

TEST_F(PeerSenderTest, StopTwiceIsHarmlessAndLogsTheTotalsOnce) {
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  StartAndWait(sender);
  sender.Stop();
  sender.Stop();
  EXPECT_EQ(Log().find("frames=0 au=0"), Log().rfind("frames=0 au=0"));
  EXPECT_EQ(frames_.SubscriberCount(), 0u);
}

// A link may report "connected" (and start the sender) after the viewer was already dropped.
TEST_F(PeerSenderTest, AStartAfterStopStartsNothing) {
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  sender.Stop();
  EXPECT_FALSE(sender.Start());
  EXPECT_FALSE(sender.finished());
  EXPECT_EQ(frames_.SubscriberCount(), 0u);
}

// Start on a link's thread racing Stop on the interface thread, then the destructor: a thread
// left joinable there would end the process.
TEST_F(PeerSenderTest, StartRacingStopNeverLeavesAThreadBehind) {
  for (int round = 0; round < 200; ++round) {
    PeerSender sender(&link_, &frames_, &audio_, 48000);
    std::thread starter([&] { sender.Start(); });
    sender.Stop();
    starter.join();
  }
  EXPECT_EQ(frames_.SubscriberCount(), 0u);
}

// After a revoke or the end of a share, a sender's subscription is closed: Pop returns at once,
// and a loop that went on waiting on it spun a core.
TEST_F(PeerSenderTest, ASenderWhoseReadersWereEndedFinishesByItself) {
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  StartAndWait(sender);
  frames_.Publish(Frame(kBase, true));
  ASSERT_TRUE(Eventually([&] { return sender.frames_sent() == 1; }));
  frames_.EndReaders();
  audio_.EndReaders();
  EXPECT_TRUE(Eventually([&] { return sender.finished(); }));
  sender.Stop();
  EXPECT_EQ(sender.frames_sent(), 1u);
}

TEST_F(PeerSenderTest, ASenderStartedOnAClosedStreamFinishesAtOnce) {
  frames_.Close();
  audio_.Close();
  PeerSender sender(&link_, &frames_, &audio_, 48000);
  EXPECT_TRUE(sender.Start());
  EXPECT_TRUE(Eventually([&] { return sender.finished(); }));
}

}  // namespace
}  // namespace mirell::session
