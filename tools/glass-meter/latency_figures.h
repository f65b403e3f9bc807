// The figures of a run of latency samples: median and tail percentiles.
#pragma once

#include <string>
#include <vector>

namespace mirell::meter {

struct LatencyFigures {
  std::size_t samples = 0;
  double median_ms = 0;
  double p95_ms = 0;
  double p99_ms = 0;
};

// A code that passes its check byte by chance in a garbled picture (one in 256) reads as any
// time at all; a real picture is never seconds old, nor from the future.
inline constexpr double kMostPlausibleMs = 5000;
bool IsPlausibleLatency(double ms);

// Nearest-rank percentiles; all zero for no samples.
LatencyFigures Summarise(std::vector<double> samples_ms);

// "median=12.3 ms p95=15.0 ms p99=17.1 ms (samples=900)".
std::string Describe(const LatencyFigures& figures);

}  // namespace mirell::meter
