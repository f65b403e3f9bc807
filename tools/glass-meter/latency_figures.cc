#include "latency_figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace mirell::meter {

namespace {

double NearestRank(const std::vector<double>& sorted, double percent) {
  const auto rank = static_cast<std::size_t>(std::ceil(percent / 100.0 * static_cast<double>(sorted.size())));
  return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

}  // namespace

bool IsPlausibleLatency(double ms) { return ms >= 0 && ms <= kMostPlausibleMs; }

LatencyFigures Summarise(std::vector<double> samples_ms) {
  LatencyFigures figures;
  figures.samples = samples_ms.size();
  if (samples_ms.empty()) return figures;
  std::sort(samples_ms.begin(), samples_ms.end());
  figures.median_ms = NearestRank(samples_ms, 50);
  figures.p95_ms = NearestRank(samples_ms, 95);
  figures.p99_ms = NearestRank(samples_ms, 99);
  return figures;
}

std::string Describe(const LatencyFigures& figures) {
  return fmt::format("median={:.1f} ms p95={:.1f} ms p99={:.1f} ms (samples={})", figures.median_ms,
                     figures.p95_ms, figures.p99_ms, figures.samples);
}

}  // namespace mirell::meter
