#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/transport/peer_link.h"
#include "peer_link_harness.h"

namespace mirell::transport {
namespace {

using testing::Bytes;
using testing::LinkObserver;
using testing::LinkPair;
using testing::MakeRtpPacket;
using std::chrono::milliseconds;

PeerConfig HostOnly() { return PeerConfig{{}, 1}; }

class PeerLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetLogLevel(LogLevel::kDebug);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
  }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }

  testsupport::TempDir dir_;
};

TEST_F(PeerLinkTest, PacketsArriveUnchangedOnBothTracks) {
  LinkPair pair(HostOnly(), HostOnly());
  ASSERT_TRUE(pair.Connect()) << Log();
  std::vector<Bytes> sent_video;
  std::vector<Bytes> sent_audio;
  for (std::uint16_t i = 0; i < 200; ++i) {
    sent_video.push_back(MakeRtpPacket(96, static_cast<std::uint16_t>(1000 + i), 3000u * (i / 4),
                                       kVideoSsrc, 100u + (i * 37u) % 1101u, i % 4 == 3));
    ASSERT_TRUE(pair.host->SendVideo(sent_video.back()));
    if (i % 4 == 0) {
      sent_audio.push_back(MakeRtpPacket(97, static_cast<std::uint16_t>(50 + i / 4), 1024u * (i / 4),
                                         kAudioSsrc, 200u + i, true));
      ASSERT_TRUE(pair.host->SendAudio(sent_audio.back()));
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  ASSERT_TRUE(pair.viewer_seen->WaitForVideo(sent_video.size(), milliseconds(5000)));
  ASSERT_TRUE(pair.viewer_seen->WaitForAudio(sent_audio.size(), milliseconds(5000)));
  EXPECT_EQ(pair.viewer_seen->video(), sent_video);
  EXPECT_EQ(pair.viewer_seen->audio(), sent_audio);
  EXPECT_EQ(pair.host->audio_sample_rate(), 48000u);
  EXPECT_EQ(pair.viewer->audio_sample_rate(), 48000u);
  EXPECT_EQ(pair.viewer->audio_channels(), 2u);
  std::printf("OFFER:\n%s\nANSWER:\n%s\n", pair.offer.c_str(), pair.answer.c_str());
}

}  // namespace
}  // namespace mirell::transport
