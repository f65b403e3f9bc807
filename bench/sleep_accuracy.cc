// Lateness of PreciseSleeper::SleepUntil beside std::this_thread::sleep_until, measured in the
// same run: `count` sleeps of `period_ms` each (defaults 1000 x 33 ms, as a 30 fps loop sleeps).
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "mirell/base/clock.h"

namespace {

struct Figures {
  double median_us, p99_us, max_us;
};

template <typename Sleep>
Figures Measure(int count, std::int64_t period_ns, Sleep sleep) {
  std::vector<double> lateness_us;
  lateness_us.reserve(static_cast<std::size_t>(count));
  std::int64_t deadline = mirell::SteadyNowNs();
  for (int i = 0; i < count; ++i) {
    deadline += period_ns;
    sleep(deadline);
    lateness_us.push_back(static_cast<double>(mirell::SteadyNowNs() - deadline) / 1000.0);
  }
  std::sort(lateness_us.begin(), lateness_us.end());
  const auto at = [&](double q) {
    return lateness_us[std::min(lateness_us.size() - 1,
                                static_cast<std::size_t>(q * static_cast<double>(lateness_us.size())))];
  };
  return {at(0.5), at(0.99), lateness_us.back()};
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 1000;
  const std::int64_t period_ns = (argc > 2 ? std::atoll(argv[2]) : 33) * 1'000'000;
  mirell::PreciseSleeper sleeper;
  const Figures precise = Measure(count, period_ns, [&](std::int64_t d) { sleeper.SleepUntil(d); });
  const Figures standard = Measure(count, period_ns, [](std::int64_t d) {
    std::this_thread::sleep_until(std::chrono::steady_clock::time_point(std::chrono::nanoseconds(d)));
  });
  fmt::print("sleep lateness over {} sleeps of {} ms (microseconds)\n", count, period_ns / 1'000'000);
  fmt::print("{:<28} {:>10} {:>10} {:>10}\n", "", "median", "p99", "max");
  fmt::print("{:<28} {:>10.1f} {:>10.1f} {:>10.1f}\n", "PreciseSleeper::SleepUntil",
             precise.median_us, precise.p99_us, precise.max_us);
  fmt::print("{:<28} {:>10.1f} {:>10.1f} {:>10.1f}\n", "std::this_thread::sleep_until",
             standard.median_us, standard.p99_us, standard.max_us);
  fmt::print("median ratio (standard / precise): {:.1f}\n",
             standard.median_us / std::max(precise.median_us, 0.001));
  return 0;
}
