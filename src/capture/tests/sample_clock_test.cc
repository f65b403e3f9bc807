#include "sample_clock.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace mirell::capture {
namespace {

constexpr std::int64_t kMs = 10'000;  // In 100 ns units.
constexpr std::size_t k10Ms = 480;    // Frames at 48 kHz.

TEST(SampleClock, TheFirstBufferAnchorsAndTheNextFollowTheSampleCountThroughBursts) {
  SampleClock clock(48000);
  const std::int64_t start = 1'000 * kMs;
  EXPECT_EQ(clock.Stamp(start, k10Ms), start);
  // The server holds two buffers back and sends them together, 10 ms late: the stamps go on
  // from the count, not from the late arrival.
  EXPECT_EQ(clock.Stamp(start + 20 * kMs, k10Ms), start + 10 * kMs);
  EXPECT_EQ(clock.Stamp(start + 20 * kMs + 1, k10Ms), start + 20 * kMs);
  EXPECT_EQ(clock.Stamp(start + 30 * kMs, k10Ms), start + 30 * kMs);
}

TEST(SampleClock, AnEarlierMeasurementMovesTheTimeLineBackButStampsStillRise) {
  SampleClock clock(48000);
  const std::int64_t start = 1'000 * kMs;
  clock.Stamp(start, k10Ms);
  // The first buffer was itself held back 4 ms: the next shows the truth.
  EXPECT_EQ(clock.Stamp(start + 6 * kMs, k10Ms), start + 6 * kMs);
  EXPECT_EQ(clock.Stamp(start + 16 * kMs, k10Ms), start + 16 * kMs);
  // Never behind the buffer before, whatever a measurement says.
  const std::int64_t earlier = clock.Stamp(start - 100 * kMs, k10Ms);
  EXPECT_EQ(earlier, start + 16 * kMs + 1);
}

TEST(SampleClock, AServerClockSlowerThanOursMovesTheTimeLineForwardAfter200Ms) {
  SampleClock clock(48000);
  const std::int64_t start = 1'000 * kMs;
  clock.Stamp(start, k10Ms);
  // Every later measurement is 6 ms late (beyond the 5 ms limit): for 200 ms of sound the
  // stamps follow the count, then the time line moves forward by the least lateness.
  std::int64_t stamp = 0;
  int moved_at = -1;
  for (int i = 1; i <= 25; ++i) {
    const std::int64_t truth = start + i * 10 * kMs;
    stamp = clock.Stamp(truth + 6 * kMs, k10Ms);
    if (stamp == truth + 6 * kMs && moved_at < 0) moved_at = i;
    if (moved_at < 0) {
      EXPECT_EQ(stamp, truth) << i;
    }
  }
  EXPECT_EQ(moved_at, 20) << "after 200 ms of sound, not before";
}

TEST(SampleClock, LatenessWithinTheLimitLeavesTheTimeLineAlone) {
  SampleClock clock(48000);
  const std::int64_t start = 1'000 * kMs;
  clock.Stamp(start, k10Ms);
  for (int i = 1; i <= 60; ++i) {
    const std::int64_t truth = start + i * 10 * kMs;
    EXPECT_EQ(clock.Stamp(truth + 4 * kMs, k10Ms), truth) << i;
  }
}

TEST(SampleClock, AGapOfMoreThan100MsReanchorsAtOnce) {
  SampleClock clock(48000);
  const std::int64_t start = 1'000 * kMs;
  clock.Stamp(start, k10Ms);
  // The application paused for half a second.
  EXPECT_EQ(clock.Stamp(start + 510 * kMs, k10Ms), start + 510 * kMs);
  EXPECT_EQ(clock.Stamp(start + 521 * kMs, k10Ms), start + 520 * kMs);
  // 100 ms late is still lateness, not a gap.
  SampleClock other(48000);
  other.Stamp(start, k10Ms);
  EXPECT_EQ(other.Stamp(start + 110 * kMs, k10Ms), start + 10 * kMs);
}

TEST(SampleClock, TheRateSetsTheDurations) {
  SampleClock clock(44100);
  const std::int64_t start = 1'000 * kMs;
  clock.Stamp(start, 441);
  EXPECT_EQ(clock.Stamp(start + 30 * kMs, 441), start + 10 * kMs);
}

}  // namespace
}  // namespace mirell::capture
