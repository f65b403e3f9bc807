// Time for code that must run without real time in tests, and the precise sleep that paces
// capture. Steady times are nanoseconds of the monotonic clock; wall times are 100 ns ticks
// since 1970. All signed 64-bit.
#pragma once

#include <cstdint>
#include <memory>

namespace mirell {

class IClock {
 public:
  virtual ~IClock() = default;
  virtual std::int64_t SteadyNow() = 0;
  virtual std::int64_t WallNow() = 0;
  virtual void SleepUntil(std::int64_t deadline_ns) = 0;
};

// Sleeps with the kernel's timer to one millisecond before the deadline, then spins on the
// monotonic clock, so that a loop at 60 frames per second is not at the scheduler's mercy.
// Costs up to 1 ms of one core per sleep, by design. One thread at a time.
class PreciseSleeper {
 public:
  // The part of the remaining time that the timer sleeps; the rest, always the last
  // millisecond, is spun. A remaining time of 1 ms or less takes no timer at all.
  static constexpr std::int64_t kSpinNs = 1'000'000;
  static constexpr std::int64_t TimerPortion(std::int64_t remaining_ns) {
    return remaining_ns > kSpinNs ? remaining_ns - kSpinNs : 0;
  }

  PreciseSleeper() = default;
  PreciseSleeper(PreciseSleeper&&) = default;
  PreciseSleeper& operator=(PreciseSleeper&&) = default;
  PreciseSleeper(const PreciseSleeper&) = delete;
  PreciseSleeper& operator=(const PreciseSleeper&) = delete;

  // Returns at or after `deadline_ns` on the steady clock; a deadline in the past returns after
  // one reading of the clock.
  void SleepUntil(std::int64_t deadline_ns);
};

// Nanoseconds of the monotonic clock that PreciseSleeper and SystemClock read.
std::int64_t SteadyNowNs();

// The real clock. Not shareable between threads that sleep at the same time.
std::unique_ptr<IClock> MakeSystemClock();

// A clock that moves only when told to. No lock: one thread.
class ManualClock : public IClock {
 public:
  explicit ManualClock(std::int64_t steady_ns) : steady_(steady_ns) {}

  std::int64_t SteadyNow() override { return steady_; }
  std::int64_t WallNow() override { return wall_; }
  // Counts the call; moves time forward to the deadline if it lies ahead.
  void SleepUntil(std::int64_t deadline_ns) override;

  // Moves steady time by `ns` and wall time by `ns` / 100, truncated toward zero.
  void Advance(std::int64_t ns);
  std::int64_t sleep_count() const { return sleep_count_; }

 private:
  std::int64_t steady_;
  std::int64_t wall_ = 0;
  std::int64_t sleep_count_ = 0;
};

}  // namespace mirell
