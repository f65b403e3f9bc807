// Our H.264 encoder on ffmpeg's testsrc2 pictures, checked by FFmpeg's own H.264 decoder.
#include "mirell/encode/h264_encoder.h"

#include <gtest/gtest.h>

#include "decode_support.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/media/nal.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::encode {
namespace {

constexpr std::int64_t kFrame100ns = 333'333;

int CountNals(const std::vector<std::uint8_t>& unit, int type) {
  int count = 0;
  for (const auto nal : media::SplitAnnexB(unit)) {
    if (!nal.empty() && (nal[0] & 0x1F) == type) ++count;
  }
  return count;
}

struct SizeCase {
  std::uint32_t width, height, bitrate_bps;
};

class H264EncoderTenSeconds : public ::testing::TestWithParam<SizeCase> {};

TEST_P(H264EncoderTenSeconds, EveryUnitDecodesWithFixedKeyframesHeadersAndRate) {
  const auto size = GetParam();
  H264EncoderConfig config;
  config.width = size.width;
  config.height = size.height;
  config.bitrate_bps = size.bitrate_bps;
  config.gop_seconds = 2;
  const auto encoder = CreateH264Encoder(config);
  EXPECT_FALSE(encoder->is_hardware());
  EXPECT_EQ(encoder->name(), "libx264");

  constexpr int kFrames = 300;
  const std::uint32_t gop = GopFrames(config);
  ASSERT_EQ(gop, 60u);
  testing::TestPictureSource source(size.width, size.height, kFrames);
  testing::Decoder decoder("h264");
  std::vector<std::uint8_t> picture;
  std::size_t total_bytes = 0;
  std::vector<std::int64_t> decoded_pts;
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_TRUE(source.Next(picture)) << "the picture source ended at " << i;
    std::vector<EncodedFrame> out;
    encoder->Encode(picture, i * kFrame100ns, out);
    ASSERT_EQ(out.size(), 1u) << "one picture in, one unit out, at frame " << i;
    const auto& unit = out[0];
    EXPECT_EQ(unit.pts_100ns, i * kFrame100ns);
    EXPECT_EQ(unit.keyframe, i % static_cast<int>(gop) == 0) << "frame " << i;
    if (unit.keyframe) {
      EXPECT_TRUE(media::FirstNalIs(unit.data, 7)) << "frame " << i;
      EXPECT_EQ(CountNals(unit.data, 7), 1) << "frame " << i;
      EXPECT_EQ(CountNals(unit.data, 8), 1) << "frame " << i;
      EXPECT_TRUE(media::ContainsIdrNal(unit.data)) << "frame " << i;
    } else {
      EXPECT_EQ(CountNals(unit.data, 7), 0) << "frame " << i;
      EXPECT_EQ(CountNals(unit.data, 8), 0) << "frame " << i;
    }
    total_bytes += unit.data.size();
    for (const auto& decoded : decoder.Decode(unit.data, unit.pts_100ns)) decoded_pts.push_back(decoded.pts);
  }
  std::vector<EncodedFrame> rest;
  encoder->Drain(rest);
  EXPECT_TRUE(rest.empty()) << "a low-latency encoder holds nothing back";
  for (const auto& decoded : decoder.Flush()) decoded_pts.push_back(decoded.pts);

  ASSERT_EQ(decoded_pts.size(), static_cast<std::size_t>(kFrames));
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_EQ(decoded_pts[static_cast<std::size_t>(i)], i * kFrame100ns) << "decode order differs at " << i;
  }
  const double bitrate = static_cast<double>(total_bytes) * 8 / 10.0;
  EXPECT_NEAR(bitrate, size.bitrate_bps, 0.10 * size.bitrate_bps);
  const auto header = encoder->sequence_header();
  EXPECT_TRUE(media::FirstNalIs(header, 7));
  EXPECT_EQ(CountNals({header.begin(), header.end()}, 8), 1);
}

INSTANTIATE_TEST_SUITE_P(Sizes, H264EncoderTenSeconds,
                         ::testing::Values(SizeCase{1280, 720, 4'000'000}, SizeCase{1920, 1080, 6'000'000}),
                         [](const auto& test) { return std::to_string(test.param.height) + "p"; });

class H264EncoderSmall : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kInfo);
    config_.width = 320;
    config_.height = 240;
    config_.bitrate_bps = 500'000;
  }
  std::string log() { return testsupport::ReadFileText(dir_.path() / "log"); }
  std::vector<std::vector<std::uint8_t>> Pictures(int count) {
    testing::TestPictureSource source(config_.width, config_.height, count);
    std::vector<std::vector<std::uint8_t>> pictures(static_cast<std::size_t>(count));
    for (auto& picture : pictures) EXPECT_TRUE(source.Next(picture));
    return pictures;
  }

  testsupport::TempDir dir_;
  H264EncoderConfig config_;
};

// A share and the holding card are encoded alike: whole frames per second, a keyframe every two
// seconds, hardware first.
TEST(LiveStreamConfig, KeyframesEveryTwoSecondsAtTheGivenRateHardwareFirst) {
  const H264EncoderConfig config = LiveStreamConfig(1280, 720, 30, 6000, H264Profile::kHigh);
  EXPECT_EQ(config.width, 1280u);
  EXPECT_EQ(config.height, 720u);
  EXPECT_EQ(config.fps_numerator, 30u);
  EXPECT_EQ(config.fps_denominator, 1u);
  EXPECT_EQ(config.bitrate_bps, 6'000'000u);
  EXPECT_EQ(config.profile, H264Profile::kHigh);
  EXPECT_TRUE(config.prefer_hardware);
  EXPECT_EQ(GopFrames(config), 60u);
  EXPECT_EQ(GopFrames(LiveStreamConfig(640, 360, 15, 1000, H264Profile::kMain)), 30u);
}

TEST_F(H264EncoderSmall, OddSizeIsAFailedCheckBeforeAnyEncoderIsTried) {
  config_.width = 321;
  try {
    CreateH264Encoder(config_);
    FAIL() << "accepted an odd width";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find(
                  "check failed: config.width % 2 == 0 && config.height % 2 == 0 - NV12 requires "
                  "even dimensions, got 321x240"),
              std::string::npos);
  }
  EXPECT_EQ(log().find("libx264"), std::string::npos);
}

TEST_F(H264EncoderSmall, ZeroFrameRateIsAFailedCheck) {
  config_.fps_numerator = 0;
  try {
    CreateH264Encoder(config_);
    FAIL() << "accepted a zero frame rate";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("frame rate must be positive"), std::string::npos);
  }
}

TEST_F(H264EncoderSmall, GopOfZeroFramesIsOne) {
  config_.gop_seconds = 0;
  EXPECT_EQ(GopFrames(config_), 1u);
  const auto encoder = CreateH264Encoder(config_);
  const auto pictures = Pictures(4);
  for (std::size_t index = 0; index < pictures.size(); ++index) {
    std::vector<EncodedFrame> out;
    encoder->Encode(pictures[index], static_cast<std::int64_t>(index) * kFrame100ns, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_TRUE(out[0].keyframe);
  }
}

TEST_F(H264EncoderSmall, WithoutHardwarePreferenceNoHardwareIsTriedAndNoWarning) {
  config_.prefer_hardware = false;
  CreateH264Encoder(config_);
  EXPECT_EQ(log().find("no usable hardware H.264 encoder"), std::string::npos);
  EXPECT_EQ(log().find("h264_vaapi"), std::string::npos);
  EXPECT_NE(log().find("libx264 (software, sync)"), std::string::npos);
}

TEST_F(H264EncoderSmall, HardwarePreferenceFallsBackToSoftwareWithTheWarningWhenNoneWorks) {
  config_.prefer_hardware = true;
  const auto encoder = CreateH264Encoder(config_);
  if (encoder->is_hardware()) GTEST_SKIP() << "this machine has a working " << encoder->name();
  EXPECT_NE(log().find("no usable hardware H.264 encoder; falling back to software. Expect "
                       "significant CPU cost at this resolution."),
            std::string::npos);
  EXPECT_EQ(encoder->name(), "libx264");
}

TEST_F(H264EncoderSmall, RequestKeyframeMakesTheNextFrameAnIdr) {
  const auto encoder = CreateH264Encoder(config_);
  const auto pictures = Pictures(10);
  std::vector<EncodedFrame> out;
  for (int i = 0; i < 5; ++i) encoder->Encode(pictures[static_cast<std::size_t>(i)], i * kFrame100ns, out);
  encoder->RequestKeyframe();
  for (int i = 5; i < 10; ++i) encoder->Encode(pictures[static_cast<std::size_t>(i)], i * kFrame100ns, out);
  ASSERT_EQ(out.size(), 10u);
  for (int i = 0; i < 10; ++i) {
    const bool expected = i == 0 || i == 5;
    EXPECT_EQ(out[static_cast<std::size_t>(i)].keyframe, expected) << i;
    EXPECT_EQ(media::ContainsIdrNal(out[static_cast<std::size_t>(i)].data), expected) << i;
    EXPECT_EQ(media::FirstNalIs(out[static_cast<std::size_t>(i)].data, 7), expected) << i;
  }
}

TEST_F(H264EncoderSmall, ProfileIsWrittenInTheSps) {
  for (const auto& [profile, idc] : {std::pair{H264Profile::kBaseline, 66}, {H264Profile::kMain, 77},
                                    {H264Profile::kHigh, 100}}) {
    config_.profile = profile;
    const auto encoder = CreateH264Encoder(config_);
    std::vector<EncodedFrame> out;
    encoder->Encode(Pictures(1)[0], 0, out);
    const auto header = encoder->sequence_header();
    const auto nals = media::SplitAnnexB(header);
    ASSERT_FALSE(nals.empty());
    ASSERT_GE(nals[0].size(), 2u);
    EXPECT_EQ(nals[0][1], idc);
  }
}

TEST_F(H264EncoderSmall, PictureFrameIsTakenAsItIsAndReleasedAfter) {
  const auto encoder = CreateH264Encoder(config_);
  ASSERT_TRUE(encoder->gpu_input());
  auto picture = Nv12Frame::Allocate(config_.width, config_.height);
  const auto source = Pictures(1)[0];
  std::copy(source.begin(), source.end(), picture.bytes().begin());
  std::vector<EncodedFrame> out;
  encoder->EncodeTexture(picture, 0, out);
  ASSERT_EQ(out.size(), 1u);
  testing::Decoder decoder("h264");
  EXPECT_EQ(decoder.Decode(out[0].data, 0).size(), 1u);
  std::vector<EncodedFrame> rest;
  encoder->Drain(rest);
  EXPECT_EQ(picture.storage().use_count(), 2) << "only ours and the one we just asked for";
}

TEST_F(H264EncoderSmall, WrongPictureSizeIsAFailedCheck) {
  const auto encoder = CreateH264Encoder(config_);
  std::vector<EncodedFrame> out;
  EXPECT_THROW(encoder->Encode(std::vector<std::uint8_t>(100), 0, out), Error);
  EXPECT_THROW(encoder->EncodeTexture(Nv12Frame::Allocate(64, 64), 0, out), Error);
  EXPECT_THROW(encoder->EncodeTexture(Nv12Frame{}, 0, out), Error);
}

}  // namespace
}  // namespace mirell::encode
