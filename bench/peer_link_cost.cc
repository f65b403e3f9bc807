// The peer link on loopback: time from CreateOfferer to connected, and the cost and one-way
// latency of a 6 Mbit/s video stream through two links, beside a bare UDP loopback carrying the
// same packets at the same pace in the same run.
//
// Figures: offer to connected (median of 20); link and UDP one-way latency (median, p99); CPU
// milliseconds per 1000 packets, both ends together, for each; and their ratios.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "mirell/base/logging.h"
#include "mirell/media/rtp.h"
#include "mirell/transport/peer_link.h"

namespace {

using namespace mirell;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kFrames = 300;            // 10 s at 30 fps
constexpr int kPacketsPerFrame = 21;    // 21 x 1200 bytes x 30 fps: about 6 Mbit/s
constexpr int kConnectRounds = 20;

double CpuMs() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

std::int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// An RTP packet that carries the moment it was sent.
std::vector<std::uint8_t> Packet(std::uint16_t sequence, std::uint32_t timestamp, bool marker) {
  std::vector<std::uint8_t> packet;
  media::AppendRtpHeader(packet, 96, marker, sequence, timestamp, transport::kVideoSsrc);
  packet.resize(transport::kMaxRtpPacketSize, 0x5A);
  const std::int64_t now = NowNs();
  std::memcpy(packet.data() + media::kRtpHeaderSize, &now, sizeof now);
  return packet;
}

std::int64_t SentAt(std::span<const std::uint8_t> packet) {
  std::int64_t sent = 0;
  std::memcpy(&sent, packet.data() + media::kRtpHeaderSize, sizeof sent);
  return sent;
}

struct Run {
  std::vector<double> latency_ms;
  double cpu_ms = 0;
  std::size_t packets = 0;
};

// Paces the stream in bursts of one frame every 1/30 s, as an encoder would.
template <typename Send>
void SendStream(Send send) {
  const auto start = Clock::now();
  std::uint16_t sequence = 0;
  for (int frame = 0; frame < kFrames; ++frame) {
    std::this_thread::sleep_until(start + std::chrono::microseconds(frame * 33333));
    for (int i = 0; i < kPacketsPerFrame; ++i) {
      send(Packet(sequence++, static_cast<std::uint32_t>(frame * 3000), i == kPacketsPerFrame - 1));
    }
  }
}

struct Collector {
  std::mutex mutex;
  std::condition_variable done;
  std::vector<double> latency_ms;
  void Add(std::span<const std::uint8_t> packet) {
    const double ms = static_cast<double>(NowNs() - SentAt(packet)) / 1e6;
    std::lock_guard hold(mutex);
    latency_ms.push_back(ms);
    if (latency_ms.size() == static_cast<std::size_t>(kFrames * kPacketsPerFrame)) done.notify_all();
  }
  void Wait() {
    std::unique_lock hold(mutex);
    done.wait_for(hold, std::chrono::seconds(10), [&] {
      return latency_ms.size() == static_cast<std::size_t>(kFrames * kPacketsPerFrame);
    });
  }
};

struct Pair {
  std::unique_ptr<transport::PeerLink> host;
  std::unique_ptr<transport::PeerLink> viewer;
};

// A connected pair and the time it took from CreateOfferer; nullopt if it did not connect.
std::optional<Pair> Connect(double& took_ms, Collector* collector) {
  transport::PeerConfig config{{}, 1};
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<std::string> offer, answer;
  bool host_up = false;
  const auto started = Clock::now();
  Pair pair;
  pair.host = transport::CreateOfferer(config, transport::OfferMedia{});
  pair.host->OnState([&](transport::PeerState state) {
    std::lock_guard hold(mutex);
    if (state == transport::PeerState::kConnected) host_up = true;
    changed.notify_all();
  });
  pair.host->OnLocalDescription([&](const std::string& sdp) {
    std::lock_guard hold(mutex);
    offer = sdp;
    changed.notify_all();
  });
  pair.viewer = transport::CreateAnswerer(config);
  if (collector) pair.viewer->OnVideo([collector](auto packet) { collector->Add(packet); });
  pair.viewer->OnLocalDescription([&](const std::string& sdp) {
    std::lock_guard hold(mutex);
    answer = sdp;
    changed.notify_all();
  });
  std::unique_lock hold(mutex);
  if (!changed.wait_for(hold, std::chrono::seconds(10), [&] { return offer.has_value(); })) return {};
  std::string offer_text = *offer;
  hold.unlock();
  pair.viewer->SetRemoteDescription(offer_text);
  hold.lock();
  if (!changed.wait_for(hold, std::chrono::seconds(10), [&] { return answer.has_value(); })) return {};
  std::string answer_text = *answer;
  hold.unlock();
  pair.host->SetRemoteDescription(answer_text);
  hold.lock();
  if (!changed.wait_for(hold, std::chrono::seconds(10), [&] { return host_up; })) return {};
  took_ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
  hold.unlock();
  pair.host->OnState(nullptr);
  pair.host->OnLocalDescription(nullptr);
  pair.viewer->OnLocalDescription(nullptr);
  return pair;
}

Run ThroughLinks() {
  Collector collector;
  double took = 0;
  auto pair = Connect(took, &collector);
  if (!pair) {
    std::fprintf(stderr, "the links did not connect\n");
    std::exit(1);
  }
  // Both links must see the other up before media flows.
  while (pair->viewer->state() != transport::PeerState::kConnected) std::this_thread::sleep_for(milliseconds(5));
  const double cpu_before = CpuMs();
  SendStream([&](const std::vector<std::uint8_t>& packet) { pair->host->SendVideo(packet); });
  collector.Wait();
  Run run;
  run.cpu_ms = CpuMs() - cpu_before;
  run.latency_ms = collector.latency_ms;
  run.packets = run.latency_ms.size();
  pair->host->Close();
  pair->viewer->Close();
  return run;
}

Run ThroughUdp() {
  int receiver = ::socket(AF_INET, SOCK_DGRAM, 0);
  int sender = ::socket(AF_INET, SOCK_DGRAM, 0);
  int buffer = 4 << 20;
  ::setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t size = sizeof address;
  ::getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &size);
  timeval timeout{1, 0};
  ::setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

  Collector collector;
  std::thread reading([&] {
    std::vector<std::uint8_t> packet(2048);
    for (int i = 0; i < kFrames * kPacketsPerFrame; ++i) {
      ssize_t got = ::recv(receiver, packet.data(), packet.size(), 0);
      if (got <= 0) break;
      collector.Add(std::span<const std::uint8_t>(packet.data(), static_cast<std::size_t>(got)));
    }
  });
  const double cpu_before = CpuMs();
  SendStream([&](const std::vector<std::uint8_t>& packet) {
    ::sendto(sender, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
  });
  collector.Wait();
  reading.join();
  Run run;
  run.cpu_ms = CpuMs() - cpu_before;
  run.latency_ms = collector.latency_ms;
  run.packets = run.latency_ms.size();
  ::close(sender);
  ::close(receiver);
  return run;
}

double Percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(p * static_cast<double>(values.size())))];
}

}  // namespace

int main() {
  SetLogLevel(LogLevel::kWarn);
  transport::InitialiseTransportLogging();

  std::vector<double> connect_ms;
  for (int i = 0; i < kConnectRounds; ++i) {
    double took = 0;
    if (auto pair = Connect(took, nullptr)) {
      connect_ms.push_back(took);
      pair->host->Close();
      pair->viewer->Close();
    }
  }
  std::printf("offer to connected: median %.0f ms, min %.0f ms, max %.0f ms (%zu of %d connected)\n",
              Percentile(connect_ms, 0.5), Percentile(connect_ms, 0.0), Percentile(connect_ms, 1.0),
              connect_ms.size(), kConnectRounds);

  Run udp = ThroughUdp();
  Run link = ThroughLinks();
  const double per_k_link = link.cpu_ms / static_cast<double>(link.packets) * 1000;
  const double per_k_udp = udp.cpu_ms / static_cast<double>(udp.packets) * 1000;
  std::printf("stream: %d packets of %zu bytes, %d per frame at 30 fps (%.1f Mbit/s)\n",
              kFrames * kPacketsPerFrame, transport::kMaxRtpPacketSize, kPacketsPerFrame,
              kPacketsPerFrame * 30.0 * transport::kMaxRtpPacketSize * 8 / 1e6);
  std::printf("link: %zu received, one-way median %.2f ms, p99 %.2f ms, CPU %.1f ms per 1000 packets\n",
              link.packets, Percentile(link.latency_ms, 0.5), Percentile(link.latency_ms, 0.99), per_k_link);
  std::printf("udp:  %zu received, one-way median %.3f ms, p99 %.3f ms, CPU %.1f ms per 1000 packets\n",
              udp.packets, Percentile(udp.latency_ms, 0.5), Percentile(udp.latency_ms, 0.99), per_k_udp);
  std::printf("link added: median %.2f ms, p99 %.2f ms; CPU %.1fx the bare UDP path\n",
              Percentile(link.latency_ms, 0.5) - Percentile(udp.latency_ms, 0.5),
              Percentile(link.latency_ms, 0.99) - Percentile(udp.latency_ms, 0.99),
              per_k_udp > 0 ? per_k_link / per_k_udp : 0.0);
  return 0;
}
