#include "sample_clock.h"

#include <algorithm>

namespace mirell::capture {

std::int64_t SampleClock::DurationOf(std::uint64_t frames) const {
  return static_cast<std::int64_t>(frames * 10'000'000 / sample_rate_);
}

std::int64_t SampleClock::Stamp(std::int64_t measured_100ns, std::size_t frames) {
  std::int64_t predicted = anchor_ + DurationOf(frames_since_anchor_);
  const std::int64_t lateness = measured_100ns - predicted;
  if (!anchored_ || lateness < 0 || lateness > kGap100ns) {
    // Moving back never goes behind the buffer before: time stamps only rise.
    const std::int64_t at =
        anchored_ && lateness < 0 ? std::max(measured_100ns, last_timestamp_ + 1) : measured_100ns;
    Reanchor(at);
    predicted = at;
  } else {
    least_lateness_ = std::min(least_lateness_, lateness);
    window_frames_ += frames;
    if (DurationOf(window_frames_) >= kDriftWindow100ns) {
      if (least_lateness_ > kReanchorLimit100ns) {
        Reanchor(predicted + least_lateness_);
        predicted = anchor_;
      }
      least_lateness_ = INT64_MAX;
      window_frames_ = 0;
    }
  }
  last_timestamp_ = predicted;
  frames_since_anchor_ += frames;
  return predicted;
}

void SampleClock::Reanchor(std::int64_t at) {
  anchored_ = true;
  anchor_ = at;
  frames_since_anchor_ = 0;
  least_lateness_ = INT64_MAX;
  window_frames_ = 0;
}

}  // namespace mirell::capture
