// Lets something happen at most once per interval, from any number of threads: the first call
// of each interval takes it, the others in it are refused. Lock-free.
#pragma once

#include <atomic>
#include <cstdint>

namespace mirell {

class MinInterval {
 public:
  explicit MinInterval(std::int64_t interval_ns) : interval_ns_(interval_ns) {}

  // Whether the caller may go ahead at `now_ns` (a steady clock's nanoseconds, not negative).
  bool Take(std::int64_t now_ns) {
    std::int64_t last = last_ns_.load();
    if (now_ns - last < interval_ns_) return false;
    // Of callers that saw the same last time, one wins.
    return last_ns_.compare_exchange_strong(last, now_ns);
  }

 private:
  const std::int64_t interval_ns_;
  // Far enough in the past that the first call is always let through, near enough that the
  // subtraction cannot overflow.
  std::atomic<std::int64_t> last_ns_{INT64_MIN / 2};
};

}  // namespace mirell
