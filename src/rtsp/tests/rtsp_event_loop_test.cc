// The server's event model: a hundred players on the server's own threads, each unit packetized
// once for all of them, a lookup that waits holding up nobody else, and a player that takes
// nothing ended by the send time-out while the others play on.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "mirell/rtsp/rtsp_server.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/tcp_client.h"
#include "rtsp_test_client.h"

namespace mirell::rtsp {
namespace {

using namespace std::chrono_literals;
using testing::RtspTestClient;
using testsupport::Eventually;

const std::vector<std::uint8_t> kSequenceHeader = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xD9,
                                                   0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};

encode::EncodedFramePtr MakeFrame(int index, std::size_t size = 3000) {
  auto frame = std::make_shared<encode::EncodedFrame>();
  frame->data = {0, 0, 0, 1, static_cast<std::uint8_t>(index == 0 ? 0x65 : 0x41)};
  frame->data.resize(size, static_cast<std::uint8_t>(0x10 + index % 0x40));  // No start code.
  frame->pts_100ns = index * 333'333;
  frame->duration_100ns = 333'333;
  frame->keyframe = index == 0;
  return frame;
}

std::size_t ThreadsOfThisProcess() {
  std::size_t threads = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++threads;
  return threads;
}

// Frames (marked last packets on channel 0) read within `limit`.
int ReadFrames(RtspTestClient& client, int wanted, std::chrono::milliseconds limit = 5s) {
  int frames = 0;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (frames < wanted && std::chrono::steady_clock::now() < deadline) {
    const auto frame = client.ReadFrame(500ms);
    if (!frame) continue;
    if (frame->channel == 0 && testing::ReadRtpFields(frame->payload).marker) ++frames;
  }
  return frames;
}

class RtspEventLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    stream_->SetSequenceHeader(kSequenceHeader);
    registry_.Publish("tok", stream_);
  }
  void Play(RtspTestClient& client, const std::string& uri) {
    ASSERT_EQ(client.Request("DESCRIBE", uri, 1).status, 200);
    ASSERT_EQ(client.Request("SETUP", uri + "/trackID=0", 2, "Transport: RTP/AVP/TCP;interleaved=0-1\r\n").status, 200);
    ASSERT_EQ(client.Request("PLAY", uri, 3).status, 200);
  }

  static std::string Uri(const RtspServer& server) {
    return "rtsp://127.0.0.1:" + std::to_string(server.port()) + "/s/tok";
  }
  // A player whose socket takes little at a time, so that a big write hangs or crawls.
  static void ShrinkReceiveBuffer(RtspTestClient& client) {
    const int small = 4096;
    ASSERT_EQ(setsockopt(client.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
  }

  streams::StreamRegistry registry_;
  std::shared_ptr<streams::MediaStream> stream_ = std::make_shared<streams::MediaStream>("test", 30, 2000);
};

TEST_F(RtspEventLoopTest, AHundredPlayersAreServedByTheServersOwnThreadsAndEachFrameIsPacketizedOnce) {
  RtspServer server([this](const std::string& path) { return registry_.Find(TokenFromPath(path)); });
  server.SetMaxClients(128);
  server.Start(0);
  const std::string uri = Uri(server);
  const std::size_t threads_before = ThreadsOfThisProcess();
  std::vector<std::unique_ptr<RtspTestClient>> players;
  for (int i = 0; i < 100; ++i) {
    players.push_back(std::make_unique<RtspTestClient>(server.port()));
    Play(*players.back(), uri);
  }
  EXPECT_EQ(server.connections(), 100u);
  EXPECT_EQ(ThreadsOfThisProcess(), threads_before) << "no thread per player";
  constexpr int kFrames = 10;
  // Each frame is read by every player before the next comes: a player's queue is a quarter of a
  // second of a live stream, and a loaded test machine may not give the server that much.
  for (int i = 0; i < kFrames; ++i) {
    stream_->frames().Publish(MakeFrame(i));
    for (std::size_t p = 0; p < players.size(); ++p) {
      ASSERT_EQ(ReadFrames(*players[p], 1), 1) << "frame " << i << ", player " << p;
    }
  }
  EXPECT_EQ(server.packetized_units(), static_cast<std::uint64_t>(kFrames));
  players.clear();
  EXPECT_TRUE(Eventually([&] { return server.connections() == 0; }));
  EXPECT_EQ(stream_->frames().SubscriberCount(), 0u);
  server.Stop();
}

// Each player's packets carry its own sequence numbers and source over the shared payloads.
TEST_F(RtspEventLoopTest, PlayersOfOneStreamHaveTheirOwnSourcesAndUnbrokenSequences) {
  RtspServer server([this](const std::string& path) { return registry_.Find(TokenFromPath(path)); });
  server.Start(0);
  const std::string uri = Uri(server);
  RtspTestClient first(server.port());
  RtspTestClient second(server.port());
  Play(first, uri);
  Play(second, uri);
  for (int i = 0; i < 5; ++i) stream_->frames().Publish(MakeFrame(i, 5000));
  std::vector<std::uint32_t> sources;
  for (auto* client : {&first, &second}) {
    std::optional<std::uint16_t> last;
    std::uint32_t ssrc = 0;
    int packets = 0;
    while (packets < 25) {  // 5 frames of 5000 bytes: 5 packets each.
      const auto frame = client->ReadFrame(3s);
      ASSERT_TRUE(frame.has_value()) << packets;
      if (frame->channel != 0) continue;
      const auto fields = testing::ReadRtpFields(frame->payload);
      if (last) {
        EXPECT_EQ(fields.sequence, static_cast<std::uint16_t>(*last + 1));
        EXPECT_EQ(fields.ssrc, ssrc);
      }
      last = fields.sequence;
      ssrc = fields.ssrc;
      ++packets;
    }
    sources.push_back(ssrc);
  }
  EXPECT_NE(sources[0], sources[1]);
  EXPECT_EQ(server.packetized_units(), 5u);
  server.Stop();
}

TEST_F(RtspEventLoopTest, ALookupThatWaitsHoldsUpNobodyElseAndStopWaitsForIt) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  RtspServer server([&](const std::string& path) -> std::shared_ptr<streams::MediaStream> {
    if (TokenFromPath(path) == "slow") {
      released.wait();
      return nullptr;
    }
    return registry_.Find(TokenFromPath(path));
  });
  server.Start(0);
  const std::string base = "rtsp://127.0.0.1:" + std::to_string(server.port()) + "/s/";
  RtspTestClient waiting(server.port());
  waiting.SendRaw("DESCRIBE " + base + "slow RTSP/1.0\r\nCSeq: 1\r\n\r\n");
  RtspTestClient player(server.port());
  Play(player, base + "tok");
  stream_->frames().Publish(MakeFrame(0));
  EXPECT_EQ(ReadFrames(player, 1), 1);
  RtspTestClient asking(server.port());
  EXPECT_EQ(asking.Request("OPTIONS", base + "tok", 1).status, 200);
  EXPECT_FALSE(waiting.WaitClosed(50ms));

  release.set_value();
  EXPECT_EQ(waiting.ReadResponse().status, 404);
  EXPECT_EQ(waiting.Request("OPTIONS", base + "slow", 2).status, 200) << "and the connection goes on";
  server.Stop();
}

TEST_F(RtspEventLoopTest, APlayerThatTakesNothingIsEndedAfterTheSendTimeOutAndTheOthersPlayOn) {
  RtspServer server([this](const std::string& path) { return registry_.Find(TokenFromPath(path)); });
  server.SetSendTimeout(1s);
  server.Start(0);
  const std::string uri = Uri(server);
  RtspTestClient stalled(server.port());
  ShrinkReceiveBuffer(stalled);
  Play(stalled, uri);
  RtspTestClient reader(server.port());
  Play(reader, uri);
  // 100 kB frames until the stalled player's socket can take no more and its write hangs.
  int published = 0;
  int read = 0;
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (server.connections() == 2 && std::chrono::steady_clock::now() < deadline) {
    stream_->frames().Publish(MakeFrame(published % 30 == 0 ? 0 : published + 1, 100'000));
    ++published;
    read += ReadFrames(reader, 1, 1s);
  }
  EXPECT_EQ(server.connections(), 1u) << "the stalled player is ended";
  EXPECT_TRUE(stalled.WaitClosed(5s));
  EXPECT_GT(read, published / 2) << "the reader kept playing";
  stream_->frames().Publish(MakeFrame(0, 1000));
  EXPECT_GE(ReadFrames(reader, 1, 3s), 1) << "and plays on";
  server.Stop();
}

// The send time-out counts from the player's last progress, not from the start of a write: a big
// backlog to a player that reads slowly but steadily goes out whole.
TEST_F(RtspEventLoopTest, APlayerThatReadsSlowlyButSteadilyIsNotEndedByTheSendTimeOut) {
  RtspServer server([this](const std::string& path) { return registry_.Find(TokenFromPath(path)); });
  server.SetSendTimeout(1s);
  server.Start(0);
  const std::string uri = Uri(server);
  RtspTestClient slow(server.port());
  ShrinkReceiveBuffer(slow);
  Play(slow, uri);
  constexpr std::size_t kFrameBytes = 200'000;
  stream_->frames().Publish(MakeFrame(0, kFrameBytes));
  // A small receive buffer read every 10 ms: the one write takes longer than the time-out.
  std::size_t received = 0;
  std::array<char, 8192> chunk{};
  const auto started = std::chrono::steady_clock::now();
  while (received < kFrameBytes && std::chrono::steady_clock::now() - started < 30s) {
    const auto count = recv(slow.fd(), chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (count == 0) break;
    if (count > 0) received += static_cast<std::size_t>(count);
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_GE(received, kFrameBytes) << "the whole picture came";
  EXPECT_GT(std::chrono::steady_clock::now() - started, 2s) << "slower than the time-out";
  EXPECT_EQ(server.connections(), 1u);
  server.Stop();
}

// After TEARDOWN nothing the player sent behind it is done: no PLAY subscribes, no answer comes.
TEST_F(RtspEventLoopTest, RequestsBehindATeardownAreNotHandled) {
  RtspServer server([this](const std::string& path) { return registry_.Find(TokenFromPath(path)); });
  server.Start(0);
  const std::string uri = Uri(server);
  RtspTestClient client(server.port());
  ASSERT_EQ(client.Request("DESCRIBE", uri, 1).status, 200);
  client.SendRaw("TEARDOWN " + uri + " RTSP/1.0\r\nCSeq: 2\r\n\r\nPLAY " + uri +
                 " RTSP/1.0\r\nCSeq: 3\r\n\r\nDESCRIBE " + uri + " RTSP/1.0\r\nCSeq: 4\r\n\r\n");
  EXPECT_EQ(client.ReadResponse().headers.at("CSeq"), "2");
  EXPECT_TRUE(client.WaitClosed(2s)) << "and nothing after it";
  EXPECT_EQ(stream_->frames().SubscriberCount(), 0u);
  server.Stop();
}

// A lookup that fails is a stream not found, and the server goes on.
TEST_F(RtspEventLoopTest, ALookupThatThrowsIsAnsweredNotFound) {
  RtspServer server([this](const std::string& path) -> std::shared_ptr<streams::MediaStream> {
    if (TokenFromPath(path) == "bad") throw std::runtime_error("the signal server is gone");
    return registry_.Find(TokenFromPath(path));
  });
  server.Start(0);
  const std::string base = "rtsp://127.0.0.1:" + std::to_string(server.port()) + "/s/";
  RtspTestClient client(server.port());
  EXPECT_EQ(client.Request("DESCRIBE", base + "bad", 1).status, 404);
  EXPECT_EQ(client.Request("DESCRIBE", base + "tok", 2).status, 200);
  RtspTestClient other(server.port());
  Play(other, base + "tok");
  server.Stop();
}

// The lookup is told who asks: another machine's address, or 0 for this machine's players.
TEST_F(RtspEventLoopTest, TheLookupIsToldThePlayersAddress) {
  const std::string address = testsupport::NonLoopbackAddress();
  if (address.empty()) GTEST_SKIP() << "this machine has no address but loopback";
  std::mutex mutex;
  std::vector<std::uint32_t> peers;
  RtspServer server([&](const std::string&, std::uint32_t peer) -> std::shared_ptr<streams::MediaStream> {
    std::lock_guard lock(mutex);
    peers.push_back(peer);
    return nullptr;
  });
  server.Start("0.0.0.0", 0);
  RtspTestClient local(server.port());
  EXPECT_EQ(local.Request("DESCRIBE", "rtsp://127.0.0.1/s/tok", 1).status, 404);
  testsupport::TcpClient remote(address, server.port());
  remote.Send("DESCRIBE rtsp://" + address + "/s/tok RTSP/1.0\r\nCSeq: 1\r\n\r\n");
  EXPECT_NE(remote.ReadToEnd(500ms).find("RTSP/1.0 404"), std::string::npos);
  server.Stop();
  in_addr parsed{};
  ASSERT_EQ(inet_pton(AF_INET, address.c_str(), &parsed), 1);
  std::lock_guard lock(mutex);
  EXPECT_EQ(peers, (std::vector<std::uint32_t>{0, ntohl(parsed.s_addr)}));
}

}  // namespace
}  // namespace mirell::rtsp
