// The RTSP server over real sockets, with synthetic access units: every status and header, the
// channels, priming, time stamps, sender reports, a stalled reader, withdrawal and Stop.
#include "mirell/rtsp/rtsp_server.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/version.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "rtsp_sdp.h"
#include "rtsp_test_client.h"

namespace mirell::rtsp {
namespace {

using namespace std::chrono_literals;
using testing::RtspResponse;
using testing::RtspTestClient;
using testsupport::Eventually;

// Every answer names the server and its version.
const std::string kServer = fmt::format("Server: mirell/{}\r\n", kVersionMajorMinor);

const std::vector<std::uint8_t> kSequenceHeader = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xD9,
                                                   0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
constexpr std::int64_t kFrame100ns = 333'333;

encode::EncodedFramePtr MakeFrame(std::int64_t pts, bool keyframe, std::size_t size = 200) {
  auto frame = std::make_shared<encode::EncodedFrame>();
  frame->data = {0, 0, 0, 1, static_cast<std::uint8_t>(keyframe ? 0x65 : 0x41)};
  frame->data.resize(size, 0x5A);
  frame->pts_100ns = pts;
  frame->duration_100ns = kFrame100ns;
  frame->keyframe = keyframe;
  return frame;
}

encode::EncodedAudioFramePtr MakeAudio(std::int64_t pts) {
  auto unit = std::make_shared<encode::EncodedAudioFrame>();
  unit->data.assign(300, 0x21);
  unit->pts_100ns = pts;
  unit->duration_100ns = 213'333;
  return unit;
}

class RtspServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kDebug);
    stream_ = std::make_shared<streams::MediaStream>("test", 30, 2000);
    stream_->SetSequenceHeader(kSequenceHeader);
    registry_.Publish("tok", stream_);
    server_.Start(0);
    uri_ = "rtsp://127.0.0.1:" + std::to_string(server_.port()) + "/s/tok";
  }
  void TearDown() override {
    server_.Stop();
    SetLogLevel(LogLevel::kInfo);
  }
  std::string log() { return testsupport::ReadFileText(dir_.path() / "log"); }
  bool WaitForLog(const std::string& text, std::chrono::milliseconds limit = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (log().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }
  // DESCRIBE, SETUP of the video track and PLAY.
  RtspResponse StartPlaying(RtspTestClient& client) {
    EXPECT_EQ(client.Request("DESCRIBE", uri_, 1).status, 200);
    EXPECT_EQ(client.Request("SETUP", uri_ + "/trackID=0", 2, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n").status, 200);
    return client.Request("PLAY", uri_, 3);
  }
  // The stream gets sound; DESCRIBE, SETUP of both tracks on channels 0-1 and 2-3, and PLAY.
  RtspResponse StartPlayingBothTracks(RtspTestClient& client) {
    stream_->SetAudio(streams::AudioConfig{48000, 2, 128, {0x11, 0x90}});
    EXPECT_EQ(client.Request("DESCRIBE", uri_, 1).status, 200);
    client.Request("SETUP", uri_ + "/trackID=0", 2, "Transport: RTP/AVP/TCP;interleaved=0-1\r\n");
    client.Request("SETUP", uri_ + "/trackID=1", 3, "Transport: RTP/AVP/TCP;interleaved=2-3\r\n");
    return client.Request("PLAY", uri_, 4);
  }

  testsupport::TempDir dir_;
  streams::StreamRegistry registry_;
  RtspServer server_{[this](const std::string& path) { return registry_.Find(TokenFromPath(path)); }};
  std::shared_ptr<streams::MediaStream> stream_;
  std::string uri_;
};

TEST_F(RtspServerTest, OptionsAnswersExactly) {
  RtspTestClient client(server_.port());
  const auto response = client.Request("OPTIONS", uri_, 7);
  EXPECT_EQ(response.raw,
            "RTSP/1.0 200 OK\r\nCSeq: 7\r\n" + kServer + ""
            "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n\r\n");
}

TEST_F(RtspServerTest, DescribeGivesTheSdpWithContentBaseAndSession) {
  RtspTestClient client(server_.port());
  const auto response = client.Request("DESCRIBE", uri_, 2);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers.at("Content-Type"), "application/sdp");
  EXPECT_EQ(response.headers.at("Content-Base"),
            "rtsp://127.0.0.1:" + std::to_string(server_.port()) + "/s/tok/");
  EXPECT_EQ(response.headers.at("Session"), "4D524C01");
  EXPECT_EQ(response.body, BuildSdp(kSequenceHeader, 2000, std::nullopt));
  EXPECT_EQ(response.headers.at("Content-Length"), std::to_string(response.body.size()));
}

TEST_F(RtspServerTest, TwoClientsGetSessionIdsThatDifferByTheirClientIds) {
  RtspTestClient first(server_.port());
  const auto a = first.Request("DESCRIBE", uri_, 1);
  RtspTestClient second(server_.port());
  const auto b = second.Request("DESCRIBE", uri_, 1);
  EXPECT_EQ(std::stoul(b.headers.at("Session"), nullptr, 16) - std::stoul(a.headers.at("Session"), nullptr, 16), 1u);
}

TEST_F(RtspServerTest, UnknownStreamIs404AndTheConnectionGoesOn) {
  RtspTestClient client(server_.port());
  const auto response = client.Request("DESCRIBE", "rtsp://127.0.0.1/s/nothing", 3);
  EXPECT_EQ(response.raw, "RTSP/1.0 404 Not Found\r\nCSeq: 3\r\n" + kServer + "\r\n");
  EXPECT_TRUE(WaitForLog("uri=rtsp://127.0.0.1/s/nothing not published"));
  EXPECT_EQ(client.Request("PLAY", "rtsp://127.0.0.1/s/nothing", 4).status, 404);
  EXPECT_EQ(client.Request("OPTIONS", uri_, 5).status, 200);
}

// A stream whose first picture is still being made (the holding card right after start-up) is
// waited for, within a bound, rather than answered 503 at once: most players give up on a 503.
TEST_F(RtspServerTest, DescribedStreamWithoutHeaderIsWaitedForThen503) {
  stream_->SetSequenceHeader({});
  RtspTestClient client(server_.port());
  const auto started = std::chrono::steady_clock::now();
  const auto response = client.Request("DESCRIBE", uri_, 1);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 2990ms);
  EXPECT_EQ(response.raw,
            "RTSP/1.0 503 Service Unavailable\r\nCSeq: 1\r\n" + kServer + "Retry-After: 1\r\n\r\n");
}

TEST_F(RtspServerTest, ASequenceHeaderArrivingDuringTheWaitIsUsed) {
  stream_->SetSequenceHeader({});
  std::thread card([this] {
    std::this_thread::sleep_for(200ms);
    stream_->SetSequenceHeader(kSequenceHeader);
  });
  RtspTestClient client(server_.port());
  const auto response = client.Request("DESCRIBE", uri_, 1);
  card.join();
  EXPECT_EQ(response.status, 200);
  EXPECT_NE(response.body.find("sprop-parameter-sets="), std::string::npos);
}

TEST_F(RtspServerTest, UndescribedStreamWaitsAtMost400MsThenUsesDefaults) {
  stream_->SetSequenceHeader({});
  stream_->ExpectDescription();
  RtspTestClient client(server_.port());
  const auto started = std::chrono::steady_clock::now();
  const auto response = client.Request("DESCRIBE", uri_, 1);
  const auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, 390ms + 2990ms) << "the description, then a sequence header";
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LT(waited, 400ms + 3000ms + 500ms);
  }
  EXPECT_EQ(response.status, 503);
  EXPECT_TRUE(WaitForLog("describe timeout, using defaults"));
}

TEST_F(RtspServerTest, DescriptionArrivingDuringTheWaitIsUsed) {
  stream_->SetSequenceHeader({});
  stream_->ExpectDescription();
  std::thread describer([this] {
    std::this_thread::sleep_for(100ms);
    stream_->SetSequenceHeader(kSequenceHeader);
    stream_->MarkDescribed();
  });
  RtspTestClient client(server_.port());
  const auto response = client.Request("DESCRIBE", uri_, 1);
  describer.join();
  EXPECT_EQ(response.status, 200);
  EXPECT_NE(response.body.find("sprop-parameter-sets="), std::string::npos);
}

TEST_F(RtspServerTest, DescribeAsksTheStreamForAKeyframe) {
  std::atomic<int> asked{0};
  stream_->SetKeyframeRequester([&] { ++asked; });
  RtspTestClient client(server_.port());
  client.Request("DESCRIBE", uri_, 1);
  EXPECT_EQ(asked.load(), 1);
}

TEST_F(RtspServerTest, SplitRequestIsHandledOnceWhenTheBlankLineArrives) {
  RtspTestClient client(server_.port());
  client.SendRaw("OPTIONS " + uri_ + " RTSP/1.0\r\n");
  std::this_thread::sleep_for(50ms);
  client.SendRaw("CSeq: 1\r\n");
  std::this_thread::sleep_for(50ms);
  client.SendRaw("\r\n");
  EXPECT_EQ(client.ReadResponse().status, 200);
  EXPECT_EQ(client.ReadResponse(300ms).status, 0) << "answered more than once";
}

TEST_F(RtspServerTest, TwoRequestsAndAnRtcpFrameInOneWriteAreHandledInOrder) {
  RtspTestClient client(server_.port());
  client.SendRaw("OPTIONS " + uri_ + " RTSP/1.0\r\nCSeq: 1\r\n\r\n" + std::string("$\x01\x00\x04", 4) +
                 "rtcp" + "GET_PARAMETER " + uri_ + " RTSP/1.0\r\nCSeq: 2\r\n\r\n");
  const auto first = client.ReadResponse();
  const auto second = client.ReadResponse();
  EXPECT_EQ(first.status_line, "RTSP/1.0 200 OK");
  EXPECT_EQ(first.headers.at("CSeq"), "1");
  EXPECT_EQ(second.raw, "RTSP/1.0 501 Not Implemented\r\nCSeq: 2\r\n" + kServer + "\r\n");
}

TEST_F(RtspServerTest, RequestLineWithOneBlankIs400WithCseqZero) {
  RtspTestClient client(server_.port());
  client.SendRaw("OPTIONS\trtsp://x\r\nCSeq: 9\r\n\r\n");
  EXPECT_EQ(client.ReadResponse().raw, "RTSP/1.0 400 Bad Request\r\nCSeq: 0\r\n" + kServer + "\r\n");
  client.SendRaw("OPTIONS rtsp://x\r\nCSeq: 9\r\n\r\n");
  EXPECT_EQ(client.ReadResponse().raw, "RTSP/1.0 400 Bad Request\r\nCSeq: 0\r\n" + kServer + "\r\n");
}

// No player sends a head of 64 kB: such a connection is ended (a server that strangers reach
// must not read on), and the others are served as before.
TEST_F(RtspServerTest, AnUnparseableFloodEndsItsConnectionAndOthersGoOn) {
  RtspTestClient player(server_.port());
  EXPECT_EQ(player.Request("OPTIONS", uri_, 1).status, 200);
  RtspTestClient client(server_.port());
  client.SendRaw(std::string(70000, 'x'));
  EXPECT_TRUE(client.WaitClosed(5s));
  EXPECT_TRUE(WaitForLog("client=2 unparseable bytes="));
  EXPECT_EQ(player.Request("OPTIONS", uri_, 2).status, 200);
  RtspTestClient next(server_.port());
  EXPECT_EQ(next.Request("OPTIONS", uri_, 1).status, 200);
}

TEST(RtspServerLimits, AConnectionThatSendsNoWholeRequestInTimeIsClosed) {
  streams::StreamRegistry registry;
  RtspServer server([&](const std::string& path) { return registry.Find(TokenFromPath(path)); });
  server.SetRequestWithin(300ms);
  server.Start(0);
  RtspTestClient talking(server.port());
  RtspTestClient silent(server.port());
  RtspTestClient slow(server.port());
  slow.SendRaw("OPTIONS rtsp://127.0.0.1/s/x RTSP/1.0\r\n");  // and never the rest
  EXPECT_EQ(talking.Request("OPTIONS", "rtsp://127.0.0.1/s/x", 1).status, 200);
  EXPECT_FALSE(silent.WaitClosed(100ms)) << "not before its time";
  for (int i = 2; i < 10; ++i) {
    EXPECT_EQ(talking.Request("OPTIONS", "rtsp://127.0.0.1/s/x", i).status, 200);
    std::this_thread::sleep_for(100ms);  // Pacing the requests, each well within the limit.
  }
  EXPECT_FALSE(talking.closed()) << "each request restarts the wait";
  EXPECT_TRUE(silent.WaitClosed(5s));
  EXPECT_TRUE(slow.WaitClosed(5s));
  server.Stop();
}

TEST(RtspServerLimits, AConnectionThatTalksWithoutPlayingIsClosedAfter32Requests) {
  streams::StreamRegistry registry;
  RtspServer server([&](const std::string& path) { return registry.Find(TokenFromPath(path)); });
  server.Start(0);
  RtspTestClient client(server.port());
  for (int i = 1; i <= 32; ++i) EXPECT_EQ(client.Request("OPTIONS", "rtsp://127.0.0.1/s/x", i).status, 200) << i;
  client.SendRaw("OPTIONS rtsp://127.0.0.1/s/x RTSP/1.0\r\nCSeq: 33\r\n\r\n");
  EXPECT_TRUE(client.WaitClosed(5s));
  server.Stop();
}

TEST_F(RtspServerTest, UdpTransportIs461) {
  RtspTestClient client(server_.port());
  const auto response = client.Request("SETUP", uri_ + "/trackID=0", 1,
                                       "Transport: RTP/AVP;unicast;client_port=1000-1001\r\n");
  EXPECT_EQ(response.raw, "RTSP/1.0 461 Unsupported Transport\r\nCSeq: 1\r\n" + kServer + "\r\n");
  EXPECT_TRUE(WaitForLog("transport=RTP/AVP;unicast;client_port=1000-1001 unsupported"));
}

TEST_F(RtspServerTest, InterleavedChannelsAreTakenOrCountedOn) {
  RtspTestClient client(server_.port());
  auto response = client.Request("SETUP", uri_ + "/trackID=0", 1, "Transport: RTP/AVP/TCP;interleaved=4-5\r\n");
  EXPECT_EQ(response.headers.at("Transport"), "RTP/AVP/TCP;unicast;interleaved=4-5");
  EXPECT_EQ(response.headers.at("Session"), "4D524C01");
  response = client.Request("SETUP", uri_ + "/trackID=1", 2, "Transport: RTP/AVP/TCP;unicast\r\n");
  EXPECT_EQ(response.headers.at("Transport"), "RTP/AVP/TCP;unicast;interleaved=6-7");
  response = client.Request("SETUP", uri_, 3, "Transport: RTP/AVP/TCP;interleaved=300-301\r\n");
  EXPECT_EQ(response.headers.at("Transport"), "RTP/AVP/TCP;unicast;interleaved=8-9");
  response = client.Request("SETUP", uri_, 4, "Transport: RTP/AVP/TCP;interleaved=-1-2\r\n");
  EXPECT_EQ(response.headers.at("Transport"), "RTP/AVP/TCP;unicast;interleaved=10-11");
}

TEST_F(RtspServerTest, TrackOneWithoutAudioSetsTheVideoChannels) {
  stream_->SetPriming(1, 33);
  stream_->frames().Publish(MakeFrame(0, true));
  RtspTestClient client(server_.port());
  client.Request("DESCRIBE", uri_, 1);
  client.Request("SETUP", uri_ + "/trackID=1", 2, "Transport: RTP/AVP/TCP;interleaved=6-7\r\n");
  EXPECT_EQ(client.Request("PLAY", uri_, 3).status, 200);
  // The sender report ahead of the first packet, on the pair's RTCP channel, then the video.
  const auto report = client.ReadFrame();
  ASSERT_TRUE(report.has_value());
  EXPECT_EQ(report->channel, 7);
  const auto frame = client.ReadFrame();
  ASSERT_TRUE(frame.has_value());
  EXPECT_EQ(frame->channel, 6);
  EXPECT_EQ(testing::ReadRtpFields(frame->payload).payload_type, 96);
}

TEST_F(RtspServerTest, PlayWithoutDescribeOrSetupPlaysVideoOnChannelZero) {
  stream_->SetPriming(1, 33);
  stream_->frames().Publish(MakeFrame(0, true));
  RtspTestClient client(server_.port());
  const auto response = client.Request("PLAY", uri_, 1);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers.at("Range"), "npt=0.000-");
  const auto report = client.ReadFrame();
  ASSERT_TRUE(report.has_value());
  EXPECT_EQ(report->channel, 1);
  const auto frame = client.ReadFrame();
  ASSERT_TRUE(frame.has_value());
  EXPECT_EQ(frame->channel, 0);
}

// A relay's players reach it by its public name: the URLs handed back name it too, not loopback.
TEST_F(RtspServerTest, TheUrlsHandedBackNameTheHostThePlayerUsed) {
  RtspTestClient client(server_.port());
  const std::string uri = "rtsp://relay.example.org:8554/s/tok";
  const auto describe = client.Request("DESCRIBE", uri, 2);
  EXPECT_EQ(describe.headers.at("Content-Base"), "rtsp://relay.example.org:8554/s/tok/");
  const auto setup = client.Request("SETUP", uri + "/trackID=0", 3, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
  ASSERT_EQ(setup.status, 200);
  const auto play = client.Request("PLAY", uri, 4);
  ASSERT_EQ(play.status, 200);
  EXPECT_EQ(play.headers.at("RTP-Info").rfind("url=rtsp://relay.example.org:8554/s/tok/trackID=0;seq=", 0), 0u)
      << play.headers.at("RTP-Info");
}

TEST(RtspServerBind, AnyIPv4AddressOrAClearError) {
  RtspServer everywhere([](const std::string&) { return std::shared_ptr<streams::MediaStream>(); });
  everywhere.Start("0.0.0.0", 0);
  EXPECT_NE(everywhere.port(), 0);
  EXPECT_TRUE(testsupport::LoopbackPortAccepts(everywhere.port()));
  everywhere.Stop();
  RtspServer nowhere([](const std::string&) { return std::shared_ptr<streams::MediaStream>(); });
  try {
    nowhere.Start("relay.example.org", 0);
    ADD_FAILURE() << "a name is not an address";
  } catch (const std::exception& error) {
    EXPECT_NE(std::string(error.what()).find("'relay.example.org' is not an IPv4 address"), std::string::npos)
        << error.what();
  }
}

TEST_F(RtspServerTest, PrimedBacklogOfThirtyGoesOutAtOnceStartingAtRtpBase) {
  stream_->SetPriming(30, 1000);
  for (int i = 0; i < 30; ++i) stream_->frames().Publish(MakeFrame(5'000'000 + i * kFrame100ns, i == 0));
  RtspTestClient client(server_.port());
  const auto play = StartPlaying(client);
  ASSERT_EQ(play.status, 200);
  const std::string rtp_info = play.headers.at("RTP-Info");
  EXPECT_NE(rtp_info.find("url=rtsp://127.0.0.1:" + std::to_string(server_.port()) + "/s/tok/trackID=0;seq="), std::string::npos);
  EXPECT_NE(rtp_info.find(";rtptime=0"), std::string::npos);
  const auto seq_at = rtp_info.find("seq=") + 4;
  const auto announced_seq = static_cast<std::uint16_t>(std::stoul(rtp_info.substr(seq_at)));

  int frames = 0;
  bool first = true;
  const auto started = std::chrono::steady_clock::now();
  while (frames < 30) {
    const auto frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame.has_value()) << "only " << frames << " frames";
    if (frame->channel != 0) continue;
    const auto fields = testing::ReadRtpFields(frame->payload);
    if (first) {
      EXPECT_EQ(fields.sequence, announced_seq);
      EXPECT_EQ(fields.timestamp, 0u);
      first = false;
    }
    if (fields.marker) {
      // Frame n's RTP time is n x 333333 x 9 / 1000, rounded half away from zero.
      EXPECT_EQ(fields.timestamp, static_cast<std::uint32_t>((frames * kFrame100ns * 9 + 500) / 1000));
      ++frames;
    }
  }
  EXPECT_LT(std::chrono::steady_clock::now() - started, 1s) << "the backlog must go out as a burst";
  EXPECT_TRUE(WaitForLog("client=1 primed=30 (~1000ms) wanted=1000ms"));
}

TEST_F(RtspServerTest, KeyframeOnlyHistoryWarnsThatTheClientWillStarve) {
  stream_->SetPriming(4, 133);
  RtspTestClient client(server_.port());
  EXPECT_EQ(StartPlaying(client).status, 200);
  EXPECT_TRUE(WaitForLog("client 1 was primed with NOTHING"));
}

TEST_F(RtspServerTest, AudioAlignsToTheFirstFrameAndEarlierUnitsAreCounted) {
  stream_->SetAudio(streams::AudioConfig{48000, 2, 128, {0x11, 0x90}});
  stream_->audio().SetHistory(50);
  RtspTestClient client(server_.port());
  const auto describe = client.Request("DESCRIBE", uri_, 1);
  ASSERT_EQ(describe.status, 200);
  EXPECT_NE(describe.body.find("m=audio 0 RTP/AVP 97"), std::string::npos);
  client.Request("SETUP", uri_ + "/trackID=0", 2, "Transport: RTP/AVP/TCP;interleaved=0-1\r\n");
  client.Request("SETUP", uri_ + "/trackID=1", 3, "Transport: RTP/AVP/TCP;interleaved=2-3\r\n");
  const auto play = client.Request("PLAY", uri_, 4);
  ASSERT_EQ(play.status, 200);
  EXPECT_NE(play.headers.at("RTP-Info").find("/s/tok/trackID=1;seq="), std::string::npos);

  // Nothing was primed: audio waits until the first frame fixes time zero.
  const std::int64_t zero = 10'000'000;
  stream_->audio().Publish(MakeAudio(zero - 213'333));  // predates the frame
  stream_->audio().Publish(MakeAudio(zero));            // exactly at it
  stream_->audio().Publish(MakeAudio(zero + 213'333));
  std::this_thread::sleep_for(100ms);
  stream_->frames().Publish(MakeFrame(zero, true));

  std::vector<std::uint32_t> audio_times;
  bool video_seen = false;
  const auto deadline = std::chrono::steady_clock::now() + 3s;
  while ((audio_times.size() < 2 || !video_seen) && std::chrono::steady_clock::now() < deadline) {
    const auto frame = client.ReadFrame(1s);
    if (!frame) continue;
    if (frame->channel == 2) audio_times.push_back(testing::ReadRtpFields(frame->payload).timestamp);
    if (frame->channel == 0) {
      video_seen = true;
      EXPECT_EQ(testing::ReadRtpFields(frame->payload).timestamp, 0u);
    }
  }
  ASSERT_EQ(audio_times.size(), 2u);
  EXPECT_EQ(audio_times[0], 0u);     // at first_timestamp: rtp_base
  EXPECT_EQ(audio_times[1], 1024u);  // 21.3333 ms at 48 kHz
  EXPECT_TRUE(WaitForLog("audio 2 AUs (0 dropped, 1 predating the first frame)"));
}

// A player times a track's packets by its first sender report and those before it by the track's
// own first packet: the report goes in the same write as the first packets, ahead of them.
TEST_F(RtspServerTest, NoSenderReportUntilThereIsAPacketThenOneAheadOfIt) {
  RtspTestClient client(server_.port());
  ASSERT_EQ(StartPlaying(client).status, 200);
  EXPECT_FALSE(client.ReadFrame(1300ms).has_value()) << "something was sent before any frame";
  stream_->frames().Publish(MakeFrame(0, true, 3000));
  std::vector<testing::InterleavedFrame> frames;
  while (auto frame = client.ReadFrame(500ms)) frames.push_back(*frame);
  ASSERT_GE(frames.size(), 4u);
  const auto& report = frames.front();
  EXPECT_EQ(report.channel, 1);
  ASSERT_EQ(report.payload.size(), 52u);
  EXPECT_EQ(report.payload[1], 200);
  for (std::size_t i = 1; i < frames.size(); ++i) EXPECT_EQ(frames[i].channel, 0) << "frame " << i;
  const auto video = testing::ReadRtpFields(frames[1].payload);
  const std::uint32_t ssrc = static_cast<std::uint32_t>(report.payload[4]) << 24 |
                             static_cast<std::uint32_t>(report.payload[5]) << 16 |
                             static_cast<std::uint32_t>(report.payload[6]) << 8 | report.payload[7];
  EXPECT_EQ(ssrc, video.ssrc);
  const std::uint32_t packets = static_cast<std::uint32_t>(report.payload[20]) << 24 |
                                static_cast<std::uint32_t>(report.payload[21]) << 16 |
                                static_cast<std::uint32_t>(report.payload[22]) << 8 | report.payload[23];
  EXPECT_EQ(packets, frames.size() - 1);
}

// Sound that starts after the picture (a source whose first sound comes late) gets its report
// with its first packets, not with the next regular report up to a second later.
TEST_F(RtspServerTest, SoundThatStartsAfterThePictureIsReportedAheadOfItsFirstPacket) {
  RtspTestClient client(server_.port());
  ASSERT_EQ(StartPlayingBothTracks(client).status, 200);
  stream_->frames().Publish(MakeFrame(0, true));
  std::vector<testing::InterleavedFrame> frames;
  while (auto frame = client.ReadFrame(300ms)) frames.push_back(*frame);
  ASSERT_FALSE(frames.empty());
  EXPECT_EQ(frames.front().channel, 1) << "the picture's report comes first";
  // Well within a second of the first report.
  stream_->audio().Publish(MakeAudio(100'000));
  stream_->audio().Publish(MakeAudio(313'333));
  while (auto frame = client.ReadFrame(300ms)) frames.push_back(*frame);
  std::vector<std::uint8_t> channels;
  for (const auto& frame : frames) channels.push_back(frame.channel);
  const auto first_sound = std::find(channels.begin(), channels.end(), std::uint8_t{2});
  ASSERT_NE(first_sound, channels.end()) << "no sound arrived";
  EXPECT_NE(std::find(channels.begin(), first_sound, std::uint8_t{3}), first_sound)
      << "the sound's first packet came before any report of the sound";
}

std::uint32_t ReadBigEndian32(const std::vector<std::uint8_t>& bytes, std::size_t at) {
  return static_cast<std::uint32_t>(bytes[at]) << 24 | static_cast<std::uint32_t>(bytes[at + 1]) << 16 |
         static_cast<std::uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

TEST_F(RtspServerTest, BothTracksReportsNameOneMediaInstantWhenTheSoundWasSentAhead) {
  RtspTestClient client(server_.port());
  ASSERT_EQ(StartPlayingBothTracks(client).status, 200);
  // As a primed player gets it: one frame, and sound reaching 400 ms past it, all at once.
  stream_->frames().Publish(MakeFrame(0, true));
  for (int i = 0; i <= 19; ++i) stream_->audio().Publish(MakeAudio(i * 213'333));
  std::optional<std::uint32_t> video_report, audio_report;
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while ((!video_report || !audio_report) && std::chrono::steady_clock::now() < deadline) {
    const auto frame = client.ReadFrame(500ms);
    if (!frame || frame->payload.size() < 20 || frame->payload[1] != 200) continue;
    if (frame->channel == 1) video_report = ReadBigEndian32(frame->payload, 16);
    if (frame->channel == 3) audio_report = ReadBigEndian32(frame->payload, 16);
  }
  ASSERT_TRUE(video_report && audio_report) << "no sender report on both tracks";
  // RTP time 0 is the first frame on both tracks; the reports' instants in milliseconds.
  const double video_ms = *video_report / 90.0;
  const double audio_ms = *audio_report / 48.0;
  EXPECT_NEAR(video_ms, audio_ms, 1.0);
  // "Now" at the live edge: the frame's time plus the time since it was published, not the
  // newest sound sent.
  EXPECT_LT(video_ms, 2000.0);
  EXPECT_GT(video_ms, 0.0);
}

// Frames that came over a network are published with jitter. A player re-times its packets at
// each report, so a report whose media time ran ahead of the wall clock since the last one would
// step its time stamps back.
TEST_F(RtspServerTest, ReportsNeverRunAheadOfTheWallClockWhenFramesArriveWithJitter) {
  RtspTestClient client(server_.port());
  ASSERT_EQ(StartPlaying(client).status, 200);
  std::atomic<bool> publishing{true};
  std::thread publisher([&] {
    std::minstd_rand random(7);  // A fixed pattern of lateness.
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; publishing.load(); ++i) {
      // On time, or up to 45 ms late.
      const auto late = std::chrono::milliseconds(random() % 46);
      std::this_thread::sleep_until(start + i * 33333us + late);
      stream_->frames().Publish(MakeFrame(i * kFrame100ns, i % 15 == 0));
    }
  });
  struct Report {
    double wall_s;
    double media_s;
  };
  std::vector<Report> reports;
  const auto deadline = std::chrono::steady_clock::now() + 6500ms;
  while (std::chrono::steady_clock::now() < deadline) {
    const auto frame = client.ReadFrame(500ms);
    if (!frame || frame->channel != 1 || frame->payload.size() < 20 || frame->payload[1] != 200) {
      continue;
    }
    const double ntp_seconds = ReadBigEndian32(frame->payload, 8);
    const double ntp_fraction = ReadBigEndian32(frame->payload, 12) / 4294967296.0;
    reports.push_back({ntp_seconds + ntp_fraction, ReadBigEndian32(frame->payload, 16) / 90000.0});
  }
  publishing = false;
  publisher.join();
  ASSERT_GE(reports.size(), 5u);
  for (std::size_t k = 1; k < reports.size(); ++k) {
    const double wall = reports[k].wall_s - reports[k - 1].wall_s;
    const double media = reports[k].media_s - reports[k - 1].media_s;
    EXPECT_LE(media, wall + 0.0005) << "report " << k;
    EXPECT_GT(media, wall - 0.05) << "report " << k;  // And not far behind it either.
  }
}

TEST_F(RtspServerTest, WhilePlayingAStalledSourceTheSocketIsStillReadFourTimesASecond) {
  RtspTestClient client(server_.port());
  ASSERT_EQ(StartPlaying(client).status, 200);
  // No frames and no audio: requests are still answered at once.
  for (int i = 0; i < 4; ++i) {
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(client.Request("OPTIONS", uri_, 10 + i).status, 200);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 400ms) << "request " << i;
    std::this_thread::sleep_for(std::chrono::milliseconds(37 * i));
  }
}

TEST_F(RtspServerTest, StatisticsWithoutDropsGiveNoKeyframeRateWarning) {
  RtspTestClient client(server_.port());
  ASSERT_EQ(StartPlaying(client).status, 200);
  stream_->frames().Publish(MakeFrame(0, true));
  EXPECT_TRUE(WaitForLog("client 1 delivered ", 4s));
  EXPECT_NE(log().find("(1 frames, 1 keyframes, 0 dropped"), std::string::npos) << log();
  EXPECT_EQ(log().find("keeping up with about the keyframe rate"), std::string::npos);
}

TEST_F(RtspServerTest, TeardownAnswersAndClosesTheConnection) {
  RtspTestClient client(server_.port());
  ASSERT_EQ(StartPlaying(client).status, 200);
  EXPECT_EQ(stream_->frames().SubscriberCount(), 1u);
  client.SendRaw("TEARDOWN " + uri_ + " RTSP/1.0\r\nCSeq: 9\r\n\r\nOPTIONS " + uri_ + " RTSP/1.0\r\nCSeq: 10\r\n\r\n");
  const auto response = client.ReadResponse();
  EXPECT_EQ(response.raw, "RTSP/1.0 200 OK\r\nCSeq: 9\r\n" + kServer + "Session: 4D524C01\r\n\r\n");
  EXPECT_TRUE(client.WaitClosed(2s));
  EXPECT_EQ(stream_->frames().SubscriberCount(), 0u);
  EXPECT_TRUE(WaitForLog("client=1 disconnected"));
}

TEST_F(RtspServerTest, ClientLeavingUnsubscribes) {
  {
    RtspTestClient client(server_.port());
    ASSERT_EQ(StartPlaying(client).status, 200);
    EXPECT_EQ(stream_->frames().SubscriberCount(), 1u);
  }
  EXPECT_TRUE(WaitForLog("client=1 disconnected"));
  EXPECT_EQ(stream_->frames().SubscriberCount(), 0u);
}

TEST_F(RtspServerTest, ASecondPlayKeepsOneSubscriptionAndLeavingEndsIt) {
  {
    RtspTestClient client(server_.port());
    ASSERT_EQ(StartPlayingBothTracks(client).status, 200);
    EXPECT_EQ(client.Request("PLAY", uri_, 5).status, 200);
    EXPECT_EQ(stream_->frames().SubscriberCount(), 1u);
    EXPECT_EQ(stream_->audio().SubscriberCount(), 1u);
  }
  EXPECT_TRUE(Eventually([&] {
    return stream_->frames().SubscriberCount() == 0 && stream_->audio().SubscriberCount() == 0;
  }));
}

TEST_F(RtspServerTest, StalledReaderDoesNotSlowAnotherAndCountsDrops) {
  stream_->SetPriming(1, 33);
  RtspTestClient stalled(server_.port());
  ASSERT_EQ(StartPlaying(stalled).status, 200);
  RtspTestClient reader(server_.port());
  ASSERT_EQ(StartPlaying(reader).status, 200);

  // 20 MB in 2 s: far more than the socket buffers of the stalled connection hold, so its
  // write hangs while the bus drops for it.
  constexpr int kFrames = 200;
  std::thread producer([&] {
    for (int i = 0; i < kFrames; ++i) {
      stream_->frames().Publish(MakeFrame(i * kFrame100ns, i % 30 == 0, 100'000));
      std::this_thread::sleep_for(10ms);
    }
  });
  int frames = 0;
  while (frames < kFrames) {
    const auto frame = reader.ReadFrame(3s);
    if (!frame) break;
    if (frame->channel == 0 && testing::ReadRtpFields(frame->payload).marker) ++frames;
  }
  producer.join();
  EXPECT_EQ(frames, kFrames) << "the reading player lost frames because of the stalled one";

  // The stalled player starts reading again: its connection goes on from where the bus let it,
  // and its statistics show what it lost.
  const auto deadline = std::chrono::steady_clock::now() + 4s;
  while (std::chrono::steady_clock::now() < deadline) stalled.ReadFrame(100ms);
  const std::string text = log();
  EXPECT_EQ(text.find("client 2 is only keeping up"), std::string::npos);
  EXPECT_NE(text.find("client 1 is only keeping up with about the keyframe rate"), std::string::npos)
      << text;
  // "client 1 delivered F fps (N frames, K keyframes, D dropped, ..." - its last line.
  const auto line = text.rfind("client 1 delivered");
  ASSERT_NE(line, std::string::npos);
  const auto keyframes_end = text.find(" keyframes, ", line);
  ASSERT_NE(keyframes_end, std::string::npos);
  const long dropped = std::stol(text.substr(keyframes_end + 12));
  EXPECT_GT(dropped, 0);
  const auto stopped = std::async(std::launch::async, [this] { server_.Stop(); });
  EXPECT_EQ(stopped.wait_for(5s), std::future_status::ready);
}

TEST_F(RtspServerTest, StopEndsAConnectionBlockedInASend) {
  stream_->SetPriming(1, 33);
  RtspTestClient stalled(server_.port());
  ASSERT_EQ(StartPlaying(stalled).status, 200);
  for (int i = 0; i < 200; ++i) stream_->frames().Publish(MakeFrame(i * kFrame100ns, true, 100'000));
  std::this_thread::sleep_for(300ms);
  const auto started = std::chrono::steady_clock::now();
  server_.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
}

TEST_F(RtspServerTest, WithdrawSaysGoodbyeOnEveryTrackAndEndsTheConnection) {
  stream_->SetPriming(1, 33);
  RtspTestClient first(server_.port());
  ASSERT_EQ(StartPlayingBothTracks(first).status, 200);
  RtspTestClient second(server_.port());
  ASSERT_EQ(StartPlaying(second).status, 200);
  stream_->frames().Publish(MakeFrame(0, true));
  ASSERT_TRUE(first.ReadFrame().has_value());
  ASSERT_TRUE(second.ReadFrame().has_value());
  registry_.Withdraw("tok");
  stream_->frames().Publish(MakeFrame(kFrame100ns, false));

  // No media any more: a BYE on each track's RTCP channel, then the connection closes.
  for (auto* client : {&first, &second}) {
    std::set<int> goodbyes;
    while (const auto frame = client->ReadFrame(2s)) {
      if (frame->channel == 0 || frame->channel == 2) continue;  // Media sent before the end.
      const auto& rtcp = frame->payload;
      ASSERT_GE(rtcp.size(), 8u);
      if (rtcp.size() == 60 && rtcp[52] == 0x81 && rtcp[53] == 203) {
        EXPECT_EQ(std::vector<std::uint8_t>(rtcp.begin() + 56, rtcp.end()),
                  std::vector<std::uint8_t>(rtcp.begin() + 4, rtcp.begin() + 8))
            << "the BYE names the report's source";
        goodbyes.insert(frame->channel);
      }
    }
    EXPECT_TRUE(client->WaitClosed(2s));
    EXPECT_EQ(goodbyes, (std::set<int>{1, 3}));
  }
  EXPECT_NE(testsupport::ReadFileText(dir_.path() / "log").find("stream ended, goodbye sent"),
            std::string::npos);
}

TEST_F(RtspServerTest, StopJoinsEveryThread) {
  RtspTestClient first(server_.port());
  RtspTestClient second(server_.port());
  ASSERT_EQ(StartPlaying(first).status, 200);
  ASSERT_EQ(StartPlaying(second).status, 200);
  const auto started = std::chrono::steady_clock::now();
  server_.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  EXPECT_TRUE(first.WaitClosed(2s));
  EXPECT_TRUE(second.WaitClosed(2s));
  EXPECT_THROW(RtspTestClient late(server_.port()), std::runtime_error);
}

// Any local program may connect: beyond the limit a connection is closed at once instead of
// being held, and a place that frees up is served again.
TEST(RtspServerLimits, ConnectionsBeyondTheLimitAreClosedAndAFreedPlaceIsServed) {
  RtspServer server([](const std::string&) { return nullptr; });
  server.SetMaxClients(3);
  server.Start(0);
  std::vector<std::unique_ptr<RtspTestClient>> served;
  for (int i = 0; i < 3; ++i) {
    served.push_back(std::make_unique<RtspTestClient>(server.port()));
    ASSERT_EQ(served.back()->Request("OPTIONS", "*", i + 1).status, 200);
  }
  RtspTestClient beyond(server.port());
  EXPECT_TRUE(beyond.WaitClosed(5s));
  EXPECT_EQ(server.refused_connections(), 1u);

  served.pop_back();
  // The freed connection ends when the server reads the close; until then a newcomer may still
  // find the house full.
  EXPECT_TRUE(Eventually([&] {
    RtspTestClient again(server.port());
    return again.Request("OPTIONS", "*", 9).status == 200;
  }));
  server.Stop();
}

// One stranger may not take every place: beyond its share an address's connections are closed at
// once, while this machine's (a local player, a proxy) are not counted.
TEST(RtspServerLimits, ConnectionsFromOneAddressBeyondItsShareAreClosedAtOnce) {
  const std::string address = testsupport::NonLoopbackAddress();
  if (address.empty()) GTEST_SKIP() << "this machine has no address but loopback";
  RtspServer server([](const std::string&) { return nullptr; });
  server.SetMaxClientsPerAddress(2);
  server.Start("0.0.0.0", 0);
  const std::string options = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
  std::vector<std::unique_ptr<testsupport::TcpClient>> held;
  for (int i = 0; i < 2; ++i) {
    held.push_back(std::make_unique<testsupport::TcpClient>(address, server.port()));
    held.back()->Send(options);
    EXPECT_NE(held.back()->ReadToEnd(300ms).find("RTSP/1.0 200 OK"), std::string::npos);
    EXPECT_FALSE(held.back()->closed_by_peer());
  }
  testsupport::TcpClient beyond(address, server.port());
  EXPECT_EQ(beyond.ReadToEnd(5s), "");
  EXPECT_TRUE(beyond.closed_by_peer());
  EXPECT_EQ(server.refused_connections(), 1u);
  for (int i = 0; i < 3; ++i) {
    RtspTestClient local(server.port());
    EXPECT_EQ(local.Request("OPTIONS", "*", 1).status, 200) << "this machine is not counted";
  }
  server.Stop();
}

TEST(RtspServerStart, TakenPortFailsWithTheBindText) {
  RtspServer first([](const std::string&) { return nullptr; });
  first.Start(0);
  RtspServer second([](const std::string&) { return nullptr; });
  try {
    second.Start(first.port());
    FAIL() << "bound a taken port";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("rtsp: could not bind 127.0.0.1:" + std::to_string(first.port())),
              std::string::npos);
  }
  second.Stop();
}

}  // namespace
}  // namespace mirell::rtsp
