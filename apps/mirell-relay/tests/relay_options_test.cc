#include "relay_options.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <vector>

#include "mirell/testsupport/subprocess.h"

namespace mirell::relay {
namespace {

RelayOptions Parse(std::vector<const char*> arguments) {
  return ParseRelayOptions(std::span<const char* const>(arguments.data(), arguments.size()));
}

std::string Mistake(std::vector<const char*> arguments) {
  try {
    Parse(std::move(arguments));
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "accepted";
}

class RelayOptionsTest : public ::testing::Test {
 protected:
  void SetUp() override { std::ofstream(secret_) << "relay-secret-0123456789\n"; }
  testsupport::TempDir dir_;
  const std::string secret_ = (dir_.path() / "secret").string();
};

TEST_F(RelayOptionsTest, DefaultsAndEveryOption) {
  const auto defaults = Parse({"--signal", "wss://share.example.org/signal", "--relay-secret-file", secret_.c_str()});
  EXPECT_EQ(defaults.signal_url, "wss://share.example.org/signal");
  EXPECT_EQ(defaults.relay_secret, "relay-secret-0123456789");
  EXPECT_EQ(defaults.listen_address, "0.0.0.0");
  EXPECT_EQ(defaults.listen_port, 8554);
  EXPECT_EQ(defaults.max_players, 256u);
  EXPECT_EQ(defaults.max_players_per_address, 32u);
  EXPECT_EQ(defaults.max_shares, 64u);
  EXPECT_EQ(defaults.grace_seconds, 30);
  EXPECT_FALSE(defaults.help);

  const auto options = Parse({"--signal", "ws://127.0.0.1:8080/signal", "--relay-secret-file", secret_.c_str(),
                              "--listen", "127.0.0.1:0", "--public-url", "rtspt://relay.example.org:8554",
                              "--max-players", "10", "--max-players-per-address", "3", "--max-shares", "2", "--joins-per-second", "3",
                              "--grace-seconds", "4"});
  EXPECT_EQ(options.listen_address, "127.0.0.1");
  EXPECT_EQ(options.listen_port, 0);
  EXPECT_EQ(options.public_url, "rtspt://relay.example.org:8554");
  EXPECT_EQ(options.max_players, 10u);
  EXPECT_EQ(options.max_players_per_address, 3u);
  EXPECT_EQ(options.max_shares, 2u);
  EXPECT_EQ(options.joins_per_second, 3.0);
  EXPECT_EQ(options.grace_seconds, 4);
  EXPECT_TRUE(Parse({"--help"}).help) << "help needs nothing else";
}

TEST_F(RelayOptionsTest, MistakesAreNamed) {
  EXPECT_NE(Mistake({"--relay-secret-file", secret_.c_str()}).find("--signal URL is needed"), std::string::npos);
  EXPECT_NE(Mistake({"--signal", "ws://h/signal"}).find("--relay-secret-file FILE is needed"), std::string::npos);
  EXPECT_NE(Mistake({"--signal", "http://h/signal"}).find("--signal wants the ws:// or wss:// URL"),
            std::string::npos);
  for (const char* listen : {"8554", "[::]:8554", "0.0.0.0:99999", "host:"}) {
    EXPECT_NE(Mistake({"--listen", listen}).find("--listen wants IPV4-ADDRESS:PORT"), std::string::npos) << listen;
  }
  EXPECT_NE(Mistake({"--public-url", "http://relay"}).find("--public-url wants rtspt://HOST[:PORT]"),
            std::string::npos);
  EXPECT_NE(Mistake({"--max-players", "0"}).find("--max-players wants a positive whole number"), std::string::npos);
  EXPECT_NE(Mistake({"--grace-seconds", "86401"}).find("at most 86400"), std::string::npos);
  EXPECT_NE(Mistake({"--relay-secret-file", "/nonexistent"}).find("cannot read"), std::string::npos);
  EXPECT_NE(Mistake({"--bogus", "1"}).find("unknown option '--bogus'"), std::string::npos);
  EXPECT_NE(Mistake({"stray"}).find("unexpected argument 'stray'"), std::string::npos);
  EXPECT_NE(Mistake({"--signal"}).find("--signal needs a value"), std::string::npos);
}

}  // namespace
}  // namespace mirell::relay
