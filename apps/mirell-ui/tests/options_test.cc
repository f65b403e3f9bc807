#include "options.h"

#include <gtest/gtest.h>

#include <vector>

namespace mirell::ui {
namespace {

constexpr const char* kFriend = "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413";

// Holds argument texts for a scan.
struct Args {
  explicit Args(std::vector<const char*> list) : values(std::move(list)) {}
  Arguments span() const { return {values.data(), values.size()}; }
  std::vector<const char*> values;
};

TEST(InfoOptions, HelpAndVersionAreFoundAnywhereAndHelpWins) {
  EXPECT_EQ(ScanInfoOptions(Args({"--no-stub"}).span()), InfoRequest::kNone);
  EXPECT_EQ(ScanInfoOptions(Args({"--no-stub", "--help"}).span()), InfoRequest::kHelp);
  EXPECT_EQ(ScanInfoOptions(Args({"-h"}).span()), InfoRequest::kHelp);
  EXPECT_EQ(ScanInfoOptions(Args({"--version"}).span()), InfoRequest::kVersion);
  EXPECT_EQ(ScanInfoOptions(Args({"--version", "--help"}).span()), InfoRequest::kHelp);
  EXPECT_EQ(ScanInfoOptions(Args({"--help", "--version"}).span()), InfoRequest::kHelp);
  // Matched exactly and case-sensitively, as every option.
  EXPECT_EQ(ScanInfoOptions(Args({"--HELP", "-help", "--helps"}).span()), InfoRequest::kNone);
}

TEST(StartOptions, DefaultsWhenNothingIsGiven) {
  const auto options = ScanStartOptions(Args({}).span(), DaemonConfig{});
  EXPECT_EQ(options.rtsp_port, 8554);
  EXPECT_EQ(options.pipe_name, "127.0.0.1:8555");
  EXPECT_FALSE(options.debug_log);
}

TEST(StartOptions, PortAsTheLastArgumentHasNoValueAndKeepsTheDefault) {
  const auto options = ScanStartOptions(Args({"--rtsp-port"}).span(), DaemonConfig{});
  EXPECT_EQ(options.rtsp_port, 8554);
  DaemonConfig config;
  ScanServiceOptions(Args({"--pipe", "127.0.0.1:9000", "--rtsp-port"}).span(), config);
  EXPECT_EQ(config.rtsp_port, 8554);
  EXPECT_EQ(config.pipe_name, "127.0.0.1:9000");
}

TEST(StartOptions, RepeatsAreAllowedAndTheLastWins) {
  const auto options = ScanStartOptions(
      Args({"--rtsp-port", "1000", "--pipe", "127.0.0.1:1", "--rtsp-port", "2000", "--pipe",
            "127.0.0.1:2"})
          .span(),
      DaemonConfig{});
  EXPECT_EQ(options.rtsp_port, 2000);
  EXPECT_EQ(options.pipe_name, "127.0.0.1:2");
}

TEST(StartOptions, PortWrapsToSixteenBitsAndTextIsZero) {
  EXPECT_EQ(ScanStartOptions(Args({"--rtsp-port", "70000"}).span(), DaemonConfig{}).rtsp_port,
            4464);
  EXPECT_EQ(ScanStartOptions(Args({"--rtsp-port", "abc"}).span(), DaemonConfig{}).rtsp_port, 0);
  DaemonConfig config;
  ScanServiceOptions(Args({"--rtsp-port", "70000"}).span(), config);
  EXPECT_EQ(config.rtsp_port, 4464);
}

TEST(StartOptions, MatchingIsExactAndCaseSensitiveAndUnknownsAreIgnored) {
  const auto options = ScanStartOptions(
      Args({"--RTSP-PORT", "1", "--rtsp-port=2", "--debug-logs", "-debug-log", "--whatever"})
          .span(),
      DaemonConfig{});
  EXPECT_EQ(options.rtsp_port, 8554);
  EXPECT_FALSE(options.debug_log);
}

TEST(Scans, EachScanKnowsOnlyItsOwnOptions) {
  // "--debug-log" behind "--signal" is the signal URL in the second scan and switches on debug
  // logging in the first.
  const Args args({"--signal", "--debug-log"});
  EXPECT_TRUE(ScanStartOptions(args.span(), DaemonConfig{}).debug_log);
  DaemonConfig config;
  ScanServiceOptions(args.span(), config);
  EXPECT_EQ(config.signal_url, "--debug-log");
}

TEST(Scans, AValueIsNotReadAsAnOptionOfTheSameScan) {
  DaemonConfig config;
  ScanServiceOptions(Args({"--signal", "--no-stub"}).span(), config);
  EXPECT_EQ(config.signal_url, "--no-stub");
  EXPECT_TRUE(config.install_stub);
}

TEST(ServiceOptions, ReadsEveryOption) {
  DaemonConfig config;
  const auto update_url = ScanServiceOptions(
      Args({"--no-stub", "--rtsp-port", "9554", "--pipe", "127.0.0.1:9555", "--signal",
            "wss://other.example/signal", "--update-url", "https://u.example/latest"})
          .span(),
      config);
  EXPECT_FALSE(config.install_stub);
  EXPECT_EQ(config.rtsp_port, 9554);
  EXPECT_EQ(config.pipe_name, "127.0.0.1:9555");
  EXPECT_EQ(config.signal_url, "wss://other.example/signal");
  EXPECT_EQ(update_url, std::optional<std::string>("https://u.example/latest"));
}

TEST(ServiceOptions, TheSignalUrlMovesTheSharePrefixToItsHost) {
  DaemonConfig config;
  ScanServiceOptions(Args({"--signal", "wss://signal.example.org:8443/signal"}).span(), config);
  EXPECT_EQ(config.share_prefix, "signal.example.org:8443/s/");
  EXPECT_EQ(DeriveUpdateUrl(config.signal_url), "https://signal.example.org:8443/latest");
  DaemonConfig plain;
  ScanServiceOptions(Args({"--signal", "ws://127.0.0.1:8080/signal"}).span(), plain);
  EXPECT_EQ(plain.share_prefix, "127.0.0.1:8080/s/");
  DaemonConfig untouched;
  ScanServiceOptions(Args({}).span(), untouched);
  EXPECT_EQ(untouched.share_prefix, "mirell.example/s/");
}

TEST(ServiceOptions, ASignalUrlOfAnotherFormKeepsTheBuiltInPrefix) {
  for (const char* url : {"https://host/signal", "host/signal", "wss:///signal", "wss://u@host/x", ""}) {
    DaemonConfig config;
    ScanServiceOptions(Args({"--signal", url}).span(), config);
    EXPECT_EQ(config.share_prefix, "mirell.example/s/") << url;
    EXPECT_EQ(config.signal_url, url);
  }
  EXPECT_EQ(DeriveSharePrefix("wss://h?x"), "h/s/");
}

TEST(ServiceOptions, EmptyUpdateUrlIsGivenAndStopsTheDerivation) {
  DaemonConfig config;
  const auto update_url = ScanServiceOptions(Args({"--update-url", ""}).span(), config);
  ASSERT_TRUE(update_url.has_value());
  EXPECT_EQ(*update_url, "");
  EXPECT_FALSE(ScanServiceOptions(Args({}).span(), config).has_value());
}

TEST(SignalUrl, OnlyAWebSocketUrlWithAHostIsUsable) {
  EXPECT_EQ(SignalUrlError(DaemonConfig{}.signal_url), "");
  EXPECT_EQ(SignalUrlError("ws://127.0.0.1:8080/signal"), "");
  EXPECT_EQ(SignalUrlError("WSS://mirell.example/signal"), "");
  for (const char* url : {"", "https://mirell.example/signal", "ftp://x", "wss://", "ws://host:0/signal",
                          "ws://user@host/signal", "--debug-log", "mirell.example/signal"}) {
    const std::string error = SignalUrlError(url);
    EXPECT_NE(error.find("ws:// or wss://"), std::string::npos) << url;
    EXPECT_NE(error.find(std::string("\"") + url + "\""), std::string::npos) << error;
  }
}

TEST(UpdateUrl, DerivedFromTheSecureSignalUrl) {
  EXPECT_EQ(DeriveUpdateUrl(DaemonConfig{}.signal_url), "https://mirell.example/latest");
  EXPECT_EQ(DeriveUpdateUrl("wss://host.example:8443/signal/x"),
            "https://host.example:8443/latest");
}

TEST(UpdateUrl, OffForOtherSchemesAndUrlsWithoutAPath) {
  EXPECT_EQ(DeriveUpdateUrl("ws://mirell.example/signal"), "");
  EXPECT_EQ(DeriveUpdateUrl("https://mirell.example/signal"), "");
  EXPECT_EQ(DeriveUpdateUrl("wss://mirell.example"), "");
  EXPECT_EQ(DeriveUpdateUrl("mirell.example/signal"), "");
  EXPECT_EQ(DeriveUpdateUrl(""), "");
}

TEST(ShareOptions, NothingAskedForMeansNoShareAndNoError) {
  const auto options = ScanShareOptions(Args({"--rtsp-port", "9000", "--no-stub"}).span());
  EXPECT_FALSE(options.wants_share());
  EXPECT_TRUE(options.allow.empty());
  EXPECT_FALSE(options.admit_everyone);
  EXPECT_EQ(options.error, "");
}

TEST(ShareOptions, AWindowByPartOfItsTitleWithEveryAllowedUser) {
  const auto options = ScanShareOptions(
      Args({"--allow", kFriend, "--share-window", "Demo", "--allow", "4KxR2TmqZa", "--admit-everyone"}).span());
  EXPECT_TRUE(options.wants_share());
  EXPECT_EQ(options.window_title, "Demo");
  EXPECT_FALSE(options.monitor.has_value());
  EXPECT_EQ(options.allow, (std::vector<std::string>{kFriend, "4KxR2TmqZa"}));
  EXPECT_TRUE(options.admit_everyone);
  EXPECT_EQ(options.error, "");
}

TEST(ShareOptions, AMonitorByItsIndex) {
  const auto options = ScanShareOptions(Args({"--share-monitor", "1"}).span());
  ASSERT_TRUE(options.monitor.has_value());
  EXPECT_EQ(*options.monitor, 1u);
  EXPECT_TRUE(options.wants_share());
  EXPECT_EQ(options.error, "");
}

TEST(ShareOptions, WhatCannotBeFollowedIsAnErrorNotAnotherShare) {
  EXPECT_EQ(ScanShareOptions(Args({"--share-monitor", "second"}).span()).error,
            "--share-monitor takes a monitor number (0 is the first), not \"second\"");
  EXPECT_EQ(ScanShareOptions(Args({"--share-monitor", "-1"}).span()).error,
            "--share-monitor takes a monitor number (0 is the first), not \"-1\"");
  EXPECT_EQ(ScanShareOptions(Args({"--share-window", ""}).span()).error,
            "--share-window needs part of a window's title");
  EXPECT_EQ(ScanShareOptions(Args({"--share-window", "Demo", "--share-monitor", "0"}).span()).error,
            "--share-window and --share-monitor cannot both be given: a share has one target");
  EXPECT_EQ(ScanShareOptions(Args({"--share-window", "Demo", "--allow", "usr_friend"}).span()).error,
            "--allow takes a VRChat user id (\"usr_\" and 36 more characters, or an older id of 6 to 20 letters "
            "and digits), not \"usr_friend\"");
  EXPECT_NE(ScanShareOptions(Args({"--allow", ""}).span()).error, "");
}

TEST(ShareOptions, AQualityOfSizeAndRate) {
  const auto options = ScanShareOptions(Args({"--quality", "1920x1080@30"}).span());
  EXPECT_EQ(options.error, "");
  EXPECT_EQ(options.width, 1920u);
  EXPECT_EQ(options.height, 1080u);
  EXPECT_EQ(options.fps, 30u);
  EXPECT_FALSE(ScanShareOptions(Args({}).span()).width.has_value());
  for (const char* bad : {"1920x1080", "1921x1080@30", "1920x1080@0", "1920x1080@61", "100x100@30",
                          "8000x1080@30", "1920x1080@30fps", "big"}) {
    EXPECT_NE(ScanShareOptions(Args({"--quality", bad}).span()).error.find("--quality takes WIDTHxHEIGHT@FPS"),
              std::string::npos)
        << bad;
  }
}

TEST(ShareOptions, ATimeLimitInMinutesOrNone) {
  EXPECT_FALSE(ScanShareOptions(Args({}).span()).minutes.has_value());
  EXPECT_EQ(ScanShareOptions(Args({"--share-minutes", "30"}).span()).minutes, 30u);
  EXPECT_EQ(ScanShareOptions(Args({"--share-minutes", "0"}).span()).minutes, 0u);
  EXPECT_EQ(ScanShareOptions(Args({"--share-minutes", "1440"}).span()).minutes, 1440u);
  for (const char* bad : {"1441", "-1", "", "10m", "99999", "1.5"}) {
    EXPECT_EQ(ScanShareOptions(Args({"--share-minutes", bad}).span()).error,
              std::string("--share-minutes takes a number of minutes from 0 (no limit) to 1440, not \"") +
                  bad + "\"")
        << bad;
  }
}

}  // namespace
}  // namespace mirell::ui
