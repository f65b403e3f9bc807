// Our AAC encoder, checked by FFmpeg's own AAC decoder.
#include "mirell/encode/aac_encoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "decode_support.h"
#include "mirell/base/error.h"
#include "mirell/media/aac_rtp.h"

namespace mirell::encode {
namespace {

std::vector<float> Sine(double frequency, std::uint32_t rate, std::uint32_t channels, std::size_t frames,
                        std::size_t offset = 0) {
  std::vector<float> samples(frames * channels);
  for (std::size_t i = 0; i < frames; ++i) {
    const auto value = static_cast<float>(
        0.5 * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(i + offset) / rate));
    for (std::uint32_t c = 0; c < channels; ++c) samples[i * channels + c] = value;
  }
  return samples;
}

TEST(AacEncoder, RatesAndChannelsOutsideWhatWeShareAreFailedChecks) {
  EXPECT_THROW(CreateAacEncoder({96000, 2, 128000}), Error);
  EXPECT_THROW(CreateAacEncoder({48000, 0, 128000}), Error);
  EXPECT_THROW(CreateAacEncoder({48000, 3, 128000}), Error);
  try {
    CreateAacEncoder({96000, 2, 128000});
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find(
                  "check failed: config.sample_rate == 44100 || config.sample_rate == 48000 - the "
                  "AAC encoder takes 44100 or 48000 Hz, not 96000"),
              std::string::npos);
  }
}

TEST(AacEncoder, ConfigBytesAreTheStandardAacLcConfig) {
  for (const auto& [rate, channels] : {std::pair{48000u, 2u}, {44100u, 1u}, {48000u, 1u}}) {
    const auto encoder = CreateAacEncoder({rate, channels, 128000});
    const auto config = encoder->audio_specific_config();
    EXPECT_EQ(std::vector<std::uint8_t>(config.begin(), config.end()),
              media::MakeAacLcAudioSpecificConfig(rate, channels));
    EXPECT_EQ(encoder->sample_rate(), rate);
    EXPECT_EQ(encoder->channels(), channels);
  }
}

TEST(AacEncoder, BitRateInUseIsTheSnappedOne) {
  EXPECT_EQ(CreateAacEncoder({48000, 2, 100000})->bitrate_bps(), 96000u);
  EXPECT_EQ(CreateAacEncoder({48000, 2, 192000})->bitrate_bps(), 192000u);
}

TEST(AacEncoder, OddSampleCountForStereoIsAFailedCheckAndNothingIsBuffered) {
  const auto encoder = CreateAacEncoder({48000, 2, 128000});
  std::vector<EncodedAudioFrame> out;
  EXPECT_THROW(encoder->Encode(std::vector<float>(2047, 0.1f), 0, out), Error);
  encoder->Drain(out);
  EXPECT_TRUE(out.empty());
}

TEST(AacEncoder, SineRoundTripHasItsDurationFrequencyAndBlockClock) {
  constexpr std::uint32_t kRate = 48000;
  const auto encoder = CreateAacEncoder({kRate, 2, 128000});
  std::vector<EncodedAudioFrame> units;
  // 2 s in 10 ms pieces, the way a capture thread delivers, starting at 3 s.
  constexpr std::size_t kPiece = 480;
  constexpr std::size_t kFrames = 2 * kRate;
  const std::int64_t start = 30'000'000;
  for (std::size_t at = 0; at < kFrames; at += kPiece) {
    encoder->Encode(Sine(1000, kRate, 2, kPiece, at), start + static_cast<std::int64_t>(at) * 10'000'000 / kRate, units);
  }
  encoder->Drain(units);
  // 2 s is 93.75 blocks: 94 submitted, and the encoder's one block of priming comes out as well.
  ASSERT_GE(units.size(), 94u);
  ASSERT_LE(units.size(), 95u);
  for (std::size_t i = 1; i < units.size(); ++i) {
    const auto step = units[i].pts_100ns - units[i - 1].pts_100ns;
    EXPECT_GE(step, 213333) << i;
    EXPECT_LE(step, 213334) << i;
  }
  EXPECT_NEAR(static_cast<double>(units.front().pts_100ns), static_cast<double>(start), 213334.0 + 1)
      << "the first unit is at the start, less at most the encoder's one block of priming";

  const auto config = encoder->audio_specific_config();
  testing::Decoder decoder("aac", {config.begin(), config.end()});
  for (const auto& unit : units) decoder.Decode(unit.data, 0);
  decoder.Flush();
  const auto& samples = decoder.samples();
  EXPECT_NEAR(static_cast<double>(samples.size()), static_cast<double>(units.size() * 1024), 1.0);
  EXPECT_GE(samples.size(), kFrames);

  // Frequency from rising zero crossings over the steady middle second.
  std::size_t crossings = 0;
  for (std::size_t i = kRate / 2 + 1; i < kRate / 2 + kRate; ++i) {
    if (samples[i - 1] < 0 && samples[i] >= 0) ++crossings;
  }
  EXPECT_NEAR(static_cast<double>(crossings), 1000.0, 2.0);
}

}  // namespace
}  // namespace mirell::encode
