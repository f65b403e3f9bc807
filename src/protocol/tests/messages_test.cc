// The signal protocol's messages as each end writes them and the other reads them.
#include "mirell/protocol/client_messages.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "mirell/protocol/server_messages.h"

namespace mirell::protocol {
namespace {

using Json = nlohmann::json;
using Kind = ServerMessage::Kind;
using ClientKind = ClientMessage::Kind;

TEST(SignalMessages, AViewerWithoutIdentitySendsNeitherIdentityNorName) {
  JoinRequest config;
  config.token = "ABCDEFGHJKMN";
  config.display_name = "Someone";
  EXPECT_EQ(Json::parse(MakeJoinMessage(config)), Json::parse(R"({"type":"join","token":"ABCDEFGHJKMN"})"));
  config.identity = "usr_1";
  EXPECT_EQ(Json::parse(MakeJoinMessage(config)),
            Json::parse(R"({"type":"join","token":"ABCDEFGHJKMN","identity":"usr_1","displayName":"Someone"})"));
  config.display_name.clear();
  EXPECT_EQ(Json::parse(MakeJoinMessage(config)),
            Json::parse(R"({"type":"join","token":"ABCDEFGHJKMN","identity":"usr_1"})"));
}

TEST(SignalMessages, AHostWithoutMediaSendsOnlyTokenAndSecret) {
  HostRegistration config;
  config.token = "T";
  config.secret = "S";
  EXPECT_EQ(MakeHostMessage(config), R"({"secret":"S","token":"T","type":"host"})");
  config.media = StreamMedia{1280, 720, 30, 6000, 48000, 2, 128, ""};
  const Json with_media = Json::parse(MakeHostMessage(config));
  EXPECT_EQ(with_media["media"], Json::parse(R"({"width":1280,"height":720,"fps":30,"videoKbps":6000,
                                                 "sampleRate":48000,"channels":2,"audioKbps":128})"));
  config.media->audio_config = "1190";
  EXPECT_EQ(Json::parse(MakeHostMessage(config))["media"]["audioConfig"], "1190");
}

TEST(SignalMessages, APublicShareSaysSoAndARelayNamesItsSecret) {
  HostRegistration config;
  config.token = "T";
  config.secret = "S";
  config.is_public = true;
  EXPECT_EQ(Json::parse(MakeHostMessage(config)),
            Json::parse(R"({"type":"host","token":"T","secret":"S","public":true})"));
  JoinRequest relay;
  relay.token = "T";
  relay.relay_secret = "operator's secret";
  EXPECT_EQ(Json::parse(MakeJoinMessage(relay)),
            Json::parse(R"({"type":"join","token":"T","relay":"operator's secret"})"));
}

TEST(SignalMessages, APeerIsARelayOnlyWhenTheServerSaysSo) {
  EXPECT_FALSE(ParseServerMessage(R"({"type":"peer","peer":"P"})").identity.relay);
  EXPECT_TRUE(ParseServerMessage(R"({"type":"peer","peer":"P","relay":true})").identity.relay);
  EXPECT_FALSE(ParseServerMessage(R"({"type":"peer","peer":"P","relay":false})").identity.relay);
  EXPECT_EQ(ParseServerMessage(R"({"type":"peer","peer":"P","relay":"yes"})").kind, Kind::kMalformed);
}

TEST(SignalMessages, SendsAreCompactUtf8) {
  EXPECT_EQ(MakeOfferMessage("p1", "v=0\r\n"), R"({"peer":"p1","sdp":"v=0\r\n","type":"offer"})");
  EXPECT_EQ(MakeAnswerMessage("ä"), "{\"sdp\":\"\xC3\xA4\",\"type\":\"answer\"}");
  EXPECT_EQ(MakeDenyMessage("p2"), R"({"peer":"p2","type":"deny"})");
}

TEST(SignalMessages, JoinedWithAMediaObjectTellsTheMedia) {
  const auto message = ParseServerMessage(
      R"({"type":"joined","media":{"width":1920,"height":1080,"fps":60,"videoKbps":8000,
          "sampleRate":44100,"channels":1,"audioKbps":96,"audioConfig":"1208","extra":true}})");
  EXPECT_EQ(message.kind, Kind::kJoined);
  ASSERT_TRUE(message.media.has_value());
  EXPECT_EQ(message.media->width, 1920u);
  EXPECT_EQ(message.media->height, 1080u);
  EXPECT_EQ(message.media->fps, 60u);
  EXPECT_EQ(message.media->video_kbps, 8000u);
  EXPECT_EQ(message.media->sample_rate, 44100u);
  EXPECT_EQ(message.media->channels, 1u);
  EXPECT_EQ(message.media->audio_kbps, 96u);
  EXPECT_EQ(message.media->audio_config, "1208");
}

TEST(SignalMessages, JoinedWithMediaAStringOrMissingHasNoMedia) {
  EXPECT_FALSE(ParseServerMessage(R"({"type":"joined","media":"big"})").media.has_value());
  EXPECT_FALSE(ParseServerMessage(R"({"type":"joined"})").media.has_value());
  EXPECT_EQ(ParseServerMessage(R"({"type":"joined"})").kind, Kind::kJoined);
}

TEST(SignalMessages, NumbersThatAreNoUnsignedIntegersAreZero) {
  const auto media = ReadStreamMedia(
      R"({"width":-1,"height":"720","fps":29.97,"videoKbps":null,"sampleRate":4294967296,
          "channels":4294967298,"audioConfig":12})");
  EXPECT_EQ(media.width, 0u);
  EXPECT_EQ(media.height, 0u);
  EXPECT_EQ(media.fps, 0u);
  EXPECT_EQ(media.video_kbps, 0u);
  EXPECT_EQ(media.sample_rate, 0u) << "beyond 32 bits";
  EXPECT_EQ(media.channels, 0u) << "beyond 32 bits, and not truncated into range";
  EXPECT_EQ(media.audio_kbps, 0u) << "missing";
  EXPECT_EQ(media.audio_config, "") << "not a string";
}

// What a host advertises sizes the viewer's buffers: values outside what an encoder makes are
// not believed, and the viewer falls back to its defaults.
TEST(SignalMessages, AdvertisedValuesOutsideTheirRangeAreZero) {
  const auto low = ReadStreamMedia(
      R"({"width":15,"height":15,"fps":0,"videoKbps":0,"sampleRate":7999,"channels":0,"audioKbps":0,
          "audioConfig":"12"})");
  EXPECT_EQ(low.width, 0u);
  EXPECT_EQ(low.height, 0u);
  EXPECT_EQ(low.fps, 0u);
  EXPECT_EQ(low.sample_rate, 0u);
  EXPECT_EQ(low.channels, 0u);
  EXPECT_EQ(low.audio_config, "") << "one byte is no AudioSpecificConfig";
  const auto high = ReadStreamMedia(
      R"({"width":8193,"height":8193,"fps":241,"videoKbps":200001,"sampleRate":96001,"channels":3,
          "audioKbps":1025,"audioConfig":"112233445566778899aabbccddeeff0011"})");
  EXPECT_EQ(high.width, 0u);
  EXPECT_EQ(high.height, 0u);
  EXPECT_EQ(high.fps, 0u);
  EXPECT_EQ(high.video_kbps, 0u);
  EXPECT_EQ(high.sample_rate, 0u);
  EXPECT_EQ(high.channels, 0u);
  EXPECT_EQ(high.audio_kbps, 0u);
  EXPECT_EQ(high.audio_config, "");
  EXPECT_EQ(ReadStreamMedia(R"({"audioConfig":"11g0"})").audio_config, "") << "not hexadecimal";
  EXPECT_EQ(ReadStreamMedia(R"({"audioConfig":"119"})").audio_config, "") << "half a byte";
  const auto edges = ReadStreamMedia(
      R"({"width":8192,"height":16,"fps":240,"videoKbps":200000,"sampleRate":8000,"channels":1,
          "audioKbps":1024,"audioConfig":"1190"})");
  EXPECT_EQ(edges.width, 8192u);
  EXPECT_EQ(edges.height, 16u);
  EXPECT_EQ(edges.fps, 240u);
  EXPECT_EQ(edges.video_kbps, 200000u);
  EXPECT_EQ(edges.sample_rate, 8000u);
  EXPECT_EQ(edges.channels, 1u);
  EXPECT_EQ(edges.audio_kbps, 1024u);
  EXPECT_EQ(edges.audio_config, "1190");
  EXPECT_EQ(ReadStreamMedia(R"({"sampleRate":96000,"channels":2})").sample_rate, 96000u);
}

TEST(SignalMessages, APeerNameWithoutIdentityIsDropped) {
  const auto message = ParseServerMessage(R"({"type":"peer","peer":"p7","displayName":"Mallory"})");
  EXPECT_EQ(message.kind, Kind::kPeer);
  EXPECT_EQ(message.peer, "p7");
  EXPECT_EQ(message.identity.identity, "");
  EXPECT_EQ(message.identity.display_name, "");
  const auto named = ParseServerMessage(
      R"({"type":"peer","peer":"p8","identity":"usr_2","displayName":"Alice"})");
  EXPECT_EQ(named.identity.identity, "usr_2");
  EXPECT_EQ(named.identity.display_name, "Alice");
}

TEST(SignalMessages, MissingFieldsTakeTheirDefaults) {
  EXPECT_EQ(ParseServerMessage(R"({"type":"error"})").reason, "unknown");
  EXPECT_EQ(ParseServerMessage(R"({"type":"error","reason":"full"})").reason, "full");
  const auto answer = ParseServerMessage(R"({"type":"answer"})");
  EXPECT_EQ(answer.kind, Kind::kAnswer);
  EXPECT_EQ(answer.peer, "");
  EXPECT_EQ(answer.sdp, "");
  EXPECT_EQ(ParseServerMessage(R"({"type":"offer","sdp":"v=0"})").sdp, "v=0");
  EXPECT_EQ(ParseServerMessage(R"({"type":"peer-gone","peer":"p"})").kind, Kind::kPeerGone);
  EXPECT_EQ(ParseServerMessage(R"({"type":"hosting"})").kind, Kind::kHosting);
  const auto other = ParseServerMessage(R"({"type":"welcome"})");
  EXPECT_EQ(other.kind, Kind::kOther);
  EXPECT_EQ(other.type, "welcome");
  EXPECT_EQ(ParseServerMessage(R"({})").kind, Kind::kOther);
}

TEST(SignalMessages, TextThatIsNoJsonIsMalformed) {
  EXPECT_EQ(ParseServerMessage("{\"type\":").kind, Kind::kMalformed);
  EXPECT_EQ(ParseServerMessage("").kind, Kind::kMalformed);
}

TEST(SignalMessages, ARootThatIsNoObjectOrAFieldOfAnotherTypeIsMalformed) {
  EXPECT_EQ(ParseServerMessage("[1,2]").kind, Kind::kMalformed);
  EXPECT_EQ(ParseServerMessage("7").kind, Kind::kMalformed);
  EXPECT_EQ(ParseServerMessage(R"({"type":5})").kind, Kind::kMalformed);
  const auto peer = ParseServerMessage(R"({"type":"peer","peer":12})");
  EXPECT_EQ(peer.kind, Kind::kMalformed);
  EXPECT_EQ(peer.type, "peer") << "the type is kept for the log";
  EXPECT_EQ(peer.peer, "") << "nothing else of it is";
  EXPECT_EQ(ParseServerMessage(R"({"type":"error","reason":null})").kind, Kind::kMalformed);
}

// The server's side: what it reads of each client message and what it sends on.

TEST(ClientMessages, EachMessageAClientMakesReadsBackAsTheServerSeesIt) {
  HostRegistration host{"TOKEN1", "s3cret", StreamMedia{1280, 720, 30, 6000, 48000, 2, 128, "1190"}, true};
  const auto hosted = ParseClientMessage(MakeHostMessage(host));
  EXPECT_EQ(hosted.kind, ClientKind::kHost);
  EXPECT_EQ(hosted.token, "TOKEN1");
  EXPECT_EQ(hosted.secret, "s3cret");
  EXPECT_TRUE(hosted.is_public);
  EXPECT_EQ(ReadStreamMedia(hosted.media).audio_config, "1190");
  EXPECT_EQ(ReadStreamMedia(hosted.media).width, 1280u);

  const auto joined = ParseClientMessage(MakeJoinMessage({"TOKEN1", "usr_1", "Alice", "KEY", "relay secret"}));
  EXPECT_EQ(joined.kind, ClientKind::kJoin);
  EXPECT_EQ(joined.identity, "usr_1");
  EXPECT_EQ(joined.display_name, "Alice");
  EXPECT_EQ(joined.key, "KEY");
  EXPECT_EQ(joined.relay_secret, "relay secret");
  EXPECT_FALSE(ParseClientMessage(MakeJoinMessage({"TOKEN1", "", "", "", ""})).relay_secret.has_value());

  const auto offer = ParseClientMessage(MakeOfferMessage("p1", "v=0"));
  EXPECT_EQ(offer.kind, ClientKind::kOffer);
  EXPECT_EQ(offer.peer, "p1");
  EXPECT_EQ(offer.sdp, "v=0");
  const auto answer = ParseClientMessage(MakeAnswerMessage("v=0", "SIG"));
  EXPECT_EQ(answer.kind, ClientKind::kAnswer);
  EXPECT_EQ(answer.signature, "SIG");
  const auto challenge = ParseClientMessage(MakeChallengeMessage("p1", "CH"));
  EXPECT_EQ(challenge.kind, ClientKind::kChallenge);
  EXPECT_EQ(challenge.challenge, "CH");
  EXPECT_EQ(challenge.peer, "p1");
  EXPECT_EQ(ParseClientMessage(MakeProofMessage("SIG")).signature, "SIG");
  EXPECT_EQ(ParseClientMessage(MakeDenyMessage("p2")).kind, ClientKind::kDeny);
  EXPECT_EQ(ParseClientMessage(MakeDenyMessage("p2")).peer, "p2");
  EXPECT_EQ(ParseClientMessage(MakeEndMessage("TOKEN1")).kind, ClientKind::kEnd);
  EXPECT_EQ(ParseClientMessage(MakeEndMessage("TOKEN1")).token, "TOKEN1");
}

TEST(ClientMessages, AHostsMediaIsCutDownToTheKnownFieldsOfTheirTypes) {
  const auto hosted = ParseClientMessage(
      R"({"type":"host","token":"T","secret":"s","media":{"width":1280,"height":"720","fps":4294967296,
          "audioConfig":"1190","extra":{"deep":[1,2,3]},"channels":-2}})");
  EXPECT_EQ(Json::parse(hosted.media), Json::parse(R"({"width":1280,"audioConfig":"1190"})"));
  const std::string long_config(65, 'a');
  const auto long_one = ParseClientMessage(
      R"({"type":"host","token":"T","secret":"s","media":{"audioConfig":")" + long_config + R"("}})");
  EXPECT_EQ(Json::parse(long_one.media), Json::object());
  EXPECT_EQ(ParseClientMessage(R"({"type":"host","token":"T","secret":"s"})").media, "");
}

TEST(ClientMessages, FieldsOfAnotherTypeMakeTheMessageMalformed) {
  for (const char* text : {"not json", "[1]", "7", R"({"type":5})", R"({"type":"host","token":7})",
                           R"({"type":"join","token":"T","identity":[]})",
                           R"({"type":"host","token":"T","secret":"s","media":3})",
                           R"({"type":"host","token":"T","secret":"s","public":"yes"})",
                           R"({"type":"offer","peer":"p","sdp":{}})"}) {
    EXPECT_EQ(ParseClientMessage(text).kind, ClientKind::kMalformed) << text;
  }
  // Fields its type does not have are not read.
  EXPECT_EQ(ParseClientMessage(R"({"type":"offer","peer":"p","sdp":"v=0","token":7})").kind, ClientKind::kOffer);
  EXPECT_EQ(ParseClientMessage(R"({"type":"hello"})").kind, ClientKind::kOther);
  EXPECT_EQ(ParseClientMessage(R"({})").kind, ClientKind::kOther);
}

TEST(ClientMessages, ARelayFieldOfAnotherTypeIsARelayWithoutSecret) {
  const auto message = ParseClientMessage(R"({"type":"join","token":"T","relay":42})");
  EXPECT_EQ(message.kind, ClientKind::kJoin);
  EXPECT_EQ(message.relay_secret, "");
}

TEST(ServerMessages, EachMessageTheServerMakesReadsBackAsTheClientSeesIt) {
  EXPECT_EQ(ParseServerMessage(MakeHostingMessage()).kind, Kind::kHosting);
  const auto joined = ParseServerMessage(MakeJoinedMessage(R"({"width":1280,"audioConfig":"1190"})"));
  EXPECT_EQ(joined.kind, Kind::kJoined);
  ASSERT_TRUE(joined.media.has_value());
  EXPECT_EQ(joined.media->width, 1280u);
  EXPECT_FALSE(ParseServerMessage(MakeJoinedMessage("")).media.has_value());

  const auto peer = ParseServerMessage(MakePeerMessage("p1", {"usr_1", "Alice", "KEY", true}));
  EXPECT_EQ(peer.kind, Kind::kPeer);
  EXPECT_EQ(peer.peer, "p1");
  EXPECT_EQ(peer.identity.identity, "usr_1");
  EXPECT_EQ(peer.identity.display_name, "Alice");
  EXPECT_EQ(peer.identity.key, "KEY");
  EXPECT_TRUE(peer.identity.relay);
  EXPECT_EQ(Json::parse(MakePeerMessage("p2", {"", "Mallory", "", false})),
            Json::parse(R"({"type":"peer","peer":"p2"})"));

  EXPECT_EQ(ParseServerMessage(MakePeerGoneMessage("p1")).peer, "p1");
  EXPECT_EQ(ParseServerMessage(MakeOfferToViewerMessage("v=0")).sdp, "v=0");
  EXPECT_EQ(ParseServerMessage(MakeChallengeToViewerMessage("CH")).challenge, "CH");
  const auto answer = ParseServerMessage(MakeAnswerToHostMessage("p1", "v=0", "SIG"));
  EXPECT_EQ(answer.kind, Kind::kAnswer);
  EXPECT_EQ(answer.peer, "p1");
  EXPECT_EQ(answer.signature, "SIG");
  EXPECT_FALSE(Json::parse(MakeAnswerToHostMessage("p1", "v=0", "")).contains("signature"));
  const auto proof = ParseServerMessage(MakeProofToHostMessage("p1", "SIG"));
  EXPECT_EQ(proof.kind, Kind::kProof);
  EXPECT_EQ(proof.peer, "p1");
  EXPECT_EQ(MakeErrorMessage("the host said no"), R"({"reason":"the host said no","type":"error"})");
}

}  // namespace
}  // namespace mirell::protocol
