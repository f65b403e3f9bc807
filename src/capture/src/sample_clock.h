// Time stamps for captured sound. They follow the sample count from an anchor on the steady
// clock. A buffer's measured start (its arrival, less its length and what is queued behind it)
// is never earlier than the truth, only later by however long the sound server held it back (it
// sends in bursts: 20 ms on PulseAudio here, 512-frame periods on PipeWire). So the lower
// envelope of the measurements is the time line: a measurement below the prediction moves the
// anchor back to it; a prediction that stays more than 5 ms below every measurement for 200 ms
// (a server whose clock runs slower than ours) moves it forward by that much; a measurement
// 100 ms past the prediction is a gap (the application paused) and re-anchors at once. Time
// stamps only rise. Platform-free; one thread uses it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirell::capture {

class SampleClock {
 public:
  static constexpr std::int64_t kReanchorLimit100ns = 50'000;  // 5 ms,
  static constexpr std::int64_t kDriftWindow100ns = 2'000'000;  // seen over 200 ms of sound,
  static constexpr std::int64_t kGap100ns = 1'000'000;          // or at once past 100 ms.

  explicit SampleClock(std::uint32_t sample_rate) : sample_rate_(sample_rate) {}

  // The time stamp (100 ns units of the steady clock) of a buffer of `frames` whose start was
  // measured at `measured_100ns`.
  std::int64_t Stamp(std::int64_t measured_100ns, std::size_t frames);

  std::uint32_t sample_rate() const { return sample_rate_; }

 private:
  std::int64_t DurationOf(std::uint64_t frames) const;
  void Reanchor(std::int64_t at);

  std::uint32_t sample_rate_;
  bool anchored_ = false;
  std::int64_t anchor_ = 0;
  std::uint64_t frames_since_anchor_ = 0;
  std::int64_t last_timestamp_ = 0;
  std::int64_t least_lateness_ = INT64_MAX;  // Over the current drift window.
  std::uint64_t window_frames_ = 0;
};

}  // namespace mirell::capture
