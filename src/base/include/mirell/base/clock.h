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

// Sleeps with the kernel's timer to shortly before the deadline, then spins on the monotonic
// clock, so that a loop at 60 frames per second is not at the scheduler's mercy. The spin costs
// CPU on every sleep; the thread's timer slack (how late the kernel may wake it, 50 us by
// default on Linux) decides how short the spin can be. One thread at a time.
class PreciseSleeper {
 public:
  static constexpr std::int64_t kSpinNs = 1'000'000;
  struct Settings {
    // The last part of every wait, spun rather than slept.
    std::int64_t spin_ns = kSpinNs;
    // Asks the kernel to wake the sleeping thread as close to its deadline as it can (on
    // Linux, a timer slack of 1 ns for the thread that sleeps, set at its first sleep).
    bool finest_timer_slack = false;
  };

  // The part of the remaining time that the timer sleeps; the rest, the last `spin_ns`, is
  // spun. A remaining time of `spin_ns` or less takes no timer at all.
  static constexpr std::int64_t TimerPortion(std::int64_t remaining_ns, std::int64_t spin_ns = kSpinNs) {
    return remaining_ns > spin_ns ? remaining_ns - spin_ns : 0;
  }

  PreciseSleeper() = default;
  explicit PreciseSleeper(const Settings& settings) : settings_(settings) {}
  PreciseSleeper(PreciseSleeper&&) = default;
  PreciseSleeper& operator=(PreciseSleeper&&) = default;
  PreciseSleeper(const PreciseSleeper&) = delete;
  PreciseSleeper& operator=(const PreciseSleeper&) = delete;

  // Returns at or after `deadline_ns` on the steady clock; a deadline in the past returns after
  // one reading of the clock.
  void SleepUntil(std::int64_t deadline_ns);

 private:
  Settings settings_;
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
