#include "share_link.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include "mirell/testsupport/subprocess.h"

#include "daemon_host.h"
#include "lan_address.h"
#include "meeting_place.h"
#include "options.h"
#include "mirell/protocol/share_token.h"
#include "mirell/protocol/signal_endpoint.h"
#include "mirell/signal/signal_server.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/transport/signal_client.h"
#include "mirell/transport/signal_endpoint.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;
using testsupport::Eventually;
using transport::HttpsGetLimits;

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
  EXPECT_TRUE(protocol::IsShareToken(protocol::GenerateShareCredentials().token));
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

TEST(ShareLink, AnyHostsLinkNamesItsSignalServer) {
  const auto secure = ParseShareLink("https://share.example.org/s/7QK2M0Z5XH3B?t=1");
  ASSERT_TRUE(secure.has_value());
  EXPECT_EQ(secure->token, "7QK2M0Z5XH3B");
  EXPECT_EQ(secure->authority, "share.example.org");
  EXPECT_EQ(secure->signal_url, "wss://share.example.org/signal");
  const auto plain = ParseShareLink("HTTP://192.168.1.20:8443/s/7QK2M0Z5XH3B");
  ASSERT_TRUE(plain.has_value());
  EXPECT_EQ(plain->signal_url, "ws://192.168.1.20:8443/signal");
  const auto literal = ParseShareLink("https://[2001:db8::1]:8443/s/7QK2M0Z5XH3B#x");
  ASSERT_TRUE(literal.has_value());
  EXPECT_EQ(literal->signal_url, "wss://[2001:db8::1]:8443/signal");
}

TEST(ShareLink, WhatIsNotTheLinkFormIsNoLink) {
  for (const char* url : {
           "ftp://share.example.org/s/7QK2M0Z5XH3B",        // Only web links name a server.
           "https://share.example.org/x/7QK2M0Z5XH3B",      // Another path.
           "https://share.example.org/a/s/7QK2M0Z5XH3B",    // "/s/" not first.
           "https://share.example.org/s/7QK2M0Z5XH3",       // No token.
           "https://share.example.org/s/",                  //
           "https://friend@share.example.org/s/7QK2M0Z5XH3B",  // User-info hides the host.
           "https://share.example.org\\@evil.example/s/7QK2M0Z5XH3B",
           "https://share example.org/s/7QK2M0Z5XH3B",
           "https:///s/7QK2M0Z5XH3B",
           "https://share.example.org",
           "share.example.org/s/7QK2M0Z5XH3B",
           "",
       }) {
    EXPECT_FALSE(ParseShareLink(url).has_value()) << url;
  }
}

TEST(DaemonHostResolve, ShareLinkGetsTheLoopbackAddressAndOthersPass) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  config.share_prefix = std::string(kPrefix);
  DaemonHost host(config);
  host.Start();
  const auto ours = host.Resolve("https://mirell.example/s/7QK2M0Z5XH3B?t=1");
  EXPECT_EQ(ours.status, resolve::ResolveStatus::kResolved);
  EXPECT_EQ(ours.url, fmt::format("rtspt://127.0.0.1:{}/s/7QK2M0Z5XH3B", config.rtsp_port));
  EXPECT_EQ(ours.reason, "");
  const auto other = host.Resolve("https://example.com/watch?v=1");
  EXPECT_EQ(other.status, resolve::ResolveStatus::kNotOurs);
  EXPECT_EQ(other.url, "");
  EXPECT_EQ(host.Resolve("https://mirell.example/s/").status, resolve::ResolveStatus::kNotOurs);
}

// A deployment of one's own: links of the configured host resolve, the built-in host's do not.
TEST(DaemonHostResolve, TheConfiguredSignalHostsLinksAreOursAndTheDefaultOnesAreNot) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  config.share_prefix = std::string(kPrefix);
  const char* arguments[] = {"--signal", "wss://share.example.net:8443/signal"};
  const CommandLine line = ParseCommandLine(Arguments(arguments, 2), config);
  ASSERT_EQ(line.error, "");
  ApplyServiceOptions(line, config);
  DaemonHost host(config);
  host.Start();
  EXPECT_EQ(host.Resolve("https://share.example.net:8443/s/ABCDEFGHJKMN").status,
            resolve::ResolveStatus::kResolved);
  EXPECT_EQ(host.Resolve("https://mirell.example/s/ABCDEFGHJKMN").status, resolve::ResolveStatus::kNotOurs);
  EXPECT_EQ(host.Resolve("https://share.example.net/s/ABCDEFGHJKMN").status, resolve::ResolveStatus::kNotOurs)
      << "another port is another deployment";
}

// A share link resolved makes sure a stream is there at once: a watch of the link, or, for a link
// of this program's own share, its own stream with no watch and so no peer connection.
TEST(DaemonHostResolve, AShareLinkGetsAWatchAndAnOwnShareIsServedFromItsOwnStream) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  config.share_prefix = std::string(kPrefix);
  config.signal_url = "ws://127.0.0.1:9/signal";  // Nobody listens: the watch plays the card.
  DaemonHost host(config);
  host.Start();
  ASSERT_EQ(host.Resolve("https://mirell.example/s/WATCHED12345").status,
            resolve::ResolveStatus::kResolved);
  EXPECT_EQ(host.viewing().WatchCount(), 1u);
  const auto watched = host.registry().Find("WATCHED12345");
  ASSERT_NE(watched, nullptr);
  EXPECT_EQ(watched->label(), "watching WATCHED12345");

  auto own = std::make_shared<streams::MediaStream>("sharing screen", 30, 6000);
  host.registry().Publish("MYSHARE12345", own);
  ASSERT_EQ(host.Resolve("https://mirell.example/s/MYSHARE12345").status,
            resolve::ResolveStatus::kResolved);
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
  config.share_prefix = std::string(kPrefix);
  config.signal_url = "ws://127.0.0.1:9/signal";  // Nobody listens: each watch plays the card.
  DaemonHost host(config);
  host.Start();
  for (std::size_t i = 0; i < session::Viewing::kMaxWatches; ++i) {
    ASSERT_EQ(host.Resolve(fmt::format("https://mirell.example/s/ABCDEFGHJK{:02}", i)).status,
              resolve::ResolveStatus::kResolved);
  }
  const auto refused = host.Resolve("https://mirell.example/s/ABCDEFGHJKZZ");
  EXPECT_EQ(refused.status, resolve::ResolveStatus::kFailed);
  EXPECT_EQ(refused.reason, "too many share links are playing at once");
  EXPECT_EQ(host.registry().Find("ABCDEFGHJKZZ"), nullptr);
  host.Stop();
}

// A link says where its server is: a viewer configured for one server plays another's links,
// once that server has said it is a Mirell signal server.
class ForeignLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config_.rtsp_port = testsupport::FreeLoopbackPort();
    config_.pipe_name = "127.0.0.1:0";
    config_.install_stub = false;
    config_.share_prefix = std::string(kPrefix);
    config_.signal_url = "ws://127.0.0.1:9/signal";  // The viewer's own server: nobody there.
    host_.emplace(config_);
    host_->Start();
  }
  std::string Loopback(std::uint16_t rtsp_port, const std::string& token) const {
    return fmt::format("rtspt://127.0.0.1:{}/s/{}", rtsp_port, token);
  }
  static double SecondsOf(const std::function<void()>& step) {
    const auto start = std::chrono::steady_clock::now();
    step();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  DaemonConfig config_;
  std::optional<DaemonHost> host_;
};

TEST_F(ForeignLinkTest, ALinkOfAnotherMirellServerIsWatchedThere) {
  signal::ServerConfig server_config;
  server_config.listen = "127.0.0.1:0";
  signal::SignalServer server(server_config);
  server.Start();
  const std::string link = fmt::format("http://127.0.0.1:{}/s/ABCDEFGHJKMN", server.port());
  const auto resolved = host_->Resolve(link);
  EXPECT_EQ(resolved.status, resolve::ResolveStatus::kResolved);
  EXPECT_EQ(resolved.url, Loopback(config_.rtsp_port, "ABCDEFGHJKMN"));
  EXPECT_EQ(host_->viewing().WatchCount(), 1u);
  EXPECT_TRUE(Eventually([&] { return server.open_connections() == 1u; }))
      << "the watch meets the host at the link's server";
  EXPECT_EQ(host_->Resolve(link).status, resolve::ResolveStatus::kResolved);
  EXPECT_EQ(host_->Resolve(fmt::format("http://127.0.0.1:{}/s/ABCDEFGHJKMP", server.port())).status,
            resolve::ResolveStatus::kResolved);
  EXPECT_EQ(host_->signal_servers().probes(), 1u) << "the server's answer is kept";
  host_->Stop();
}

// A web server that is not Mirell's, even one with pages at the link's paths, is left to the real
// resolver, and asked only once.
TEST_F(ForeignLinkTest, ALookAlikeLinkOnAnotherWebServerPassesWithinTheBound) {
  testsupport::TempDir site;
  std::filesystem::create_directories(site.path() / "s");
  std::ofstream(site.path() / "s" / "ABCDEFGHJKMN") << "a page";
  std::ofstream(site.path() / "signal") << protocol::kSignalEndpointMarker << '\n';
  const std::uint16_t port = testsupport::FreeLoopbackPort();
  testsupport::ChildProcess web({"/usr/bin/python3", "-m", "http.server", "--bind", "127.0.0.1",
                                 "--directory", site.path().string(), std::to_string(port)});
  ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(port); }));
  const std::string link = fmt::format("http://127.0.0.1:{}/s/ABCDEFGHJKMN", port);
  resolve::ResolveResult result;
  EXPECT_LT(SecondsOf([&] { result = host_->Resolve(link); }), 1.5);
  EXPECT_EQ(result.status, resolve::ResolveStatus::kNotOurs);
  EXPECT_EQ(host_->viewing().WatchCount(), 0u);
  EXPECT_EQ(host_->Resolve(link).status, resolve::ResolveStatus::kNotOurs);
  EXPECT_EQ(host_->signal_servers().probes(), 1u);
  host_->Stop();
}

TEST_F(ForeignLinkTest, AServerThatNeverAnswersCostsNoMoreThanTheBoundAndOnlyOnce) {
  testsupport::SilentListener silent;
  const std::string link = fmt::format("https://127.0.0.1:{}/s/ABCDEFGHJKMN", silent.port());
  resolve::ResolveResult result;
  const double first = SecondsOf([&] { result = host_->Resolve(link); });
  EXPECT_EQ(result.status, resolve::ResolveStatus::kNotOurs);
  EXPECT_GE(first, 1.4);
  EXPECT_LT(first, 1.5 + (testsupport::kSanitizedBuild ? 1.0 : 0.3));
  const double again = SecondsOf([&] { result = host_->Resolve(link); });
  EXPECT_EQ(result.status, resolve::ResolveStatus::kNotOurs);
  EXPECT_LT(again, 0.2) << "the silence is kept";
  EXPECT_EQ(host_->signal_servers().probes(), 1u);
  host_->Stop();
}

// A token watched through one server is not played for a link of another that nobody vouched
// for.
TEST_F(ForeignLinkTest, AWatchedTokenOnAnUnknownHostIsStillAsked) {
  ASSERT_EQ(host_->Resolve("https://mirell.example/s/ABCDEFGHJKMN").status,
            resolve::ResolveStatus::kResolved)
      << "the viewer's own server";
  testsupport::SilentListener silent;
  const std::string other = fmt::format("http://127.0.0.1:{}/s/ABCDEFGHJKMN", silent.port());
  EXPECT_EQ(host_->Resolve(other).status, resolve::ResolveStatus::kNotOurs);
  EXPECT_EQ(host_->signal_servers().probes(), 1u);
  host_->Stop();
}

// This computer as the meeting place: a signal server of its own on every interface, reachable at
// the network address its links name, and gone with the program.
TEST(DaemonHostMeeting, ThisComputerServesTheSignalProtocolOnItsNetworkAddress) {
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  config.share_prefix = std::string(kPrefix);
  const std::uint16_t port = testsupport::FreeLoopbackPort();
  UseLocalMeeting(config, port, LanAddress());
  DaemonHost host(config);
  host.Start();
  EXPECT_EQ(host.meeting_port(), port);
  const HttpsGetLimits limits{1500ms, 4096};
  EXPECT_TRUE(transport::AnswersAsSignalEndpoint(config.signal_url, limits));
  EXPECT_TRUE(transport::AnswersAsSignalEndpoint(fmt::format("ws://{}:{}/signal", LanAddress(), port), limits));
  EXPECT_EQ(config.share_prefix, fmt::format("{}:{}/s/", LanAddress(), port));
  host.Stop();
  EXPECT_EQ(host.meeting_port(), 0);
  EXPECT_FALSE(testsupport::LoopbackPortAccepts(port));
}

TEST(DaemonHostMeeting, ATakenPortEndsTheStartWithTheReasonAndTheWayOut) {
  testsupport::SilentListener taken;
  DaemonConfig config;
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.pipe_name = "127.0.0.1:0";
  config.install_stub = false;
  config.share_prefix = std::string(kPrefix);
  UseLocalMeeting(config, taken.port(), "127.0.0.1");
  DaemonHost host(config);
  try {
    host.Start();
    FAIL() << "served on a taken port";
  } catch (const std::exception& error) {
    const std::string what = error.what();
    EXPECT_EQ(what.rfind(fmt::format("could not be the meeting place on port {} (", taken.port()), 0), 0u)
        << what;
    EXPECT_NE(what.find("--signal local:PORT"), std::string::npos) << what;
    EXPECT_EQ(what.find("check failed"), std::string::npos) << what;
  }
  host.Stop();
}

TEST(LanAddress, IsAnIpv4AddressThatReachesThisComputer) {
  const std::string address = LanAddress();
  in_addr parsed{};
  ASSERT_EQ(inet_pton(AF_INET, address.c_str(), &parsed), 1) << address;
  signal::ServerConfig server_config;
  server_config.listen = "0.0.0.0:0";
  signal::SignalServer server(server_config);
  server.Start();
  EXPECT_TRUE(transport::AnswersAsSignalEndpoint(fmt::format("ws://{}:{}/signal", address, server.port()),
                                                 {1500ms, 4096}));
}

TEST(DaemonHostLifecycle, StopTwiceAndStopWithoutStartDoNothing) {
  DaemonConfig config;
  config.pipe_name = "127.0.0.1:0";
  config.rtsp_port = testsupport::FreeLoopbackPort();
  config.install_stub = false;
  config.share_prefix = std::string(kPrefix);
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
