// How long the signal client waits before its next connection attempt.
#pragma once

#include <algorithm>
#include <cstdint>

namespace mirell::transport {

// None after a registered socket, else 500 ms more than the last, at most 10 s.
constexpr std::int64_t NextReconnectDelayMs(std::int64_t delay_ms, bool registered) {
  constexpr std::int64_t kDelayStepMs = 500;
  constexpr std::int64_t kMaxDelayMs = 10'000;
  return registered ? 0 : std::min(delay_ms + kDelayStepMs, kMaxDelayMs);
}

}  // namespace mirell::transport
