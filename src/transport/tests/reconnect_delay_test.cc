// The signal client's wait between connection attempts.
#include "reconnect_delay.h"

#include <gtest/gtest.h>

namespace mirell::transport {
namespace {

TEST(ReconnectDelay, GrowsBy500UpToTenSecondsAndResetsAfterARegistration) {
  std::int64_t delay = 0;
  for (int attempt = 1; attempt <= 11; ++attempt) delay = NextReconnectDelayMs(delay, false);
  EXPECT_EQ(delay, 5500) << "after eleven failed attempts";
  for (int attempt = 12; attempt <= 19; ++attempt) delay = NextReconnectDelayMs(delay, false);
  EXPECT_EQ(delay, 9500);
  for (int attempt = 20; attempt <= 40; ++attempt) {
    delay = NextReconnectDelayMs(delay, false);
    EXPECT_EQ(delay, 10'000) << attempt;
  }
  EXPECT_EQ(NextReconnectDelayMs(delay, true), 0);
}

}  // namespace
}  // namespace mirell::transport
