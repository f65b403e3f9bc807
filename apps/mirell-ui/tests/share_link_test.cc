#include "share_link.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "mirell/testsupport/subprocess.h"

#include "daemon_host.h"
#include "options.h"
#include "mirell/transport/share_token.h"
#include "mirell/transport/signal_client.h"
#include "mirell/testsupport/tcp_client.h"

namespace mirell::ui {
namespace {

constexpr std::string_view kPrefix = "mirell.example/s/";

TEST(ShareToken, QueryAndPathAreCutOff) {
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3B?t=1", kPrefix), "7QK2M0Z5XH3B");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3B/extra", kPrefix), "7QK2M0Z5XH3B");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3B#frag", kPrefix), "7QK2M0Z5XH3B");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3B&x", kPrefix), "7QK2M0Z5XH3B");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/ABCDEFGHJKMN", kPrefix), "ABCDEFGHJKMN");
}

TEST(ShareToken, AnySchemeWillDo) {
  EXPECT_EQ(ShareTokenFromUrl("ftp://mirell.example/s/7QK2M0Z5XH3B", kPrefix), "7QK2M0Z5XH3B");
  EXPECT_EQ(ShareTokenFromUrl("x://mirell.example/s/0123456789AB", kPrefix), "0123456789AB");
}

TEST(ShareToken, NothingBehindThePrefixIsNoToken) {
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/?t=1", kPrefix), "");
}

// What is no token gets no watch: another length, lower case, letters tokens are never made of,
// a CR or a blank.
TEST(ShareToken, OnlyTwelveCrockfordDigitsAreAToken) {
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3BC", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7qk2m0z5xh3b", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3I", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3L", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3O", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3U", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0Z5XH3\r", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://mirell.example/s/7QK2M0 5XH3B", kPrefix), "");
  EXPECT_TRUE(transport::IsShareToken(transport::GenerateShareCredentials().token));
}

TEST(ShareToken, ThePrefixMustStandDirectlyBehindTheScheme) {
  EXPECT_EQ(ShareTokenFromUrl("https://evil.example/https://mirell.example/s/7QK2M0Z5XH3B", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://www.mirell.example/s/7QK2M0Z5XH3B", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("https://MIRELL.example/s/7QK2M0Z5XH3B", kPrefix), "");
}

TEST(ShareToken, ShortOrSchemelessUrlsAreNoLinks) {
  EXPECT_EQ(ShareTokenFromUrl("", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("ab", kPrefix), "");
  EXPECT_EQ(ShareTokenFromUrl("mirell.example/s/7QK2M0Z5XH3B", kPrefix), "");
}

TEST(DaemonHostResolve, ShareLinkGetsTheLoopbackAddressAndOthersPass) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  DaemonHost host(config);
  host.Start();
  const auto ours = host.Resolve("https://mirell.example/s/7QK2M0Z5XH3B?t=1");
  EXPECT_EQ(ours.status, daemon::ResolveStatus::kResolved);
  EXPECT_EQ(ours.url, fmt::format("rtspt://127.0.0.1:{}/s/7QK2M0Z5XH3B", config.rtsp_port));
  EXPECT_EQ(ours.reason, "");
  const auto other = host.Resolve("https://example.com/watch?v=1");
  EXPECT_EQ(other.status, daemon::ResolveStatus::kNotOurs);
  EXPECT_EQ(other.url, "");
  EXPECT_EQ(host.Resolve("https://mirell.example/s/").status, daemon::ResolveStatus::kNotOurs);
}

// A deployment of one's own: links of the configured host resolve, the built-in host's do not.
TEST(DaemonHostResolve, TheConfiguredSignalHostsLinksAreOursAndTheDefaultOnesAreNot) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  const char* arguments[] = {"--signal", "wss://share.example.net:8443/signal"};
  const CommandLine line = ParseCommandLine(Arguments(arguments, 2), config);
  ASSERT_EQ(line.error, "");
  ApplyServiceOptions(line, config);
  DaemonHost host(config);
  host.Start();
  EXPECT_EQ(host.Resolve("https://share.example.net:8443/s/ABCDEFGHJKMN").status,
            daemon::ResolveStatus::kResolved);
  EXPECT_EQ(host.Resolve("https://mirell.example/s/ABCDEFGHJKMN").status, daemon::ResolveStatus::kNotOurs);
  EXPECT_EQ(host.Resolve("https://share.example.net/s/ABCDEFGHJKMN").status, daemon::ResolveStatus::kNotOurs)
      << "another port is another deployment";
}

// A share link resolved makes sure a stream is there at once: a watch of the link, or, for a link
// of this program's own share, its own stream with no watch and so no peer connection.
TEST(DaemonHostResolve, AShareLinkGetsAWatchAndAnOwnShareIsServedFromItsOwnStream) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  config.signal_url = "ws://127.0.0.1:9/signal";  // Nobody listens: the watch plays the card.
  DaemonHost host(config);
  host.Start();
  ASSERT_EQ(host.Resolve("https://mirell.example/s/WATCHED12345").status,
            daemon::ResolveStatus::kResolved);
  EXPECT_EQ(host.viewing().WatchCount(), 1u);
  const auto watched = host.registry().Find("WATCHED12345");
  ASSERT_NE(watched, nullptr);
  EXPECT_EQ(watched->label(), "watching WATCHED12345");

  auto own = std::make_shared<daemon::MediaStream>("sharing screen", 30, 6000);
  host.registry().Publish("MYSHARE12345", own);
  ASSERT_EQ(host.Resolve("https://mirell.example/s/MYSHARE12345").status,
            daemon::ResolveStatus::kResolved);
  EXPECT_EQ(host.viewing().WatchCount(), 1u);
  EXPECT_EQ(host.registry().Find("MYSHARE12345"), own);

  // The poll drops a watch that has ended, and its stream with it.
  host.viewing().Drop("WATCHED12345");
  host.Poll();
  EXPECT_EQ(host.viewing().WatchCount(), 0u);
  EXPECT_EQ(host.registry().Find("WATCHED12345"), nullptr);
  host.Stop();
  EXPECT_EQ(host.registry().Find("MYSHARE12345"), own) << "not the viewing side's to withdraw";
}

// Beyond the watches it keeps at once, a link is answered with the reason, never left hanging.
TEST(DaemonHostResolve, ALinkBeyondTheMostWatchedAtOnceIsAnsweredWithTheReason) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  config.signal_url = "ws://127.0.0.1:9/signal";  // Nobody listens: each watch plays the card.
  DaemonHost host(config);
  host.Start();
  for (std::size_t i = 0; i < session::Viewing::kMaxWatches; ++i) {
    ASSERT_EQ(host.Resolve(fmt::format("https://mirell.example/s/ABCDEFGHJK{:02}", i)).status,
              daemon::ResolveStatus::kResolved);
  }
  const auto refused = host.Resolve("https://mirell.example/s/ABCDEFGHJKZZ");
  EXPECT_EQ(refused.status, daemon::ResolveStatus::kFailed);
  EXPECT_EQ(refused.reason, "too many share links are playing at once");
  EXPECT_EQ(host.registry().Find("ABCDEFGHJKZZ"), nullptr);
  host.Stop();
}

TEST(DaemonHostLifecycle, StopTwiceAndStopWithoutStartDoNothing) {
  DaemonConfig config;
  config.pipe_name = "127.0.0.1:0";
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.install_stub = false;
  DaemonHost never_started(config);
  never_started.Stop();
  EXPECT_EQ(never_started.resolve_endpoint(), "");

  DaemonHost host(config);
  host.Start();
  host.Start();
  const std::string endpoint = host.resolve_endpoint();
  ASSERT_FALSE(endpoint.empty());
  const auto port = testsupport::EndpointPort(endpoint);
  EXPECT_EQ(host.rtsp_port(), config.rtsp_port);
  EXPECT_EQ(testsupport::ExchangeOnce(port, "RESOLVE https://mirell.example/s/7QK2M0Z5XH3B\n"),
            "OK rtspt://127.0.0.1:" + std::to_string(config.rtsp_port) + "/s/7QK2M0Z5XH3B\n");
  host.Stop();
  host.Stop();
  EXPECT_EQ(host.resolve_endpoint(), "");
  EXPECT_EQ(host.rtsp_port(), 0);
  EXPECT_THROW(testsupport::TcpClient client(port), std::runtime_error);
  EXPECT_THROW(testsupport::TcpClient client(config.rtsp_port), std::runtime_error);
}

TEST(DaemonHostLifecycle, StartFailsWhenTheRtspPortIsTaken) {
  DaemonConfig first_config;
  first_config.pipe_name = "127.0.0.1:0";
  first_config.rtsp_port = testsupport::FreeLoopbackPort();
  first_config.install_stub = false;
  DaemonHost first(first_config);
  first.Start();
  DaemonConfig second_config = first_config;
  DaemonHost second(second_config);
  try {
    second.Start();
    FAIL() << "bound a taken RTSP port";
  } catch (const std::exception& error) {
    EXPECT_NE(std::string(error.what()).find("rtsp: could not bind 127.0.0.1:" +
                                             std::to_string(first_config.rtsp_port)),
              std::string::npos)
        << error.what();
  }
  EXPECT_EQ(second.resolve_endpoint(), "");
  second.Stop();
}

TEST(DaemonHostLifecycle, StartFailsWhenTheEndpointIsTakenAndCleansUp) {
  DaemonConfig first_config;
  first_config.pipe_name = "127.0.0.1:0";
  first_config.rtsp_port = testsupport::FreeLoopbackPort();
  first_config.install_stub = false;
  DaemonHost first(first_config);
  first.Start();
  DaemonConfig second_config;
  second_config.rtsp_port = 0;
  second_config.install_stub = false;
  second_config.pipe_name = first.resolve_endpoint();
  DaemonHost second(second_config);
  EXPECT_THROW(second.Start(), std::exception);
  second.Stop();
  EXPECT_EQ(second.resolve_endpoint(), "");
}

TEST(DaemonHostLifecycle, WithoutAStubToInstallTheServicesStillRun) {
  testsupport::TempDir home;
  setenv("HOME", home.path().c_str(), 1);
  DaemonConfig config;
  config.pipe_name = "127.0.0.1:0";
  config.rtsp_port = testsupport::FreeLoopbackPort();
  DaemonHost host(config);
  host.Start();  // No VRChat under this home: the stub cannot go in, and that is survived.
  EXPECT_FALSE(host.stub_installed());
  EXPECT_FALSE(host.resolve_endpoint().empty());
  EXPECT_EQ(host.rtsp_port(), config.rtsp_port);
  host.Stop();
}

}  // namespace
}  // namespace mirell::ui
