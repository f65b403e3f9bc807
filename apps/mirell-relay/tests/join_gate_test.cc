// The relay's rules for asking its signal server about a token.
#include "join_gate.h"

#include <gtest/gtest.h>

namespace mirell::relay {
namespace {

using namespace std::chrono_literals;
using Clock = JoinGate::Clock;

TEST(JoinGate, ARefusedTokenIsNotAskedAboutForTenSeconds) {
  JoinGate gate({});
  const Clock::time_point start{1h};
  ASSERT_TRUE(gate.MayJoin("PRIVATE", start));
  gate.Refused("PRIVATE", start);
  EXPECT_FALSE(gate.MayJoin("PRIVATE", start + 1s));
  EXPECT_FALSE(gate.MayJoin("PRIVATE", start + 9999ms));
  EXPECT_TRUE(gate.MayJoin("OTHER", start + 9999ms)) << "only that token is held back";
  EXPECT_TRUE(gate.MayJoin("PRIVATE", start + 10s));
  EXPECT_EQ(gate.remembered(), 0u) << "forgotten once asked again";
}

TEST(JoinGate, JoinsAreRationedPerSecondWithABurst) {
  JoinGate gate({10s, 5, 10, 4096});
  const Clock::time_point start{1h};
  int granted = 0;
  for (int i = 0; i < 100; ++i) granted += gate.MayJoin("T" + std::to_string(i), start) ? 1 : 0;
  EXPECT_EQ(granted, 10) << "the burst";
  EXPECT_FALSE(gate.MayJoin("late", start + 100ms));
  EXPECT_TRUE(gate.MayJoin("late", start + 200ms)) << "one more every 200 ms";
  EXPECT_FALSE(gate.MayJoin("later", start + 250ms));
  granted = 0;
  for (int i = 0; i < 100; ++i) granted += gate.MayJoin("U" + std::to_string(i), start + 1h) ? 1 : 0;
  EXPECT_EQ(granted, 10) << "the allowance fills up to the burst, no further";
}

TEST(JoinGate, TheRefusedTokensKeptAreBounded) {
  JoinGate gate({10s, 1e9, 1e9, 100});
  const Clock::time_point start{1h};
  for (int i = 0; i < 1000; ++i) gate.Refused("T" + std::to_string(i), start);
  EXPECT_EQ(gate.remembered(), 100u);
  EXPECT_FALSE(gate.MayJoin("T0", start + 1s));
  // Once the old ones are stale they make room.
  gate.Refused("NEW", start + 11s);
  EXPECT_EQ(gate.remembered(), 1u);
  EXPECT_FALSE(gate.MayJoin("NEW", start + 12s));
}

}  // namespace
}  // namespace mirell::relay
