// The host's side of a share on the real capture: windows and a monitor of a private Xvfb with
// openbox, sound from a private PulseAudio server, a scripted signal server that records what the
// host registers. Where a format the sound server never gives is needed (44100 Hz), a capturer
// the test drives stands in for the sound.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "fake_audio_capturer.h"
#include "fake_signal_server.h"
#include "mirell/base/logging.h"
#include "mirell/session/sharing.h"
#include "mirell/streams/media_stream.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/xvfb.h"
#include "pulse_server.h"
#include "test_window.h"

namespace mirell::session {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testsupport::Eventually;

class SharingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::XvfbOptions options;
    options.width = 640;
    options.height = 360;
    options.window_manager = true;
    display_ = std::make_unique<testsupport::XvfbDisplay>(options);
    if (!display_->available()) GTEST_SKIP() << "Xvfb or openbox is missing";
    setenv("DISPLAY", display_->name().c_str(), 1);
    pulse_ = std::make_unique<capture::PulseServer>();
    if (!pulse_->available() || !testsupport::HaveProgram("paplay") || !testsupport::HaveProgram("sox")) {
      GTEST_SKIP() << "pulseaudio, paplay or sox is missing";
    }
  }

  static Sharing::Config SmallConfig() {
    Sharing::Config config;
    config.quality.width = 320;
    config.quality.height = 180;
    config.quality.fps = 15;
    config.quality.video_kbps = 400;
    config.share_prefix = "mirell.test/s/";
    return config;
  }

  // A window of the colour given, playing a tone of `hertz` (none for 0) from its own process.
  std::unique_ptr<capture::TestWindow> OpenWindow(const std::string& title, const std::string& colour,
                                                  int hertz = 0) {
    std::vector<std::string> arguments{"--title", title, "--color", colour, "--size", "200x150"};
    if (hertz != 0) {
      const auto file = dir_.path() / ("tone-" + std::to_string(hertz) + ".wav");
      testsupport::RunProcess({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", file.string(), "synth", "20",
                               "sine", std::to_string(hertz), "vol", "0.5"});
      arguments.insert(arguments.end(), {"--tone-file", file.string()});
    }
    auto window = std::make_unique<capture::TestWindow>(display_->name(), arguments);
    if (window->id() == 0) ADD_FAILURE() << "the test window did not come up";
    if (hertz != 0 && !capture::WaitUntilPlaying(window->pid())) ADD_FAILURE() << "the window's tone never played";
    return window;
  }

  static ShareTarget WindowTarget(capture::TestWindow& window, const std::string& label) {
    ShareTarget target;
    target.capture.kind = capture::CaptureKind::kWindow;
    target.capture.window = window.id();
    target.label = label;
    target.process_id = static_cast<std::uint32_t>(window.pid());
    return target;
  }

  static ShareTarget MonitorTarget() {
    ShareTarget target;
    target.capture.kind = capture::CaptureKind::kMonitor;
    target.capture.monitor = 0;
    target.label = "Monitor 1";
    target.whole_mix = true;
    return target;
  }

  // Waits for a keyframe on the stream published under `token`; false when none comes.
  bool KeyframeFlows(const std::string& token) {
    const auto stream = registry_.Find(token);
    if (!stream) return false;
    const auto reader = stream->frames().Subscribe(64, 0);
    for (int i = 0; i < 60; ++i) {
      const auto unit = reader->Pop(200);
      if (unit && unit->keyframe) return true;
      if (reader->Closed()) return false;
    }
    return false;
  }

  // The next "host" registration the signal server saw.
  std::optional<Json> NextHost() {
    while (auto message = signal_.NextMessage(10s)) {
      const Json json = Json::parse(*message);
      if (json.value("type", "") == "host") return json;
    }
    return std::nullopt;
  }

  testsupport::TempDir dir_;
  std::unique_ptr<testsupport::XvfbDisplay> display_;
  std::unique_ptr<capture::PulseServer> pulse_;
  transport::testing::FakeSignalServer signal_;
  streams::StreamRegistry registry_;
};

// No meeting place, so no address anyone could open: the share plays here and has no link.
TEST_F(SharingTest, WithoutAMeetingPlaceAShareHasNoLink) {
  auto window = OpenWindow("No place", "00FF00");
  Sharing::Config config = SmallConfig();
  config.share_prefix.clear();
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "No place"));
  EXPECT_TRUE(sharing.active());
  EXPECT_EQ(sharing.token().size(), 12u);
  EXPECT_EQ(sharing.link(), "");
  EXPECT_EQ(sharing.signal_state(), SignalState::kOff);
  sharing.Stop();
}

TEST_F(SharingTest, WithoutASignalServerTheStreamIsPublishedAndPlaysLocally) {
  auto window = OpenWindow("Local only", "00FF00", 440);
  Sharing sharing(registry_, SmallConfig());
  EXPECT_FALSE(sharing.active());
  EXPECT_EQ(sharing.link(), "");
  EXPECT_EQ(sharing.token(), "");
  sharing.Start(WindowTarget(*window, "Local only"));

  EXPECT_TRUE(sharing.active());
  ASSERT_EQ(sharing.token().size(), 12u);
  EXPECT_EQ(sharing.link(), "https://mirell.test/s/" + sharing.token());
  EXPECT_EQ(sharing.label(), "Local only");
  EXPECT_EQ(sharing.viewer_count(), 0u);
  EXPECT_TRUE(sharing.viewers().empty());
  EXPECT_EQ(registry_.Tokens(), std::vector<std::string>{sharing.token()});
  EXPECT_TRUE(KeyframeFlows(sharing.token()));
  EXPECT_TRUE(sharing.capture_running());
  EXPECT_TRUE(sharing.audio_open());
  EXPECT_FALSE(sharing.audio_whole_mix()) << "a window's own process is heard";
  const auto stream = registry_.Find(sharing.token());
  EXPECT_FALSE(stream->SequenceHeader().empty()) << "the description follows the encoder";
  ASSERT_TRUE(stream->Audio().has_value());
  EXPECT_EQ(stream->Audio()->sample_rate, 48000u);
  EXPECT_EQ(stream->prime_frames(), 7u);  // 15 fps x 500 ms.
  EXPECT_EQ(signal_.connections(), 0);

  sharing.Stop();
  EXPECT_FALSE(sharing.active());
  EXPECT_EQ(registry_.Size(), 0u);
  sharing.Stop();  // Nothing to stop.
}

// A flood of keyframe requests (new players, a viewer's losses) makes at most one keyframe a
// second beyond the group's own every two seconds, not one per picture.
TEST_F(SharingTest, KeyframeRequestsMakeAtMostOneKeyframeASecond) {
  auto window = OpenWindow("Asked often", "00FF00");
  Sharing sharing(registry_, SmallConfig());
  sharing.Start(WindowTarget(*window, "Asked often"));
  ASSERT_TRUE(KeyframeFlows(sharing.token()));
  const auto stream = registry_.Find(sharing.token());
  ASSERT_NE(stream, nullptr);
  const auto reader = stream->frames().Subscribe(256, 0);
  int pictures = 0;
  int keyframes = 0;
  const auto started = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - started < 3s) {
    stream->RequestKeyframe();
    if (const auto unit = reader->Pop(10)) {
      ++pictures;
      keyframes += unit->keyframe ? 1 : 0;
    }
  }
  stream->frames().Unsubscribe(reader);
  sharing.Stop();
  ASSERT_GT(pictures, 20) << "pictures flowed while asking";
  EXPECT_GE(keyframes, 2) << "the requests are heard";
  // Three seconds: at most three asked for and two of the group's own (one each two seconds).
  EXPECT_LE(keyframes, 5) << keyframes << " keyframes in " << pictures << " pictures";
}

TEST_F(SharingTest, StartDuringAShareStopsTheOldOneAndItsLinkDies) {
  auto window = OpenWindow("Twice", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "first"));
  const std::string first = sharing.token();
  const auto old_reader = registry_.Find(first)->frames().Subscribe(64, 0);
  sharing.Start(WindowTarget(*window, "second"));

  EXPECT_NE(sharing.token(), first);
  EXPECT_EQ(registry_.Find(first), nullptr);
  EXPECT_TRUE(old_reader->Closed());
  EXPECT_EQ(registry_.Tokens(), std::vector<std::string>{sharing.token()});
  EXPECT_EQ(sharing.label(), "second");
  EXPECT_TRUE(KeyframeFlows(sharing.token()));
  EXPECT_FALSE(sharing.audio_open());
}

TEST_F(SharingTest, RetargetAndTheOtherOperationsWithoutAShareDoNothing) {
  auto window = OpenWindow("Nothing", "0000FF");
  Sharing sharing(registry_, SmallConfig());
  sharing.Retarget(WindowTarget(*window, "nothing"));
  sharing.Revoke();
  sharing.Extend(120);
  sharing.Poll();
  sharing.Admit("v1");
  sharing.Deny("v1");
  sharing.Disconnect("v1");
  EXPECT_FALSE(sharing.active());
  EXPECT_FALSE(sharing.capture_running());
  EXPECT_FALSE(sharing.audio_open());
  EXPECT_FALSE(sharing.audio_whole_mix());
  EXPECT_FALSE(sharing.expired());
  EXPECT_EQ(sharing.seconds_left(), 0);
  EXPECT_EQ(sharing.label(), "");
  EXPECT_EQ(sharing.uplink_kbps(), 0u);
  EXPECT_TRUE(sharing.pending_viewers().empty());
  EXPECT_EQ(registry_.Size(), 0u);
}

TEST_F(SharingTest, ExtendAddsToWhatIsLeft) {
  auto window = OpenWindow("Extend", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  config.lifetime_minutes = 360;
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "extend"));
  EXPECT_GT(sharing.seconds_left(), 6 * 3600 - 10);
  sharing.Extend(120);
  // Six hours left and two more: eight, never fewer than before.
  EXPECT_GT(sharing.seconds_left(), 8 * 3600 - 10);
  EXPECT_LE(sharing.seconds_left(), 8 * 3600);
}

TEST_F(SharingTest, ExtendStopsAtADayFromNow) {
  auto window = OpenWindow("Extend far", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  config.lifetime_minutes = 23 * 60;
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "extend far"));
  sharing.Extend(120);
  EXPECT_GT(sharing.seconds_left(), 24 * 3600 - 10);
  EXPECT_LE(sharing.seconds_left(), 24 * 3600);
  sharing.Extend(120);
  EXPECT_LE(sharing.seconds_left(), 24 * 3600);
}

TEST_F(SharingTest, AShareWithoutALimitKeepsNoneWhenExtended) {
  auto window = OpenWindow("Unlimited", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  config.lifetime_minutes = 0;
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "unlimited"));
  sharing.Extend(120);
  EXPECT_EQ(sharing.seconds_left(), 0);
  sharing.Poll();
  EXPECT_TRUE(sharing.active());
  EXPECT_FALSE(sharing.expired());
}

// A real minute passes: the limit is read from the steady clock, as in use.
TEST_F(SharingTest, AOneMinuteShareEndsByItselfAtThePollAfterItsTime) {
  auto window = OpenWindow("Lifetime", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  config.quality.fps = 5;
  config.lifetime_minutes = 1;
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "lifetime"));
  const std::string token = sharing.token();
  EXPECT_GT(sharing.seconds_left(), 55);
  sharing.Poll();
  EXPECT_TRUE(sharing.active());
  ASSERT_TRUE(Eventually([&] { return sharing.seconds_left() == 0; }, 70s));
  // Time is up, but only a poll ends the share.
  std::this_thread::sleep_for(1100ms);
  EXPECT_EQ(sharing.seconds_left(), 0);
  EXPECT_TRUE(sharing.active());
  EXPECT_FALSE(sharing.expired());

  sharing.Poll();
  EXPECT_FALSE(sharing.active());
  EXPECT_TRUE(sharing.expired());
  EXPECT_EQ(registry_.Find(token), nullptr);

  sharing.Start(WindowTarget(*window, "again"));
  EXPECT_FALSE(sharing.expired());
}

TEST_F(SharingTest, WithoutSoundTheHostRegistersMediaWithRateZeroAndNoAudioConfig) {
  auto window = OpenWindow("Silent", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  config.signal_url = signal_.url();
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "silent"));
  const auto host = NextHost();
  ASSERT_TRUE(host.has_value());
  EXPECT_EQ(host->at("token"), sharing.token());
  EXPECT_EQ(host->at("secret").get<std::string>().size(), 32u);
  const Json& media = host->at("media");
  EXPECT_EQ(media.at("width"), 320);
  EXPECT_EQ(media.at("height"), 180);
  EXPECT_EQ(media.at("fps"), 15);
  EXPECT_EQ(media.at("videoKbps"), 400);
  EXPECT_EQ(media.at("sampleRate"), 0);
  EXPECT_EQ(media.at("channels"), 0);
  EXPECT_FALSE(media.contains("audioConfig"));
}

TEST_F(SharingTest, WithSoundTheHostRegistersWhatTheEncoderSettledOn) {
  auto window = OpenWindow("Loud", "0000FF", 440);
  auto config = SmallConfig();
  config.signal_url = signal_.url();
  config.quality.audio_kbps = 100;  // Snapped by the encoder to 96.
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "loud"));
  ASSERT_TRUE(sharing.audio_open());
  const auto host = NextHost();
  ASSERT_TRUE(host.has_value());
  const Json& media = host->at("media");
  EXPECT_EQ(media.at("sampleRate"), 48000);
  EXPECT_EQ(media.at("channels"), 2);
  EXPECT_EQ(media.at("audioKbps"), 96);
  EXPECT_EQ(media.at("audioConfig"), "1190");
}

TEST_F(SharingTest, RevokeTwiceMakesTwoNewTokensAndEachOldOneStopsAtOnce) {
  auto window = OpenWindow("Revoke", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  config.signal_url = signal_.url();
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "revoke"));
  const std::string first = sharing.token();
  ASSERT_TRUE(NextHost().has_value());
  const auto first_reader = registry_.Find(first)->frames().Subscribe(64, 0);

  sharing.Revoke();
  const std::string second = sharing.token();
  EXPECT_NE(second, first);
  EXPECT_EQ(sharing.link(), "http://mirell.test/s/" + second) << "the link of a plain ws:// server";
  EXPECT_EQ(registry_.Find(first), nullptr);
  EXPECT_TRUE(first_reader->Closed());
  const auto registered = NextHost();
  ASSERT_TRUE(registered.has_value());
  EXPECT_EQ(registered->at("token"), second) << "the new token is registered with the signal server";

  sharing.Revoke();
  const std::string third = sharing.token();
  EXPECT_NE(third, second);
  EXPECT_NE(third, first);
  EXPECT_EQ(registry_.Find(second), nullptr);
  EXPECT_EQ(registry_.Tokens(), std::vector<std::string>{third});
  // The new link plays the same share on.
  EXPECT_TRUE(KeyframeFlows(third));
  EXPECT_TRUE(sharing.active());
  EXPECT_TRUE(sharing.capture_running());
}

// Where the share stands with its signal server, for the window's line and the command line's
// exit: reaching, meeting, lost and retrying, refused with the server's reason.
TEST_F(SharingTest, TheSignalServersAnswersAreKeptAsTheShareState) {
  auto window = OpenWindow("Signal state", "00FF00");
  auto config = SmallConfig();
  config.audio_enabled = false;
  Sharing sharing(registry_, config);
  EXPECT_EQ(sharing.signal_state(), SignalState::kOff);
  sharing.Start(WindowTarget(*window, "local only"));
  EXPECT_EQ(sharing.signal_state(), SignalState::kOff) << "no signal server: this computer only";
  sharing.Stop();

  config.signal_url = signal_.url();
  Sharing peered(registry_, config);
  std::atomic<int> refusals{0};
  std::string told;
  peered.OnRefused([&](const std::string& reason) {
    told = reason;
    ++refusals;
  });
  peered.Start(WindowTarget(*window, "peered"));
  ASSERT_TRUE(NextHost().has_value());
  EXPECT_EQ(peered.signal_state(), SignalState::kConnecting);
  signal_.Send(R"({"type":"hosting"})");
  EXPECT_TRUE(Eventually([&] { return peered.signal_state() == SignalState::kConnected; }));
  signal_.Drop();
  EXPECT_TRUE(Eventually([&] { return peered.signal_state() != SignalState::kConnected; }));
  ASSERT_TRUE(NextHost().has_value()) << "it registers again";
  EXPECT_EQ(peered.signal_state(), SignalState::kLost);
  signal_.Send(R"({"type":"error","reason":"token taken"})");
  EXPECT_TRUE(Eventually([&] { return peered.signal_state() == SignalState::kRefused; }));
  EXPECT_EQ(peered.refusal(), "token taken");
  // The handler runs after the state is kept; `told` is written before the count goes up.
  ASSERT_TRUE(Eventually([&] { return refusals.load() == 1; }));
  EXPECT_EQ(told, "token taken");
  // A new link is a new registration: the refusal was the old one's.
  peered.Revoke();
  EXPECT_EQ(peered.refusal(), "");
  EXPECT_NE(peered.signal_state(), SignalState::kRefused);
}

TEST_F(SharingTest, RetargetFromAWindowToAMonitorMovesTheSoundToTheWholeMix) {
  auto window = OpenWindow("Window with sound", "FF0000", 440);
  auto config = SmallConfig();
  config.signal_url = signal_.url();
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "window"));
  ASSERT_TRUE(sharing.audio_open());
  EXPECT_FALSE(sharing.audio_whole_mix());
  const std::string token = sharing.token();
  const auto reader = registry_.Find(token)->frames().Subscribe(256, 0);
  ASSERT_TRUE(KeyframeFlows(token));
  // The host's registration: on a slow machine (the sanitizers) it comes after the first frames.
  ASSERT_TRUE(Eventually([&] { return signal_.connections() == 1; }, 10s));
  const int connections = signal_.connections();

  sharing.Retarget(MonitorTarget());
  EXPECT_EQ(sharing.label(), "Monitor 1");
  EXPECT_TRUE(sharing.audio_open());
  EXPECT_TRUE(sharing.audio_whole_mix());
  EXPECT_EQ(sharing.token(), token);
  EXPECT_TRUE(sharing.capture_running());
  // The same stream goes on, with a keyframe for the new picture and times that never step back.
  std::int64_t last_pts = INT64_MIN;
  int keyframes = 0;
  for (int i = 0; i < 40; ++i) {
    const auto unit = reader->Pop(500);
    ASSERT_NE(unit, nullptr);
    EXPECT_GT(unit->pts_100ns, last_pts);
    last_pts = unit->pts_100ns;
    if (unit->keyframe) ++keyframes;
  }
  EXPECT_GE(keyframes, 1);
  EXPECT_FALSE(reader->Closed());
  EXPECT_EQ(signal_.connections(), connections) << "no new registration";
}

// Making the new source takes time (a slow X server, a loaded machine) while the old one goes on
// encoding: the new frame numbers must begin after the old source's last, not where it stood
// when the retarget began.
TEST_F(SharingTest, FrameTimesRiseStrictlyThoughTheNewSourceIsSlowToMake) {
  auto first = OpenWindow("First", "FF0000");
  auto second = OpenWindow("Second", "0000FF");
  auto config = SmallConfig();
  config.audio_enabled = false;
  std::atomic<int> made{0};
  CaptureFactories factories;
  factories.picture = [&made](const capture::CaptureTarget& target) {
    if (made++ > 0) std::this_thread::sleep_for(400ms);  // Six frame intervals at 15 fps.
    return capture::CreateCapturer(target);
  };
  Sharing sharing(registry_, config, factories);
  sharing.Start(WindowTarget(*first, "first"));
  const auto reader = registry_.Find(sharing.token())->frames().Subscribe(256, 0);
  ASSERT_TRUE(KeyframeFlows(sharing.token()));

  sharing.Retarget(WindowTarget(*second, "second"));
  std::int64_t last_pts = INT64_MIN;
  for (int i = 0; i < 30; ++i) {
    const auto unit = reader->Pop(1000);
    ASSERT_NE(unit, nullptr);
    EXPECT_GT(unit->pts_100ns, last_pts) << "unit " << i;
    last_pts = unit->pts_100ns;
  }
}

TEST_F(SharingTest, RetargetToATargetThatCannotBeOpenedLeavesTheShareAsItWas) {
  auto window = OpenWindow("Stays", "FF0000");
  auto config = SmallConfig();
  config.audio_enabled = false;
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "stays"));
  ShareTarget gone;
  gone.capture.window = 0x7FFFFF;  // No such window.
  gone.label = "gone";
  EXPECT_ANY_THROW(sharing.Retarget(gone));
  EXPECT_EQ(sharing.label(), "stays");
  EXPECT_TRUE(sharing.capture_running());
  EXPECT_TRUE(KeyframeFlows(sharing.token()));
}

TEST_F(SharingTest, AFailedStartLeavesNothingRunningOrPublished) {
  Sharing sharing(registry_, SmallConfig());
  ShareTarget gone;
  gone.capture.window = 0x7FFFFF;
  gone.label = "gone";
  EXPECT_ANY_THROW(sharing.Start(gone));
  EXPECT_FALSE(sharing.active());
  EXPECT_EQ(registry_.Size(), 0u);
}

TEST_F(SharingTest, AClosedWindowIsSeenAsCaptureNoLongerRunning) {
  auto window = OpenWindow("Closing", "FF0000");
  auto config = SmallConfig();
  config.audio_enabled = false;
  Sharing sharing(registry_, config);
  sharing.Start(WindowTarget(*window, "closing"));
  ASSERT_TRUE(sharing.capture_running());
  window.reset();
  EXPECT_TRUE(Eventually([&] { return !sharing.capture_running(); }, 10s));
  EXPECT_TRUE(sharing.active()) << "the owner decides to stop";
}

// The sound server here always gives 48000 Hz, so a capturer the test drives plays a device that
// only gives 44100.
TEST_F(SharingTest, ARetargetThatOpensSoundAt44100KeepsTheAdvertisedDescription) {
  auto window = OpenWindow("Rates", "FF0000", 440);
  CaptureFactories factories;
  factories.whole_mix = [](const capture::AudioFormat&) {
    return std::make_unique<capture::FakeAudioCapturer>(capture::AudioFormat{44100, 2}, false);
  };
  auto config = SmallConfig();
  config.signal_url = signal_.url();
  const auto log = dir_.path() / "sharing.log";
  ASSERT_TRUE(SetLogFile(log));
  Sharing sharing(registry_, config, factories);
  sharing.Start(WindowTarget(*window, "window"));
  const auto stream = registry_.Find(sharing.token());
  ASSERT_TRUE(stream->Audio().has_value());
  const streams::AudioConfig advertised = *stream->Audio();
  ASSERT_EQ(advertised.sample_rate, 48000u);

  sharing.Retarget(MonitorTarget());
  EXPECT_TRUE(sharing.audio_open()) << "the new sound replaces the old, whatever viewers were told";
  EXPECT_TRUE(sharing.audio_whole_mix());
  EXPECT_EQ(*stream->Audio(), advertised);
  EXPECT_NE(testsupport::ReadFileText(log).find(
                "retarget audio=44100/2 advertised=48000/2 mismatch, keeping advertised"),
            std::string::npos);
}

TEST_F(SharingTest, WhenSoundCannotBeOpenedTheShareGoesOnWithoutIt) {
  auto window = OpenWindow("Mute", "FF0000");
  CaptureFactories factories;
  factories.process_sound = [](std::uint32_t, const capture::AudioFormat&) -> std::unique_ptr<capture::IAudioCapturer> {
    throw std::runtime_error("no sound server here");
  };
  const auto log = dir_.path() / "sharing.log";
  ASSERT_TRUE(SetLogFile(log));
  auto config = SmallConfig();
  config.signal_url = signal_.url();
  Sharing sharing(registry_, config, factories);
  sharing.Start(WindowTarget(*window, "mute"));
  EXPECT_TRUE(sharing.active());
  EXPECT_FALSE(sharing.audio_open());
  EXPECT_FALSE(registry_.Find(sharing.token())->Audio().has_value());
  EXPECT_TRUE(KeyframeFlows(sharing.token()));
  EXPECT_NE(testsupport::ReadFileText(log).find("audio unavailable: no sound server here"), std::string::npos);
  const auto host = NextHost();
  ASSERT_TRUE(host.has_value());
  EXPECT_EQ(host->at("media").at("sampleRate"), 0);
}

TEST_F(SharingTest, TheAllowlistAndPendingHandlerReachTheRunningDoor) {
  auto window = OpenWindow("Door", "FF0000");
  auto config = SmallConfig();
  config.audio_enabled = false;
  config.signal_url = signal_.url();
  Sharing sharing(registry_, config);
  sharing.SetAdmissionRequired(true);
  std::mutex mutex;
  std::vector<std::string> asked;
  sharing.Start(WindowTarget(*window, "door"));
  ASSERT_TRUE(NextHost().has_value());
  signal_.Send(R"({"type":"hosting"})");
  // Set while the share runs.
  sharing.OnViewerPending([&](const PendingViewer& viewer) {
    std::lock_guard lock(mutex);
    asked.push_back(viewer.connection_id + " " + viewer.identity);
  });
  sharing.SetAllowlist({{"usr_friend", {"Friend", {}, true}}});

  signal_.Send(R"({"type":"peer","peer":"v1","identity":"usr_stranger","displayName":"Stranger"})");
  ASSERT_TRUE(Eventually([&] { return sharing.pending_viewers().size() == 1; }));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(asked, std::vector<std::string>{"v1 usr_stranger"});
  }
  signal_.Send(R"({"type":"peer","peer":"v2","identity":"usr_friend","displayName":"Friend"})");
  ASSERT_TRUE(Eventually([&] { return sharing.viewer_count() == 1; }));
  EXPECT_EQ(sharing.viewers().at(0).connection_id, "v2");
  EXPECT_TRUE(sharing.viewers().at(0).allowlisted);

  sharing.Deny("v1");
  EXPECT_TRUE(sharing.pending_viewers().empty());
}

}  // namespace
}  // namespace mirell::session
