#include "mirell/base/min_interval.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace mirell {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

TEST(MinInterval, OncePerIntervalAndTheFirstAlways) {
  MinInterval gate(kSecond);
  EXPECT_TRUE(gate.Take(0)) << "the first call, even at time zero";
  EXPECT_FALSE(gate.Take(1));
  EXPECT_FALSE(gate.Take(kSecond - 1));
  EXPECT_TRUE(gate.Take(kSecond));
  EXPECT_FALSE(gate.Take(kSecond + kSecond / 2));
  EXPECT_TRUE(gate.Take(5 * kSecond));
}

TEST(MinInterval, ManyThreadsAtOnceTakeItOnce) {
  MinInterval gate(kSecond);
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 1000; ++n) taken += gate.Take(7 * kSecond + n) ? 1 : 0;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken.load(), 1);
}

}  // namespace
}  // namespace mirell
