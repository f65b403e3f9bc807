#include "mirell/transport/stun_choices.h"

#include <gtest/gtest.h>

#include "peer_media_format.h"

namespace mirell::transport {
namespace {

TEST(StunChoicesTest, CloudflareComesFirstThenGoogleThenNone) {
  ASSERT_EQ(StunChoices().size(), 3u);
  EXPECT_EQ(StunChoices()[0].id, "cloudflare");
  EXPECT_EQ(StunChoices()[0].label, "Cloudflare");
  EXPECT_EQ(StunChoices()[1].id, "google");
  EXPECT_EQ(StunChoices()[1].label, "Google");
  EXPECT_EQ(StunChoices()[2].id, "none");
  EXPECT_EQ(StunChoices()[2].label, "None");
  EXPECT_EQ(StunChoices()[2].note,
            "Contacts nothing. Works on a LAN, won't connect between two homes.");
}

TEST(StunChoicesTest, EachServerIsAStunUrlThePeerLinkAccepts) {
  for (const StunChoice& choice : StunChoices()) {
    if (choice.server.empty()) continue;
    const IceServerUri uri = ToIceServerUri({choice.server, "", ""});
    EXPECT_FALSE(uri.turn) << choice.server;
    EXPECT_EQ(uri.uri.rfind("stun://", 0), 0u) << choice.server;
  }
  EXPECT_EQ(FindStunChoice("cloudflare")->server, "stun:stun.cloudflare.com:3478");
  EXPECT_EQ(FindStunChoice("google")->server, "stun:stun.l.google.com:19302");
}

TEST(StunChoicesTest, AChoiceGivesOneServerWithoutCredentials) {
  const std::vector<IceServer> servers = IceServersForChoice("google");
  ASSERT_EQ(servers.size(), 1u);
  EXPECT_EQ(servers[0].url, "stun:stun.l.google.com:19302");
  EXPECT_TRUE(servers[0].username.empty());
  EXPECT_TRUE(servers[0].credential.empty());
}

TEST(StunChoicesTest, NoneAndUnknownIdsGiveNoServer) {
  EXPECT_TRUE(IceServersForChoice("none").empty());
  EXPECT_TRUE(IceServersForChoice("custom").empty());
  EXPECT_TRUE(IceServersForChoice("").empty());
  EXPECT_FALSE(FindStunChoice("Cloudflare").has_value());  // Ids are exact.
  EXPECT_TRUE(FindStunChoice("none").has_value());
}

}  // namespace
}  // namespace mirell::transport
