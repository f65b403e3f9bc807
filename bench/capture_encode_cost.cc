// The picture path's cost: X11 capture of a 1920x1080 screen with moving content, scaling and
// H.264 encoding at 30 fps, beside ffmpeg's x11grab with libx264 at the same settings on the
// same screen, in the same run. CPU is counted for the capturing process and for the X server
// (which copies the pixels for both). Latency per encoded frame: the encode alone, and from
// capture to the end of its encode (which includes waiting in the slot for the next tick).
// Usage: bench_capture [seconds]
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/capture/capturer.h"
#include "mirell/session/capture_source.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/xvfb.h"
#include "test_window.h"

namespace {

constexpr std::uint32_t kBitrate = 6'000'000;

double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// utime + stime of another process, from /proc.
double ProcessCpuSeconds(int pid) {
  const std::string text = mirell::testsupport::ReadFileText("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::stod(field);
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double Percentile(std::vector<double> values, double q) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(q * static_cast<double>(values.size())))];
}

struct Figures {
  double client_cpu = 0, server_cpu = 0;  // Percent of one core.
  double encode_p50 = 0, encode_p99 = 0, latency_p50 = 0, latency_p99 = 0;
  std::uint64_t encoded = 0, repeated = 0;
};

Figures Ours(std::uint32_t width, std::uint32_t height, int seconds, int server_pid) {
  mirell::encode::H264EncoderConfig config;
  config.width = width;
  config.height = height;
  config.bitrate_bps = kBitrate;
  auto encoder = mirell::encode::CreateH264Encoder(config);
  mirell::streams::FrameBus bus;
  mirell::capture::CaptureTarget target;
  target.kind = mirell::capture::CaptureKind::kMonitor;
  mirell::session::CaptureSource source(mirell::capture::CreateCapturer(target), *encoder,
                                        mirell::encode::CreateVideoProcessor(width, height), bus, 30);
  std::mutex mutex;
  std::vector<double> encode_ms, latency_ms;
  source.SetTimingCallback([&](const mirell::session::CaptureSource::FrameTiming& t) {
    std::lock_guard lock(mutex);
    encode_ms.push_back(static_cast<double>(t.encode_end_ns - t.encode_start_ns) / 1e6);
    if (!t.repeated) latency_ms.push_back(static_cast<double>(t.encode_end_ns - t.captured_ns) / 1e6);
  });
  const double cpu_before = CpuSeconds(RUSAGE_SELF);
  const double server_before = ProcessCpuSeconds(server_pid);
  const std::int64_t wall_before = mirell::SteadyNowNs();
  source.Start();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  source.Stop();
  const double wall = static_cast<double>(mirell::SteadyNowNs() - wall_before) / 1e9;
  Figures f;
  f.client_cpu = (CpuSeconds(RUSAGE_SELF) - cpu_before) / wall * 100;
  f.server_cpu = (ProcessCpuSeconds(server_pid) - server_before) / wall * 100;
  std::lock_guard lock(mutex);
  f.encode_p50 = Percentile(encode_ms, 0.5);
  f.encode_p99 = Percentile(encode_ms, 0.99);
  f.latency_p50 = Percentile(latency_ms, 0.5);
  f.latency_p99 = Percentile(latency_ms, 0.99);
  f.encoded = source.counters().encoded;
  f.repeated = source.counters().repeated;
  return f;
}

Figures Ffmpeg(std::uint32_t width, std::uint32_t height, int seconds, const std::string& display, int server_pid) {
  const std::string rate = std::to_string(kBitrate);
  const double cpu_before = CpuSeconds(RUSAGE_CHILDREN);
  const double server_before = ProcessCpuSeconds(server_pid);
  const std::int64_t wall_before = mirell::SteadyNowNs();
  const auto result = mirell::testsupport::RunProcess(
      {"ffmpeg", "-nostdin", "-v", "error", "-f", "x11grab", "-draw_mouse", "1", "-framerate", "30",
       "-video_size", "1920x1080", "-i", display + "+0,0", "-t", std::to_string(seconds), "-vf",
       fmt::format("scale={}:{}:flags=bilinear,format=nv12", width, height), "-c:v", "libx264", "-preset",
       "veryfast", "-tune", "zerolatency", "-b:v", rate, "-maxrate", rate, "-bufsize", std::to_string(kBitrate / 4),
       "-g", "60", "-keyint_min", "60", "-bf", "0", "-threads", "0", "-x264-params",
       "scenecut=0:repeat-headers=1:rc-lookahead=0:sync-lookahead=0:sliced-threads=1", "-f", "null", "-"});
  const double wall = static_cast<double>(mirell::SteadyNowNs() - wall_before) / 1e9;
  if (result.exit_code != 0) fmt::print("ffmpeg failed: {}\n", result.err);
  Figures f;
  f.client_cpu = (CpuSeconds(RUSAGE_CHILDREN) - cpu_before) / wall * 100;
  f.server_cpu = (ProcessCpuSeconds(server_pid) - server_before) / wall * 100;
  return f;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  mirell::testsupport::XvfbOptions options;
  options.width = 1920;
  options.height = 1080;
  mirell::testsupport::XvfbDisplay display(options);
  if (!display.available()) {
    fmt::print("no Xvfb: nothing measured\n");
    return 1;
  }
  setenv("DISPLAY", display.name().c_str(), 1);
  // The whole screen, repainted with sliding bars about 60 times a second.
  mirell::capture::TestWindow window(display.name(), {"--title", "Moving", "--size", "1920x1080", "--bars",
                                                      "--color", "204080", "--color2", "E0C020", "--alternate-ms", "16"});
  const int server_pid = display.server_pid();
  fmt::print("capture + scale + H.264 of a 1920x1080 Xvfb screen with moving content, 30 fps, {} s each,\n"
             "libx264 veryfast/zerolatency CBR {} Mbit/s; CPU in percent of one core\n",
             seconds, kBitrate / 1'000'000);
  fmt::print("{:<26} {:>8} {:>8} {:>8} {:>7} | {:>9} {:>9} {:>10} {:>10}\n", "", "client", "X server", "total",
             "ratio", "enc p50", "enc p99", "c->e p50", "c->e p99");
  for (const auto& [width, height] : {std::pair{1280u, 720u}, std::pair{1920u, 1080u}}) {
    const Figures reference = Ffmpeg(width, height, seconds, display.name(), server_pid);
    const Figures ours = Ours(width, height, seconds, server_pid);
    const double reference_total = reference.client_cpu + reference.server_cpu;
    const double ours_total = ours.client_cpu + ours.server_cpu;
    fmt::print("{:<26} {:>8.1f} {:>8.1f} {:>8.1f} {:>7} | {:>9} {:>9} {:>10} {:>10}\n",
               fmt::format("ffmpeg x11grab {}p", height), reference.client_cpu, reference.server_cpu,
               reference_total, "1.00", "-", "-", "-", "-");
    fmt::print("{:<26} {:>8.1f} {:>8.1f} {:>8.1f} {:>7.2f} | {:>9.2f} {:>9.2f} {:>10.2f} {:>10.2f}\n",
               fmt::format("ours {}p", height), ours.client_cpu, ours.server_cpu, ours_total,
               ours_total / reference_total, ours.encode_p50, ours.encode_p99, ours.latency_p50, ours.latency_p99);
    fmt::print("  ours: {} frames encoded, {} of them repeats; client-only ratio {:.2f}\n", ours.encoded,
               ours.repeated, ours.client_cpu / reference.client_cpu);
  }
  return 0;
}
