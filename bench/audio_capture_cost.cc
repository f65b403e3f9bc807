// The sound path's cost: capture of a private PulseAudio server's output (a tone playing) and
// AAC encoding onto an audio bus, beside `ffmpeg -f pulse ... -c:a aac` of the same monitor in
// the same run. CPU in percent of one core; latency from the capture time of a unit's first
// sample to the moment the unit is on the bus. Usage: bench_audio [seconds]
#include <fmt/format.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/capture/audio_capturer.h"
#include "mirell/session/audio_source.h"
#include "mirell/testsupport/subprocess.h"
#include "pulse_server.h"

namespace {

double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double ThreadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double Percentile(std::vector<double> values, double q) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(q * static_cast<double>(values.size())))];
}

// Passes buffers through and keeps the capture time of the first, the time line's zero.
class FirstTimeCapturer final : public mirell::capture::IAudioCapturer {
 public:
  explicit FirstTimeCapturer(std::unique_ptr<mirell::capture::IAudioCapturer> inner) : inner_(std::move(inner)) {}
  void Start(AudioCallback on_audio) override {
    inner_->Start([this, on_audio = std::move(on_audio)](const mirell::capture::AudioBuffer& buffer) {
      if (first_ == 0) first_ = buffer.timestamp;
      on_audio(buffer);
    });
  }
  void Stop() override { inner_->Stop(); }
  const mirell::capture::AudioFormat& format() const override { return inner_->format(); }
  bool process_scoped() const override { return inner_->process_scoped(); }
  const std::string& name() const override { return inner_->name(); }
  std::int64_t first() const { return first_; }

 private:
  std::unique_ptr<mirell::capture::IAudioCapturer> inner_;
  std::atomic<std::int64_t> first_{0};
};

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  mirell::capture::PulseServer server;
  if (!server.available()) {
    fmt::print("no pulseaudio: nothing measured\n");
    return 1;
  }
  mirell::capture::TonePlayer tone(server, 440, seconds * 3 + 10);
  std::this_thread::sleep_for(std::chrono::seconds(1));

  const double reference_before = CpuSeconds(RUSAGE_CHILDREN);
  const std::int64_t reference_start = mirell::SteadyNowNs();
  const auto result = mirell::testsupport::RunProcess(
      {"ffmpeg", "-nostdin", "-v", "error", "-f", "pulse", "-sample_rate", "48000", "-channels", "2", "-fragment_size",
       "3840", "-i", "mirell_test.monitor", "-t", std::to_string(seconds), "-c:a", "aac", "-b:a", "128k", "-f", "null",
       "-"});
  const double reference_wall = static_cast<double>(mirell::SteadyNowNs() - reference_start) / 1e9;
  if (result.exit_code != 0) fmt::print("ffmpeg failed: {}\n", result.err);
  const double reference_cpu = (CpuSeconds(RUSAGE_CHILDREN) - reference_before) / reference_wall * 100;

  auto capturer = std::make_unique<FirstTimeCapturer>(mirell::capture::CreateDeviceLoopbackCapturer({}));
  auto* timing = capturer.get();
  mirell::encode::AacEncoderConfig config;
  config.bitrate_bps = 128'000;
  mirell::streams::AudioBus bus;
  const auto reader = bus.Subscribe(4096, -1);
  mirell::session::AudioSource source(std::move(capturer), mirell::encode::CreateAacEncoder(config), bus);
  std::vector<double> latency_ms;
  std::atomic<bool> reading{true};
  // The poller is the benchmark's, not the product's: its CPU is measured apart and taken out.
  std::atomic<double> poller_cpu{0};
  std::thread poller([&] {
    const double poller_before = ThreadCpuSeconds();
    while (reading) {
      while (auto unit = reader->TryPop()) {
        const std::int64_t first_sample = timing->first() + unit->pts_100ns;
        latency_ms.push_back(static_cast<double>(mirell::SteadyNowNs() / 100 - first_sample) / 1e4);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    poller_cpu = ThreadCpuSeconds() - poller_before;
  });
  const double cpu_before = CpuSeconds(RUSAGE_SELF);
  const std::int64_t start = mirell::SteadyNowNs();
  source.Start();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  source.Stop();
  const double wall = static_cast<double>(mirell::SteadyNowNs() - start) / 1e9;
  const double process_cpu = CpuSeconds(RUSAGE_SELF) - cpu_before;
  reading = false;
  poller.join();
  const double ours_cpu = (process_cpu - poller_cpu.load()) / wall * 100;
  // The first second holds the encoder's priming and the server's first block.
  const std::size_t skip = std::min<std::size_t>(latency_ms.size(), 47);
  latency_ms.erase(latency_ms.begin(), latency_ms.begin() + static_cast<std::ptrdiff_t>(skip));

  fmt::print("sound capture + AAC (48 kHz stereo, 128 kbit/s) of a PulseAudio monitor, {} s each\n", seconds);
  fmt::print("{:<34} {:>8} {:>7} | {:>12} {:>12}\n", "", "CPU %", "ratio", "c->unit p50", "c->unit p99");
  fmt::print("{:<34} {:>8.2f} {:>7} | {:>12} {:>12}\n", "ffmpeg -f pulse -c:a aac", reference_cpu, "1.00", "-", "-");
  fmt::print("{:<34} {:>8.2f} {:>7.2f} | {:>9.1f} ms {:>9.1f} ms\n", "ours (capturer + AudioSource)", ours_cpu,
             ours_cpu / reference_cpu, Percentile(latency_ms, 0.5), Percentile(latency_ms, 0.99));
  fmt::print("  ours: {} units; the benchmark's own poller, taken out: {:.2f} %\n", source.counters().units_out,
             poller_cpu.load() / wall * 100);
  return 0;
}
