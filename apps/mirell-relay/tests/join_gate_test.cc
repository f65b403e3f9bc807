// The relay's rules for asking its signal server about a token.
#include "join_gate.h"

#include <gtest/gtest.h>

namespace mirell::relay {
namespace {

using namespace std::chrono_literals;
using Clock = JoinGate::Clock;
constexpr std::uint32_t kHere = 0;  // This machine: no allowance of its own.
constexpr std::uint32_t kStranger = 0xC6336401;  // 198.51.100.1
constexpr std::uint32_t kFriend = 0xC6336402;

TEST(JoinGate, ARefusedTokenIsNotAskedAboutForTenSeconds) {
  JoinGate gate({});
  const Clock::time_point start{1h};
  ASSERT_TRUE(gate.MayJoin("PRIVATE", kHere, start));
  gate.Refused("PRIVATE", start);
  EXPECT_FALSE(gate.MayJoin("PRIVATE", kHere, start + 1s));
  EXPECT_FALSE(gate.MayJoin("PRIVATE", kHere, start + 9999ms));
  EXPECT_TRUE(gate.MayJoin("OTHER", kHere, start + 9999ms)) << "only that token is held back";
  EXPECT_TRUE(gate.MayJoin("PRIVATE", kHere, start + 10s));
  EXPECT_EQ(gate.remembered(), 0u) << "forgotten once asked again";
}

TEST(JoinGate, JoinsAreRationedPerSecondWithABurst) {
  JoinGate gate({.refused_for = 10s, .joins_per_second = 5, .join_burst = 10});
  const Clock::time_point start{1h};
  int granted = 0;
  for (int i = 0; i < 100; ++i) granted += gate.MayJoin("T" + std::to_string(i), kHere, start) ? 1 : 0;
  EXPECT_EQ(granted, 10) << "the burst";
  EXPECT_FALSE(gate.MayJoin("late", kHere, start + 100ms));
  EXPECT_TRUE(gate.MayJoin("late", kHere, start + 200ms)) << "one more every 200 ms";
  EXPECT_FALSE(gate.MayJoin("later", kHere, start + 250ms));
  granted = 0;
  for (int i = 0; i < 100; ++i) granted += gate.MayJoin("U" + std::to_string(i), kHere, start + 1h) ? 1 : 0;
  EXPECT_EQ(granted, 10) << "the allowance fills up to the burst, no further";
}

TEST(JoinGate, TheRefusedTokensKeptAreBounded) {
  JoinGate gate({.refused_for = 10s, .joins_per_second = 1e9, .join_burst = 1e9, .max_remembered = 100});
  const Clock::time_point start{1h};
  for (int i = 0; i < 1000; ++i) gate.Refused("T" + std::to_string(i), start);
  EXPECT_EQ(gate.remembered(), 100u);
  EXPECT_FALSE(gate.MayJoin("T0", kHere, start + 1s));
  // Once the old ones are stale they make room.
  gate.Refused("NEW", start + 11s);
  EXPECT_EQ(gate.remembered(), 1u);
  EXPECT_FALSE(gate.MayJoin("NEW", kHere, start + 12s));
}

// One address naming made-up tokens spends its own allowance, not everybody's.
TEST(JoinGate, OneAddressCannotSpendEverybodysAllowance) {
  JoinGate gate({.refused_for = 10s, .joins_per_second = 5, .join_burst = 10,
                 .joins_per_address_per_second = 0.5, .address_burst = 3});
  const Clock::time_point start{1h};
  int granted = 0;
  for (int i = 0; i < 100; ++i) granted += gate.MayJoin("T" + std::to_string(i), kStranger, start) ? 1 : 0;
  EXPECT_EQ(granted, 3) << "the address's burst";
  EXPECT_TRUE(gate.MayJoin("SHARE", kFriend, start)) << "another address still joins";
  EXPECT_FALSE(gate.MayJoin("MORE", kStranger, start + 1s));
  EXPECT_TRUE(gate.MayJoin("MORE", kStranger, start + 2s)) << "one every two seconds";
  EXPECT_EQ(gate.addresses(), 2u);
  // This machine (a local player, a proxy in front) has only the overall allowance.
  granted = 0;
  for (int i = 0; i < 100; ++i) granted += gate.MayJoin("L" + std::to_string(i), kHere, start + 2s) ? 1 : 0;
  EXPECT_EQ(granted, 9) << "the overall burst of 10 less the stranger's latest, not an address's 3";
}

TEST(JoinGate, TheAddressesKeptAreBounded) {
  JoinGate gate({.refused_for = 10s, .joins_per_second = 1e9, .join_burst = 1e9,
                 .joins_per_address_per_second = 1, .address_burst = 2, .max_remembered = 10});
  const Clock::time_point start{1h};
  for (std::uint32_t i = 1; i <= 10; ++i) EXPECT_TRUE(gate.MayJoin("T", kStranger + i, start));
  EXPECT_EQ(gate.addresses(), 10u);
  EXPECT_FALSE(gate.MayJoin("T", kFriend + 100, start)) << "full of busy addresses: a new one waits";
  EXPECT_TRUE(gate.MayJoin("T", kFriend + 100, start + 2s)) << "the calm ones are forgotten";
  EXPECT_EQ(gate.addresses(), 1u);
}

}  // namespace
}  // namespace mirell::relay
