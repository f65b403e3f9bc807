// What the relay costs per player: its CPU and resident memory while 1, 10, 50 and 200 players
// read one public 1280x720@30 share (6 Mbit/s), beside GStreamer's RTSP server (the Python
// reference) serving the same kind of stream to the same players in the same run. The players
// are in this process: each does DESCRIBE, SETUP (both tracks) and PLAY, then one thread reads
// every connection and discards, counting pictures (RTP marker bits on the video channel), so
// that a player left behind shows as a drop.
//
// Usage: bench_relay [seconds per step]   (default 10)
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fixture_publisher.h"
#include "mirell/base/logging.h"
#include "mirell/protocol/share_token.h"
#include "mirell/streams/media_stream.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/transport/signal_client.h"

namespace {

using namespace std::chrono_literals;
using mirell::testsupport::ChildProcess;

// A player that reads and discards: a blocking handshake, then non-blocking reads by the pool.
class DiscardingPlayer {
 public:
  // Connects and plays `url`; false when any step fails.
  bool Start(std::uint16_t port, const std::string& url) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return false;
    const auto describe = Exchange("DESCRIBE", url, "Accept: application/sdp\r\n");
    if (!describe) return false;
    std::string base = Header(*describe, "Content-Base");
    if (base.empty()) base = url + "/";
    std::vector<std::string> controls;
    std::istringstream sdp(describe->substr(describe->find("\r\n\r\n") + 4));
    std::string line;
    bool in_media = false;
    while (std::getline(sdp, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.rfind("m=", 0) == 0) in_media = true;
      if (in_media && line.rfind("a=control:", 0) == 0) controls.push_back(line.substr(10));
    }
    std::string session;
    for (std::size_t i = 0; i < controls.size(); ++i) {
      const std::string track = controls[i].rfind("rtsp://", 0) == 0 ? controls[i] : base + controls[i];
      std::string headers = fmt::format("Transport: RTP/AVP/TCP;unicast;interleaved={}-{}\r\n", 2 * i, 2 * i + 1);
      if (!session.empty()) headers += "Session: " + session + "\r\n";
      const auto setup = Exchange("SETUP", track, headers);
      if (!setup) return false;
      session = Header(*setup, "Session");
      session = session.substr(0, session.find(';'));
    }
    if (!Exchange("PLAY", url, session.empty() ? std::string() : "Session: " + session + "\r\n")) return false;
    return true;
  }

  ~DiscardingPlayer() {
    if (fd_ >= 0) close(fd_);
  }

  int fd() const { return fd_; }
  // Reads what is there; false once the server has closed.
  bool Read() {
    const auto count = recv(fd_, buffer_.data() + filled_, buffer_.size() - filled_, MSG_DONTWAIT);
    if (count == 0) return false;
    if (count < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    filled_ += static_cast<std::size_t>(count);
    std::size_t at = 0;
    while (filled_ - at >= 4) {
      if (buffer_[at] != '$') return false;  // Out of step: counts as ended.
      const std::size_t length = static_cast<std::size_t>(buffer_[at + 2]) << 8 | buffer_[at + 3];
      if (filled_ - at < 4 + length) break;
      if (buffer_[at + 1] == 0 && length >= 2 && (buffer_[at + 5] & 0x80) != 0) ++pictures_;
      at += 4 + length;
    }
    std::memmove(buffer_.data(), buffer_.data() + at, filled_ - at);
    filled_ -= at;
    return true;
  }
  std::uint64_t pictures() const { return pictures_; }
  const std::string& error() const { return error_; }

 private:
  // One request and its whole response (head and body); nothing when it fails or is not 200.
  std::optional<std::string> Exchange(const std::string& method, const std::string& uri, const std::string& headers) {
    const std::string request = fmt::format("{} {} RTSP/1.0\r\nCSeq: {}\r\n{}\r\n", method, uri, ++cseq_, headers);
    if (send(fd_, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
      return std::nullopt;
    }
    std::string response;
    char byte = 0;
    // A byte at a time up to the blank line, so that nothing after the response is taken.
    while (response.size() < 65536 && response.find("\r\n\r\n") == std::string::npos) {
      pollfd entry{fd_, POLLIN, 0};
      if (poll(&entry, 1, 10'000) != 1 || recv(fd_, &byte, 1, 0) != 1) {
        error_ = fmt::format("{}: no whole answer within 10 s", method);
        return std::nullopt;
      }
      response += byte;
    }
    const std::string length = Header(response, "Content-Length");
    std::size_t body = length.empty() ? 0 : std::stoul(length);
    while (body > 0) {
      char chunk[4096];
      const auto count = recv(fd_, chunk, std::min(body, sizeof(chunk)), 0);
      if (count <= 0) return std::nullopt;
      response.append(chunk, static_cast<std::size_t>(count));
      body -= static_cast<std::size_t>(count);
    }
    if (response.rfind("RTSP/1.0 200", 0) != 0) {
      error_ = fmt::format("{} answered {}", method, response.substr(0, response.find('\r')));
      return std::nullopt;
    }
    return response;
  }
  static std::string Header(const std::string& response, const std::string& name) {
    const auto at = response.find("\r\n" + name + ":");
    if (at == std::string::npos) return {};
    auto start = at + name.size() + 3;
    while (start < response.size() && response[start] == ' ') ++start;
    return response.substr(start, response.find("\r\n", start) - start);
  }

  int fd_ = -1;
  int cseq_ = 0;
  std::string error_;
  std::vector<unsigned char> buffer_ = std::vector<unsigned char>(1 << 18);
  std::size_t filled_ = 0;
  std::uint64_t pictures_ = 0;
};

// The players of one server, read by one thread.
class PlayerPool {
 public:
  PlayerPool(std::uint16_t port, std::string url) : port_(port), url_(std::move(url)) {
    thread_ = std::thread([this] { Run(); });
  }
  ~PlayerPool() {
    running_ = false;
    thread_.join();
  }
  // Adds players up to `count`; false when one could not start.
  bool GrowTo(std::size_t count) {
    while (size() < count) {
      auto player = std::make_unique<DiscardingPlayer>();
      if (!player->Start(port_, url_)) {
        fmt::print("  player {}: {}\n", size() + 1, player->error().empty() ? "could not connect" : player->error());
        return false;
      }
      std::lock_guard lock(mutex_);
      players_.push_back(std::move(player));
      ended_.push_back(false);
    }
    return true;
  }
  std::size_t size() {
    std::lock_guard lock(mutex_);
    return players_.size();
  }
  // Pictures each player has had so far, and how many have ended.
  std::vector<std::uint64_t> Pictures(std::size_t* ended) {
    std::lock_guard lock(mutex_);
    std::vector<std::uint64_t> pictures;
    *ended = static_cast<std::size_t>(std::count(ended_.begin(), ended_.end(), true));
    for (const auto& player : players_) pictures.push_back(player->pictures());
    return pictures;
  }

 private:
  void Run() {
    std::vector<pollfd> entries;
    while (running_) {
      {
        std::lock_guard lock(mutex_);
        entries.clear();
        for (std::size_t i = 0; i < players_.size(); ++i) {
          entries.push_back({ended_[i] ? -1 : players_[i]->fd(), POLLIN, 0});
        }
      }
      if (entries.empty()) {
        std::this_thread::sleep_for(10ms);
        continue;
      }
      if (poll(entries.data(), entries.size(), 100) <= 0) continue;
      std::lock_guard lock(mutex_);
      for (std::size_t i = 0; i < entries.size(); ++i) {
        if ((entries[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !players_[i]->Read()) ended_[i] = true;
      }
    }
  }

  const std::uint16_t port_;
  const std::string url_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<DiscardingPlayer>> players_;
  std::vector<bool> ended_;
  std::atomic<bool> running_{true};
  std::thread thread_;
};

// CPU seconds (user + system) and resident kilobytes of a process, from /proc.
double CpuSeconds(int pid) {
  std::ifstream stat(fmt::format("/proc/{}/stat", pid));
  std::string text;
  std::getline(stat, text);  // One line.
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}
double ResidentMegabytes(int pid) {
  std::ifstream status(fmt::format("/proc/{}/status", pid));
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

struct Step {
  std::size_t players = 0;
  double cpu_percent = 0;  // Of one core.
  double rss_mb = 0;
  std::size_t behind = 0;  // Players that had fewer than 90% of the pictures, or ended.
};

// Grows the pool to each count, lets it settle, then measures the server for `seconds`.
std::vector<Step> Measure(int pid, PlayerPool& pool, const std::vector<std::size_t>& counts, int seconds) {
  std::vector<Step> steps;
  for (const std::size_t count : counts) {
    Step step;
    step.players = count;
    if (!pool.GrowTo(count)) {
      fmt::print("  could not start player {}: the figures stop here\n", pool.size() + 1);
      break;
    }
    std::this_thread::sleep_for(3s);  // Past the primed burst of the new players.
    std::size_t ended = 0;
    const auto before = pool.Pictures(&ended);
    const double cpu_before = CpuSeconds(pid);
    const auto wall_before = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_before).count();
    step.cpu_percent = (CpuSeconds(pid) - cpu_before) / wall * 100;
    step.rss_mb = ResidentMegabytes(pid);
    const auto after = pool.Pictures(&ended);
    const double expected = 30 * wall;
    for (std::size_t i = 0; i < after.size(); ++i) {
      step.behind += static_cast<double>(after[i] - before[i]) < 0.9 * expected ? 1u : 0u;
    }
    step.behind = std::max(step.behind, ended);
    steps.push_back(step);
  }
  return steps;
}

bool WaitForPort(std::uint16_t port) {
  for (int i = 0; i < 300; ++i) {
    if (mirell::testsupport::LoopbackPortAccepts(port)) return true;
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  const std::vector<std::size_t> counts = {1, 10, 50, 200};
  mirell::testsupport::TempDir dir;
  std::ofstream(dir.path() / "secret") << "relay-secret-for-the-bench-0123\n";
  const std::uint16_t signal_port = mirell::testsupport::FreeLoopbackPort();
  const std::uint16_t relay_port = mirell::testsupport::FreeLoopbackPort();
  const std::string signal_url = fmt::format("ws://127.0.0.1:{}/signal", signal_port);
  ChildProcess signal_server({MIRELL_SIGNAL_BINARY, "--listen", fmt::format("127.0.0.1:{}", signal_port),
                              "--relay-secret-file", (dir.path() / "secret").string()});
  mirell::testsupport::ProcessOptions quiet;
  quiet.environment["MIRELL_LOG"] = "error";
  quiet.timeout = std::chrono::hours(1);
  ChildProcess relay({MIRELL_RELAY_BINARY, "--signal", signal_url, "--relay-secret-file",
                      (dir.path() / "secret").string(), "--listen", fmt::format("127.0.0.1:{}", relay_port),
                      "--max-players", "512"},
                     quiet);
  const auto credentials = mirell::protocol::GenerateShareCredentials();
  const auto host_dir = dir.path() / "host";
  std::filesystem::create_directories(host_dir);
  ChildProcess host({MIRELL_TEST_HOST_BINARY, "--signal", signal_url, "--token", credentials.token, "--secret",
                     credentials.secret, "--dir", host_dir.string(), "--public", "yes", "--picture",
                     "1280x720@6000"},
                    quiet);
  if (!WaitForPort(signal_port) || !WaitForPort(relay_port)) {
    fmt::print("the signal server or the relay did not start\n");
    return 1;
  }
  for (int i = 0; i < 600; ++i) {
    if (mirell::testsupport::ReadFileText(host_dir / "events").find("hosting") != std::string::npos) break;
    std::this_thread::sleep_for(100ms);
  }

  std::vector<Step> ours;
  {
    PlayerPool pool(relay_port, fmt::format("rtsp://127.0.0.1:{}/s/{}", relay_port, credentials.token));
    ours = Measure(relay.pid(), pool, counts, seconds);
  }
  relay.Signal(SIGTERM);
  relay.Wait(20s);
  host.Signal(SIGTERM);
  host.Wait(20s);

  // The reference serves files made the same way, long enough for every step.
  std::vector<Step> reference;
  {
    auto stream = std::make_shared<mirell::streams::MediaStream>("bench", 30, 6000);
    mirell::rtsp::testing::FixtureOptions fixture;
    fixture.width = 1280;
    fixture.height = 720;
    fixture.video_kbps = 6000;
    fixture.frames = 30 * static_cast<int>(counts.size()) * (seconds + 12);
    mirell::rtsp::testing::FixturePublisher files(dir.path(), stream, fixture);
    const std::uint16_t port = mirell::testsupport::FreeLoopbackPort();
    ChildProcess server({"/usr/bin/python3", std::string(MIRELL_BENCH_SOURCE_DIR) + "/reference_rtsp_server.py",
                         std::to_string(port), (dir.path() / "fixture.h264").string(),
                         (dir.path() / "fixture.aac").string()},
                        quiet);
    if (WaitForPort(port)) {
      PlayerPool pool(port, fmt::format("rtsp://127.0.0.1:{}/s/ref", port));
      reference = Measure(server.pid(), pool, counts, seconds);
    } else {
      fmt::print("GStreamer's RTSP server did not start (gir1.2-gst-rtsp-server-1.0 installed?)\n");
    }
    server.Signal(SIGTERM);
    server.Wait(20s);
  }

  fmt::print("one 1280x720@30 share at 6 Mbit/s with sound, players that read and discard, {} s a step\n",
             seconds);
  fmt::print("{:>8} | {:>10} {:>9} {:>7} | {:>10} {:>9} {:>7}\n", "players", "relay CPU", "RSS MB",
             "behind", "GStreamer", "RSS MB", "behind");
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const auto cell = [](const std::vector<Step>& steps, std::size_t at) {
      if (at >= steps.size()) return fmt::format("{:>10} {:>9} {:>7}", "-", "-", "-");
      return fmt::format("{:>9.1f}% {:>9.1f} {:>7}", steps[at].cpu_percent, steps[at].rss_mb, steps[at].behind);
    };
    fmt::print("{:>8} | {} | {}\n", counts[i], cell(ours, i), cell(reference, i));
  }
  if (ours.size() == counts.size() && reference.size() == counts.size()) {
    const double added = static_cast<double>(counts.back() - counts.front());
    const double our_cpu = (ours.back().cpu_percent - ours.front().cpu_percent) / added;
    const double their_cpu = (reference.back().cpu_percent - reference.front().cpu_percent) / added;
    const double our_rss = (ours.back().rss_mb - ours.front().rss_mb) / added;
    const double their_rss = (reference.back().rss_mb - reference.front().rss_mb) / added;
    fmt::print("per added player: relay {:.3f}% CPU, {:.3f} MB; GStreamer {:.3f}% CPU, {:.3f} MB; "
               "CPU ratio {:.2f} (target <= 0.5), RSS per player target <= 1 MB, "
               "players behind at 200: {} (target 0)\n",
               our_cpu, our_rss, their_cpu, their_rss, their_cpu > 0 ? our_cpu / their_cpu : 0.0,
               ours.back().behind);
  }
  return 0;
}
