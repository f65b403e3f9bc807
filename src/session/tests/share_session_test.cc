// The share's door: admission by allowlist and by the user, the user's decisions, departures,
// the sweep and the uplink rates, with a scripted signal client and real peer links.
#include "mirell/session/share_session.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/session/peer_receiver.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/transport/identity_key.h"
#include "mirell/transport/viewer_proof.h"
#include "interop_support.h"
#include "peer_media_fixture.h"
#include "scripted_signal_client.h"

namespace mirell::session {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedSignalClient;
using testsupport::Eventually;
using protocol::PeerIdentity;
using transport::PeerState;

constexpr const char* kToken = "ABCDEFGHJKMN";

class ShareSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetLogLevel(LogLevel::kDebug);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    session_.SetPendingHandler([this](const PendingViewer& viewer) {
      std::lock_guard lock(asked_mutex_);
      asked_.push_back(viewer);
    });
    session_.SetShareToken(kToken);
    session_.SetKeyframeHandler([this] { ++keyframes_; });
  }
  void TearDown() override {
    session_.Stop();
    SetLogLevel(LogLevel::kWarn);
  }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }
  std::vector<PendingViewer> Asked() {
    std::lock_guard lock(asked_mutex_);
    return asked_;
  }
  // A viewer arrives naming `key`'s public key and answers the challenge with a proof signed by
  // `prover` (the same key, unless the test forges).
  void ArriveAndProve(const std::string& id, const protocol::PeerIdentity& claim, const transport::IdentityKey& prover) {
    signal_.Peer(id, claim);
    const std::string challenge = signal_.ChallengeSentTo(id);
    ASSERT_EQ(challenge.size(), transport::kChallengeLength);
    signal_.Proof(id, prover.Sign(transport::IdentityStatement(kToken, challenge)));
  }
  static protocol::PeerIdentity Claim(const std::string& id, const std::string& name, const transport::IdentityKey& key) {
    return {id, name, key.PublicText()};
  }
  bool OfferSentTo(const std::string& id) {
    for (const auto& message : signal_.sent()) {
      if (message.type == "offer" && message.peer == id && !message.sdp.empty()) return true;
    }
    return false;
  }

  testsupport::TempDir dir_;
  ScriptedSignalClient signal_;
  streams::FrameBus frames_;
  streams::AudioBus audio_;
  ShareSession session_{&signal_, &frames_, &audio_, transport::PeerConfig{{}, 1},
                        transport::OfferMedia{}, 48000};
  std::mutex asked_mutex_;
  std::vector<PendingViewer> asked_;
  std::atomic<int> keyframes_{0};
};

TEST_F(ShareSessionTest, StartTakesTheViewerHandlersOnce) {
  EXPECT_FALSE(signal_.has_peer_handlers());
  session_.Start();
  EXPECT_TRUE(signal_.has_peer_handlers());
  EXPECT_EQ(signal_.peer_handler_sets(), 1);
  session_.Start();
  EXPECT_EQ(signal_.peer_handler_sets(), 1) << "a second Start hands nothing over again";
}

TEST_F(ShareSessionTest, WithoutAdmissionEveryoneIsLetInUnlisted) {
  session_.SetAdmissionRequired(false);
  session_.Start();
  signal_.Peer("c1", {});
  const auto viewers = session_.Viewers();
  ASSERT_EQ(viewers.size(), 1u);
  EXPECT_EQ(viewers[0].connection_id, "c1");
  EXPECT_EQ(viewers[0].identity, "");
  EXPECT_FALSE(viewers[0].allowlisted);
  EXPECT_EQ(viewers[0].state, PeerState::kConnecting);
  EXPECT_TRUE(Asked().empty());
  EXPECT_EQ(session_.admitted(), 1u);
  EXPECT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
  EXPECT_NE(Log().find("peer=c1 offering"), std::string::npos);
}

TEST_F(ShareSessionTest, AListedIdThatProvesItsKnownKeyIsLetInWithoutAPrompt) {
  const auto key = transport::IdentityKey::Generate();
  session_.SetAllowlist({{"usr_friend", {"Friend", {transport::KeyFingerprint(key.PublicText())}}}});
  session_.Start();
  ArriveAndProve("c1", Claim("usr_friend", "Friendly", key), key);
  const auto viewers = session_.Viewers();
  ASSERT_EQ(viewers.size(), 1u);
  EXPECT_TRUE(viewers[0].allowlisted);
  EXPECT_EQ(viewers[0].key_fingerprint, transport::KeyFingerprint(key.PublicText()));
  EXPECT_EQ(viewers[0].identity, "usr_friend");
  EXPECT_EQ(viewers[0].display_name, "Friendly");
  EXPECT_TRUE(Asked().empty());
  EXPECT_TRUE(session_.PendingViewers().empty());
  EXPECT_NE(Log().find("peer=c1 allowlisted, key proved id=Friendly"), std::string::npos);
  EXPECT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
}

// Ids are public: naming a listed friend's id, without their computer's key, gets no further
// than the prompt.
TEST_F(ShareSessionTest, AForgedJoinNamingAListedIdWaitsForTheUser) {
  const auto friends_key = transport::IdentityKey::Generate();
  const auto forgers_key = transport::IdentityKey::Generate();
  session_.SetAllowlist({{"usr_friend", {"Friend", {transport::KeyFingerprint(friends_key.PublicText())}}}});
  session_.Start();
  signal_.Peer("c1", {"usr_friend", "Friendly", {}});  // No key at all.
  ArriveAndProve("c2", Claim("usr_friend", "Friendly", forgers_key), forgers_key);
  EXPECT_EQ(session_.ViewerCount(), 0u);
  const auto asked = Asked();
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[0].key_fingerprint, "");
  EXPECT_FALSE(asked[0].other_computer);
  EXPECT_EQ(asked[1].key_fingerprint, transport::KeyFingerprint(forgers_key.PublicText()));
  EXPECT_TRUE(asked[1].other_computer);
  EXPECT_EQ(session_.refused_proofs(), 0u);
  EXPECT_FALSE(OfferSentTo("c1"));
  EXPECT_FALSE(OfferSentTo("c2"));
}

TEST_F(ShareSessionTest, AProofMadeForAnotherChallengeIsRefused) {
  const auto key = transport::IdentityKey::Generate();
  session_.SetAllowlist({{"usr_friend", {"Friend", {transport::KeyFingerprint(key.PublicText())}}}});
  session_.Start();
  ArriveAndProve("c1", Claim("usr_friend", "Friendly", key), key);
  ASSERT_EQ(session_.ViewerCount(), 1u);
  // Somebody who saw that proof pass sends it again, as the friend, from another connection.
  std::string seen;
  for (const auto& message : signal_.sent()) {
    if (message.type == "challenge" && message.peer == "c1") seen = message.sdp;
  }
  signal_.Peer("c2", Claim("usr_friend", "Friendly", key));
  ASSERT_NE(signal_.ChallengeSentTo("c2"), seen) << "each arrival gets a challenge of its own";
  signal_.Proof("c2", key.Sign(transport::IdentityStatement(kToken, seen)));
  EXPECT_EQ(session_.ViewerCount(), 1u);
  EXPECT_TRUE(Asked().empty());
  EXPECT_EQ(session_.refused_proofs(), 1u);
  EXPECT_EQ(signal_.CountSent("deny"), 1u);
  // A proof for another share's token does not do either.
  signal_.Peer("c3", Claim("usr_friend", "Friendly", key));
  signal_.Proof("c3", key.Sign(transport::IdentityStatement("OTHERTOKEN00", signal_.ChallengeSentTo("c3"))));
  EXPECT_EQ(session_.refused_proofs(), 2u);
  EXPECT_EQ(session_.ViewerCount(), 1u);
}

TEST_F(ShareSessionTest, TheFriendsFirstVisitIsAskedAndTheSecondGetsInAtOnce) {
  const auto key = transport::IdentityKey::Generate();
  session_.Start();
  ArriveAndProve("c1", Claim("usr_friend", "Friendly", key), key);
  const auto asked = Asked();
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].key_fingerprint, transport::KeyFingerprint(key.PublicText()));
  EXPECT_FALSE(asked[0].other_computer);
  session_.Approve("c1");
  ASSERT_TRUE(Eventually([&] { return session_.ViewerCount() == 1u; }));
  // "Always let them in": the window stores the id with the key it was shown.
  session_.SetAllowlist({{"usr_friend", {"Friendly", {asked[0].key_fingerprint}}}});
  signal_.PeerGone("c1");
  ArriveAndProve("c2", Claim("usr_friend", "Friendly", key), key);
  EXPECT_EQ(Asked().size(), 1u) << "not asked again";
  const auto viewers = session_.Viewers();
  ASSERT_FALSE(viewers.empty());
  EXPECT_EQ(viewers.back().connection_id, "c2");
  EXPECT_TRUE(viewers.back().allowlisted);
}

TEST_F(ShareSessionTest, AnEntryWithoutAKeyIsAskedAboutOnceMore) {
  const auto key = transport::IdentityKey::Generate();
  session_.SetAllowlist({{"usr_friend", {"Friend", {}}}});
  session_.Start();
  ArriveAndProve("c1", Claim("usr_friend", "Friendly", key), key);
  EXPECT_EQ(session_.ViewerCount(), 0u);
  ASSERT_EQ(Asked().size(), 1u);
  EXPECT_FALSE(Asked()[0].other_computer);
}

TEST_F(ShareSessionTest, ACommandLineEntryLetsInByTheClaimedIdOnly) {
  session_.SetAllowlist({{"usr_friend", {"", {}, true}}});
  session_.Start();
  signal_.Peer("c1", {"usr_friend", "", {}});
  EXPECT_EQ(session_.ViewerCount(), 1u);
  EXPECT_EQ(session_.Viewers()[0].key_fingerprint, "");
  EXPECT_NE(Log().find("peer=c1 allowlisted by claimed id only id=usr_friend"), std::string::npos) << Log();
}

TEST_F(ShareSessionTest, AViewerThatNamesAKeyButNeverProvesItIsAskedAboutAsUnproved) {
  const auto key = transport::IdentityKey::Generate();
  session_.SetAllowlist({{"usr_friend", {"Friend", {transport::KeyFingerprint(key.PublicText())}}}});
  session_.SetProofLimit(std::chrono::hours(1));
  session_.Start();
  signal_.Peer("c1", Claim("usr_friend", "Friendly", key));
  session_.Sweep();
  EXPECT_TRUE(Asked().empty()) << "still within the limit";
  session_.SetProofLimit(std::chrono::milliseconds(0));
  session_.Sweep();
  ASSERT_TRUE(Eventually([&] { return Asked().size() == 1u; }));
  EXPECT_EQ(Asked()[0].key_fingerprint, "");
  EXPECT_EQ(session_.ViewerCount(), 0u);
  // Its proof, late, changes nothing.
  signal_.Proof("c1", key.Sign(transport::IdentityStatement(kToken, signal_.ChallengeSentTo("c1"))));
  EXPECT_EQ(session_.ViewerCount(), 0u);
}

TEST_F(ShareSessionTest, AViewerThatLeavesBeforeItsProofIsForgotten) {
  const auto key = transport::IdentityKey::Generate();
  session_.Start();
  signal_.Peer("c1", Claim("usr_friend", "Friendly", key));
  signal_.PeerGone("c1");
  signal_.Proof("c1", key.Sign(transport::IdentityStatement(kToken, signal_.ChallengeSentTo("c1"))));
  EXPECT_TRUE(Asked().empty());
  EXPECT_TRUE(session_.PendingViewers().empty());
}

TEST_F(ShareSessionTest, AnUnlistedViewerWaitsForTheUser) {
  session_.SetAllowlist({{"usr_friend", {"Friend", {}, true}}});
  session_.Start();
  signal_.Peer("c1", {"usr_stranger", "Stranger", {}});
  EXPECT_EQ(session_.ViewerCount(), 0u);
  const auto pending = session_.PendingViewers();
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0].connection_id, "c1");
  EXPECT_EQ(pending[0].identity, "usr_stranger");
  EXPECT_EQ(pending[0].display_name, "Stranger");
  const auto asked = Asked();
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].connection_id, "c1");
  EXPECT_EQ(asked[0].display_name, "Stranger");
  EXPECT_NE(Log().find("peer=c1 pending id=Stranger key=not proved"), std::string::npos);
  EXPECT_TRUE(signal_.sent().empty());

  session_.Approve("c1");
  EXPECT_TRUE(session_.PendingViewers().empty());
  ASSERT_TRUE(Eventually([&] { return session_.ViewerCount() == 1u; })) << "made on the admissions thread";
  const auto viewers = session_.Viewers();
  ASSERT_EQ(viewers.size(), 1u);
  EXPECT_FALSE(viewers[0].allowlisted);
  EXPECT_EQ(viewers[0].display_name, "Stranger");
  EXPECT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
}

TEST_F(ShareSessionTest, AWaitingViewersOfferGathersButGoesOutOnlyOnAdmission) {
  session_.Start();
  signal_.Peer("c1", {"usr_stranger", "Stranger", {}});
  EXPECT_NE(Log().find("peer=c1 offer gathering while the user decides"), std::string::npos) << Log();
  std::this_thread::sleep_for(1s);  // Long enough to gather on loopback.
  EXPECT_TRUE(signal_.sent().empty()) << "nothing reaches a viewer nobody let in";
  session_.Approve("c1");
  EXPECT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
  ASSERT_TRUE(Eventually([&] { return session_.admitted() == 1u; }));
  EXPECT_EQ(session_.admitted_prepared(), 1u) << Log();
}

TEST_F(ShareSessionTest, AtMostFourWaitingViewersHaveALinkMadeAndADecisionFreesItsPlace) {
  session_.Start();
  for (int i = 1; i <= 6; ++i) signal_.Peer("c" + std::to_string(i), {});
  const auto prepared = [&] {
    const std::string log = Log();
    std::size_t count = 0;
    for (auto at = log.find("offer gathering while"); at != std::string::npos;
         at = log.find("offer gathering while", at + 1)) {
      ++count;
    }
    return count;
  };
  EXPECT_EQ(prepared(), 4u);
  EXPECT_EQ(session_.PendingViewers().size(), 6u);
  session_.Deny("c1");
  signal_.Peer("c7", {});
  EXPECT_EQ(prepared(), 5u) << "the denied viewer's place went to the next";
  session_.Approve("c6");  // Not prepared: a link is made now.
  EXPECT_TRUE(Eventually([&] { return OfferSentTo("c6"); }));
  ASSERT_TRUE(Eventually([&] { return session_.admitted() == 1u; }));
  EXPECT_EQ(session_.admitted_prepared(), 0u) << Log();
  session_.Approve("c2");
  EXPECT_TRUE(Eventually([&] { return OfferSentTo("c2"); }));
  ASSERT_TRUE(Eventually([&] { return session_.admitted() == 2u; }));
  EXPECT_EQ(session_.admitted_prepared(), 1u) << "c2's offer was gathered while waiting\n" << Log();
}

TEST_F(ShareSessionTest, AViewerWithoutAnIdentityIsAlwaysAsked) {
  session_.SetAllowlist({{"", {"nobody", {}, true}}, {"usr_friend", {"Friend", {}, true}}});
  session_.Start();
  signal_.Peer("c1", {});
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_EQ(session_.PendingViewers().size(), 1u);
  EXPECT_EQ(Asked().size(), 1u);
}

TEST_F(ShareSessionTest, AllowlistingSomeoneWhoWaitsChangesNothingForThem) {
  session_.Start();
  signal_.Peer("c1", {"usr_late", "Late", {}});
  session_.SetAllowlist({{"usr_late", {"Late", {}, true}}});
  EXPECT_EQ(session_.PendingViewers().size(), 1u);
  EXPECT_EQ(session_.ViewerCount(), 0u);
  // Their next arrival is let in.
  signal_.Peer("c2", {"usr_late", "Late", {}});
  EXPECT_EQ(session_.ViewerCount(), 1u);
  EXPECT_EQ(session_.PendingViewers().size(), 1u);
}

TEST_F(ShareSessionTest, ApprovingAnUnknownIdDoesNothing) {
  session_.Start();
  session_.Approve("nobody");
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_EQ(session_.admitted(), 0u);
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(signal_.sent().empty());
}

TEST_F(ShareSessionTest, APublicShareLetsEveryoneInAtOnceTheServersRelayToo) {
  session_.SetPublic(true);
  session_.Start();
  const auto key = transport::IdentityKey::Generate();
  signal_.Peer("c1", Claim("usr_unlisted", "Stranger", key));
  protocol::PeerIdentity relay;
  relay.relay = true;
  signal_.Peer("r1", relay);
  EXPECT_TRUE(Asked().empty());
  EXPECT_EQ(signal_.CountSent("challenge"), 0u) << "nothing to prove where everyone gets in";
  EXPECT_EQ(session_.admitted(), 2u);
  const auto viewers = session_.Viewers();
  ASSERT_EQ(viewers.size(), 2u);
  for (const auto& viewer : viewers) {
    EXPECT_EQ(viewer.relay, viewer.connection_id == "r1") << viewer.connection_id;
    EXPECT_FALSE(viewer.allowlisted);
  }
  EXPECT_TRUE(Eventually([&] { return OfferSentTo("c1") && OfferSentTo("r1"); }));
}

TEST_F(ShareSessionTest, ARelayIsSentAwayFromAShareThatIsNotPublicWhateverTheServerSays) {
  for (const bool admission : {true, false}) {
    ScriptedSignalClient signal;
    ShareSession session(&signal, &frames_, &audio_, transport::PeerConfig{{}, 1}, transport::OfferMedia{},
                         48000);
    session.SetAdmissionRequired(admission);
    session.Start();
    protocol::PeerIdentity relay;
    relay.relay = true;
    signal.Peer("r1", relay);
    EXPECT_EQ(signal.CountSent("deny"), 1u) << admission;
    EXPECT_EQ(session.ViewerCount(), 0u);
    EXPECT_TRUE(session.PendingViewers().empty());
    session.Stop();
  }
  EXPECT_TRUE(Asked().empty());
}

TEST_F(ShareSessionTest, DenyingTwiceSendsOneDeny) {
  session_.Start();
  signal_.Peer("c1", {"usr_x", "X", {}});
  session_.Deny("c1");
  session_.Deny("c1");
  EXPECT_EQ(signal_.CountSent("deny"), 1u);
  EXPECT_EQ(signal_.sent()[0].peer, "c1");
  EXPECT_TRUE(session_.PendingViewers().empty());
  EXPECT_NE(Log().find("peer=c1 denied"), std::string::npos);
  // A late approval of the denied viewer lets nobody in.
  session_.Approve("c1");
  EXPECT_EQ(session_.ViewerCount(), 0u);
}

TEST_F(ShareSessionTest, DisconnectingSomeoneWhoWaitsSendsDeny) {
  session_.Start();
  signal_.Peer("c1", {"usr_x", "X", {}});
  session_.Disconnect("c1");
  EXPECT_EQ(signal_.CountSent("deny"), 1u);
  EXPECT_TRUE(session_.PendingViewers().empty());
  EXPECT_NE(Log().find("peer=c1 removed"), std::string::npos);
}

TEST_F(ShareSessionTest, DisconnectingAnUnknownIdSendsNothing) {
  session_.Start();
  session_.Disconnect("nobody");
  EXPECT_TRUE(signal_.sent().empty());
  EXPECT_EQ(Log().find("removed"), std::string::npos);
}

TEST_F(ShareSessionTest, DisconnectingAnAdmittedViewerSweepsThemOut) {
  session_.SetAdmissionRequired(false);
  session_.Start();
  signal_.Peer("c1", {});
  ASSERT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
  session_.Disconnect("c1");
  EXPECT_EQ(signal_.CountSent("deny"), 1u);
  EXPECT_EQ(session_.ViewerCount(), 1u);  // Until the sweep.
  session_.Sweep();
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_EQ(session_.departed(), 1u);
  EXPECT_NE(Log().find("peer=c1 gone"), std::string::npos);
}

TEST_F(ShareSessionTest, ASecondArrivalWhileWaitingReplacesTheIdentityAndAsksAgain) {
  session_.Start();
  signal_.Peer("c1", {"usr_a", "First", {}});
  signal_.Peer("c1", {"usr_b", "Second", {}});
  const auto pending = session_.PendingViewers();
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0].identity, "usr_b");
  EXPECT_EQ(pending[0].display_name, "Second");
  EXPECT_EQ(Asked().size(), 2u);
}

TEST_F(ShareSessionTest, SomeoneWhoLeavesWhileWaitingIsNoLongerAskedAbout) {
  std::vector<std::string> gone;
  session_.SetPendingGoneHandler([&gone](const std::string& id) { gone.push_back(id); });
  session_.Start();
  signal_.Peer("c1", {"usr_x", "X", {}});
  signal_.Peer("c2", {"usr_y", "Y", {}});
  signal_.PeerGone("c1");
  const auto pending = session_.PendingViewers();
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0].connection_id, "c2");
  EXPECT_EQ(gone, std::vector<std::string>{"c1"});
  // Approving them afterwards (a box answered late) lets nobody in.
  session_.Approve("c1");
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_EQ(signal_.CountSent("offer"), 0u);
  // An admitted viewer's departure is no waiting viewer's.
  signal_.PeerGone("c9");
  EXPECT_EQ(gone.size(), 1u);
}

TEST_F(ShareSessionTest, ADepartedViewerIsRemovedByTheNextSweepOnly) {
  session_.SetAdmissionRequired(false);
  session_.Start();
  signal_.Peer("c1", {});
  signal_.Peer("c2", {});
  signal_.PeerGone("c1");
  EXPECT_EQ(session_.ViewerCount(), 2u);
  session_.Sweep();
  const auto viewers = session_.Viewers();
  ASSERT_EQ(viewers.size(), 1u);
  EXPECT_EQ(viewers[0].connection_id, "c2");
  EXPECT_EQ(session_.departed(), 1u);
  // An answer from the one who left is ignored.
  signal_.Answer("c1", "v=0\r\n");
  EXPECT_NE(Log().find("peer=c1 answer after departure"), std::string::npos);
}

TEST_F(ShareSessionTest, ABadAnswerIsLoggedAndTheViewerStays) {
  session_.SetAdmissionRequired(false);
  session_.Start();
  signal_.Peer("c1", {});
  ASSERT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
  signal_.Answer("c1", "this is not a session description");
  EXPECT_NE(Log().find("peer=c1 SetRemoteDescription failed: "), std::string::npos);
  EXPECT_EQ(session_.ViewerCount(), 1u);
}

// The session holds nothing back for a link that is still gathering (its offer not yet sent): the
// answer goes to the link at once, which here refuses it, and that refusal is what shows it came.
// A STUN server that never answers keeps the link gathering for seconds (the agent's
// retransmissions), so the answer surely comes first however slow the machine.
TEST_F(ShareSessionTest, AnAnswerThatComesWhileTheLinkStillGathersIsHandedToTheLink) {
  media::testing::UdpSocket silent_stun;
  ShareSession session{&signal_, &frames_, &audio_,
                       transport::PeerConfig{{{"stun:127.0.0.1:" + std::to_string(silent_stun.port()), "", ""}}, 0},
                       transport::OfferMedia{}, 48000};
  session.SetAdmissionRequired(false);
  session.Start();
  signal_.Peer("c1", {});
  ASSERT_FALSE(OfferSentTo("c1")) << "gathering waits out the silent server";
  signal_.Answer("c1", "an answer before any offer");
  EXPECT_NE(Log().find("peer=c1 SetRemoteDescription failed: "), std::string::npos) << Log();
  EXPECT_EQ(session.ViewerCount(), 1u);
  session.Stop();
}

TEST_F(ShareSessionTest, AnOfferThatCannotBeSentIsLogged) {
  signal_.set_send_result(false);
  session_.SetAdmissionRequired(false);
  session_.Start();
  signal_.Peer("c1", {});
  EXPECT_TRUE(Eventually([&] { return Log().find("peer=c1 SendOffer failed") != std::string::npos; }));
  EXPECT_EQ(session_.ViewerCount(), 1u);  // Stays offering; no retry.
  EXPECT_EQ(session_.Viewers()[0].state, PeerState::kConnecting);
}

TEST_F(ShareSessionTest, NobodyIsLetInAfterStop) {
  session_.Start();
  signal_.Peer("c1", {"usr_x", "X", {}});
  session_.Stop();
  session_.Approve("c1");
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_NE(Log().find("admitted=0 departed=0"), std::string::npos);
}

// An offer that is never answered (the answer was lost, or no path was found) must not keep a
// viewer's place and link for ever.
TEST_F(ShareSessionTest, AViewerWhoseLinkDoesNotConnectWithinTheLimitIsClosed) {
  session_.SetAdmissionRequired(false);
  session_.SetConnectLimit(std::chrono::hours(1));
  session_.Start();
  signal_.Peer("c1", {});
  ASSERT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
  session_.Sweep();
  EXPECT_EQ(session_.ViewerCount(), 1u) << "within the limit";
  EXPECT_EQ(session_.failed(), 0u);
  // The limit passes (shortened rather than waited out: how long gathering takes varies).
  session_.SetConnectLimit(std::chrono::milliseconds(0));
  session_.Sweep();
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_EQ(session_.failed(), 1u);
  EXPECT_EQ(session_.departed(), 1u);
}

TEST_F(ShareSessionTest, StopEndsEveryViewerWithoutCountingThemDeparted) {
  session_.SetAdmissionRequired(false);
  session_.Start();
  signal_.Peer("c1", {});
  signal_.Peer("c2", {});
  session_.Stop();
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_EQ(session_.departed(), 0u);
  EXPECT_NE(Log().find("admitted=2 departed=0"), std::string::npos);
}

TEST(ShareSessionSmoothTest, TheFirstSampleIsTakenAsItIs) {
  EXPECT_DOUBLE_EQ(ShareSession::Smooth(0, 800, 1000), 800);
  EXPECT_DOUBLE_EQ(ShareSession::Smooth(-1, 800, 1000), 800);
  EXPECT_DOUBLE_EQ(ShareSession::Smooth(500, 800, 0), 800);
}

TEST(ShareSessionSmoothTest, ZeroPullsTheAverageDownWithAFiveSecondTimeConstant) {
  const double one_second = ShareSession::Smooth(1000, 0, 1000);
  EXPECT_NEAR(one_second, 1000 * std::exp(-0.2), 1e-9);
  double average = 1000;
  for (int i = 0; i < 5; ++i) average = ShareSession::Smooth(average, 0, 1000);
  EXPECT_NEAR(average / 1000, std::exp(-1.0), 1e-9);  // About 37 percent.
  // The same after one five-second step: the interval of the polls does not matter.
  EXPECT_NEAR(ShareSession::Smooth(1000, 0, 5000), average, 1e-9);
}

// A real viewer in this process: an answering link and a receiver in front of buses of its own.
class InProcessViewer {
 public:
  InProcessViewer()
      : link_(transport::CreateAnswerer(transport::PeerConfig{{}, 1})),
        receiver_(link_.get(), &frames_, &audio_, 48000) {
    receiver_.Start();
    link_->OnLocalDescription([this](const std::string& sdp) {
      std::lock_guard lock(mutex_);
      answer_ = sdp;
    });
  }
  ~InProcessViewer() { link_->Close(); }
  void TakeOffer(const std::string& sdp) { link_->SetRemoteDescription(sdp); }
  std::string answer() {
    std::lock_guard lock(mutex_);
    return answer_;
  }
  PeerReceiver& receiver() { return receiver_; }
  transport::PeerLink& link() { return *link_; }

 private:
  streams::FrameBus frames_;
  streams::AudioBus audio_;
  std::unique_ptr<transport::PeerLink> link_;
  PeerReceiver receiver_;
  std::mutex mutex_;
  std::string answer_;
};

// The signal server (a double of it here) passes the friend's proof on, then puts an answer of
// its own in place of the friend's, to sit in the middle of the link: the answer's certificate is
// not the one the friend signed, and the link is closed before it is used.
TEST_F(ShareSessionTest, AnAnswerSwappedByTheServerIsCaughtAndTheFriendsOwnConnects) {
  const auto key = transport::IdentityKey::Generate();
  session_.SetAllowlist({{"usr_friend", {"Friend", {transport::KeyFingerprint(key.PublicText())}}}});
  session_.Start();
  const auto offer_to = [&](const std::string& id) {
    std::string offer;
    for (const auto& message : signal_.sent()) {
      if (message.type == "offer" && message.peer == id) offer = message.sdp;
    }
    return offer;
  };
  const auto signed_answer = [&](const std::string& id, const std::string& answer) {
    const std::string fingerprint = transport::DtlsFingerprintOf(answer);
    EXPECT_FALSE(fingerprint.empty()) << answer;
    return key.Sign(transport::AnswerStatement(kToken, signal_.ChallengeSentTo(id), fingerprint));
  };

  ArriveAndProve("c1", Claim("usr_friend", "Friendly", key), key);
  ASSERT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
  InProcessViewer friends;
  friends.TakeOffer(offer_to("c1"));
  ASSERT_TRUE(Eventually([&] { return !friends.answer().empty(); }));
  // The server's answer: the friend's with the server's own certificate in it (links of one
  // process share a certificate, so the server's is written in by hand).
  std::string servers = friends.answer();
  const std::string friends_digest = transport::DtlsFingerprintOf(servers).substr(8);
  ASSERT_FALSE(friends_digest.empty()) << servers;
  const std::string servers_digest = (friends_digest.substr(0, 2) == "00" ? "11" : "00") + friends_digest.substr(2);
  for (auto at = servers.find(friends_digest); at != std::string::npos; at = servers.find(friends_digest, at)) {
    servers.replace(at, friends_digest.size(), servers_digest);
  }
  ASSERT_EQ(transport::DtlsFingerprintOf(servers), "sha-256 " + servers_digest);
  signal_.Answer("c1", servers, signed_answer("c1", friends.answer()));
  EXPECT_EQ(session_.refused_proofs(), 1u);
  EXPECT_EQ(signal_.CountSent("deny"), 1u);
  session_.Sweep();
  EXPECT_EQ(session_.ViewerCount(), 0u);

  // An answer with no signature at all is no better.
  ArriveAndProve("c2", Claim("usr_friend", "Friendly", key), key);
  ASSERT_TRUE(Eventually([&] { return OfferSentTo("c2"); }));
  InProcessViewer unsigned_viewer;
  unsigned_viewer.TakeOffer(offer_to("c2"));
  ASSERT_TRUE(Eventually([&] { return !unsigned_viewer.answer().empty(); }));
  signal_.Answer("c2", unsigned_viewer.answer());
  EXPECT_EQ(session_.refused_proofs(), 2u);

  // The friend's own answer, signed over its own certificate, connects.
  ArriveAndProve("c3", Claim("usr_friend", "Friendly", key), key);
  ASSERT_TRUE(Eventually([&] { return OfferSentTo("c3"); }));
  InProcessViewer real;
  real.TakeOffer(offer_to("c3"));
  ASSERT_TRUE(Eventually([&] { return !real.answer().empty(); }));
  signal_.Answer("c3", real.answer(), signed_answer("c3", real.answer()));
  EXPECT_EQ(session_.refused_proofs(), 2u);
  ASSERT_TRUE(Eventually([&] {
    session_.Sweep();
    const auto viewers = session_.Viewers();
    return viewers.size() == 1u && viewers[0].state == PeerState::kConnected;
  }, 10s));
  EXPECT_FALSE(session_.Viewers()[0].key_fingerprint.empty());
}

TEST_F(ShareSessionTest, AnAdmittedViewerGetsTheMediaAndItsRateIsMeasured) {
  const testing::PeerMediaFixture fixture(dir_.path(), 90);
  session_.SetAdmissionRequired(false);
  session_.Start();
  signal_.Peer("c1", {"usr_v", "Viewer", {}});
  ASSERT_TRUE(Eventually([&] { return OfferSentTo("c1"); }));
  std::string offer;
  for (const auto& message : signal_.sent()) {
    if (message.type == "offer") offer = message.sdp;
  }

  InProcessViewer viewer;
  viewer.TakeOffer(offer);
  ASSERT_TRUE(Eventually([&] { return !viewer.answer().empty(); }));
  signal_.Answer("c1", viewer.answer());
  ASSERT_TRUE(Eventually([&] { return session_.Viewers()[0].state == PeerState::kConnected; }, 10s));
  // The new viewer is not left waiting for the next regular keyframe. The link reports its state
  // a moment before the session's handler has run.
  EXPECT_TRUE(Eventually([&] { return keyframes_.load() >= 1; }));
  EXPECT_TRUE(Eventually([&] { return Log().find("peer=c1 connected") != std::string::npos; }));
  // Connected for a second, but no picture yet: not watching yet.
  std::this_thread::sleep_for(1100ms);
  EXPECT_EQ(session_.Viewers()[0].seconds, 0);

  std::thread publisher([&] {
    testing::PublishInRealTime(fixture, SteadyNowNs() / 100, frames_, &audio_);
  });
  EXPECT_TRUE(Eventually([&] { return viewer.receiver().video_units() >= 30; }, 10s));
  EXPECT_TRUE(Eventually([&] { return viewer.receiver().audio_units() >= 20; }, 10s));
  std::this_thread::sleep_for(1100ms);
  session_.Sweep();
  publisher.join();
  const auto viewers = session_.Viewers();
  ASSERT_EQ(viewers.size(), 1u);
  EXPECT_GT(viewers[0].frames_sent, 30u);
  EXPECT_GT(viewers[0].bytes_sent, 1000u);
  EXPECT_GT(viewers[0].uplink_kbps, 0u);
  EXPECT_GE(viewers[0].seconds, 1);

  // The viewer's link ends: the host's link fails or closes, and the sweep removes the viewer.
  viewer.link().Close();
  signal_.PeerGone("c1");
  session_.Sweep();
  EXPECT_EQ(session_.ViewerCount(), 0u);
  EXPECT_EQ(session_.departed(), 1u);
}

}  // namespace
}  // namespace mirell::session
