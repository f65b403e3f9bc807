#include "mirell/base/clock.h"

#include <sys/prctl.h>
#include <time.h>

#include <cerrno>
#include <chrono>

namespace mirell {

std::int64_t SteadyNowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

namespace {
// Timer slack belongs to a thread, so it is set once by each thread that sleeps.
void UseFinestTimerSlackOnThisThread() {
  thread_local bool done = false;
  if (done) return;
  done = true;
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}
}  // namespace

void PreciseSleeper::SleepUntil(std::int64_t deadline_ns) {
  if (settings_.finest_timer_slack) UseFinestTimerSlackOnThisThread();
  const std::int64_t timer_ns = TimerPortion(deadline_ns - SteadyNowNs(), settings_.spin_ns);
  if (timer_ns > 0) {
    // Absolute on the monotonic clock (steady_clock is CLOCK_MONOTONIC on Linux), so a signal
    // that interrupts the sleep resumes it without drift.
    const std::int64_t wake_ns = deadline_ns - settings_.spin_ns;
    const timespec wake{static_cast<time_t>(wake_ns / 1'000'000'000),
                        static_cast<long>(wake_ns % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) {
    }
  }
  while (SteadyNowNs() < deadline_ns) {
  }
}

namespace {

class SystemClock final : public IClock {
 public:
  std::int64_t SteadyNow() override { return SteadyNowNs(); }
  std::int64_t WallNow() override {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
               .count() /
           100;
  }
  void SleepUntil(std::int64_t deadline_ns) override { sleeper_.SleepUntil(deadline_ns); }

 private:
  PreciseSleeper sleeper_;
};

}  // namespace

std::unique_ptr<IClock> MakeSystemClock() { return std::make_unique<SystemClock>(); }

void ManualClock::SleepUntil(std::int64_t deadline_ns) {
  ++sleep_count_;
  if (steady_ < deadline_ns) Advance(deadline_ns - steady_);
}

void ManualClock::Advance(std::int64_t ns) {
  steady_ += ns;
  wall_ += ns / 100;
}

}  // namespace mirell
