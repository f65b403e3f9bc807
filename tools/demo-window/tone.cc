#include "tone.h"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <cmath>
#include <cstdio>
#include <vector>

namespace mirell::demo {

namespace {

constexpr std::uint32_t kRate = 48000;
constexpr int kChannels = 2;
constexpr std::size_t kChunkFrames = kRate / 100;  // 10 ms per write.

}  // namespace

Tone::Tone(int hertz) : thread_([this, hertz] { Play(hertz); }) {}

Tone::~Tone() {
  running_ = false;
  thread_.join();
}

void Tone::Play(int hertz) {
  const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, kRate, kChannels};
  int error = 0;
  pa_simple* out = pa_simple_new(nullptr, "Mirell demo window", PA_STREAM_PLAYBACK, nullptr, "tone", &spec,
                                 nullptr, nullptr, &error);
  if (out == nullptr) {
    std::fprintf(stderr, "mirell-demo-window: no sound (%s)\n", pa_strerror(error));
    return;
  }
  std::vector<float> chunk(kChunkFrames * kChannels);
  const double step = 2 * 3.141592653589793 * hertz / kRate;
  double phase = 0;
  while (running_) {
    for (std::size_t frame = 0; frame < kChunkFrames; ++frame) {
      const auto sample = static_cast<float>(0.3 * std::sin(phase));
      phase = std::fmod(phase + step, 2 * 3.141592653589793);
      for (int channel = 0; channel < kChannels; ++channel) chunk[frame * kChannels + static_cast<std::size_t>(channel)] = sample;
    }
    if (pa_simple_write(out, chunk.data(), chunk.size() * sizeof(float), &error) < 0) {
      std::fprintf(stderr, "mirell-demo-window: sound stopped (%s)\n", pa_strerror(error));
      break;
    }
  }
  pa_simple_free(out);
}

}  // namespace mirell::demo
