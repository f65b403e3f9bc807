#include "latency_figures.h"

#include <gtest/gtest.h>

namespace mirell::meter {
namespace {

TEST(LatencyFigures, PercentilesByNearestRank) {
  std::vector<double> samples;
  for (int i = 100; i >= 1; --i) samples.push_back(i);
  const LatencyFigures figures = Summarise(samples);
  EXPECT_EQ(figures.samples, 100u);
  EXPECT_DOUBLE_EQ(figures.median_ms, 50);
  EXPECT_DOUBLE_EQ(figures.p95_ms, 95);
  EXPECT_DOUBLE_EQ(figures.p99_ms, 99);
  EXPECT_EQ(Describe(figures), "median=50.0 ms p95=95.0 ms p99=99.0 ms (samples=100)");
}

TEST(LatencyFigures, OneSampleAndNone) {
  const LatencyFigures one = Summarise({7.5});
  EXPECT_DOUBLE_EQ(one.median_ms, 7.5);
  EXPECT_DOUBLE_EQ(one.p99_ms, 7.5);
  const LatencyFigures none = Summarise({});
  EXPECT_EQ(none.samples, 0u);
  EXPECT_DOUBLE_EQ(none.median_ms, 0);
}

TEST(LatencyFigures, ACodeReadAsSecondsOldOrFromTheFutureIsNotALatency) {
  EXPECT_TRUE(IsPlausibleLatency(0));
  EXPECT_TRUE(IsPlausibleLatency(45.5));
  EXPECT_TRUE(IsPlausibleLatency(kMostPlausibleMs));
  EXPECT_FALSE(IsPlausibleLatency(kMostPlausibleMs + 0.1));
  EXPECT_FALSE(IsPlausibleLatency(383425093.7)) << "a garbled code passing its check byte by chance";
  EXPECT_FALSE(IsPlausibleLatency(-1));
}

}  // namespace
}  // namespace mirell::meter
