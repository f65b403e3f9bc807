// Time to first frame: from starting an ffmpeg client to its first decoded picture, against our
// RTSP server with priming and without, and against GStreamer's own RTSP server serving the same
// files, all in one run. Usage: bench_rtsp_first_frame [runs]
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "fixture_publisher.h"
#include "mirell/base/logging.h"
#include "mirell/rtsp/rtsp_server.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace {

using namespace std::chrono_literals;
using mirell::testsupport::RunProcess;

struct Figures {
  double median_ms = 0, p90_ms = 0;
  int failures = 0;
};

// The same client and flags for every server. ffmpeg's frame-rate probing (20 frames, up to 5 s
// with a live source) is switched off so that it does not hide the servers' difference; the
// stream analysis still waits for what it needs to decode (the picture size).
double FirstFrameMs(const std::string& url) {
  const auto start = std::chrono::steady_clock::now();
  mirell::testsupport::ProcessOptions options;
  options.timeout = 10s;
  const auto result = RunProcess({"ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp",
                                  "-fpsprobesize", "0", "-i", url,
                                  "-frames:v", "1", "-f", "null", "-"},
                                 options);
  if (result.exit_code != 0) {
    fmt::print(stderr, "ffmpeg failed (exit {}, timed out {}): {}\n", result.exit_code,
               result.timed_out, result.err.substr(0, 300));
    return -1;
  }
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

Figures Measure(const std::string& url, int runs, std::mt19937& random) {
  std::vector<double> times;
  Figures figures;
  std::uniform_int_distribution<int> pause_ms(100, 600);
  for (int i = 0; i < runs; ++i) {
    // Land anywhere in the keyframe interval.
    std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms(random)));
    const double ms = FirstFrameMs(url);
    if (ms < 0) {
      ++figures.failures;
    } else {
      times.push_back(ms);
    }
  }
  if (times.empty()) return figures;
  std::sort(times.begin(), times.end());
  figures.median_ms = times[times.size() / 2];
  figures.p90_ms = times[std::min(times.size() - 1, times.size() * 9 / 10)];
  return figures;
}

void Print(const char* name, const Figures& figures, double reference_median) {
  fmt::print("{:<44} {:>8.0f} {:>8.0f} {:>8.2f} {:>6}\n", name, figures.median_ms, figures.p90_ms,
             reference_median > 0 ? figures.median_ms / reference_median : 0.0, figures.failures);
}

bool WaitForPort(std::uint16_t port) {
  for (int i = 0; i < 200; ++i) {
    try {
      mirell::testsupport::TcpClient probe(port);
      return true;
    } catch (const std::exception&) {
      std::this_thread::sleep_for(50ms);
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace mirell::streams;
  using namespace mirell::rtsp;
  const int runs = argc > 1 ? std::atoi(argv[1]) : 20;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  mirell::testsupport::TempDir dir;
  std::mt19937 random(12345);

  auto stream = std::make_shared<MediaStream>("bench", 30, 2000);
  mirell::rtsp::testing::FixtureOptions fixture;
  fixture.frames = 900;  // 30 s, so that the reference server does not reach the end.
  mirell::rtsp::testing::FixturePublisher publisher(dir.path(), stream, fixture);
  StreamRegistry registry;
  registry.Publish("ABCDEFGHJKMN", stream);
  RtspServer server([&](const std::string& path) { return registry.Find(TokenFromPath(path)); });
  server.Start(0);
  publisher.Start();
  std::this_thread::sleep_for(2s);
  const std::string url = fmt::format("rtsp://127.0.0.1:{}/s/ABCDEFGHJKMN", server.port());

  // ffmpeg's own start-up and exit, for scale: the first frame of a local file.
  std::vector<double> local;
  for (int i = 0; i < 5; ++i) {
    const auto start = std::chrono::steady_clock::now();
    RunProcess({"ffmpeg", "-nostdin", "-v", "error", "-i", (dir.path() / "fixture.h264").string(),
                "-frames:v", "1", "-f", "null", "-"});
    local.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(local.begin(), local.end());

  const Figures primed = Measure(url, runs, random);
  stream->SetPriming(0, 0);
  const Figures unprimed = Measure(url, runs, random);
  publisher.Stop();
  server.Stop();

  const std::uint16_t reference_port = mirell::testsupport::FreeLoopbackPort();
  mirell::testsupport::ChildProcess reference(
      {"/usr/bin/python3", std::string(MIRELL_BENCH_SOURCE_DIR) + "/reference_rtsp_server.py",
       std::to_string(reference_port), (dir.path() / "fixture.h264").string(),
       (dir.path() / "fixture.aac").string()});
  Figures gstreamer;
  if (WaitForPort(reference_port)) {
    std::this_thread::sleep_for(2s);
    gstreamer = Measure(fmt::format("rtsp://127.0.0.1:{}/s/ref", reference_port), runs, random);
  } else {
    fmt::print("GStreamer's RTSP server did not start (gir1.2-gst-rtsp-server-1.0 installed?)\n");
  }

  fmt::print("time to first decoded frame, ffmpeg client over TCP, {} runs each, 640x360@30, "
             "keyframe every 15 frames\n",
             runs);
  fmt::print("{:<44} {:>8} {:>8} {:>8} {:>6}\n", "", "median", "p90", "ratio", "fails");
  Print("ffmpeg start-up on a local file (scale)", Figures{local[local.size() / 2], local.back(), 0},
        gstreamer.median_ms);
  Print("ours, primed (500 ms of history)", primed, gstreamer.median_ms);
  Print("ours, unprimed", unprimed, gstreamer.median_ms);
  Print("GStreamer RTSP server, shared live media", gstreamer, gstreamer.median_ms);
  fmt::print("(ms; ratio against the GStreamer server's median)\n");
  return 0;
}
