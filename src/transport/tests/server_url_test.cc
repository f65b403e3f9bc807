#include "server_url.h"

#include <gtest/gtest.h>

namespace mirell::transport {
namespace {

TEST(ServerUrl, SchemesPortsAndTargets) {
  auto url = ParseWebSocketUrl("wss://mirell.example/signal");
  ASSERT_TRUE(url);
  EXPECT_TRUE(url->secure);
  EXPECT_EQ(url->host, "mirell.example");
  EXPECT_EQ(url->port, "443");
  EXPECT_EQ(url->target, "/signal");
  EXPECT_EQ(url->host_header, "mirell.example");

  url = ParseWebSocketUrl("WS://127.0.0.1:8080");
  ASSERT_TRUE(url);
  EXPECT_FALSE(url->secure);
  EXPECT_EQ(url->port, "8080");
  EXPECT_EQ(url->target, "/");
  EXPECT_EQ(url->host_header, "127.0.0.1:8080");

  url = ParseWebSocketUrl("ws://[::1]:9000/a?b=c#frag");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->host, "::1");
  EXPECT_EQ(url->port, "9000");
  EXPECT_EQ(url->target, "/a?b=c");

  url = ParseWebSocketUrl("ws://host?x=1");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->target, "/?x=1");
}

TEST(ServerUrl, AnythingElseIsRefused) {
  for (const char* text : {"https://mirell.example/signal", "mirell.example/signal", "ws://",
                           "ws://:80/", "ws://host:0/", "ws://host:65536/", "ws://host:8x/",
                           "ws://user:pw@host/", "ws://[::1/", "ws://[::1]x/", ""}) {
    EXPECT_FALSE(ParseWebSocketUrl(text).has_value()) << text;
  }
}

TEST(ServerUrl, HttpsTakesTheSameFormAndOnlyThatScheme) {
  auto url = ParseHttpsUrl("HTTPS://updates.mirell.example:8443/latest?channel=1");
  ASSERT_TRUE(url);
  EXPECT_TRUE(url->secure);
  EXPECT_EQ(url->host, "updates.mirell.example");
  EXPECT_EQ(url->port, "8443");
  EXPECT_EQ(url->target, "/latest?channel=1");
  EXPECT_EQ(ParseHttpsUrl("https://mirell.example")->port, "443");
  EXPECT_EQ(ParseHttpsUrl("https://mirell.example")->target, "/");
  for (const char* text : {"http://mirell.example/latest", "wss://mirell.example/latest",
                           "https://", "https://user@host/", "https://host:0/", "ftp://host/"}) {
    EXPECT_FALSE(ParseHttpsUrl(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace mirell::transport
