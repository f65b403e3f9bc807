// The sound path end to end: a tone played into a private PulseAudio server, captured from its
// player's process, encoded by the audio source onto a stream's audio bus, and decoded back by
// ffmpeg to the same frequency.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "interop_support.h"
#include "mirell/capture/audio_capturer.h"
#include "mirell/session/audio_source.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "pulse_server.h"
#include "tone_power.h"

namespace mirell::session {
namespace {

using namespace std::chrono_literals;
using capture::PowerAt;

TEST(AudioSourceOnPulse, ACapturedToneComesBackFromTheAacUnitsAtItsFrequency) {
  capture::PulseServer server;
  if (!server.available() || !testsupport::HaveProgram("paplay") || !testsupport::HaveProgram("sox")) {
    GTEST_SKIP() << "pulseaudio, paplay or sox is missing";
  }
  capture::TonePlayer tone(server, 660);
  std::unique_ptr<capture::IAudioCapturer> capturer;
  ASSERT_TRUE(testsupport::Eventually([&] {
    try {
      capturer = capture::CreateProcessLoopbackCapturer(static_cast<std::uint32_t>(tone.pid()), {});
    } catch (const std::exception&) {
    }
    return capturer != nullptr;
  }));
  encode::AacEncoderConfig config;
  streams::AudioBus bus;
  const auto reader = bus.Subscribe(1024, -1);
  AudioSource source(std::move(capturer), encode::CreateAacEncoder(config), bus);
  source.Start();
  std::vector<media::Bytes> units;
  // The encoder's first unit (its priming) may stand before time zero.
  std::int64_t last_pts = INT64_MIN;
  // Three seconds of sound: 140 units of 1024 samples.
  ASSERT_TRUE(testsupport::Eventually([&] {
    while (auto unit = reader->TryPop()) {
      EXPECT_GT(unit->pts_100ns, last_pts);
      last_pts = unit->pts_100ns;
      units.push_back(unit->data);
    }
    return units.size() >= 140;
  }, 10s));
  source.Stop();
  EXPECT_EQ(source.counters().dropped_early, 0u);

  testsupport::TempDir dir;
  media::testing::WriteBytes(dir.path() / "sound.aac", media::testing::WrapAdts(units, 48000, 2));
  const auto decoded = testsupport::RunProcess({"ffmpeg", "-nostdin", "-v", "error", "-f", "aac", "-i",
                                                (dir.path() / "sound.aac").string(), "-ac", "1", "-f", "f32le",
                                                (dir.path() / "sound.raw").string()});
  ASSERT_EQ(decoded.exit_code, 0) << decoded.err;
  const auto bytes = media::testing::ReadBytes(dir.path() / "sound.raw");
  std::vector<float> samples(bytes.size() / sizeof(float));
  std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
  ASSERT_GT(samples.size(), 48000u * 2);
  // The last second, past the capture's start.
  samples.erase(samples.begin(), samples.end() - 48000);
  const double at_tone = PowerAt(samples, 660);
  EXPECT_GT(at_tone, 0.001);
  EXPECT_GT(at_tone, 100 * PowerAt(samples, 440));
  EXPECT_GT(at_tone, 100 * PowerAt(samples, 990));
}

}  // namespace
}  // namespace mirell::session
