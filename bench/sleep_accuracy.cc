// Lateness and CPU cost of PreciseSleeper::SleepUntil under several settings (spin length, the
// thread's timer slack) beside std::this_thread::sleep_until, measured in the same run: `count`
// sleeps of `period_ms` each (defaults 300 x 33 ms, as a 30 fps metronome sleeps). Each setting
// runs on a fresh thread, since timer slack belongs to a thread.
#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "mirell/base/clock.h"

namespace {

struct Figures {
  double median_us, p99_us, max_us, cpu_percent;
};

std::int64_t ThreadCpuNs() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

Figures Measure(int count, std::int64_t period_ns, const std::function<void(std::int64_t)>& sleep) {
  Figures figures{};
  std::thread([&] {
    std::vector<double> lateness_us;
    lateness_us.reserve(static_cast<std::size_t>(count));
    const std::int64_t cpu_start = ThreadCpuNs();
    const std::int64_t start = mirell::SteadyNowNs();
    std::int64_t deadline = start;
    for (int i = 0; i < count; ++i) {
      deadline += period_ns;
      sleep(deadline);
      lateness_us.push_back(static_cast<double>(mirell::SteadyNowNs() - deadline) / 1000.0);
    }
    const double cpu = static_cast<double>(ThreadCpuNs() - cpu_start);
    const double wall = static_cast<double>(mirell::SteadyNowNs() - start);
    std::sort(lateness_us.begin(), lateness_us.end());
    const auto at = [&](double q) {
      return lateness_us[std::min(lateness_us.size() - 1,
                                  static_cast<std::size_t>(q * static_cast<double>(lateness_us.size())))];
    };
    figures = {at(0.5), at(0.99), lateness_us.back(), 100.0 * cpu / wall};
  }).join();
  return figures;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 300;
  const std::int64_t period_ns = (argc > 2 ? std::atoll(argv[2]) : 33) * 1'000'000;
  fmt::print("sleep lateness over {} sleeps of {} ms (microseconds), CPU of the sleeping thread\n", count,
             period_ns / 1'000'000);
  fmt::print("{:<44} {:>8} {:>8} {:>8} {:>8}\n", "", "median", "p99", "max", "cpu %");
  const auto row = [](const std::string& name, const Figures& f) {
    fmt::print("{:<44} {:>8.1f} {:>8.1f} {:>8.1f} {:>8.2f}\n", name, f.median_us, f.p99_us, f.max_us, f.cpu_percent);
  };
  const Figures standard = Measure(count, period_ns, [](std::int64_t d) {
    std::this_thread::sleep_until(std::chrono::steady_clock::time_point(std::chrono::nanoseconds(d)));
  });
  row("std::this_thread::sleep_until (reference)", standard);
  for (const bool finest : {false, true}) {
    for (const std::int64_t spin_us : {1000, 500, 200, 100, 50, 20, 0}) {
      mirell::PreciseSleeper sleeper({spin_us * 1000, finest});
      const Figures f = Measure(count, period_ns, [&](std::int64_t d) { sleeper.SleepUntil(d); });
      row(fmt::format("PreciseSleeper spin {} us, slack {}", spin_us, finest ? "1 ns" : "default"), f);
    }
  }
  return 0;
}
