// Which relay a public share's players are sent to.
#include "mirell/signal/relay_choice.h"

#include <gtest/gtest.h>

#include <map>

namespace mirell::signal {
namespace {

TEST(RelayChoice, TheHashIsFnv1aSoEveryNodeAgrees) {
  // The published FNV-1a 64 values of these inputs.
  EXPECT_EQ(StableHash(""), 0xcbf29ce484222325ull);
  EXPECT_EQ(StableHash("a"), 0xaf63dc4c8601ec8cull);
  EXPECT_EQ(StableHash("foobar"), 0x85944171f73967e8ull);
}

TEST(RelayChoice, ATokenAlwaysGoesToTheSameRelayAndTokensSpreadOverAll) {
  const std::vector<std::string> relays = {"rtspt://a.example:8554", "rtspt://b.example:8554/",
                                           "rtspt://c.example"};
  EXPECT_EQ(RelayStreamUrl("ABCDEFGHJKMN", {}), "");
  EXPECT_EQ(RelayStreamUrl("ABCDEFGHJKMN", {"rtspt://only.example:8554/"}),
            "rtspt://only.example:8554/s/ABCDEFGHJKMN");
  std::map<std::string, int> counts;
  for (int i = 0; i < 3000; ++i) {
    const std::string token = "TOKEN" + std::to_string(i);
    const std::string url = RelayStreamUrl(token, relays);
    EXPECT_EQ(url, RelayStreamUrl(token, relays));
    EXPECT_TRUE(url.ends_with("/s/" + token)) << url;
    EXPECT_EQ(url.find("//s/"), std::string::npos) << url;
    ++counts[url.substr(0, url.find("/s/"))];
  }
  ASSERT_EQ(counts.size(), 3u);
  for (const auto& [relay, count] : counts) EXPECT_GT(count, 800) << relay;
}

}  // namespace
}  // namespace mirell::signal
