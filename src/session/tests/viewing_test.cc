// The viewer's watches: what Ensure publishes, what the host's media and offer do to a stream,
// refusal, the idle rule and Poll, against a scripted signal server on loopback.
#include "mirell/session/viewing.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>

#include "fake_signal_server.h"
#include "mirell/base/logging.h"
#include "mirell/media/aac_rtp.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/transport/peer_link.h"

namespace mirell::session {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testsupport::Eventually;
using transport::testing::FakeSignalServer;

constexpr std::int64_t kSecond = 1'000'000'000;

class ViewingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetLogLevel(LogLevel::kDebug);
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
  }
  void TearDown() override { SetLogLevel(LogLevel::kWarn); }
  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }
  bool Logged(const std::string& text, std::chrono::milliseconds limit = 5s) const {
    return Eventually([&] { return Log().find(text) != std::string::npos; }, limit);
  }
  Viewing::Config Config(bool card = false) {
    Viewing::Config config;
    config.signal_url = server_.url();
    config.holding_card = card;
    config.ice_policy = 1;
    return config;
  }
  // The viewer's "join", as the server got it.
  Json NextJoin() {
    const auto text = server_.NextMessage();
    return text ? Json::parse(*text) : Json();
  }

  testsupport::TempDir dir_;
  FakeSignalServer server_;
  streams::StreamRegistry registry_;
};

TEST_F(ViewingTest, AnEmptyTokenDoesNothing) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("");
  EXPECT_EQ(viewing.WatchCount(), 0u);
  EXPECT_EQ(registry_.Size(), 0u);
}

TEST_F(ViewingTest, TheTokenOfThisProgramsOwnShareIsServedFromItsStream) {
  auto own = std::make_shared<streams::MediaStream>("sharing screen", 30, 6000);
  registry_.Publish("OWNTOKEN0001", own);
  Viewing viewing(registry_, Config());
  viewing.Ensure("OWNTOKEN0001");
  EXPECT_EQ(viewing.WatchCount(), 0u);
  EXPECT_EQ(registry_.Find("OWNTOKEN0001"), own);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(server_.connections(), 0);  // No peer connection, not even a join.
}

TEST_F(ViewingTest, EnsureJoinsWithTheIdentityAndPublishesAStreamThatWaitsForItsDescription) {
  Viewing viewing(registry_, Config());
  viewing.SetIdentity({"usr_me", "Me", {}});
  viewing.Ensure("TOKEN0000001");
  EXPECT_EQ(viewing.WatchCount(), 1u);
  const auto stream = registry_.Find("TOKEN0000001");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->label(), "watching TOKEN0000001");
  EXPECT_FALSE(stream->IsDescribed());
  EXPECT_EQ(stream->prime_frames(), 30u);  // 500 ms at 60 frames per second.
  EXPECT_EQ(stream->prime_ms(), 500u);
  const auto audio = stream->Audio();
  ASSERT_TRUE(audio.has_value());
  EXPECT_EQ(audio->sample_rate, 48000u);
  EXPECT_EQ(audio->channels, 2u);
  EXPECT_EQ(audio->bitrate_kbps, 192u);
  EXPECT_EQ(audio->audio_specific_config, media::MakeAacLcAudioSpecificConfig(48000, 2));
  EXPECT_TRUE(Logged("token=TOKEN0000001 fetching"));

  const Json join = NextJoin();
  EXPECT_EQ(join.value("type", ""), "join");
  EXPECT_EQ(join.value("token", ""), "TOKEN0000001");
  EXPECT_EQ(join.value("identity", ""), "usr_me");
  EXPECT_EQ(join.value("displayName", ""), "Me");

  viewing.Ensure("TOKEN0000001");  // A second call for the same token does nothing.
  EXPECT_EQ(viewing.WatchCount(), 1u);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(server_.connections(), 1);
}

TEST_F(ViewingTest, WithoutSharingTheIdentityTheJoinNamesNobody) {
  Viewing viewing(registry_, Config());
  viewing.SetIdentity({"usr_me", "Me", {}});
  viewing.SetShareIdentity(false);
  viewing.Ensure("TOKEN0000001");
  const Json join = NextJoin();
  EXPECT_EQ(join.value("type", ""), "join");
  EXPECT_FALSE(join.contains("identity"));
  EXPECT_FALSE(join.contains("displayName"));
}

TEST_F(ViewingTest, TheHostsMediaDescribesTheStream) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  const auto stream = registry_.Find("TOKEN0000001");
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  server_.Send(R"({"type":"joined","media":{"width":1920,"height":1080,"fps":50,"videoKbps":8000,
      "sampleRate":44100,"channels":1,"audioKbps":96,"audioConfig":"1208"}})");
  ASSERT_TRUE(Eventually([&] { return stream->IsDescribed(); }));
  EXPECT_EQ(stream->fps(), 50u);
  EXPECT_EQ(stream->bitrate_kbps(), 8000u);
  const auto audio = stream->Audio();
  EXPECT_EQ(audio->sample_rate, 44100u);
  EXPECT_EQ(audio->channels, 1u);
  EXPECT_EQ(audio->bitrate_kbps, 96u);
  EXPECT_EQ(audio->audio_specific_config, (std::vector<std::uint8_t>{0x12, 0x08}));
  EXPECT_TRUE(Logged("token=TOKEN0000001 media=1920x1080@50 audio=44100/1"));
}

TEST_F(ViewingTest, JoinedWithoutMediaLeavesTheStreamUndescribed) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  const auto stream = registry_.Find("TOKEN0000001");
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  server_.Send(R"({"type":"joined"})");
  std::this_thread::sleep_for(300ms);
  EXPECT_FALSE(stream->IsDescribed());
  EXPECT_FALSE(stream->WaitDescribed(100));  // DESCRIBE waits out its own limit.
  EXPECT_EQ(stream->fps(), 30u);
}

TEST_F(ViewingTest, AFrameRateOfZeroLeavesTheStreamsAsItWas) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  const auto stream = registry_.Find("TOKEN0000001");
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  server_.Send(R"({"type":"joined","media":{"width":1280,"height":720,"fps":0,"videoKbps":0}})");
  ASSERT_TRUE(Eventually([&] { return stream->IsDescribed(); }));
  EXPECT_EQ(stream->fps(), 30u);
  EXPECT_EQ(stream->bitrate_kbps(), 25000u);
  EXPECT_EQ(stream->Audio()->sample_rate, 48000u);
}

TEST_F(ViewingTest, AnAudioConfigThatIsNotHexadecimalFallsBackToTheDerivedOne) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  const auto stream = registry_.Find("TOKEN0000001");
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  server_.Send(R"({"type":"joined","media":{"sampleRate":32000,"channels":2,"audioConfig":"zz!"}})");
  ASSERT_TRUE(Eventually([&] { return stream->IsDescribed(); }));
  EXPECT_EQ(stream->Audio()->audio_specific_config, media::MakeAacLcAudioSpecificConfig(32000, 2));
}

// A refusal (the share has ended, say) ends the stream's readers at once, on the signal thread;
// the watch itself goes at the next Poll.
TEST_F(ViewingTest, ARefusalEndsTheReadersAtOnceAndTheWatchAtTheNextPoll) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  const auto stream = registry_.Find("TOKEN0000001");
  auto reader = stream->frames().Subscribe(8, 0);
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  EXPECT_EQ(viewing.WaitJoinState("TOKEN0000001", 0ms), Viewing::JoinState::kWaiting);
  server_.Send(R"({"type":"error","reason":"no such share"})");
  EXPECT_EQ(viewing.WaitJoinState("TOKEN0000001", 5s), Viewing::JoinState::kRefused);
  EXPECT_TRUE(reader->Closed());
  EXPECT_EQ(registry_.Find("TOKEN0000001"), nullptr);
  EXPECT_TRUE(stream->IsDescribed());  // No DESCRIBE stays waiting.
  EXPECT_EQ(viewing.WatchCount(), 1u);
  viewing.Poll();
  EXPECT_EQ(viewing.WatchCount(), 0u);
  EXPECT_TRUE(Logged("token=TOKEN0000001 stopped"));
  EXPECT_EQ(viewing.WaitJoinState("TOKEN0000001", 0ms), Viewing::JoinState::kNoWatch);
}

TEST_F(ViewingTest, TheServersWordOnAJoinIsWaitedFor) {
  Viewing viewing(registry_, Config());
  EXPECT_EQ(viewing.WaitJoinState("TOKEN0000001", 0ms), Viewing::JoinState::kNoWatch);
  viewing.Ensure("TOKEN0000001");
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(viewing.WaitJoinState("TOKEN0000001", 200ms), Viewing::JoinState::kWaiting);
  EXPECT_GE(std::chrono::steady_clock::now() - before, 200ms);
  std::thread joined([&] { server_.Send(R"({"type":"joined"})"); });
  EXPECT_EQ(viewing.WaitJoinState("TOKEN0000001", 5s), Viewing::JoinState::kJoined);
  joined.join();
}

// A relay's players come together: however many ask for one token at once, one watch (one join,
// one peer link) serves them all.
TEST_F(ViewingTest, ManyAskingForOneTokenAtOnceMakeOneWatch) {
  Viewing viewing(registry_, Config());
  std::vector<std::thread> askers;
  std::atomic<int> ready{0};
  for (int i = 0; i < 16; ++i) {
    askers.emplace_back([&] {
      if (viewing.Ensure("TOKEN0000001") == Viewing::EnsureResult::kReady) ++ready;
    });
  }
  for (auto& asker : askers) asker.join();
  EXPECT_EQ(ready.load(), 16);
  EXPECT_EQ(viewing.WatchCount(), 1u);
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  EXPECT_FALSE(server_.NextMessage(300ms).has_value()) << "a second join";
  EXPECT_EQ(server_.connections(), 1);
}

// The relay joins by its secret, names nobody, and may hold more watches than a viewer.
TEST_F(ViewingTest, ARelayJoinsByItsSecretAndNamesNobody) {
  Viewing::Config config = Config();
  config.relay_secret = "relay-secret-0123456789";
  config.max_watches = 10;
  Viewing viewing(registry_, config);
  viewing.SetIdentity({"usr_someone", "Someone", {}});
  viewing.Ensure("TOKEN0000001");
  EXPECT_EQ(NextJoin(), Json::parse(R"({"type":"join","token":"TOKEN0000001","relay":"relay-secret-0123456789"})"));
  for (int i = 2; i <= 10; ++i) {
    EXPECT_EQ(viewing.Ensure(fmt::format("TOKEN{:07}", i)), Viewing::EnsureResult::kReady) << i;
  }
  EXPECT_EQ(viewing.Ensure("TOKEN0000011"), Viewing::EnsureResult::kTooMany);
}

TEST_F(ViewingTest, WithoutASignalUrlTheStreamPlaysOnlyTheCard) {
  Viewing::Config config = Config(true);
  config.signal_url.clear();
  Viewing viewing(registry_, std::move(config));
  ASSERT_TRUE(viewing.WaitCardReady(120'000));  // About 2 s; far longer under the sanitizers.
  viewing.Ensure("TOKEN0000001");
  const auto stream = registry_.Find("TOKEN0000001");
  ASSERT_NE(stream, nullptr);
  EXPECT_TRUE(stream->IsDescribed());
  EXPECT_FALSE(stream->SequenceHeader().empty());
  EXPECT_TRUE(Logged("token=TOKEN0000001 no signal url"));
  auto reader = stream->frames().Subscribe(64, 0);
  // The card plays. A reader without priming starts at the next keyframe, up to one 2 s group
  // of pictures away (and later on a loaded machine), so the wait is longer than that.
  EXPECT_TRUE(reader->Pop(5000) != nullptr);
}

// A link resolved right after start-up: the card is still being built. The watch gets it as soon
// as it is ready, and its players with it (before, the watch stayed without a card, and every
// player of it was answered 503 until the host let the viewer in).
TEST_F(ViewingTest, ACardThatIsNotReadyInTimeStartsOnceItIs) {
  Viewing viewing(registry_, Config(true));
  viewing.Ensure("TOKEN0000001");  // The clip takes far longer than 120 ms to build.
  const auto stream = registry_.Find("TOKEN0000001");
  ASSERT_NE(stream, nullptr);
  ASSERT_FALSE(viewing.WaitCardReady(0)) << "the card was ready before the watch: nothing came late";
  EXPECT_TRUE(stream->SequenceHeader().empty());
  auto reader = stream->frames().Subscribe(64, 0);
  ASSERT_TRUE(viewing.WaitCardReady(120'000));  // About 2 s; far longer under the sanitizers.
  EXPECT_TRUE(stream->WaitSequenceHeader(5000));
  EXPECT_TRUE(reader->Pop(5000) != nullptr) << "the card plays into the watch made before it";
}

TEST_F(ViewingTest, AnOfferIsAnsweredAndADifferentAudioFormatIsOnlyWarnedAbout) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  transport::OfferMedia media;
  media.sample_rate = 44100;
  auto host = transport::CreateOfferer(transport::PeerConfig{{}, 1}, media);
  std::mutex mutex;
  std::string offer;
  host->OnLocalDescription([&](const std::string& sdp) {
    std::lock_guard lock(mutex);
    offer = sdp;
  });
  ASSERT_TRUE(Eventually([&] { std::lock_guard lock(mutex); return !offer.empty(); }));
  server_.Send(Json{{"type", "offer"}, {"sdp", offer}}.dump());
  const auto answer = server_.NextMessage(10s);
  ASSERT_TRUE(answer.has_value());
  const Json message = Json::parse(*answer);
  EXPECT_EQ(message.value("type", ""), "answer");
  host->SetRemoteDescription(message.value("sdp", ""));
  EXPECT_TRUE(Logged("token=TOKEN0000001 offer audio=44100/2 advertised=48000/2 mismatch"));
  EXPECT_TRUE(Logged("token=TOKEN0000001 connected", 10s));
  viewing.Poll();
  EXPECT_EQ(viewing.WatchCount(), 1u);
  host->Close();
}

TEST_F(ViewingTest, AnOfferThatCannotBeAppliedEndsTheWatch) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  ASSERT_EQ(NextJoin().value("type", ""), "join");
  server_.Send(R"({"type":"offer","sdp":"not a description"})");
  ASSERT_TRUE(Logged("TOKEN0000001 sent an offer we could not apply: "));
  viewing.Poll();
  EXPECT_EQ(viewing.WatchCount(), 0u);
}

TEST_F(ViewingTest, DropEndsTheWatchAtTheNextPoll) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  viewing.Drop("TOKEN0000001");
  viewing.Poll();
  EXPECT_EQ(viewing.WatchCount(), 0u);
  EXPECT_EQ(registry_.Size(), 0u);
  // Resolving again makes a new watch.
  viewing.Ensure("TOKEN0000001");
  EXPECT_EQ(viewing.WatchCount(), 1u);
}

TEST_F(ViewingTest, StopEndsEveryWatch) {
  Viewing viewing(registry_, Config());
  viewing.Ensure("TOKEN0000001");
  viewing.Ensure("TOKEN0000002");
  auto reader = registry_.Find("TOKEN0000002")->frames().Subscribe(8, 0);
  viewing.Stop();
  EXPECT_EQ(viewing.WatchCount(), 0u);
  EXPECT_EQ(registry_.Size(), 0u);
  EXPECT_TRUE(reader->Closed());
}

// Any local program can ask the resolver: each watch is a peer and a signal connection, so only
// so many are made; a token already watched, or a place that frees up, is served.
TEST_F(ViewingTest, NoMoreThanTheMostWatchesAreMade) {
  Viewing viewing(registry_, Config());
  for (std::size_t i = 0; i < Viewing::kMaxWatches; ++i) {
    EXPECT_EQ(viewing.Ensure(fmt::format("TOKEN{:07}", i)), Viewing::EnsureResult::kReady);
  }
  EXPECT_EQ(viewing.Ensure("TOKENXXXXXXX"), Viewing::EnsureResult::kTooMany);
  EXPECT_EQ(registry_.Find("TOKENXXXXXXX"), nullptr);
  EXPECT_EQ(viewing.Ensure("TOKEN0000000"), Viewing::EnsureResult::kReady) << "already watched";
  viewing.Drop("TOKEN0000000");
  viewing.Poll();
  EXPECT_EQ(viewing.Ensure("TOKENXXXXXXX"), Viewing::EnsureResult::kReady);
  EXPECT_EQ(viewing.WatchCount(), Viewing::kMaxWatches);
}

TEST_F(ViewingTest, AWatchWhosePlayerNeverCameStays) {
  Viewing::Config config = Config();
  config.idle_grace_s = 0;
  Viewing viewing(registry_, std::move(config));
  viewing.Ensure("TOKEN0000001");
  viewing.Poll();
  std::this_thread::sleep_for(50ms);
  viewing.Poll();
  EXPECT_EQ(viewing.WatchCount(), 1u);
}

TEST_F(ViewingTest, AWatchWhosePlayerLeftIsDroppedAfterTheGrace) {
  Viewing::Config config = Config();
  config.idle_grace_s = 1;
  Viewing viewing(registry_, std::move(config));
  viewing.Ensure("TOKEN0000001");
  auto stream = registry_.Find("TOKEN0000001");
  auto player = stream->frames().Subscribe(8, 0);
  viewing.Poll();
  stream->frames().Unsubscribe(player);
  viewing.Poll();  // Starts counting.
  EXPECT_EQ(viewing.WatchCount(), 1u);
  std::this_thread::sleep_for(1100ms);
  viewing.Poll();
  EXPECT_EQ(viewing.WatchCount(), 0u);
  EXPECT_TRUE(Logged("token=TOKEN0000001 no players, dropping"));
  EXPECT_TRUE(Logged("token=TOKEN0000001 stopped"));
}

TEST(ViewingIdleRuleTest, APlayerWhoComesBackWithinTheGraceResetsTheCount) {
  Viewing::IdleState state;
  EXPECT_FALSE(Viewing::IdleDrop(state, 1, 1 * kSecond, 6));
  EXPECT_FALSE(Viewing::IdleDrop(state, 0, 4 * kSecond, 6));  // The player leaves at second 4.
  EXPECT_FALSE(Viewing::IdleDrop(state, 1, 5 * kSecond, 6));  // Another comes at second 5.
  EXPECT_EQ(state.idle_since, 0);
  EXPECT_FALSE(Viewing::IdleDrop(state, 0, 9 * kSecond, 6));
  EXPECT_FALSE(Viewing::IdleDrop(state, 0, 14 * kSecond, 6));
  EXPECT_TRUE(Viewing::IdleDrop(state, 0, 15 * kSecond, 6));
}

// A link resolved by something that never plays it (or a flood of resolves) must not keep a peer
// connection for ever; a player that is slow to come gets half a minute.
TEST(ViewingIdleRuleTest, AWatchThatNeverHadAPlayerIsDroppedAfterHalfAMinute) {
  Viewing::IdleState state;
  EXPECT_FALSE(Viewing::IdleDrop(state, 0, 1 * kSecond, 6));
  EXPECT_FALSE(Viewing::IdleDrop(state, 0, 30 * kSecond, 6));
  EXPECT_TRUE(Viewing::IdleDrop(state, 0, 31 * kSecond, 6));
  EXPECT_FALSE(state.had_players);

  Viewing::IdleState long_grace;
  EXPECT_FALSE(Viewing::IdleDrop(long_grace, 0, 1 * kSecond, 60));
  EXPECT_FALSE(Viewing::IdleDrop(long_grace, 0, 60 * kSecond, 60));
  EXPECT_TRUE(Viewing::IdleDrop(long_grace, 0, 61 * kSecond, 60)) << "the longer of the two";

  Viewing::IdleState late_player;
  EXPECT_FALSE(Viewing::IdleDrop(late_player, 0, 1 * kSecond, 6));
  EXPECT_FALSE(Viewing::IdleDrop(late_player, 1, 20 * kSecond, 6)) << "a player came in time";
  EXPECT_EQ(late_player.idle_since, 0);
}

}  // namespace
}  // namespace mirell::session
