// The hub's protocol rules with a router that records, and time that the test moves.
#include "mirell/signal/signal_hub.h"

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

namespace mirell::signal {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

class RecordingRouter final : public Router {
 public:
  void Deliver(ConnectionId to, std::string text) override {
    if (disconnected_.count(to) == 0) inbox_[to].push_back(Json::parse(text));
  }
  void Disconnect(ConnectionId who) override { disconnected_.insert(who); }

  // Everything delivered to `id` since the last call.
  std::vector<Json> Take(ConnectionId id) {
    auto messages = std::move(inbox_[id]);
    inbox_[id].clear();
    return messages;
  }
  bool Disconnected(ConnectionId id) const { return disconnected_.count(id) != 0; }

 private:
  std::map<ConnectionId, std::vector<Json>> inbox_;
  std::set<ConnectionId> disconnected_;
};

class SignalHubTest : public ::testing::Test {
 protected:
  SignalHubTest() { limits_.grace = 30s; }

  SignalHub& hub() {
    if (!hub_) hub_.emplace(router_, limits_, relay_secret_);
    return *hub_;
  }
  ConnectionId Open() {
    const ConnectionId id = next_++;
    hub().Opened(id, now_);
    return id;
  }
  void Say(ConnectionId id, const Json& message) { hub().Received(id, message.dump(), now_); }
  ConnectionId Host(const std::string& token = "TOKEN1", const std::string& secret = "s3cret") {
    const ConnectionId id = Open();
    Say(id, {{"type", "host"}, {"token", token}, {"secret", secret},
             {"media", {{"width", 1280}, {"height", 720}}}});
    return id;
  }
  ConnectionId Join(const std::string& token = "TOKEN1", const std::string& identity = "") {
    const ConnectionId id = Open();
    Json join = {{"type", "join"}, {"token", token}};
    if (!identity.empty()) join["identity"] = identity, join["displayName"] = "Name of " + identity;
    Say(id, join);
    return id;
  }
  // The peer id in the single "peer" message the host got.
  std::string PeerAnnouncedTo(ConnectionId host) {
    const auto messages = router_.Take(host);
    EXPECT_EQ(messages.size(), 1u);
    if (messages.empty()) return {};
    EXPECT_EQ(messages[0]["type"], "peer");
    return messages[0]["peer"];
  }
  Json Only(ConnectionId id) {
    const auto messages = router_.Take(id);
    EXPECT_EQ(messages.size(), 1u) << Json(messages).dump();
    return messages.empty() ? Json() : messages[0];
  }

  ConnectionId PublicHost(const std::string& token = "TOKEN1") {
    const ConnectionId id = Open();
    Say(id, {{"type", "host"}, {"token", token}, {"secret", "s3cret"}, {"public", true}});
    return id;
  }
  ConnectionId JoinAsRelay(const std::string& token, const std::string& secret) {
    const ConnectionId id = Open();
    Say(id, {{"type", "join"}, {"token", token}, {"relay", secret}});
    return id;
  }

  HubLimits limits_;
  std::string relay_secret_;
  RecordingRouter router_;
  std::optional<SignalHub> hub_;
  Clock::time_point now_ = Clock::time_point() + 1h;
  ConnectionId next_ = 1;
};

// Only the fields the protocol knows reach the viewers, each of its type.
TEST_F(SignalHubTest, OnlyTheKnownMediaFieldsArePassedOn) {
  const auto host = Open();
  Json deep = Json::array();
  for (int i = 0; i < 200; ++i) deep = Json::array({deep});
  Say(host, {{"type", "host"},
             {"token", "TOKEN1"},
             {"secret", "s3cret"},
             {"media",
              {{"width", 1280},
               {"height", "720"},
               {"fps", -30},
               {"sampleRate", 48000},
               {"channels", 4294967298ull},
               {"audioConfig", "1190"},
               {"extra", deep},
               {"videoKbps", {{"nested", true}}}}}});
  EXPECT_EQ(Only(host), Json::parse(R"({"type":"hosting"})"));
  const auto viewer = Join("TOKEN1");
  EXPECT_EQ(Only(viewer),
            Json::parse(R"({"type":"joined","media":{"width":1280,"sampleRate":48000,"audioConfig":"1190"}})"));
  const auto long_config = Open();
  Say(long_config, {{"type", "host"},
                    {"token", "TOKEN2"},
                    {"secret", "s3cret"},
                    {"media", {{"audioConfig", std::string(65, '1')}}}});
  router_.Take(long_config);
  EXPECT_EQ(Only(Join("TOKEN2")), Json::parse(R"({"type":"joined","media":{}})"));
}

TEST_F(SignalHubTest, TheWholeExchange) {
  const auto host = Host();
  EXPECT_EQ(Only(host), Json::parse(R"({"type":"hosting"})"));
  const auto viewer = Join("TOKEN1", "usr_1");
  EXPECT_EQ(Only(viewer), Json::parse(R"({"type":"joined","media":{"width":1280,"height":720}})"));
  const auto messages = router_.Take(host);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0]["identity"], "usr_1");
  EXPECT_EQ(messages[0]["displayName"], "Name of usr_1");
  const std::string peer = messages[0]["peer"];
  EXPECT_EQ(peer.size(), 16u);

  Say(host, {{"type", "offer"}, {"peer", peer}, {"sdp", "v=0 offer"}});
  EXPECT_EQ(Only(viewer), Json::parse(R"({"type":"offer","sdp":"v=0 offer"})"));
  Say(viewer, {{"type", "answer"}, {"sdp", "v=0 answer"}});
  EXPECT_EQ(Only(host), (Json{{"type", "answer"}, {"peer", peer}, {"sdp", "v=0 answer"}}));
  hub().Closed(viewer);
  EXPECT_EQ(Only(host), (Json{{"type", "peer-gone"}, {"peer", peer}}));
  EXPECT_EQ(hub().statistics().relayed, 2u);
  EXPECT_EQ(hub().statistics().viewers, 0u);
}

TEST_F(SignalHubTest, AViewerWithoutIdentityIsAnnouncedWithoutNames) {
  const auto host = Host();
  router_.Take(host);
  const auto viewer = Open();
  Say(viewer, {{"type", "join"}, {"token", "TOKEN1"}, {"displayName", "Mallory"}});
  const auto announced = Only(host);
  EXPECT_FALSE(announced.contains("identity"));
  EXPECT_FALSE(announced.contains("displayName"));
}

TEST_F(SignalHubTest, AnotherSecretIsRefusedAndTheSameOneTakesTheTokenOver) {
  const auto host = Host("TOKEN1", "right");
  router_.Take(host);
  const auto viewer = Join();
  const std::string peer = PeerAnnouncedTo(host);

  const auto thief = Host("TOKEN1", "wrong");
  EXPECT_EQ(Only(thief)["type"], "error");
  EXPECT_TRUE(router_.Disconnected(thief));
  EXPECT_FALSE(router_.Disconnected(host));

  const auto again = Host("TOKEN1", "right");
  const auto messages = router_.Take(again);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0]["type"], "hosting");
  EXPECT_EQ(messages[1], (Json{{"type", "peer"}, {"peer", peer}})) << "waiting viewers announced again";
  EXPECT_TRUE(router_.Disconnected(host)) << "the old connection is closed";
  EXPECT_TRUE(router_.Take(viewer).size() == 1u) << "the viewer was told joined once, at its join";
  hub().Closed(host);  // The old connection's end changes nothing for the new one.
  Say(again, {{"type", "offer"}, {"peer", peer}, {"sdp", "x"}});
  EXPECT_EQ(Only(viewer)["type"], "offer");
}

TEST_F(SignalHubTest, ViewersWaitForAHostThatRestartsWithinTheGrace) {
  const auto viewer = Join();
  EXPECT_TRUE(router_.Take(viewer).empty()) << "no joined without a host";
  now_ += 20s;
  hub().Sweep(now_);
  EXPECT_FALSE(router_.Disconnected(viewer));
  const auto host = Host();
  EXPECT_EQ(Only(viewer)["type"], "joined");
  const auto messages = router_.Take(host);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[1]["type"], "peer");

  // The host goes away: its viewer waits again, then is told when the grace runs out.
  hub().Closed(host);
  now_ += 29s;
  hub().Sweep(now_);
  EXPECT_FALSE(router_.Disconnected(viewer));
  now_ += 2s;
  hub().Sweep(now_);
  EXPECT_EQ(Only(viewer), Json::parse(R"({"type":"error","reason":"the host is not there"})"));
  EXPECT_TRUE(router_.Disconnected(viewer));
  EXPECT_EQ(hub().statistics().tokens, 1u) << "the token stays its host's";
  EXPECT_EQ(hub().statistics().viewers, 0u);
}

// A link is read by a whole world: while its host is away (a restart, a lost network), nobody
// else may host its token, however long the host takes, up to a day.
TEST_F(SignalHubTest, AHostAwayLongerThanTheGraceKeepsItsToken) {
  const auto host = Host("TOKEN1", "s3cret");
  router_.Take(host);
  hub().Closed(host);
  now_ += 10min;
  hub().Sweep(now_);
  const auto stranger = Host("TOKEN1", "another");
  EXPECT_EQ(Only(stranger), Json::parse(R"({"type":"error","reason":"token taken"})"));
  now_ += 23h;
  hub().Sweep(now_);
  const auto back = Host("TOKEN1", "s3cret");
  EXPECT_EQ(Only(back), Json::parse(R"({"type":"hosting"})"));
}

TEST_F(SignalHubTest, AReservedTokenIsLetGoADayAfterItsHostLeft) {
  const auto host = Host("TOKEN1", "s3cret");
  router_.Take(host);
  hub().Closed(host);
  now_ += 24h - 1s;
  hub().Sweep(now_);
  EXPECT_EQ(hub().statistics().tokens, 1u);
  now_ += 1s;
  hub().Sweep(now_);
  EXPECT_EQ(hub().statistics().tokens, 0u);
  EXPECT_EQ(Only(Host("TOKEN1", "another")), Json::parse(R"({"type":"hosting"})"));
}

// A viewer who comes while the host is away waits the grace from its own arrival.
TEST_F(SignalHubTest, AViewerOfAReservedTokenWaitsTheGraceFromItsJoin) {
  const auto host = Host();
  router_.Take(host);
  hub().Closed(host);
  now_ += 1h;
  hub().Sweep(now_);
  const auto viewer = Join();
  now_ += 29s;
  hub().Sweep(now_);
  EXPECT_FALSE(router_.Disconnected(viewer));
  now_ += 1s;
  hub().Sweep(now_);
  EXPECT_EQ(Only(viewer), Json::parse(R"({"type":"error","reason":"the host is not there"})"));
  EXPECT_EQ(hub().statistics().tokens, 1u);
}

TEST_F(SignalHubTest, EndSendsTheViewersAwayAndLetsTheTokenGo) {
  const auto host = Host("TOKEN1", "s3cret");
  router_.Take(host);
  const auto viewer = Join();
  router_.Take(viewer);
  router_.Take(host);
  const auto stranger = Host("TOKEN2", "other");
  router_.Take(stranger);
  Say(stranger, {{"type", "end"}, {"token", "TOKEN1"}});  // Not its token: nothing.
  EXPECT_FALSE(router_.Disconnected(viewer));
  EXPECT_FALSE(router_.Disconnected(stranger));

  Say(host, {{"type", "end"}, {"token", "TOKEN1"}});
  EXPECT_EQ(Only(viewer), Json::parse(R"({"type":"error","reason":"the share has ended"})"));
  EXPECT_TRUE(router_.Disconnected(viewer));
  EXPECT_TRUE(router_.Disconnected(host)) << "the host hears that its end arrived";
  EXPECT_EQ(hub().statistics().tokens, 1u) << "TOKEN2 only";
  EXPECT_EQ(hub().statistics().viewers, 0u);
}

TEST_F(SignalHubTest, NewTokensBeyondTheServersLimitAreRefused) {
  limits_.max_tokens = 2;
  router_.Take(Host("TOKEN1", "a"));
  const auto second = Host("TOKEN2", "b");
  router_.Take(second);
  EXPECT_EQ(Only(Host("TOKEN3", "c")), Json::parse(R"({"type":"error","reason":"server full"})"));
  hub().Closed(second);
  EXPECT_EQ(Only(Host("TOKEN2", "b")), Json::parse(R"({"type":"hosting"})")) << "a held token comes back";
}

TEST_F(SignalHubTest, DenyEndsThatViewerOnly) {
  const auto host = Host();
  router_.Take(host);
  const auto first = Join();
  const std::string first_peer = PeerAnnouncedTo(host);
  const auto second = Join();
  PeerAnnouncedTo(host);
  Say(host, {{"type", "deny"}, {"peer", first_peer}});
  const auto messages = router_.Take(first);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[1], Json::parse(R"({"type":"error","reason":"the host said no"})"));
  EXPECT_TRUE(router_.Disconnected(first));
  EXPECT_FALSE(router_.Disconnected(second));
  hub().Closed(first);
  EXPECT_TRUE(router_.Take(host).empty()) << "no peer-gone for a viewer the host sent away";
}

// A denied viewer's frames that were already on their way find no token and change nothing.
TEST_F(SignalHubTest, AnAnswerOrProofFromADeniedViewerBeforeItsCloseIsDropped) {
  const auto host = Host();
  router_.Take(host);
  const auto viewer = Join();
  const std::string peer = PeerAnnouncedTo(host);
  Say(host, {{"type", "deny"}, {"peer", peer}});
  Say(viewer, {{"type", "answer"}, {"sdp", "late"}});
  Say(viewer, {{"type", "proof"}, {"signature", "late"}});
  EXPECT_TRUE(router_.Take(host).empty());
  EXPECT_EQ(hub().statistics().viewers, 0u);
}

TEST_F(SignalHubTest, AViewersKeyChallengeProofAndSignedAnswerPassBetweenItAndItsHost) {
  const auto host = Host();
  router_.Take(host);
  const auto viewer = Open();
  Say(viewer, {{"type", "join"}, {"token", "TOKEN1"}, {"identity", "usr_a"}, {"key", "KEY="}});
  const Json announced = Only(host);
  EXPECT_EQ(announced["key"], "KEY=");
  const std::string peer = announced["peer"];
  router_.Take(viewer);
  Say(host, {{"type", "challenge"}, {"peer", peer}, {"challenge", "C1"}});
  EXPECT_EQ(Only(viewer), Json::parse(R"({"type":"challenge","challenge":"C1"})"));
  Say(viewer, {{"type", "proof"}, {"signature", "SIG"}, {"peer", "somebody else"}});
  EXPECT_EQ(Only(host), (Json{{"type", "proof"}, {"peer", peer}, {"signature", "SIG"}}));
  Say(viewer, {{"type", "answer"}, {"sdp", "v=0"}, {"signature", "ASIG"}});
  EXPECT_EQ(Only(host), (Json{{"type", "answer"}, {"peer", peer}, {"sdp", "v=0"}, {"signature", "ASIG"}}));
}

TEST_F(SignalHubTest, ChallengesReachOnlyTheHostsOwnViewersAndProofFieldsAreShort) {
  const auto host = Host("TOKEN1");
  const auto other = Host("TOKEN2", "other");
  router_.Take(host);
  router_.Take(other);
  const auto viewer = Join("TOKEN1");
  router_.Take(viewer);
  const std::string peer = PeerAnnouncedTo(host);
  Say(other, {{"type", "challenge"}, {"peer", peer}, {"challenge", "C"}});
  Say(host, {{"type", "challenge"}, {"peer", peer}, {"challenge", std::string(300, 'C')}});
  EXPECT_TRUE(router_.Take(viewer).empty());
  Say(viewer, {{"type", "proof"}, {"signature", std::string(300, 'S')}});
  EXPECT_TRUE(router_.Take(host).empty());
  const auto long_key = Open();
  Say(long_key, {{"type", "join"}, {"token", "TOKEN1"}, {"key", std::string(300, 'K')}});
  EXPECT_EQ(Only(long_key), Json::parse(R"({"type":"error","reason":"key too long"})"));
}

TEST_F(SignalHubTest, AHostCannotReachAnotherHostsViewers) {
  const auto host = Host("TOKEN1");
  const auto other = Host("TOKEN2", "other");
  router_.Take(host);
  router_.Take(other);
  const auto viewer = Join("TOKEN1");
  router_.Take(viewer);
  const std::string peer = PeerAnnouncedTo(host);
  Say(other, {{"type", "offer"}, {"peer", peer}, {"sdp", "spoof"}});
  Say(other, {{"type", "deny"}, {"peer", peer}});
  EXPECT_TRUE(router_.Take(viewer).empty());
  EXPECT_FALSE(router_.Disconnected(viewer));
}

TEST_F(SignalHubTest, MalformedMessagesAreAnsweredWithErrorAndClosed) {
  for (const std::string text : {"not json", "[1]", "{\"type\":5}", "{\"type\":\"host\",\"token\":7}",
                                 "{\"type\":\"join\",\"token\":\"T\",\"identity\":[]}",
                                 "{\"type\":\"host\",\"token\":\"T\",\"secret\":\"s\",\"media\":3}"}) {
    const auto id = Open();
    hub().Received(id, text, now_);
    EXPECT_EQ(Only(id), Json::parse(R"({"type":"error","reason":"malformed message"})")) << text;
    EXPECT_TRUE(router_.Disconnected(id)) << text;
  }
  const auto binary = Open();
  hub().ReceivedBinary(binary);
  EXPECT_TRUE(router_.Disconnected(binary));
}

TEST_F(SignalHubTest, BadTokensAndRolesAreRefused) {
  const auto spaced = Open();
  Say(spaced, {{"type", "host"}, {"token", "has space"}, {"secret", "s"}});
  EXPECT_EQ(Only(spaced)["reason"], "bad token");
  const auto long_token = Open();
  Say(long_token, {{"type", "join"}, {"token", std::string(65, 'A')}});
  EXPECT_EQ(Only(long_token)["reason"], "bad token");
  const auto no_secret = Open();
  Say(no_secret, {{"type", "host"}, {"token", "T"}});
  EXPECT_EQ(Only(no_secret)["reason"], "bad secret");
  const auto early = Open();
  Say(early, {{"type", "answer"}, {"sdp", "x"}});
  EXPECT_EQ(Only(early)["reason"], "register first");
  const auto twice = Join("A");
  Say(twice, {{"type", "join"}, {"token", "B"}});
  EXPECT_EQ(Only(twice)["reason"], "one token per viewer connection");
}

TEST_F(SignalHubTest, ViewersPerTokenAreCapped) {
  limits_.max_viewers_per_token = 3;
  const auto host = Host();
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(router_.Disconnected(Join()));
  const auto fourth = Join();
  EXPECT_EQ(Only(fourth)["reason"], "too many viewers");
  EXPECT_TRUE(router_.Disconnected(fourth));
  EXPECT_EQ(router_.Take(host).size(), 4u) << "hosting and three peers";
}

TEST_F(SignalHubTest, TokensPerConnectionAreCapped) {
  limits_.max_tokens_per_connection = 2;
  const auto host = Open();
  Say(host, {{"type", "host"}, {"token", "A"}, {"secret", "s"}});
  Say(host, {{"type", "host"}, {"token", "B"}, {"secret", "s"}});
  Say(host, {{"type", "host"}, {"token", "A"}, {"secret", "s"}});  // Again: not a new token.
  EXPECT_FALSE(router_.Disconnected(host));
  Say(host, {{"type", "host"}, {"token", "C"}, {"secret", "s"}});
  EXPECT_EQ(router_.Take(host).back()["reason"], "too many tokens on one connection");
  EXPECT_TRUE(router_.Disconnected(host));
}

TEST_F(SignalHubTest, MessagesBeyondTheRateAreRefused) {
  limits_.messages_per_second = 10;
  limits_.message_burst = 20;
  const auto viewer = Join();
  for (int i = 1; i < 20; ++i) Say(viewer, {{"type", "answer"}, {"sdp", "x"}});
  EXPECT_FALSE(router_.Disconnected(viewer)) << "the burst is allowed";
  Say(viewer, {{"type", "answer"}, {"sdp", "x"}});
  EXPECT_TRUE(router_.Disconnected(viewer));
  EXPECT_EQ(router_.Take(viewer).back()["reason"], "too many messages");

  // At the sustained rate a connection goes on for ever.
  const auto steady = Join();
  for (int i = 0; i < 200; ++i) {
    now_ += 100ms;
    Say(steady, {{"type", "answer"}, {"sdp", "x"}});
  }
  EXPECT_FALSE(router_.Disconnected(steady));
}

TEST_F(SignalHubTest, AConnectionThatDoesNotRegisterIsEnded) {
  limits_.register_within = 10s;
  const auto silent = Open();
  const auto host = Host();
  now_ += 9s;
  hub().Sweep(now_);
  EXPECT_FALSE(router_.Disconnected(silent));
  now_ += 1s;
  hub().Sweep(now_);
  EXPECT_EQ(Only(silent)["reason"], "no registration");
  EXPECT_TRUE(router_.Disconnected(silent));
  EXPECT_FALSE(router_.Disconnected(host));
}

TEST_F(SignalHubTest, UnknownTypesAreIgnored) {
  const auto host = Host();
  router_.Take(host);
  Say(host, {{"type", "ping"}});
  EXPECT_TRUE(router_.Take(host).empty());
  EXPECT_FALSE(router_.Disconnected(host));
}

TEST_F(SignalHubTest, ARelayJoinsAPublicShareAndTheHostHearsItIsTheRelay) {
  relay_secret_ = "operator-secret";
  const auto host = PublicHost();
  EXPECT_EQ(Only(host), Json::parse(R"({"type":"hosting"})"));
  EXPECT_TRUE(hub().IsPublic("TOKEN1"));
  const auto relay = JoinAsRelay("TOKEN1", "operator-secret");
  EXPECT_EQ(Only(relay)["type"], "joined");
  const Json peer = Only(host);
  EXPECT_EQ(peer["type"], "peer");
  EXPECT_EQ(peer["relay"], true);
  EXPECT_FALSE(router_.Disconnected(relay));

  // An ordinary viewer of the same share is no relay.
  Join("TOKEN1", "usr_1");
  EXPECT_FALSE(Only(host).contains("relay"));
}

TEST_F(SignalHubTest, ARelayGetsIntoNoShareThatIsNotPublicAndUnknownLooksTheSame) {
  relay_secret_ = "operator-secret";
  const auto host = Host("PRIVATE1");
  router_.Take(host);
  EXPECT_FALSE(hub().IsPublic("PRIVATE1"));
  const auto into_private = JoinAsRelay("PRIVATE1", "operator-secret");
  EXPECT_EQ(Only(into_private), Json::parse(R"({"type":"error","reason":"not a public share"})"));
  EXPECT_TRUE(router_.Disconnected(into_private));
  const auto into_unknown = JoinAsRelay("UNKNOWN1", "operator-secret");
  EXPECT_EQ(Only(into_unknown), Json::parse(R"({"type":"error","reason":"not a public share"})"));
  EXPECT_TRUE(router_.Take(host).empty()) << "the host never hears of a relay";
  EXPECT_EQ(hub().statistics().viewers, 0u);
  EXPECT_FALSE(hub().IsPublic("UNKNOWN1")) << "asking made no token";
}

TEST_F(SignalHubTest, ARelaySecretIsCheckedAndAServerWithoutOneHasNoRelays) {
  const auto public_host = PublicHost();
  router_.Take(public_host);
  // No relay secret configured: every relay is refused.
  const auto without = JoinAsRelay("TOKEN1", "");
  EXPECT_EQ(Only(without)["reason"], "not a relay of this server");
  relay_secret_ = "operator-secret";
  hub_.reset();
  const auto host = PublicHost();
  router_.Take(host);
  for (const Json& wrong : {Json("operator-secreT"), Json("operator-secret "), Json(""), Json(42)}) {
    const ConnectionId id = Open();
    Say(id, {{"type", "join"}, {"token", "TOKEN1"}, {"relay", wrong}});
    EXPECT_EQ(Only(id)["reason"], "not a relay of this server") << wrong.dump();
  }
  EXPECT_TRUE(router_.Take(host).empty());
}

TEST_F(SignalHubTest, AShareThatStopsBeingPublicSendsItsRelaysAwayAndKeepsItsViewers) {
  relay_secret_ = "operator-secret";
  const auto host = PublicHost();
  router_.Take(host);
  const auto relay = JoinAsRelay("TOKEN1", "operator-secret");
  const std::string relay_peer = PeerAnnouncedTo(host);
  const auto viewer = Join("TOKEN1", "usr_1");
  PeerAnnouncedTo(host);
  router_.Take(relay);
  router_.Take(viewer);

  Say(host, {{"type", "host"}, {"token", "TOKEN1"}, {"secret", "s3cret"}});
  EXPECT_FALSE(hub().IsPublic("TOKEN1"));
  EXPECT_EQ(Only(relay), Json::parse(R"({"type":"error","reason":"not a public share"})"));
  EXPECT_TRUE(router_.Disconnected(relay));
  EXPECT_FALSE(router_.Disconnected(viewer));
  const auto messages = router_.Take(host);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0], Json::parse(R"({"type":"hosting"})"));
  EXPECT_EQ(messages[1], Json({{"type", "peer-gone"}, {"peer", relay_peer}}));
  EXPECT_EQ(hub().statistics().viewers, 1u);
}

TEST_F(SignalHubTest, APublicFlagOfAnotherTypeIsMalformed) {
  const auto host = Open();
  Say(host, {{"type", "host"}, {"token", "TOKEN1"}, {"secret", "s3cret"}, {"public", "yes"}});
  EXPECT_EQ(Only(host)["reason"], "malformed message");
  EXPECT_EQ(hub().statistics().tokens, 0u);
}

TEST(SameSecret, ComparesWholeTexts) {
  EXPECT_TRUE(SameSecret("abc", "abc"));
  EXPECT_TRUE(SameSecret("", ""));
  EXPECT_FALSE(SameSecret("abc", "abd"));
  EXPECT_FALSE(SameSecret("abc", "abcd"));
  EXPECT_FALSE(SameSecret("abc", "ab"));
  EXPECT_FALSE(SameSecret(std::string("a\0", 2), "a"));
}

}  // namespace
}  // namespace mirell::signal
