// Encode cost of our H264Encoder at 720p30 and 1080p30 beside the ffmpeg command line encoding the
// same raw NV12 pictures with libx264 and the same settings, in the same run; and the AAC
// encoder's cost per second of stereo sound. Usage: bench_encode [frames]
#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <numbers>
#include <vector>

#include "mirell/base/logging.h"
#include "mirell/encode/aac_encoder.h"
#include "mirell/encode/h264_encoder.h"
#include "mirell/testsupport/subprocess.h"

namespace {

using Clock = std::chrono::steady_clock;

double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Figures {
  double median_ms = 0, p99_ms = 0, mean_ms = 0, cpu_percent = 0;
};

Figures Ours(std::uint32_t width, std::uint32_t height, std::uint32_t bitrate,
             const std::vector<std::uint8_t>& raw, int frames) {
  mirell::encode::H264EncoderConfig config;
  config.width = width;
  config.height = height;
  config.bitrate_bps = bitrate;
  auto encoder = mirell::encode::CreateH264Encoder(config);
  const std::size_t frame_bytes = static_cast<std::size_t>(width) * height * 3 / 2;
  std::vector<double> times;
  std::vector<mirell::encode::EncodedFrame> out;
  const double cpu_before = CpuSeconds(RUSAGE_SELF);
  const auto wall_before = Clock::now();
  for (int i = 0; i < frames; ++i) {
    out.clear();
    const auto start = Clock::now();
    encoder->Encode(std::span(raw).subspan(static_cast<std::size_t>(i) * frame_bytes, frame_bytes),
                    i * 333'333, out);
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  const double wall = std::chrono::duration<double>(Clock::now() - wall_before).count();
  const double cpu = CpuSeconds(RUSAGE_SELF) - cpu_before;
  std::vector<double> sorted = times;
  std::sort(sorted.begin(), sorted.end());
  return {sorted[sorted.size() / 2], sorted[sorted.size() * 99 / 100], wall * 1000 / frames,
          cpu / wall * 100};
}

Figures CommandLine(std::uint32_t width, std::uint32_t height, std::uint32_t bitrate,
                    const std::string& raw_path, int frames) {
  const std::string rate = std::to_string(bitrate);
  const double cpu_before = CpuSeconds(RUSAGE_CHILDREN);
  const auto wall_before = Clock::now();
  const auto result = mirell::testsupport::RunProcess(
      {"ffmpeg", "-nostdin", "-v", "error", "-f", "rawvideo", "-pix_fmt", "nv12", "-s",
       fmt::format("{}x{}", width, height), "-r", "30", "-i", raw_path, "-frames:v",
       std::to_string(frames), "-c:v", "libx264", "-preset", "veryfast", "-tune", "zerolatency",
       "-b:v", rate, "-maxrate", rate, "-bufsize", std::to_string(bitrate / 4), "-g", "60",
       "-keyint_min", "60", "-bf", "0", "-threads", "0", "-x264-params",
       "scenecut=0:repeat-headers=1:rc-lookahead=0:sync-lookahead=0:sliced-threads=1", "-f",
       "null", "-"});
  const double wall = std::chrono::duration<double>(Clock::now() - wall_before).count();
  const double cpu = CpuSeconds(RUSAGE_CHILDREN) - cpu_before;
  if (result.exit_code != 0) fmt::print("ffmpeg failed: {}\n", result.err);
  // The command line's figure includes reading the file and starting up; no per-frame times.
  return {0, 0, wall * 1000 / frames, cpu / wall * 100};
}

}  // namespace

int main(int argc, char** argv) {
  const int frames = argc > 1 ? std::atoi(argv[1]) : 150;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  mirell::testsupport::TempDir dir;
  fmt::print("H.264, {} frames of testsrc2, libx264 veryfast/zerolatency, CBR, keyframe every 60\n", frames);
  fmt::print("{:<34} {:>9} {:>9} {:>9} {:>7} {:>7}\n", "", "median ms", "p99 ms", "mean ms", "CPU %",
             "ratio");
  struct Size {
    std::uint32_t width, height, bitrate;
  };
  for (const Size size : {Size{1280, 720, 6'000'000}, Size{1920, 1080, 8'000'000}}) {
    const auto raw_path = dir.path() / fmt::format("{}p.nv12", size.height);
    mirell::testsupport::RunProcess(
        {"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
         fmt::format("testsrc2=size={}x{}:rate=30", size.width, size.height), "-frames:v",
         std::to_string(frames), "-pix_fmt", "nv12", "-f", "rawvideo", raw_path.string()});
    const std::string bytes = mirell::testsupport::ReadFileText(raw_path);
    const std::vector<std::uint8_t> raw(bytes.begin(), bytes.end());
    const Figures reference = CommandLine(size.width, size.height, size.bitrate, raw_path.string(), frames);
    const Figures ours = Ours(size.width, size.height, size.bitrate, raw, frames);
    fmt::print("{:<34} {:>9} {:>9} {:>9.2f} {:>7.0f} {:>7}\n",
               fmt::format("ffmpeg command line {}p30", size.height), "-", "-", reference.mean_ms,
               reference.cpu_percent, "1.00");
    fmt::print("{:<34} {:>9.2f} {:>9.2f} {:>9.2f} {:>7.0f} {:>7.2f}\n",
               fmt::format("our H264Encoder {}p30", size.height), ours.median_ms, ours.p99_ms,
               ours.mean_ms, ours.cpu_percent, ours.mean_ms / reference.mean_ms);
    std::filesystem::remove(raw_path);
  }

  // AAC: 60 s of a stereo sine in 10 ms pieces.
  auto aac = mirell::encode::CreateAacEncoder({48000, 2, 128000});
  std::vector<float> piece(480 * 2);
  std::vector<mirell::encode::EncodedAudioFrame> units;
  const double cpu_before = CpuSeconds(RUSAGE_SELF);
  const auto wall_before = Clock::now();
  for (int i = 0; i < 6000; ++i) {
    for (std::size_t s = 0; s < 480; ++s) {
      const auto value = static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 1000 *
                                                            static_cast<double>(i * 480 + static_cast<int>(s)) / 48000));
      piece[2 * s] = piece[2 * s + 1] = value;
    }
    aac->Encode(piece, static_cast<std::int64_t>(i) * 100'000, units);
  }
  const double wall = std::chrono::duration<double, std::milli>(Clock::now() - wall_before).count();
  const double cpu = (CpuSeconds(RUSAGE_SELF) - cpu_before) * 1000;
  fmt::print("AAC-LC 48 kHz stereo 128 kbps: {:.2f} ms wall, {:.2f} ms CPU per second of sound "
             "({} units)\n",
             wall / 60, cpu / 60, units.size());
  return 0;
}
