// A real H.264 and AAC stream from a host's buses through the peer sender, two real peer links,
// and the peer receiver onto a viewer's buses: in one process, and with the viewer in a process
// of its own.
#include <gtest/gtest.h>

#include "mirell/testsupport/eventually.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/session/peer_receiver.h"
#include "mirell/session/peer_sender.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/subprocess.h"
#include "peer_link_harness.h"
#include "peer_link_testing.h"
#include "peer_media_fixture.h"

namespace mirell::session {
namespace {

using std::chrono::milliseconds;
using testing::Bytes;
using testing::PeerMediaFixture;

constexpr int kFrames = 90;
constexpr std::int64_t kStart = 70'000'000;  // The share's bus time at the first frame: 7 s.
// The tracks run on threads of their own on the viewer's side, so an audio unit sent after the
// first frame (a keyframe of several packets) may still be rebuilt first; audio before the first
// video unit has no timeline yet and is dropped. Such units are only ever the first few.
constexpr std::size_t kMayOvertake = 3;

transport::PeerConfig HostOnly() { return transport::PeerConfig{{}, 1}; }

// What the viewer should see of video frame i and audio unit j, with the viewer's offset.
std::int64_t ExpectedVideoTime(std::size_t i, std::int64_t offset) {
  const std::int64_t rtp = PeerSender::VideoRtpTime(testing::VideoTime(kStart, i), kStart);
  return (rtp * 1000 + 4) / 9 + offset;
}
std::int64_t ExpectedAudioTime(std::size_t j, std::int64_t offset) {
  const std::int64_t rtp = PeerSender::AudioRtpTime(testing::AudioTime(kStart, j), kStart, 48000);
  return rtp * 10000000 / 48000 + offset;
}
// Audio units the host publishes at or after the first frame: from the fifth to the last one
// before the last frame.
std::size_t ExpectedAudioUnits(const PeerMediaFixture& fixture) {
  std::size_t count = 0;
  for (std::size_t j = 4; j < fixture.audio.size(); ++j) {
    if (testing::AudioTime(kStart, j) < testing::VideoTime(kStart, fixture.video.size() - 1)) ++count;
  }
  return count;
}


class PeerMediaTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fixture_dir_ = new testsupport::TempDir();
    fixture_ = new PeerMediaFixture(fixture_dir_->path(), kFrames);
  }
  static void TearDownTestSuite() {
    delete fixture_;
    delete fixture_dir_;
  }
  void SetUp() override {
    SetLogLevel(LogLevel::kInfo);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    ASSERT_EQ(fixture_->video.size(), static_cast<std::size_t>(kFrames));
    ASSERT_TRUE(fixture_->keyframes.front());
  }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }

  // The fixture, decoded by ffmpeg, as the reference for what the viewer decodes.
  std::vector<std::string> ReferenceHashes() {
    Bytes all;
    for (const Bytes& unit : fixture_->video) all.insert(all.end(), unit.begin(), unit.end());
    std::ofstream(dir_.path() / "sent.h264", std::ios::binary)
        .write(reinterpret_cast<const char*>(all.data()), static_cast<std::streamsize>(all.size()));
    return testing::DecodedFrameHashes(dir_.path() / "sent.h264");
  }

  // Host side in this process: sender on the offerer, publishing the fixture in real time.
  void SendThrough(transport::PeerLink& host, bool with_audio) {
    streams::FrameBus frames;
    streams::AudioBus audio;
    PeerSender sender(&host, &frames, with_audio ? &audio : nullptr, 48000);
    sender.Start();
    ASSERT_TRUE(testsupport::Eventually([&] {
      return frames.SubscriberCount() == 1 && (!with_audio || audio.SubscriberCount() == 1);
    }, milliseconds(2000)));
    testing::PublishInRealTime(*fixture_, kStart, frames, with_audio ? &audio : nullptr);
    // The last units leave within one round of the sender.
    std::this_thread::sleep_for(milliseconds(300));
    sender.Stop();
    EXPECT_EQ(sender.frames_sent(), static_cast<std::uint64_t>(kFrames));
    if (with_audio) {
      EXPECT_EQ(sender.units_sent(), ExpectedAudioUnits(*fixture_));
    }
  }

  // `loss_every`: the host's link drops every n-th first transmission of a video packet.
  void RunInOneProcess(bool with_audio, std::int64_t resume, std::int64_t expected_offset,
                       unsigned loss_every = 0) {
    transport::OfferMedia media;
    media.has_audio = with_audio;
    transport::SetOutgoingVideoLoss(loss_every);
    transport::testing::LinkPair pair(HostOnly(), HostOnly(), media);
    transport::SetOutgoingVideoLoss(0);
    streams::FrameBus frames;
    streams::AudioBus audio;
    auto video_reader = frames.Subscribe(1000, 0);
    auto audio_reader = audio.Subscribe(1000, -1);
    PeerReceiver receiver(pair.viewer.get(), &frames, &audio, 48000);
    if (resume != 0) receiver.SetFirstVideoHandler([resume] { return resume; });
    receiver.Start();
    ASSERT_TRUE(pair.Connect()) << Log();

    SendThrough(*pair.host, with_audio);
    ASSERT_TRUE(testsupport::Eventually([&] { return receiver.video_units() == kFrames; }, milliseconds(5000)))
        << receiver.video_units();
    pair.viewer->Close();
    pair.host->Close();

    Bytes received_stream;
    for (std::size_t i = 0; i < kFrames; ++i) {
      encode::EncodedFramePtr frame = video_reader->Pop(0);
      ASSERT_TRUE(frame) << i;
      EXPECT_EQ(testing::NalUnits(frame->data), testing::NalUnits(fixture_->video[i])) << i;
      EXPECT_EQ(frame->keyframe, fixture_->keyframes[i]) << i;
      EXPECT_EQ(frame->pts_100ns, ExpectedVideoTime(i, expected_offset)) << i;
      received_stream.insert(received_stream.end(), frame->data.begin(), frame->data.end());
    }
    EXPECT_FALSE(video_reader->Pop(0));
    std::ofstream(dir_.path() / "received.h264", std::ios::binary)
        .write(reinterpret_cast<const char*>(received_stream.data()),
               static_cast<std::streamsize>(received_stream.size()));
    std::vector<std::string> decoded = testing::DecodedFrameHashes(dir_.path() / "received.h264");
    EXPECT_EQ(decoded.size(), static_cast<std::size_t>(kFrames));
    EXPECT_EQ(decoded, ReferenceHashes());

    if (!with_audio) {
      EXPECT_FALSE(audio_reader->TryPop());
      EXPECT_EQ(receiver.audio_units(), 0u);
      return;
    }
    const std::size_t expected_units = ExpectedAudioUnits(*fixture_);
    std::vector<encode::EncodedAudioFramePtr> units;
    while (auto unit = audio_reader->TryPop()) units.push_back(unit);
    EXPECT_EQ(receiver.audio_units(), units.size());
    ASSERT_LE(units.size(), expected_units);
    const std::size_t overtaken = expected_units - units.size();
    EXPECT_EQ(receiver.audio_units_before_video(), overtaken);  // No unit lost for another reason.
    if (!testsupport::kSanitizedBuild) {
      EXPECT_LE(overtaken, kMayOvertake);
    }
    for (std::size_t k = 0; k < units.size(); ++k) {
      const std::size_t j = 4 + overtaken + k;
      EXPECT_EQ(units[k]->data, fixture_->audio[j]) << j;
      EXPECT_EQ(units[k]->pts_100ns, ExpectedAudioTime(j, expected_offset)) << j;
      EXPECT_EQ(units[k]->duration_100ns, 213333);
    }
  }

  testsupport::TempDir dir_;
  static testsupport::TempDir* fixture_dir_;
  static PeerMediaFixture* fixture_;
};

testsupport::TempDir* PeerMediaTest::fixture_dir_ = nullptr;
PeerMediaFixture* PeerMediaTest::fixture_ = nullptr;

TEST_F(PeerMediaTest, VideoAndAudioArriveIntactDecodableAndOnTheViewersTimeline) {
  RunInOneProcess(true, 0, 0);
  EXPECT_NE(Log().find("first frame packets="), std::string::npos);
}

TEST_F(PeerMediaTest, VideoAloneArrivesIntact) { RunInOneProcess(false, 0, 0); }

TEST_F(PeerMediaTest, FivePercentOfVideoPacketsLostAreAllRecoveredAndNoUnitIsDropped) {
  const std::uint64_t dropped_before = transport::OutgoingVideoDropped();
  RunInOneProcess(true, 0, 0, 20);
  const std::uint64_t dropped = transport::OutgoingVideoDropped() - dropped_before;
  std::printf("%llu video packets dropped on the way\n", static_cast<unsigned long long>(dropped));
  EXPECT_GE(dropped, 5u);  // 5 % of the fixture's 200-odd video packets
}

TEST_F(PeerMediaTest, TheResumePointCarriesOnTheHoldingClipsTimeline) {
  RunInOneProcess(true, 43'000'000, 43'000'000);
  EXPECT_NE(Log().find("resume offset=4300ms"), std::string::npos);
}

TEST_F(PeerMediaTest, AViewerInAProcessOfItsOwnGetsEveryUnit) {
  auto host = transport::CreateOfferer(HostOnly(), transport::OfferMedia{});
  transport::testing::LinkObserver seen(*host);
  auto offer = seen.WaitForDescription(milliseconds(10000));
  ASSERT_TRUE(offer);
  std::ofstream(dir_.path() / "offer", std::ios::binary) << *offer;
  std::filesystem::create_directories(dir_.path() / "out");
  testsupport::ChildProcess viewer({MIRELL_PEER_VIEWER, (dir_.path() / "offer").string(),
                                    (dir_.path() / "answer").string(),
                                    (dir_.path() / "out").string()});
  ASSERT_TRUE(testsupport::Eventually([&] { return std::filesystem::exists(dir_.path() / "answer"); }, milliseconds(10000)));
  host->SetRemoteDescription(testsupport::ReadFileText(dir_.path() / "answer"));
  ASSERT_TRUE(seen.WaitForState(transport::PeerState::kConnected, milliseconds(10000))) << Log();

  SendThrough(*host, true);
  const std::size_t expected_units = ExpectedAudioUnits(*fixture_);
  std::vector<std::string> video_lines;
  std::vector<std::string> audio_lines;
  auto read_lines = [&] {
    video_lines.clear();
    audio_lines.clear();
    std::istringstream text(testsupport::ReadFileText(dir_.path() / "out" / "units.txt"));
    for (std::string line; std::getline(text, line);) {
      (line.starts_with("v ") ? video_lines : audio_lines).push_back(line);
    }
    return video_lines.size() == kFrames && audio_lines.size() == expected_units;
  };
  auto before_video = [&]() -> std::size_t {
    std::string text = testsupport::ReadFileText(dir_.path() / "out" / "before_video.txt");
    return text.empty() ? 0 : std::stoul(text);
  };
  // Every frame; and every audio unit but those that overtook the first frame.
  auto nearly_all = [&] {
    read_lines();
    return video_lines.size() == kFrames && audio_lines.size() + before_video() >= expected_units;
  };
  ASSERT_TRUE(testsupport::Eventually(nearly_all, milliseconds(5000)))
      << video_lines.size() << " frames, " << audio_lines.size() << " units of " << expected_units;
  std::this_thread::sleep_for(milliseconds(300));  // Anything still on its way.
  read_lines();
  ASSERT_EQ(video_lines.size(), static_cast<std::size_t>(kFrames));
  for (std::size_t i = 0; i < kFrames; ++i) {
    EXPECT_EQ(video_lines[i], fmt::format("v {} {} {}", ExpectedVideoTime(i, 0),
                                          fixture_->keyframes[i] ? 1 : 0,
                                          testing::VideoDigest(fixture_->video[i])))
        << "frame " << i;
  }
  ASSERT_LE(audio_lines.size(), expected_units);
  const std::size_t overtaken = expected_units - audio_lines.size();
  EXPECT_EQ(before_video(), overtaken);  // No unit lost for another reason.
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LE(overtaken, kMayOvertake);
  }
  for (std::size_t k = 0; k < audio_lines.size(); ++k) {
    const std::size_t j = 4 + overtaken + k;
    EXPECT_EQ(audio_lines[k],
              fmt::format("a {} {}", ExpectedAudioTime(j, 0), testing::Digest(fixture_->audio[j])))
        << "unit " << j;
  }
  EXPECT_EQ(testing::DecodedFrameHashes(dir_.path() / "out" / "video.h264"), ReferenceHashes());
}

}  // namespace
}  // namespace mirell::session
