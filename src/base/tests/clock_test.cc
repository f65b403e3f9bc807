#include <gtest/gtest.h>

#include <chrono>

#include "mirell/base/clock.h"

namespace {

using mirell::ManualClock;
using mirell::PreciseSleeper;

TEST(ManualClock, DeadlineInThePastIsCountedAndDoesNotMoveTime) {
  ManualClock clock(5);
  clock.SleepUntil(3);
  EXPECT_EQ(clock.SteadyNow(), 5);
  EXPECT_EQ(clock.sleep_count(), 1);
}

TEST(ManualClock, SleepAdvancesSteadyAndWall) {
  ManualClock clock(0);
  clock.SleepUntil(250);
  EXPECT_EQ(clock.SteadyNow(), 250);
  EXPECT_EQ(clock.WallNow(), 2);
  EXPECT_EQ(clock.sleep_count(), 1);
}

TEST(ManualClock, AdvanceTruncatesWallTowardZero) {
  ManualClock clock(1000);
  EXPECT_EQ(clock.WallNow(), 0);
  clock.Advance(199);
  EXPECT_EQ(clock.SteadyNow(), 1199);
  EXPECT_EQ(clock.WallNow(), 1);
  clock.Advance(-150);
  EXPECT_EQ(clock.WallNow(), 0);
  EXPECT_EQ(clock.sleep_count(), 0);
}

TEST(PreciseSleeper, ExactlyOneMillisecondTakesNoTimer) {
  EXPECT_EQ(PreciseSleeper::TimerPortion(1'000'000), 0);
  EXPECT_EQ(PreciseSleeper::TimerPortion(999'999), 0);
  EXPECT_EQ(PreciseSleeper::TimerPortion(-5), 0);
  EXPECT_EQ(PreciseSleeper::TimerPortion(1'000'001), 1);
  EXPECT_EQ(PreciseSleeper::TimerPortion(33'000'000), 32'000'000);
}

TEST(PreciseSleeper, NeverWakesEarly) {
  PreciseSleeper sleeper;
  for (const std::int64_t wait_ns : {0LL, 500'000LL, 1'000'000LL, 2'500'000LL, 10'000'000LL}) {
    const std::int64_t deadline = mirell::SteadyNowNs() + wait_ns;
    sleeper.SleepUntil(deadline);
    EXPECT_GE(mirell::SteadyNowNs(), deadline) << wait_ns;
  }
}

TEST(PreciseSleeper, PastDeadlineReturnsAtOnce) {
  PreciseSleeper sleeper;
  const std::int64_t before = mirell::SteadyNowNs();
  sleeper.SleepUntil(before - 1'000'000'000);
  // Generous: the point is that no second-long wait happened.
  EXPECT_LT(mirell::SteadyNowNs() - before, 100'000'000);
}

TEST(SystemClock, ReadsTheRealClocks) {
  auto clock = mirell::MakeSystemClock();
  const std::int64_t wall_expected =
      std::chrono::duration_cast<std::chrono::nanoseconds>(
          std::chrono::system_clock::now().time_since_epoch())
          .count() /
      100;
  EXPECT_NEAR(static_cast<double>(clock->WallNow()), static_cast<double>(wall_expected), 1e7);
  const std::int64_t start = clock->SteadyNow();
  clock->SleepUntil(start + 2'000'000);
  EXPECT_GE(clock->SteadyNow(), start + 2'000'000);
}

}  // namespace
