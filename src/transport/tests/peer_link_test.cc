#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/transport/peer_link.h"
#include "interop_support.h"
#include "peer_link_harness.h"
#include "peer_link_testing.h"

namespace mirell::transport {
namespace {

using testing::Bytes;
using testing::LinkObserver;
using testing::LinkPair;
using testing::MakeRtpPacket;
using std::chrono::milliseconds;

PeerConfig HostOnly() { return PeerConfig{{}, 1}; }

// Where two packet lists first differ, for a failure message a person can read (gtest would print
// every byte of both lists).
std::string FirstDifference(const std::vector<Bytes>& received, const std::vector<Bytes>& sent) {
  for (std::size_t i = 0; i < std::min(received.size(), sent.size()); ++i) {
    if (received[i] != sent[i]) return "packet " + std::to_string(i) + " differs";
  }
  return std::to_string(received.size()) + " packets received, " + std::to_string(sent.size()) +
         " sent";
}

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
  EXPECT_TRUE(pair.viewer_seen->video() == sent_video)
      << FirstDifference(pair.viewer_seen->video(), sent_video);
  EXPECT_TRUE(pair.viewer_seen->audio() == sent_audio)
      << FirstDifference(pair.viewer_seen->audio(), sent_audio);
  EXPECT_EQ(pair.host->audio_sample_rate(), 48000u);
  EXPECT_EQ(pair.viewer->audio_sample_rate(), 48000u);
  EXPECT_EQ(pair.viewer->audio_channels(), 2u);
}

// The media section of `sdp` whose mid is `mid`, from its m= line to the next.
std::string Section(const std::string& sdp, const std::string& mid) {
  std::size_t mark = sdp.find("a=mid:" + mid + "\r\n");
  if (mark == std::string::npos) return {};
  std::size_t begin = sdp.rfind("m=", mark);
  std::size_t end = sdp.find("\r\nm=", mark);
  return sdp.substr(begin, end == std::string::npos ? std::string::npos : end + 2 - begin);
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST_F(PeerLinkTest, OfferCarriesTheMediaFormatAndEveryCandidate) {
  LinkPair pair(HostOnly(), HostOnly());
  ASSERT_TRUE(pair.Connect()) << Log();
  std::string video = Section(pair.offer, "video");
  std::string audio = Section(pair.offer, "audio");
  ASSERT_FALSE(video.empty()) << pair.offer;
  ASSERT_FALSE(audio.empty()) << pair.offer;
  EXPECT_TRUE(video.starts_with("m=video 9 UDP/TLS/RTP/SAVPF 96")) << video;
  EXPECT_NE(video.find("a=sendonly"), std::string::npos);
  EXPECT_NE(video.find("a=rtpmap:96 H264/90000"), std::string::npos);
  EXPECT_NE(video.find("a=fmtp:96 profile-level-id=42e01f;packetization-mode=1;level-asymmetry-allowed=1"),
            std::string::npos) << video;
  EXPECT_NE(video.find("a=rtcp-fb:96 nack\r\n"), std::string::npos);
  EXPECT_NE(video.find("a=rtcp-fb:96 nack pli"), std::string::npos);
  EXPECT_NE(video.find("a=ssrc:1297239126 "), std::string::npos);  // "MRLV"
  EXPECT_NE(audio.find("a=sendonly"), std::string::npos);
  EXPECT_NE(audio.find("a=rtpmap:97 MPEG4-GENERIC/48000/2"), std::string::npos) << audio;
  EXPECT_NE(audio.find("a=fmtp:97 streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;"
                       "indexlength=3;indexdeltalength=3;config=1190"),
            std::string::npos) << audio;
  EXPECT_NE(audio.find("a=ssrc:1297239105 "), std::string::npos);  // "MRLA"
  // Not trickled: the descriptions hold their candidates, and the log counted them.
  EXPECT_GT(Count(pair.offer, "a=candidate:"), 0u);
  EXPECT_GT(Count(pair.answer, "a=candidate:"), 0u);
  std::string log = Log();
  EXPECT_NE(log.find(fmt::format("gathering complete - local description is an offer with {} candidates",
                                 Count(pair.offer, "a=candidate:"))), std::string::npos) << log;
  EXPECT_NE(log.find("gathering complete - local description is an answer with"), std::string::npos);
  EXPECT_NE(log.find("connected host -> host"), std::string::npos) << log;
  // webrtcbin opens a remote track when its first packet comes.
  ASSERT_TRUE(pair.host->SendVideo(MakeRtpPacket(96, 1, 0, kVideoSsrc, 100)));
  ASSERT_TRUE(pair.host->SendAudio(MakeRtpPacket(97, 1, 0, kAudioSsrc, 100)));
  ASSERT_TRUE(pair.viewer_seen->WaitForVideo(1, milliseconds(5000)));
  ASSERT_TRUE(pair.viewer_seen->WaitForAudio(1, milliseconds(5000)));
  log = Log();
  EXPECT_NE(log.find("remote track 'video'"), std::string::npos);
  EXPECT_NE(log.find("remote track 'audio'"), std::string::npos);
}

TEST_F(PeerLinkTest, WithoutAudioThereIsOneSectionAndNoAudioTrack) {
  OfferMedia media;
  media.has_audio = false;
  LinkPair pair(HostOnly(), HostOnly(), media);
  ASSERT_TRUE(pair.Connect()) << Log();
  EXPECT_EQ(Count(pair.offer, "m="), 1u) << pair.offer;
  EXPECT_EQ(pair.host->audio_sample_rate(), 0u);
  EXPECT_EQ(pair.viewer->audio_sample_rate(), 0u);
  EXPECT_EQ(pair.viewer->audio_channels(), 0u);
  Bytes packet = MakeRtpPacket(97, 1, 0, kAudioSsrc, 100);
  EXPECT_FALSE(pair.host->SendAudio(packet));
  EXPECT_TRUE(pair.host->SendVideo(MakeRtpPacket(96, 1, 0, kVideoSsrc, 100)));
  EXPECT_TRUE(pair.viewer_seen->WaitForVideo(1, milliseconds(5000)));
}

TEST_F(PeerLinkTest, AnAnswerWithoutChannelsMeansOneChannel) {
  auto host = CreateOfferer(HostOnly(), OfferMedia{});
  LinkObserver host_seen(*host);
  auto viewer = CreateAnswerer(HostOnly());
  LinkObserver viewer_seen(*viewer);
  auto offer = host_seen.WaitForDescription(milliseconds(10000));
  ASSERT_TRUE(offer);
  viewer->SetRemoteDescription(*offer);
  auto answer = viewer_seen.WaitForDescription(milliseconds(10000));
  ASSERT_TRUE(answer);
  std::string edited = *answer;
  std::size_t map = edited.find("MPEG4-GENERIC/48000/2");
  ASSERT_NE(map, std::string::npos);
  edited.replace(map, 21, "MPEG4-GENERIC/48000");
  host->SetRemoteDescription(edited);
  EXPECT_EQ(host->audio_sample_rate(), 48000u);
  EXPECT_EQ(host->audio_channels(), 1u);
}

TEST_F(PeerLinkTest, ADescriptionHandlerSetLateIsCalledAtOnceOnTheCallersThread) {
  auto host = CreateOfferer(HostOnly(), OfferMedia{});
  // Gathering runs with no handler set; wait for it through the log.
  for (int i = 0; i < 1000 && Log().find("gathering complete") == std::string::npos; ++i) {
    std::this_thread::sleep_for(milliseconds(10));
  }
  ASSERT_NE(Log().find("gathering complete"), std::string::npos);
  std::string seen;
  std::thread::id thread;
  host->OnLocalDescription([&](const std::string& sdp) {
    seen = sdp;
    thread = std::this_thread::get_id();
  });
  EXPECT_NE(seen.find("a=candidate:"), std::string::npos);
  EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(PeerLinkTest, SendsAreRefusedUntilConnectedAndForEmptyPackets) {
  LinkPair pair(HostOnly(), HostOnly());
  Bytes packet = MakeRtpPacket(96, 1, 0, kVideoSsrc, 500);
  EXPECT_FALSE(pair.host->SendVideo(packet));
  EXPECT_FALSE(pair.viewer->SendVideo(packet));  // A viewer has no track to send on.
  ASSERT_TRUE(pair.Connect()) << Log();
  EXPECT_FALSE(pair.host->SendVideo({}));
  EXPECT_FALSE(pair.host->SendAudio({}));
  EXPECT_TRUE(pair.host->SendVideo(packet));
  EXPECT_FALSE(pair.viewer->SendVideo(packet));
  EXPECT_FALSE(pair.host->RequestKeyframe());  // The host receives no video.
}

TEST_F(PeerLinkTest, CloseEndsEverythingOnceAndNothingFiresAfter) {
  LinkPair pair(HostOnly(), HostOnly());
  ASSERT_TRUE(pair.Connect()) << Log();
  pair.viewer->Close();
  pair.viewer->Close();
  std::size_t states = pair.viewer_seen->states().size();
  EXPECT_FALSE(pair.viewer->RequestKeyframe());
  Bytes packet = MakeRtpPacket(96, 1, 0, kVideoSsrc, 500);
  EXPECT_TRUE(pair.host->SendVideo(packet));
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_TRUE(pair.viewer_seen->video().empty());
  EXPECT_EQ(pair.viewer_seen->states().size(), states);
  pair.host->Close();
  EXPECT_FALSE(pair.host->SendVideo(packet));
  EXPECT_FALSE(pair.host->SendAudio(packet));
}

TEST_F(PeerLinkTest, AKeyframeRequestReachesTheHostWithin100Milliseconds) {
  LinkPair pair(HostOnly(), HostOnly());
  ASSERT_TRUE(pair.Connect()) << Log();
  std::uint16_t sequence = 0;
  auto send_some = [&] {
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(pair.host->SendVideo(MakeRtpPacket(96, sequence, sequence * 3000u, kVideoSsrc, 800)));
      ++sequence;
    }
  };
  send_some();
  ASSERT_TRUE(pair.viewer_seen->WaitForVideo(5, milliseconds(5000)));
  for (int request = 1; request <= 5; ++request) {
    auto asked = std::chrono::steady_clock::now();
    ASSERT_TRUE(pair.viewer->RequestKeyframe());
    ASSERT_TRUE(pair.host_seen->WaitForKeyframeRequests(request, milliseconds(2000))) << request;
    auto took = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - asked);
    EXPECT_LT(took.count(), 100) << "request " << request;
    send_some();
    std::this_thread::sleep_for(milliseconds(200));
  }
}

TEST_F(PeerLinkTest, LostVideoPacketsAreRecoveredByRetransmission) {
  SetOutgoingVideoLoss(20);  // 5 %
  LinkPair pair(HostOnly(), HostOnly());
  SetOutgoingVideoLoss(0);
  const std::uint64_t dropped_before = OutgoingVideoDropped();
  ASSERT_TRUE(pair.Connect()) << Log();
  // About 6 Mbit/s: frames of 20 packets of 1200 bytes at 30 per second.
  std::vector<Bytes> sent;
  for (std::uint16_t frame = 0; frame < 50; ++frame) {
    for (std::uint16_t i = 0; i < 20; ++i) {
      auto sequence = static_cast<std::uint16_t>(frame * 20 + i);
      sent.push_back(MakeRtpPacket(96, sequence, frame * 3000u, kVideoSsrc, kMaxRtpPacketSize, i == 19));
      ASSERT_TRUE(pair.host->SendVideo(sent.back()));
    }
    std::this_thread::sleep_for(milliseconds(33));
  }
  // A loss shows only when a later packet arrives: the stream goes on, as a live one does.
  for (std::uint16_t i = 0; i < 20; ++i) {
    auto sequence = static_cast<std::uint16_t>(sent.size() + i);
    ASSERT_TRUE(pair.host->SendVideo(MakeRtpPacket(96, sequence, 50 * 3000u, kVideoSsrc, 500, i == 19)));
  }
  ASSERT_TRUE(pair.viewer_seen->WaitForVideo(sent.size(), milliseconds(5000)))
      << pair.viewer_seen->video().size() << " of " << sent.size();
  std::vector<Bytes> received = pair.viewer_seen->video();
  received.resize(sent.size());
  EXPECT_TRUE(received == sent) << FirstDifference(received, sent);
  EXPECT_GE(OutgoingVideoDropped() - dropped_before, sent.size() / 25);
}


TEST_F(PeerLinkTest, HostPolicyIgnoresEveryServer) {
  PeerConfig config{{{"stun:127.0.0.1:3478", "", ""}, {"turn:127.0.0.1:3478", "user", "password"}}, 1};
  LinkPair pair(config, config);
  ASSERT_TRUE(pair.Connect()) << Log();
  std::string log = Log();
  EXPECT_EQ(Count(log, "ice policy=host"), 2u);
  EXPECT_EQ(Count(log, "ice server"), 0u) << log;
  EXPECT_EQ(log.find("127.0.0.1:3478"), std::string::npos);
  EXPECT_EQ(Count(pair.offer, "typ srflx") + Count(pair.offer, "typ relay"), 0u);
}

TEST_F(PeerLinkTest, RefusedServersAreSkippedLoggedWithoutPasswordsAndTheLinkComesUp) {
  PeerConfig config{{{"http://not.ice", "", ""},
                     {"turn:127.0.0.1:9", "alice", "hunter2-secret"},
                     {"stun:127.0.0.1:9", "", ""},
                     {"stun:127.0.0.1:10", "", ""}},
                    0};
  LinkPair pair(config, HostOnly());
  ASSERT_TRUE(pair.Connect()) << Log();
  std::string log = Log();
  EXPECT_NE(log.find("ignoring ice server http://not.ice: unknown scheme 'http'"), std::string::npos) << log;
  EXPECT_NE(log.find("ice server turn:127.0.0.1:9 (as alice)"), std::string::npos) << log;
  EXPECT_NE(log.find("ice server stun:127.0.0.1:9\n"), std::string::npos) << log;
  EXPECT_NE(log.find("ignoring ice server stun:127.0.0.1:10: only the first STUN server is used"),
            std::string::npos) << log;
  EXPECT_EQ(log.find("hunter2"), std::string::npos);
}

TEST_F(PeerLinkTest, AStunServerThatNeverAnswersDoesNotStopAHostConnection) {
  PeerConfig config{{{fmt::format("stun:127.0.0.1:{}", media::testing::FreeUdpPort()), "", ""}}, 0};
  auto started = std::chrono::steady_clock::now();
  LinkPair pair(config, config);
  ASSERT_TRUE(pair.Connect(milliseconds(20000))) << Log();
  std::printf("connected in %lld ms with a silent STUN server\n",
              static_cast<long long>(std::chrono::duration_cast<milliseconds>(
                  std::chrono::steady_clock::now() - started).count()));
  EXPECT_NE(Log().find("connected host -> host"), std::string::npos);
}

// The default STUN server is named, and a machine offline (or with a broken resolver) cannot
// look the name up: gathering must still finish and the link come up host to host.
TEST_F(PeerLinkTest, AStunServerWhoseNameDoesNotResolveDoesNotStopAHostConnection) {
  PeerConfig config{{{"stun:stun.mirell.invalid:3478", "", ""}}, 0};
  auto started = std::chrono::steady_clock::now();
  LinkPair pair(config, config);
  ASSERT_TRUE(pair.Connect(milliseconds(20000))) << Log();
  std::printf("connected in %lld ms with an unresolvable STUN server\n",
              static_cast<long long>(std::chrono::duration_cast<milliseconds>(
                  std::chrono::steady_clock::now() - started).count()));
  EXPECT_NE(Log().find("connected host -> host"), std::string::npos);
}

// A name that resolves is given to the agent by its address, and the agent uses it: gathering
// waits out the silent server's retransmissions, as it does for a silent server given by address.
TEST_F(PeerLinkTest, AStunServerNamedByAHostNameIsUsedByItsAddress) {
  const int port = media::testing::FreeUdpPort();
  PeerConfig config{{{fmt::format("stun:localhost:{}", port), "", ""}}, 0};
  auto started = std::chrono::steady_clock::now();
  LinkPair pair(config, HostOnly());
  ASSERT_TRUE(pair.Connect(milliseconds(20000))) << Log();
  const auto took = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - started);
  EXPECT_NE(Log().find(fmt::format("ice server stun:localhost:{} is 127.0.0.1", port)), std::string::npos)
      << Log();
  EXPECT_GE(took, milliseconds(1000)) << "the agent did not wait for the STUN server";
}

// coturn on loopback, with one long-term credential, for as long as it lives.
class TurnServer {
 public:
  TurnServer() : port_(media::testing::FreeUdpPort()) {
    int relay_base = 50000 + static_cast<int>(::getpid() % 500) * 20;
    process_ = std::make_unique<testsupport::ChildProcess>(std::vector<std::string>{
        "turnserver", "-n", "--listening-ip=127.0.0.1", "--relay-ip=127.0.0.1",
        fmt::format("--listening-port={}", port_), fmt::format("--min-port={}", relay_base),
        fmt::format("--max-port={}", relay_base + 19), "--lt-cred-mech", "--user=mirell:s3cr%t@x",
        "--realm=mirell.test", "--no-tls", "--no-dtls", "--no-cli", "--allow-loopback-peers",
        fmt::format("--pidfile={}", (dir_.path() / "pid").string()),
        fmt::format("--userdb={}", (dir_.path() / "db").string()), "--log-file=stdout"});
    // Ready once its port is bound.
    for (int i = 0; i < 500 && !testsupport::UdpPortBound(port_); ++i) {
      std::this_thread::sleep_for(milliseconds(10));
    }
  }
  bool ready() const { return testsupport::UdpPortBound(port_); }
  std::string url() const { return fmt::format("turn:127.0.0.1:{}", port_); }

 private:
  testsupport::TempDir dir_;
  int port_;
  std::unique_ptr<testsupport::ChildProcess> process_;
};

TEST_F(PeerLinkTest, RelayPolicyConnectsThroughATurnServer) {
  if (!testsupport::HaveProgram("turnserver")) GTEST_SKIP() << "coturn is not installed";
  TurnServer turn;
  ASSERT_TRUE(turn.ready());
  PeerConfig config{{{turn.url(), "mirell", "s3cr%t@x"}}, 2};
  LinkPair pair(config, config);
  ASSERT_TRUE(pair.Connect(milliseconds(20000))) << Log();
  EXPECT_GT(Count(pair.offer, "typ relay"), 0u) << pair.offer;
  EXPECT_EQ(Count(pair.offer, "typ host"), 0u) << pair.offer;
  std::string log = Log();
  EXPECT_NE(log.find("ice policy=relay"), std::string::npos);
  EXPECT_NE(log.find("connected relay -> relay"), std::string::npos) << log;
  ASSERT_TRUE(pair.host->SendVideo(MakeRtpPacket(96, 7, 0, kVideoSsrc, 1200)));
  EXPECT_TRUE(pair.viewer_seen->WaitForVideo(1, milliseconds(5000)));
}

TEST_F(PeerLinkTest, WrongTurnCredentialsGiveNoRelayAndNoConnection) {
  if (!testsupport::HaveProgram("turnserver")) GTEST_SKIP() << "coturn is not installed";
  TurnServer turn;
  ASSERT_TRUE(turn.ready());
  PeerConfig config{{{turn.url(), "mirell", "wrong"}}, 2};
  LinkPair pair(config, config);
  EXPECT_FALSE(pair.Connect(milliseconds(5000)));
  EXPECT_EQ(Count(pair.offer, "typ relay"), 0u);
}

TEST_F(PeerLinkTest, APeerWhoseProcessIsKilledIsReportedFailedWithinTheLivenessBound) {
  constexpr milliseconds kBound{2000};
  SetPeerLivenessBound(kBound);
  auto host = CreateOfferer(HostOnly(), OfferMedia{});
  SetPeerLivenessBound(kDefaultPeerLivenessBound);
  LinkObserver seen(*host);
  auto offer = seen.WaitForDescription(milliseconds(10000));
  ASSERT_TRUE(offer);
  std::ofstream(dir_.path() / "offer", std::ios::binary) << *offer;
  testsupport::ChildProcess peer({MIRELL_LINK_PEER, (dir_.path() / "offer").string(),
                                  (dir_.path() / "answer").string(),
                                  (dir_.path() / "status").string()});
  for (int i = 0; i < 1000 && !std::filesystem::exists(dir_.path() / "answer"); ++i) {
    std::this_thread::sleep_for(milliseconds(10));
  }
  ASSERT_TRUE(std::filesystem::exists(dir_.path() / "answer"));
  host->SetRemoteDescription(testsupport::ReadFileText(dir_.path() / "answer"));
  ASSERT_TRUE(seen.WaitForState(PeerState::kConnected, milliseconds(10000))) << Log();

  // Alive and sending: well past the bound, the link is still up.
  for (std::uint16_t i = 0; i < 100; ++i) {
    host->SendVideo(MakeRtpPacket(96, i, i * 3000u, kVideoSsrc, 1000));
    std::this_thread::sleep_for(milliseconds(30));
  }
  EXPECT_EQ(host->state(), PeerState::kConnected) << Log();

  peer.Signal(SIGKILL);
  auto killed = std::chrono::steady_clock::now();
  ASSERT_TRUE(seen.WaitForState(PeerState::kFailed, kBound + milliseconds(3000))) << Log();
  auto took = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - killed);
  EXPECT_LE(took.count(), (kBound + milliseconds(1000)).count());
  EXPECT_EQ(host->state(), PeerState::kFailed);
  EXPECT_NE(Log().find("counted as gone"), std::string::npos);
}

}  // namespace
}  // namespace mirell::transport
