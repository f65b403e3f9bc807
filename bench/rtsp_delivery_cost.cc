// What delivery costs our process: CPU seconds per minute while 0, 1 and 10 ffmpeg players read
// a 6 Mbit/s 1280x720@30 stream over interleaved TCP (the players run in their own processes and
// only copy). The 0-player run is the reference: it holds the publisher's own cost, which the
// other figures have taken off. Usage: bench_rtsp_delivery [seconds per run]
#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "fixture_publisher.h"
#include "mirell/base/logging.h"
#include "mirell/rtsp/rtsp_server.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/subprocess.h"

namespace {

double ProcessCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// CPU seconds per minute of this process while `players` ffmpeg clients copy the stream.
double CpuPerMinute(const std::string& url, int players, int seconds) {
  std::vector<std::unique_ptr<mirell::testsupport::ChildProcess>> clients;
  for (int i = 0; i < players; ++i) {
    clients.push_back(std::make_unique<mirell::testsupport::ChildProcess>(std::vector<std::string>{
        "ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i", url, "-map", "0",
        "-c", "copy", "-f", "null", "-"}));
  }
  std::this_thread::sleep_for(std::chrono::seconds(2));  // Connected and past the primed burst.
  const double cpu_before = ProcessCpuSeconds();
  const auto wall_before = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double cpu = ProcessCpuSeconds() - cpu_before;
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_before).count();
  for (auto& client : clients) {
    if (!client->Running()) fmt::print("a player ended early: the figures are not valid\n");
    client->Signal(SIGTERM);
    client->Wait(std::chrono::seconds(5));
  }
  return cpu / wall * 60.0;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace mirell::streams;
  using namespace mirell::rtsp;
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 20;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  mirell::testsupport::TempDir dir;
  auto stream = std::make_shared<MediaStream>("bench", 30, 6000);
  mirell::rtsp::testing::FixtureOptions fixture;
  fixture.width = 1280;
  fixture.height = 720;
  fixture.frames = 300;
  fixture.video_kbps = 6000;
  mirell::rtsp::testing::FixturePublisher publisher(dir.path(), stream, fixture);
  StreamRegistry registry;
  registry.Publish("ABCDEFGHJKMN", stream);
  RtspServer server([&](const std::string& path) { return registry.Find(TokenFromPath(path)); });
  server.Start(0);
  publisher.Start();
  const std::string url = fmt::format("rtsp://127.0.0.1:{}/s/ABCDEFGHJKMN", server.port());

  const double idle = CpuPerMinute(url, 0, seconds);
  const double one = CpuPerMinute(url, 1, seconds);
  const double ten = CpuPerMinute(url, 10, seconds);
  publisher.Stop();
  server.Stop();

  fmt::print("delivery cost, 6 Mbit/s 1280x720@30 with 128 kbit/s AAC, {} s per run, CPU seconds "
             "per minute of our process\n",
             seconds);
  fmt::print("{:<36} {:>10} {:>14}\n", "", "total", "delivery only");
  fmt::print("{:<36} {:>10.2f} {:>14}\n", "publisher alone (reference)", idle, "-");
  fmt::print("{:<36} {:>10.2f} {:>14.2f}\n", "1 player", one, one - idle);
  fmt::print("{:<36} {:>10.2f} {:>14.2f}\n", "10 players", ten, ten - idle);
  fmt::print("per player at 10: {:.3f} CPU s/min ({:.2f} % of one core)\n", (ten - idle) / 10,
             (ten - idle) / 10 / 60 * 100);
  return 0;
}
