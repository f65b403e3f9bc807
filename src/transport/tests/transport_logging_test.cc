#include <gst/gst.h>
#include <gtest/gtest.h>

#include <thread>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/transport/peer_link.h"
#include "peer_link_harness.h"

namespace mirell::transport {
namespace {

using std::chrono::milliseconds;

class TransportLoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InitialiseTransportLogging();
    SetLogLevel(LogLevel::kInfo);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
  }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }
  testsupport::TempDir dir_;
};

TEST_F(TransportLoggingTest, TheStacksWarningsComeIntoOurLogAndItsChatterDoesNot) {
  GST_WARNING("a warning from the stack %d", 17);
  GST_ERROR("an error from the stack");
  GST_INFO("chatter");
  std::string log = Log();
  EXPECT_NE(log.find("warn  "), std::string::npos) << log;
  EXPECT_NE(log.find("rtc: a warning from the stack 17"), std::string::npos) << log;
  EXPECT_NE(log.find("rtc: an error from the stack"), std::string::npos) << log;
  EXPECT_EQ(log.find("chatter"), std::string::npos) << log;
}

TEST_F(TransportLoggingTest, PreparingLinksWarnsOfNothingAndLinksStillWorkAfterIt) {
  SetLogLevel(LogLevel::kDebug);
  PrepareLinks();
  PrepareLinks();  // Again: harmless.
  const std::string log = Log();
  EXPECT_NE(log.find("links prepared in "), std::string::npos) << log;
  EXPECT_EQ(log.find("warn  "), std::string::npos) << log;
  testing::LinkPair pair(PeerConfig{{}, 1}, PeerConfig{{}, 1});
  EXPECT_TRUE(pair.Connect());
}

TEST_F(TransportLoggingTest, AHealthyConnectionCarryingMediaLeavesNoWarnings) {
  {
    testing::LinkPair pair(PeerConfig{{}, 1}, PeerConfig{{}, 1});
    ASSERT_TRUE(pair.Connect());
    for (std::uint16_t i = 0; i < 300; ++i) {
      ASSERT_TRUE(pair.host->SendVideo(testing::MakeRtpPacket(96, i, i / 10 * 3000u, kVideoSsrc, 1200, i % 10 == 9)));
      if (i % 10 == 0) {
        ASSERT_TRUE(pair.host->SendAudio(testing::MakeRtpPacket(97, static_cast<std::uint16_t>(i / 10), i / 10 * 1600u, kAudioSsrc, 300, true)));
        std::this_thread::sleep_for(milliseconds(10));  // Frame by frame, as a stream goes.
      }
    }
    ASSERT_TRUE(pair.viewer_seen->WaitForVideo(300, milliseconds(5000)));
    pair.host->Close();
    pair.viewer->Close();
  }
  std::string log = Log();
  EXPECT_EQ(log.find(" warn "), std::string::npos) << log;
  EXPECT_EQ(log.find("rtc:"), std::string::npos) << log;
}

TEST_F(TransportLoggingTest, AStreamPacedLikeLiveVideoDrawsNoEarlyRetransmissionRequests) {
  // Two seconds at 30 frames a second, each frame a burst of ten packets, the sound in between:
  // the viewer must not ask for the next frame's first packet before it exists (the host's
  // retransmitter logs each such request as a warning, and the requests cost both ends).
  {
    testing::LinkPair pair(PeerConfig{{}, 1}, PeerConfig{{}, 1});
    ASSERT_TRUE(pair.Connect());
    const auto start = std::chrono::steady_clock::now();
    std::uint16_t sequence = 0;
    std::uint16_t audio_sequence = 0;
    for (std::uint32_t frame = 0; frame < 60; ++frame) {
      std::this_thread::sleep_until(start + milliseconds(frame * 1000 / 30));
      for (int packet = 0; packet < 10; ++packet, ++sequence) {
        ASSERT_TRUE(pair.host->SendVideo(
            testing::MakeRtpPacket(96, sequence, frame * 3000u, kVideoSsrc, 1200, packet == 9)));
      }
      if (frame % 2 == 0) {
        for (int unit = 0; unit < 3; ++unit, ++audio_sequence) {
          ASSERT_TRUE(pair.host->SendAudio(testing::MakeRtpPacket(
              97, audio_sequence, audio_sequence * 1024u, kAudioSsrc, 300, true)));
        }
      }
    }
    ASSERT_TRUE(pair.viewer_seen->WaitForVideo(600, milliseconds(5000)));
    pair.host->Close();
    pair.viewer->Close();
  }
  const std::string log = Log();
  EXPECT_EQ(log.find("has not been transmitted yet"), std::string::npos) << log;
  EXPECT_EQ(log.find(" warn "), std::string::npos) << log;
}

}  // namespace
}  // namespace mirell::transport
