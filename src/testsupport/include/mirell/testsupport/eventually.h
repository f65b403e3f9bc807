// Waiting in tests for something another thread or process makes true: the condition is polled
// every 5 ms until it holds or the limit has passed. Returns whether it held.
#pragma once

#include <chrono>
#include <thread>

namespace mirell::testsupport {

template <typename Predicate>
bool Eventually(Predicate done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace mirell::testsupport
