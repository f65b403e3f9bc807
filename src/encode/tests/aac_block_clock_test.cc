#include "aac_block_clock.h"

#include <gtest/gtest.h>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::encode {
namespace {

struct Recorded {
  std::vector<std::vector<std::int16_t>> blocks;
  std::vector<std::int64_t> times;
  AacBlockClock::Submit submit() {
    return [this](std::span<const std::int16_t> block, std::int64_t pts) {
      blocks.emplace_back(block.begin(), block.end());
      times.push_back(pts);
    };
  }
};

class AacLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kInfo);
  }
  std::string log() { return testsupport::ReadFileText(dir_.path() / "log"); }
  testsupport::TempDir dir_;
};

TEST_F(AacLogTest, BitRateSnapping) {
  EXPECT_EQ(SnapAacBytesPerSecond(128000), 16000u);
  EXPECT_EQ(log().find("not offered"), std::string::npos);
  EXPECT_EQ(SnapAacBytesPerSecond(100000), 12000u);
  EXPECT_NE(log().find("100 kbps is not offered by the AAC encoder; using 96"), std::string::npos);
  EXPECT_EQ(SnapAacBytesPerSecond(112000), 12000u);  // The midpoint goes to the lower.
  EXPECT_EQ(SnapAacBytesPerSecond(1'000'000), 24000u);
  EXPECT_EQ(SnapAacBytesPerSecond(0), 12000u);
}

TEST(FloatToPcm16, SymmetricClampAndTiesToEven) {
  EXPECT_EQ(FloatToPcm16(1.5f), 32767);
  EXPECT_EQ(FloatToPcm16(-1.5f), -32767);
  EXPECT_EQ(FloatToPcm16(1.0f), 32767);
  EXPECT_EQ(FloatToPcm16(-1.0f), -32767);
  EXPECT_EQ(FloatToPcm16(0.0f), 0);
  // 0.5 / 32767 x 32767 = 0.5 rounds to 0 (even); 1.5 / 32767 rounds to 2.
  EXPECT_EQ(FloatToPcm16(0.5f / 32767.0f), 0);
  EXPECT_EQ(FloatToPcm16(1.5f / 32767.0f), 2);
}

TEST(AacBlockClock, ThreeThousandStereoFramesGiveTwoBlocksAndLeave952) {
  AacBlockClock clock(48000, 2);
  Recorded recorded;
  const std::vector<float> samples(3000 * 2, 0.25f);
  clock.Add(samples, 5'000'000, recorded.submit());
  ASSERT_EQ(recorded.blocks.size(), 2u);
  EXPECT_EQ(recorded.blocks[0].size(), 2048u);
  EXPECT_EQ(clock.pending_frames(), 952u);
  EXPECT_EQ(recorded.times[0], 5'000'000);
  EXPECT_EQ(recorded.times[1], 5'000'000 + 1024LL * 10'000'000 / 48000);
}

TEST(AacBlockClock, FlushPadsWithSilenceToOneBlock) {
  AacBlockClock clock(48000, 2);
  Recorded recorded;
  clock.Add(std::vector<float>(100 * 2, 0.5f), 0, recorded.submit());
  EXPECT_TRUE(recorded.blocks.empty());
  clock.Flush(recorded.submit());
  ASSERT_EQ(recorded.blocks.size(), 1u);
  const auto& block = recorded.blocks[0];
  ASSERT_EQ(block.size(), 2048u);
  for (std::size_t i = 0; i < 200; ++i) EXPECT_EQ(block[i], FloatToPcm16(0.5f));
  for (std::size_t i = 200; i < 2048; ++i) ASSERT_EQ(block[i], 0) << i;
  EXPECT_EQ(clock.pending_frames(), 0u);
  clock.Flush(recorded.submit());
  EXPECT_EQ(recorded.blocks.size(), 1u) << "an empty flush submits nothing";
}

class AacClockDrift : public AacLogTest {};

TEST_F(AacClockDrift, ExactlyOneHundredMillisecondsDoesNotResynchronise) {
  AacBlockClock clock(48000, 1);
  Recorded recorded;
  clock.Add(std::vector<float>(1024, 0.1f), 0, recorded.submit());
  // One block submitted: the clock expects 213333; 1000000 further is exactly 100 ms of drift.
  const std::int64_t expected = 1024LL * 10'000'000 / 48000;
  clock.Add(std::vector<float>(1024, 0.1f), expected + 1'000'000, recorded.submit());
  ASSERT_EQ(recorded.times.size(), 2u);
  EXPECT_EQ(recorded.times[1], expected);
  EXPECT_EQ(log().find("discontinuity"), std::string::npos);
}

TEST_F(AacClockDrift, OneMoreTickResynchronisesAndDropsWhatWasPending) {
  AacBlockClock clock(48000, 1);
  Recorded recorded;
  clock.Add(std::vector<float>(1024 + 500, 0.1f), 0, recorded.submit());
  EXPECT_EQ(clock.pending_frames(), 500u);
  const std::int64_t expected = 1024LL * 10'000'000 / 48000;
  clock.Add(std::vector<float>(1024, 0.2f), expected + 1'000'001, recorded.submit());
  ASSERT_EQ(recorded.times.size(), 2u);
  EXPECT_EQ(recorded.times[1], expected + 1'000'001) << "the times go on from the new pts";
  EXPECT_EQ(recorded.blocks[1].front(), FloatToPcm16(0.2f)) << "the pending samples are gone";
  EXPECT_EQ(clock.pending_frames(), 0u);
  EXPECT_NE(log().find("100 ms timestamp discontinuity, resynchronising"), std::string::npos);
}

TEST_F(AacClockDrift, BacklogBelowOneBlockIsNotDrift) {
  AacBlockClock clock(48000, 1);
  Recorded recorded;
  // 1000 samples at a time: the caller's times run ahead of the submitted count by up to 1000
  // samples (21 ms), well below the threshold.
  for (int i = 0; i < 50; ++i) {
    clock.Add(std::vector<float>(1000, 0.0f), static_cast<std::int64_t>(i) * 1000 * 10'000'000 / 48000,
              recorded.submit());
  }
  EXPECT_EQ(log().find("discontinuity"), std::string::npos);
  for (std::size_t i = 1; i < recorded.times.size(); ++i) {
    EXPECT_EQ(recorded.times[i], static_cast<std::int64_t>(i) * 1024LL * 10'000'000 / 48000);
  }
}

}  // namespace
}  // namespace mirell::encode
