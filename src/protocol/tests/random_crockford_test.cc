#include <gtest/gtest.h>

#include <set>

#include "mirell/protocol/share_token.h"

namespace mirell::protocol {
namespace {

TEST(RandomCrockford, LengthAndAlphabet) {
  for (std::size_t length : {0u, 1u, 12u, 32u, 1000u}) {
    const std::string text = RandomCrockford(length);
    EXPECT_EQ(text.size(), length);
    EXPECT_EQ(text.find_first_not_of("0123456789ABCDEFGHJKMNPQRSTVWXYZ"), std::string::npos) << text;
  }
}

TEST(RandomCrockford, EverySymbolTurnsUpAndValuesDiffer) {
  const std::string text = RandomCrockford(20'000);
  EXPECT_EQ(std::set<char>(text.begin(), text.end()).size(), 32u);
  std::set<std::string> tokens;
  for (int i = 0; i < 1000; ++i) tokens.insert(RandomCrockford(12));
  EXPECT_EQ(tokens.size(), 1000u);
}

TEST(ShareCredentials, TwelveAndThirtyTwoCharacters) {
  const auto credentials = GenerateShareCredentials();
  EXPECT_EQ(credentials.token.size(), 12u);
  EXPECT_EQ(credentials.secret.size(), 32u);
  EXPECT_NE(GenerateShareCredentials().token, credentials.token);
}

}  // namespace
}  // namespace mirell::protocol
