#include "options.h"

#include "lan_address.h"
#include "meeting_place.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <vector>

namespace mirell::ui {
namespace {

constexpr const char* kFriend = "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413";

// Holds argument texts for a parse.
struct Args {
  explicit Args(std::vector<const char*> list) : values(std::move(list)) {}
  Arguments span() const { return {values.data(), values.size()}; }
  std::vector<const char*> values;
};

CommandLine Parse(std::vector<const char*> arguments) {
  return ParseCommandLine(Args(std::move(arguments)).span(), DaemonConfig{});
}

TEST(CommandLine, HelpAndVersionAreFoundAnywhereAndHelpWins) {
  EXPECT_EQ(Parse({"--no-stub"}).info, InfoRequest::kNone);
  EXPECT_EQ(Parse({"--no-stub", "--help"}).info, InfoRequest::kHelp);
  EXPECT_EQ(Parse({"-h"}).info, InfoRequest::kHelp);
  EXPECT_EQ(Parse({"--version"}).info, InfoRequest::kVersion);
  EXPECT_EQ(Parse({"--version", "--help"}).info, InfoRequest::kHelp);
  EXPECT_EQ(Parse({"--help", "--version"}).info, InfoRequest::kHelp);
  // Help is given even beside a mistake: the person is looking for the right spelling.
  EXPECT_EQ(Parse({"--share-windw", "x", "--help"}).info, InfoRequest::kHelp);
}

TEST(CommandLine, DefaultsWhenNothingIsGiven) {
  const CommandLine line = Parse({});
  EXPECT_EQ(line.error, "");
  EXPECT_EQ(line.start.rtsp_port, 8554);
  EXPECT_EQ(line.start.pipe_name, "127.0.0.1:8555");
  EXPECT_FALSE(line.start.debug_log);
  EXPECT_FALSE(line.share.wants_share());
  EXPECT_FALSE(line.signal_url.has_value());
  EXPECT_FALSE(line.update_url.has_value());
  EXPECT_FALSE(line.restore_vrchat);
}

TEST(CommandLine, UnknownOrMisspeltOptionsAreMistakes) {
  EXPECT_EQ(Parse({"--share-windw", "Demo"}).error, "unknown option \"--share-windw\"");
  EXPECT_EQ(Parse({"--RTSP-PORT", "1"}).error, "unknown option \"--RTSP-PORT\"");
  EXPECT_EQ(Parse({"--rtsp-port=2"}).error, "unknown option \"--rtsp-port=2\"");
  EXPECT_EQ(Parse({"-debug-log"}).error, "unknown option \"-debug-log\"");
  EXPECT_EQ(Parse({"Demo"}).error,
            "unexpected \"Demo\": mirell-ui takes options only (a value belongs behind its option)");
  EXPECT_EQ(Parse({"--no-stub", "--whatever", "--wrong"}).error, "unknown option \"--whatever\"")
      << "the first mistake is the one told";
}

TEST(CommandLine, AValueMissingOrThatIsAnOptionIsAMistake) {
  EXPECT_EQ(Parse({"--rtsp-port"}).error, "--rtsp-port needs a value (N)");
  EXPECT_EQ(Parse({"--share-window", "--no-stub"}).error,
            "--share-window needs a value (TEXT), not the option \"--no-stub\"");
  EXPECT_EQ(Parse({"--signal", "--debug-log"}).error,
            "--signal needs a value (URL), not the option \"--debug-log\"");
  EXPECT_EQ(Parse({"--update-url", ""}).error, "") << "an empty value is a value";
}

TEST(CommandLine, APortIsANumberFrom0To65535) {
  EXPECT_EQ(Parse({"--rtsp-port", "0"}).start.rtsp_port, 0);
  EXPECT_EQ(Parse({"--rtsp-port", "65535"}).start.rtsp_port, 65535);
  for (const char* bad : {"70000", "65536", "abc", "-1", "", "80x", "1e3"}) {
    EXPECT_EQ(Parse({"--rtsp-port", bad}).error,
              std::string("--rtsp-port takes a port number from 0 to 65535, not \"") + bad + "\"")
        << bad;
  }
}

TEST(CommandLine, RepeatsReplaceTheEarlierValueAndAllowAdds) {
  const CommandLine line = Parse({"--rtsp-port", "1000", "--pipe", "127.0.0.1:1", "--rtsp-port", "2000",
                                  "--pipe", "127.0.0.1:2", "--allow", kFriend, "--allow", "4KxR2TmqZa"});
  EXPECT_EQ(line.error, "");
  EXPECT_EQ(line.start.rtsp_port, 2000);
  EXPECT_EQ(line.start.pipe_name, "127.0.0.1:2");
  EXPECT_EQ(line.share.allow, (std::vector<std::string>{kFriend, "4KxR2TmqZa"}));
}

TEST(CommandLine, ServiceOptionsGoIntoTheConfiguration) {
  const CommandLine line = Parse({"--no-stub", "--rtsp-port", "9554", "--pipe", "127.0.0.1:9555", "--signal",
                                  "wss://other.example/signal", "--update-url", "https://u.example/latest"});
  ASSERT_EQ(line.error, "");
  DaemonConfig config;
  ApplyServiceOptions(line, config);
  EXPECT_FALSE(config.install_stub);
  EXPECT_EQ(config.rtsp_port, 9554);
  EXPECT_EQ(config.pipe_name, "127.0.0.1:9555");
  EXPECT_EQ(config.signal_url, "wss://other.example/signal");
  EXPECT_EQ(line.update_url, std::optional<std::string>("https://u.example/latest"));
}

TEST(CommandLine, TheSignalUrlMovesTheSharePrefixToItsHost) {
  DaemonConfig config;
  ApplyServiceOptions(Parse({"--signal", "wss://signal.example.org:8443/signal"}), config);
  EXPECT_EQ(config.share_prefix, "signal.example.org:8443/s/");
  EXPECT_EQ(DeriveUpdateUrl(config.signal_url), "https://signal.example.org:8443/latest");
  DaemonConfig plain;
  ApplyServiceOptions(Parse({"--signal", "ws://127.0.0.1:8080/signal"}), plain);
  EXPECT_EQ(plain.share_prefix, "127.0.0.1:8080/s/");
  DaemonConfig untouched;
  ApplyServiceOptions(Parse({}), untouched);
  EXPECT_EQ(untouched.share_prefix, "") << "no placeholder: nothing is shared until a place is chosen";
  EXPECT_EQ(untouched.signal_url, "");
  EXPECT_EQ(DeriveSharePrefix("wss://h?x"), "h/s/");
  EXPECT_EQ(DeriveSharePrefix("https://host/signal"), "");
}

TEST(CommandLine, ASignalUrlThatNoConnectionCouldUseIsAMistake) {
  for (const char* url : {"https://host/signal", "host/signal", "wss:///signal", "wss://u@host/x", ""}) {
    const CommandLine line = Parse({"--signal", url});
    EXPECT_NE(line.error.find("--signal takes the ws:// or wss:// URL"), std::string::npos) << url;
    EXPECT_FALSE(line.signal_url.has_value());
  }
}

// "This computer": the program serves the signal protocol itself, meets its own clients on
// loopback, and its links name its network address.
TEST(CommandLine, LocalMakesThisComputerTheMeetingPlace) {
  DaemonConfig config;
  ApplyServiceOptions(Parse({"--signal", "local"}), config);
  EXPECT_EQ(config.local_signal_port, 8443);
  EXPECT_EQ(config.signal_url, "ws://127.0.0.1:8443/signal");
  EXPECT_EQ(config.share_prefix, LanAddress() + ":8443/s/");
  EXPECT_EQ(DeriveUpdateUrl(config.signal_url), "") << "nothing to ask a plain server of one's own";
  DaemonConfig other;
  ApplyServiceOptions(Parse({"--signal", "local:9443"}), other);
  EXPECT_EQ(other.local_signal_port, 9443);
  EXPECT_EQ(other.signal_url, "ws://127.0.0.1:9443/signal");
  DaemonConfig elsewhere;
  ApplyServiceOptions(Parse({"--signal", "wss://share.example.org/signal"}), elsewhere);
  EXPECT_EQ(elsewhere.local_signal_port, 0);
}

TEST(CommandLine, ALocalPlaceWithABadPortIsAMistake) {
  for (const char* place : {"local:", "local:0", "local:70000", "local:abc", "local:80x", "localhost",
                            "local:1234567", "LOCAL"}) {
    const CommandLine line = Parse({"--signal", place});
    EXPECT_NE(line.error.find("or local, or local:PORT"), std::string::npos) << place << ": " << line.error;
    EXPECT_FALSE(line.signal_url.has_value()) << place;
  }
  EXPECT_EQ(LocalMeetingPort("local:1"), 1);
  EXPECT_EQ(LocalMeetingPort("local:65535"), 65535);
}

TEST(CommandLine, AdmitAndDenyAreOneDecisionWithoutAShare) {
  EXPECT_EQ(Parse({"--admit", "c7"}).admit, std::optional<std::string>("c7"));
  EXPECT_EQ(Parse({"--deny", "c7"}).deny, std::optional<std::string>("c7"));
  EXPECT_EQ(Parse({"--admit", "c7", "--deny", "c8"}).error,
            "--admit and --deny cannot both be given: one decision at a time");
  EXPECT_EQ(Parse({"--admit", "c7", "--share-monitor", "0"}).error,
            "--admit and --deny decide about a viewer of the running share; they start no share");
  EXPECT_EQ(Parse({"--deny", ""}).error, "--admit and --deny need the waiting viewer's id, as the log names it");
  EXPECT_EQ(Parse({"--admit"}).error, "--admit needs a value (PEER)");
}

TEST(CommandLine, EmptyUpdateUrlIsGiven) {
  const CommandLine line = Parse({"--update-url", ""});
  ASSERT_TRUE(line.update_url.has_value());
  EXPECT_EQ(*line.update_url, "");
}

TEST(SignalUrl, OnlyAWebSocketUrlWithAHostIsUsable) {
  EXPECT_EQ(MeetingPlaceError("ws://127.0.0.1:8080/signal"), "");
  EXPECT_EQ(MeetingPlaceError("WSS://mirell.example/signal"), "");
  for (const char* url : {"", "https://mirell.example/signal", "ftp://x", "wss://", "ws://host:0/signal",
                          "ws://user@host/signal", "--debug-log", "mirell.example/signal"}) {
    const std::string error = MeetingPlaceError(url);
    EXPECT_NE(error.find("ws:// or wss://"), std::string::npos) << url;
    EXPECT_NE(error.find(std::string("\"") + url + "\""), std::string::npos) << error;
  }
}

TEST(UpdateUrl, DerivedFromTheSecureSignalUrl) {
  EXPECT_EQ(DeriveUpdateUrl(DaemonConfig{}.signal_url), "") << "no meeting place, no update check";
  EXPECT_EQ(DeriveUpdateUrl("wss://mirell.example/signal"), "https://mirell.example/latest");
  EXPECT_EQ(DeriveUpdateUrl("wss://host.example:8443/signal/x"), "https://host.example:8443/latest");
}

TEST(UpdateUrl, OffForOtherSchemesAndUrlsWithoutAPath) {
  EXPECT_EQ(DeriveUpdateUrl("ws://mirell.example/signal"), "");
  EXPECT_EQ(DeriveUpdateUrl("https://mirell.example/signal"), "");
  EXPECT_EQ(DeriveUpdateUrl("wss://mirell.example"), "");
  EXPECT_EQ(DeriveUpdateUrl("mirell.example/signal"), "");
  EXPECT_EQ(DeriveUpdateUrl(""), "");
}

TEST(ShareOptions, AWindowByPartOfItsTitleWithEveryAllowedUser) {
  const CommandLine line =
      Parse({"--allow", kFriend, "--share-window", "Demo", "--allow", "4KxR2TmqZa", "--admit-everyone"});
  EXPECT_EQ(line.error, "");
  EXPECT_TRUE(line.share.wants_share());
  EXPECT_EQ(line.share.window_title, "Demo");
  EXPECT_FALSE(line.share.monitor.has_value());
  EXPECT_EQ(line.share.allow, (std::vector<std::string>{kFriend, "4KxR2TmqZa"}));
  EXPECT_TRUE(line.share.admit_everyone);
  EXPECT_FALSE(line.share.is_public);
  EXPECT_TRUE(Parse({"--share-window", "Demo", "--public"}).share.is_public);
}

TEST(ShareOptions, AMonitorByItsIndex) {
  const CommandLine line = Parse({"--share-monitor", "1"});
  ASSERT_TRUE(line.share.monitor.has_value());
  EXPECT_EQ(*line.share.monitor, 1u);
  EXPECT_TRUE(line.share.wants_share());
  EXPECT_EQ(line.error, "");
}

TEST(ShareOptions, WhatCannotBeFollowedIsAMistakeNotAnotherShare) {
  EXPECT_EQ(Parse({"--share-monitor", "second"}).error,
            "--share-monitor takes a monitor number (0 is the first), not \"second\"");
  EXPECT_EQ(Parse({"--share-monitor", "-1"}).error,
            "--share-monitor takes a monitor number (0 is the first), not \"-1\"");
  EXPECT_EQ(Parse({"--share-window", ""}).error, "--share-window needs part of a window's title");
  EXPECT_EQ(Parse({"--share-window", "Demo", "--share-monitor", "0"}).error,
            "--share-window and --share-monitor cannot both be given: a share has one target");
  EXPECT_EQ(Parse({"--share-window", "Demo", "--allow", "usr_friend"}).error,
            "--allow takes a VRChat user id (\"usr_\" and 36 more characters, or an older id of 6 to 20 letters "
            "and digits), not \"usr_friend\"");
  EXPECT_NE(Parse({"--allow", ""}).error, "");
  EXPECT_EQ(Parse({"--tools-dir", "/x"}).error, "--tools-dir goes with --restore-vrchat");
}

TEST(ShareOptions, AQualityOfSizeAndRate) {
  const CommandLine line = Parse({"--quality", "1920x1080@30"});
  EXPECT_EQ(line.error, "");
  EXPECT_EQ(line.share.width, 1920u);
  EXPECT_EQ(line.share.height, 1080u);
  EXPECT_EQ(line.share.fps, 30u);
  EXPECT_FALSE(Parse({}).share.width.has_value());
  for (const char* bad : {"1920x1080", "1921x1080@30", "1920x1080@0", "1920x1080@61", "100x100@30",
                          "8000x1080@30", "1920x1080@30fps", "big"}) {
    EXPECT_NE(Parse({"--quality", bad}).error.find("--quality takes WIDTHxHEIGHT@FPS"), std::string::npos) << bad;
  }
}

TEST(ShareOptions, ATimeLimitInMinutesOrNone) {
  EXPECT_FALSE(Parse({}).share.minutes.has_value());
  EXPECT_EQ(Parse({"--share-minutes", "30"}).share.minutes, 30u);
  EXPECT_EQ(Parse({"--share-minutes", "0"}).share.minutes, 0u);
  EXPECT_EQ(Parse({"--share-minutes", "1440"}).share.minutes, 1440u);
  for (const char* bad : {"1441", "-1", "", "10m", "99999", "1.5"}) {
    EXPECT_EQ(Parse({"--share-minutes", bad}).error,
              std::string("--share-minutes takes a number of minutes from 0 (no limit) to 1440, not \"") + bad + "\"")
        << bad;
  }
}

TEST(ShareOptions, TheRestoreRunAndItsFolder) {
  const CommandLine line = Parse({"--tools-dir", "/a", "--restore-vrchat", "--tools-dir", "/b"});
  EXPECT_EQ(line.error, "");
  EXPECT_TRUE(line.restore_vrchat);
  EXPECT_EQ(line.tools_dir, std::optional<std::string>("/b"));
  EXPECT_EQ(Parse({"--restore-vrchat", "--tools-dir"}).error, "--tools-dir needs a value (DIR)");
}

// The help text is written from the table the parser reads; README lists the same options.
TEST(Usage, EveryOptionIsInTheHelpAndInTheReadme) {
  const std::string usage = UsageText();
  std::ifstream file(MIRELL_README);
  std::stringstream readme;
  readme << file.rdbuf();
  ASSERT_FALSE(readme.str().empty());
  for (const std::string& name : OptionNames()) {
    EXPECT_NE(usage.find(" " + name + " "), std::string::npos) << name;
    EXPECT_NE(readme.str().find("`" + name), std::string::npos) << name << " is not in README.md";
  }
  EXPECT_NE(usage.find("  -h, --help "), std::string::npos);
  EXPECT_NE(usage.find("2 for a command line it cannot follow"), std::string::npos);
}

}  // namespace
}  // namespace mirell::ui
