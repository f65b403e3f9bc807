// Our RTP payload formats against implementations nobody here wrote: GStreamer's payloaders
// and depayloaders, with FFmpeg's and GStreamer's decoders as judges. Our packets go to
// GStreamer over loopback TCP, each with its 16-bit length in front (RTP over a stream): a
// receiver starved of CPU on a loaded machine then gets late packets, never lost ones, and the
// test judges the payload format alone. GStreamer's packets come to us over UDP.
#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <sstream>
#include <thread>

#include "interop_support.h"
#include "mirell/media/aac_rtp.h"
#include "mirell/media/h264_rtp.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace mirell::media {
namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::ProcessResult;
using testsupport::RunProcess;
using testsupport::TempDir;

constexpr int kFrames = 60;
constexpr int kWidth = 640;
constexpr int kHeight = 480;

class GstreamerInterop : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* tool : {"ffmpeg", "gst-launch-1.0"}) {
      if (!testsupport::HaveProgram(tool)) GTEST_SKIP() << tool << " is not installed (scripts/install-deps)";
    }
  }

  // Starts a gst-launch pipeline that will end in EOS on SIGINT.
  static std::unique_ptr<ChildProcess> Launch(const std::string& pipeline) {
    std::vector<std::string> argv = {"gst-launch-1.0", "-e", "-q"};
    std::istringstream words(pipeline);
    for (std::string word; words >> word;) argv.push_back(word);
    return std::make_unique<ChildProcess>(argv);
  }

  static ProcessResult Finish(ChildProcess& child) {
    child.Signal(SIGINT);
    return child.Wait(20s);
  }

  // Every packet of every unit, pausing between units like a live source, written to a TCP
  // connection to `port` (a tcpserversrc), each after its length; the connection's end is the
  // stream's end.
  template <typename Packetizer>
  static void SendUnitsOverTcp(Packetizer& packetizer, const std::vector<Bytes>& units,
                               std::uint32_t ticks_per_unit, std::uint16_t port) {
    std::unique_ptr<testsupport::TcpClient> connection;
    const auto give_up = std::chrono::steady_clock::now() + 10s;
    while (!connection && std::chrono::steady_clock::now() < give_up) {
      try {
        connection = std::make_unique<testsupport::TcpClient>(port);
      } catch (const std::runtime_error&) {
        std::this_thread::sleep_for(20ms);
      }
    }
    ASSERT_TRUE(connection) << "GStreamer did not listen on " << port;
    std::vector<Bytes> packets;
    for (std::size_t i = 0; i < units.size(); ++i) {
      packets.clear();
      packetizer.Packetize(units[i], static_cast<std::uint32_t>(i) * ticks_per_unit, packets);
      for (const auto& packet : packets) {
        std::string framed{static_cast<char>(packet.size() >> 8), static_cast<char>(packet.size() & 0xFF)};
        framed.append(packet.begin(), packet.end());
        connection->Send(framed);
      }
      std::this_thread::sleep_for(2ms);
    }
    connection->ShutdownWrite();
  }

  // Collects datagrams until none has come for a while after the sender has finished.
  static std::vector<Bytes> Collect(testing::UdpSocket& socket, ChildProcess& sender) {
    std::vector<Bytes> packets;
    const auto give_up = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < give_up) {
      auto packet = socket.Receive(500ms);
      if (packet) {
        packets.push_back(std::move(*packet));
      } else if (!sender.Running()) {
        break;
      }
    }
    return packets;
  }

  TempDir dir_;
};

TEST_F(GstreamerInterop, OurH264PacketsDecodeInGstreamer) {
  const auto units = testing::SplitAtDelimiters(testing::ReadBytes(testing::MakeH264Fixture(dir_.path(), kFrames, kWidth, kHeight)));
  ASSERT_EQ(units.size(), static_cast<std::size_t>(kFrames));
  const std::uint16_t port = testsupport::FreeLoopbackPort();
  const auto out = dir_.path() / "decoded.yuv";
  auto receiver = Launch("tcpserversrc host=127.0.0.1 port=" + std::to_string(port) +
                         " ! application/x-rtp-stream,media=video,clock-rate=90000,encoding-name=H264,payload=96"
                         " ! rtpstreamdepay ! rtph264depay ! h264parse ! avdec_h264 ! videoconvert"
                         " ! video/x-raw,format=I420 ! filesink location=" + out.string());

  H264RtpPacketizer packetizer({96, 0, 1200, 0});
  SendUnitsOverTcp(packetizer, units, 3000, port);
  std::this_thread::sleep_for(1s);
  const ProcessResult result = Finish(*receiver);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  const std::uintmax_t frame_bytes = kWidth * kHeight * 3 / 2;
  EXPECT_EQ(std::filesystem::file_size(out), frame_bytes * kFrames) << "every frame decodes";
}

TEST_F(GstreamerInterop, GstreamerH264PacketsRebuildIntoTheSameFrames) {
  const auto fixture = testing::MakeH264Fixture(dir_.path(), kFrames, kWidth, kHeight);
  testing::UdpSocket socket;
  auto sender = Launch("filesrc location=" + fixture.string() +
                       " ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=au"
                       " ! rtph264pay mtu=1200 pt=96 config-interval=-1 aggregate-mode=zero-latency"
                       " ! udpsink host=127.0.0.1 sync=false port=" + std::to_string(socket.port()));
  const auto packets = Collect(socket, *sender);
  const ProcessResult sent = sender->Wait(10s);
  ASSERT_EQ(sent.exit_code, 0) << sent.err;

  H264RtpDepacketizer depacketizer;
  Bytes rebuilt;
  int units = 0;
  int stap_a_packets = 0;
  int fu_a_packets = 0;
  for (const auto& packet : packets) {
    RtpPacketView view;
    if (ParseRtpPacket(packet, view) && !view.payload.empty()) {
      stap_a_packets += (view.payload[0] & 0x1F) == 24;
      fu_a_packets += (view.payload[0] & 0x1F) == 28;
    }
    H264AccessUnit unit;
    if (depacketizer.Push(packet, unit)) {
      rebuilt.insert(rebuilt.end(), unit.annex_b.begin(), unit.annex_b.end());
      ++units;
    }
  }
  EXPECT_GT(stap_a_packets, 0) << "the receive path must see STAP-A";
  EXPECT_GT(fu_a_packets, 0);
  EXPECT_EQ(units, kFrames);
  EXPECT_EQ(depacketizer.dropped_units(), 0u);
  EXPECT_EQ(depacketizer.lost_packets(), 0u);
  const auto rebuilt_path = dir_.path() / "rebuilt.h264";
  testing::WriteBytes(rebuilt_path, rebuilt);

  auto frame_hashes = [](const std::filesystem::path& path) {
    const ProcessResult r = RunProcess({"ffmpeg", "-nostdin", "-v", "error", "-f", "h264", "-i", path.string(),
                                        "-f", "framemd5", "-"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.err, "") << "decoder complained";
    std::vector<std::string> hashes;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line[0] != '#') hashes.push_back(line.substr(line.rfind(',') + 1));
    }
    return hashes;
  };
  const auto original = frame_hashes(fixture);
  ASSERT_EQ(original.size(), static_cast<std::size_t>(kFrames));
  EXPECT_EQ(frame_hashes(rebuilt_path), original);
}

// Sign changes of the left channel of interleaved 16-bit stereo, as a frequency in Hz.
double MeasuredFrequency(const Bytes& pcm, int sample_rate) {
  std::vector<std::int16_t> left;
  for (std::size_t i = 0; i + 4 <= pcm.size(); i += 4) {
    std::int16_t sample;
    std::memcpy(&sample, &pcm[i], sizeof sample);
    left.push_back(sample);
  }
  // Skip the encoder's start-up and the end.
  const std::size_t from = left.size() / 10, to = left.size() - left.size() / 10;
  int crossings = 0;
  for (std::size_t i = from + 1; i < to; ++i) crossings += (left[i - 1] < 0) != (left[i] < 0);
  return crossings / 2.0 / (static_cast<double>(to - from) / sample_rate);
}

TEST_F(GstreamerInterop, OurAacPacketsDecodeInGstreamer) {
  const auto units = testing::ParseAdts(testing::ReadBytes(testing::MakeAacFixture(dir_.path(), 2.0)));
  ASSERT_GT(units.size(), 90u);
  const std::uint16_t port = testsupport::FreeLoopbackPort();
  const auto out = dir_.path() / "decoded.pcm";
  const std::string config = HexEncode(MakeAacLcAudioSpecificConfig(48000, 2));
  auto receiver = Launch("tcpserversrc host=127.0.0.1 port=" + std::to_string(port) +
                         " ! application/x-rtp-stream,media=audio,clock-rate=48000,encoding-name=MPEG4-GENERIC,"
                         "encoding-params=(string)2,streamtype=(string)5,mode=(string)AAC-hbr,config=(string)" + config +
                         ",sizelength=(string)13,indexlength=(string)3,indexdeltalength=(string)3,payload=97"
                         " ! rtpstreamdepay ! rtpmp4gdepay ! aacparse ! avdec_aac ! audioconvert"
                         " ! audio/x-raw,format=S16LE,channels=2 ! filesink location=" + out.string());

  // A small packet size so that every unit is fragmented.
  AacRtpPacketizer packetizer({97, 0, 200, 0});
  SendUnitsOverTcp(packetizer, units, 1024, port);
  std::this_thread::sleep_for(1s);
  const ProcessResult result = Finish(*receiver);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  const Bytes pcm = testing::ReadBytes(out);
  EXPECT_EQ(pcm.size(), units.size() * 1024 * 2 * 2) << "every unit decodes to 1024 stereo samples";
  EXPECT_NEAR(MeasuredFrequency(pcm, 48000), 1000.0, 10.0);
}

TEST_F(GstreamerInterop, GstreamerAacPacketsRebuildByteForByte) {
  const auto fixture = testing::MakeAacFixture(dir_.path(), 2.0);
  const auto original = testing::ParseAdts(testing::ReadBytes(fixture));
  for (const int mtu : {1200, 200}) {
    testing::UdpSocket socket;
    auto sender = Launch("filesrc location=" + fixture.string() + " ! aacparse ! rtpmp4gpay pt=97 mtu=" +
                         std::to_string(mtu) + " ! udpsink host=127.0.0.1 sync=false port=" +
                         std::to_string(socket.port()));
    const auto packets = Collect(socket, *sender);
    const ProcessResult sent = sender->Wait(10s);
    ASSERT_EQ(sent.exit_code, 0) << sent.err;
    AacRtpDepacketizer depacketizer;
    std::vector<Bytes> rebuilt;
    for (const auto& packet : packets) {
      AacAccessUnit unit;
      if (depacketizer.Push(packet, unit)) rebuilt.push_back(unit.bytes);
    }
    EXPECT_EQ(depacketizer.bad_packets(), 0u) << "mtu " << mtu;
    EXPECT_EQ(depacketizer.abandoned_units(), 0u) << "mtu " << mtu;
    EXPECT_EQ(rebuilt, original) << "mtu " << mtu;
  }
}

}  // namespace
}  // namespace mirell::media
