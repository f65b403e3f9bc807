#include "server_options.h"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

#include <stdexcept>

#include "mirell/testsupport/subprocess.h"

namespace mirell::signal {
namespace {

ServerOptions Parse(std::vector<const char*> arguments) {
  return ParseServerOptions(std::span<const char* const>(arguments.data(), arguments.size()));
}

TEST(ServerOptions, DefaultsAndEveryOption) {
  const auto defaults = Parse({});
  EXPECT_EQ(defaults.config.listen, "127.0.0.1:8080");
  EXPECT_FALSE(defaults.config.latest.has_value());
  EXPECT_FALSE(defaults.help);

  const auto options = Parse({"--listen", "0.0.0.0:443", "--tls-cert", "c.pem", "--tls-key", "k.pem",
                              "--latest-version", "0.2", "--latest-url", "https://x/y",
                              "--max-connections", "10", "--max-message-bytes", "2048",
                              "--max-viewers-per-token", "3", "--max-tokens-per-connection", "2",
                              "--messages-per-second", "5", "--idle-seconds", "4", "--grace-seconds", "2",
                              "--max-tokens", "7", "--reserve-hours", "3",
                              "--max-connections-per-address", "5"});
  const auto& config = options.config;
  EXPECT_EQ(config.listen, "0.0.0.0:443");
  EXPECT_EQ(config.tls_cert, "c.pem");
  EXPECT_EQ(config.tls_key, "k.pem");
  ASSERT_TRUE(config.latest.has_value());
  EXPECT_EQ(config.latest->version, "0.2");
  EXPECT_EQ(config.latest->url, "https://x/y");
  EXPECT_EQ(config.max_connections, 10u);
  EXPECT_EQ(config.max_message_bytes, 2048u);
  EXPECT_EQ(config.hub.max_viewers_per_token, 3u);
  EXPECT_EQ(config.hub.max_tokens_per_connection, 2u);
  EXPECT_EQ(config.hub.messages_per_second, 5.0);
  EXPECT_EQ(config.hub.message_burst, 15.0);
  EXPECT_EQ(config.idle, std::chrono::seconds(4));
  EXPECT_EQ(config.hub.register_within, std::chrono::seconds(4));
  EXPECT_EQ(config.hub.grace, std::chrono::seconds(2));
  EXPECT_EQ(config.hub.max_tokens, 7u);
  EXPECT_EQ(config.max_connections_per_address, 5u);
  EXPECT_EQ(config.hub.reserve, std::chrono::hours(3));
  EXPECT_TRUE(Parse({"--help"}).help);
}

TEST(ServerOptions, MistakesAreNamed) {
  const auto message = [](std::vector<const char*> arguments) {
    try {
      Parse(std::move(arguments));
    } catch (const std::invalid_argument& error) {
      return std::string(error.what());
    }
    return std::string("accepted");
  };
  EXPECT_NE(message({"--bogus", "1"}).find("unknown option '--bogus'"), std::string::npos);
  EXPECT_NE(message({"--listen"}).find("--listen needs a value"), std::string::npos);
  EXPECT_NE(message({"--max-connections", "ten"}).find("--max-connections wants a positive whole number, not 'ten'"),
            std::string::npos);
  EXPECT_NE(message({"--grace-seconds", "0"}).find("positive whole number"), std::string::npos);
  // Values whose milliseconds would overflow: a token was then forgotten at once.
  EXPECT_NE(message({"--reserve-hours", "9999999999999"}).find("--reserve-hours is at most 8760"),
            std::string::npos);
  EXPECT_EQ(message({"--reserve-hours", "8760"}), "accepted");
  EXPECT_NE(message({"--grace-seconds", "86401"}).find("--grace-seconds is at most 86400"), std::string::npos);
  EXPECT_EQ(message({"--grace-seconds", "86400"}), "accepted");
  EXPECT_NE(message({"--latest-version", "1"}).find("--latest-version and --latest-url go together"),
            std::string::npos);
  EXPECT_NE(message({"stray"}).find("unexpected argument 'stray'"), std::string::npos);
  // An unknown option is named as such, whatever follows it.
  EXPECT_NE(message({"--bogus"}).find("unknown option '--bogus'"), std::string::npos);
  EXPECT_NE(message({"--max-conections", "5"}).find("unknown option '--max-conections'"), std::string::npos);
  for (const char* listen : {"nonsense", "127.0.0.1", ":8080", "127.0.0.1:", "127.0.0.1:99999", "127.0.0.1:80x",
                             "127.0.0.1:-1"}) {
    EXPECT_NE(message({"--listen", listen}).find("--listen wants ADDRESS:PORT"), std::string::npos) << listen;
  }
}

TEST(ServerOptions, ListenTakesAnyAddressFormWithAPort) {
  for (const char* listen : {"127.0.0.1:0", "0.0.0.0:65535", "[::1]:8080", "::1:8080"}) {
    EXPECT_EQ(Parse({"--listen", listen}).config.listen, listen);
  }
}

TEST(ServerOptions, RelaysAreGivenByAddressAndTheirSecretByFile) {
  testsupport::TempDir dir;
  const std::string secret_file = (dir.path() / "relay-secret").string();
  std::ofstream(secret_file) << "0123456789abcdefXYZ\r\nsecond line ignored\n";
  const auto options = Parse({"--relay-url", "rtspt://relay.example.org:8554", "--relay-url",
                              "rtsp://[2001:db8::1]:554/", "--relay-secret-file", secret_file.c_str()});
  EXPECT_EQ(options.config.relay_urls,
            (std::vector<std::string>{"rtspt://relay.example.org:8554", "rtsp://[2001:db8::1]:554/"}));
  EXPECT_EQ(options.config.relay_secret, "0123456789abcdefXYZ");
  EXPECT_TRUE(Parse({}).config.relay_urls.empty());
  EXPECT_TRUE(Parse({}).config.relay_secret.empty());

  const auto message = [](std::vector<const char*> arguments) {
    try {
      Parse(std::move(arguments));
    } catch (const std::invalid_argument& error) {
      return std::string(error.what());
    }
    return std::string("accepted");
  };
  for (const char* url : {"http://relay.example.org", "rtspt://", "rtspt://:8554", "rtspt://a b",
                          "rtspt://a/s/x", "rtspt://a\"><script>", "relay.example.org:8554"}) {
    EXPECT_NE(message({"--relay-url", url}).find("--relay-url wants rtspt://HOST[:PORT]"), std::string::npos)
        << url;
  }
  EXPECT_NE(message({"--relay-secret-file", "/nonexistent/secret"}).find("cannot read"), std::string::npos);
  EXPECT_NE(message({"--relay-url", "rtspt://relay.example.org"}).find("--relay-url needs --relay-secret-file"),
            std::string::npos);
  std::ofstream(dir.path() / "short") << "tooshort\n";
  EXPECT_NE(message({"--relay-secret-file", (dir.path() / "short").c_str()}).find("16 characters or more"),
            std::string::npos);
}

}  // namespace
}  // namespace mirell::signal
