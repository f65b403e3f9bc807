// Our signal client against our signal server over real sockets, plain and TLS (with a CA and
// certificates made at test time by the openssl command), the HTTP answers, and the server as a
// process.
#include "mirell/signal/signal_server.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>
#include <stdlib.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/testsupport/test_certificates.h"
#include "mirell/transport/signal_client.h"
#include "mirell/transport/signal_endpoint.h"

namespace mirell::signal {
namespace {

using namespace std::chrono_literals;
using protocol::PeerIdentity;
using transport::SignalClient;
using transport::SignalConfig;

// A value that a handler sets and the test waits for.
template <typename T>
class Latch {
 public:
  // Notified under the lock: a waiter that returns and destroys the latch cannot do so while a
  // handler's thread is still inside notify_all.
  void Set(T value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
    changed_.notify_all();
  }
  std::optional<T> Wait(std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return value_.has_value(); });
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<T> value_;
};

SignalConfig HostConfig(const std::string& url) {
  SignalConfig config;
  config.url = url;
  config.token = "TESTTOKEN123";
  config.secret = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
  config.media = protocol::StreamMedia{1280, 720, 30, 6000, 48000, 2, 128, "1190"};
  return config;
}

SignalConfig ViewerConfig(const std::string& url) {
  SignalConfig config;
  config.url = url;
  config.token = "TESTTOKEN123";
  config.identity = "usr_viewer";
  config.display_name = "Viewer";
  return config;
}

TEST(SignalServer, AHostAndAViewerMeetThroughIt) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  SignalServer server(config);
  server.Start();
  const std::string url = "ws://" + server.address() + "/signal";

  auto host = transport::CreateHostSignalClient(HostConfig(url));
  Latch<std::string> peer_seen;
  Latch<std::string> answer_seen;
  Latch<std::string> gone_seen;
  Latch<bool> host_ready;
  host->OnReady([&] { host_ready.Set(true); });
  host->OnPeer([&](const std::string& peer, const protocol::PeerIdentity& who) {
    peer_seen.Set(peer + " " + who.identity + " " + who.display_name);
    host->SendOffer(peer, "v=0 offer");
  });
  host->OnAnswer([&](const std::string& peer, const std::string& sdp, const std::string&) {
    answer_seen.Set(peer + " " + sdp);
  });
  host->OnPeerGone([&](const std::string& peer) { gone_seen.Set(peer); });
  host->Start();
  ASSERT_TRUE(host_ready.Wait());

  auto viewer = transport::CreateViewerSignalClient(ViewerConfig(url));
  Latch<protocol::StreamMedia> media_seen;
  viewer->OnMedia([&](const protocol::StreamMedia& media) { media_seen.Set(media); });
  viewer->OnOffer([&](const std::string& sdp) { viewer->SendAnswer("answer to " + sdp); });
  viewer->Start();

  const auto media = media_seen.Wait();
  ASSERT_TRUE(media.has_value());
  EXPECT_EQ(media->width, 1280u);
  EXPECT_EQ(media->audio_config, "1190");
  const auto peer = peer_seen.Wait();
  ASSERT_TRUE(peer.has_value());
  const std::string peer_id = peer->substr(0, peer->find(' '));
  EXPECT_EQ(*peer, peer_id + " usr_viewer Viewer");
  EXPECT_EQ(answer_seen.Wait(), peer_id + " answer to v=0 offer");

  viewer->Stop();
  EXPECT_EQ(gone_seen.Wait(), peer_id);
  const auto statistics = server.statistics();
  EXPECT_EQ(statistics.relayed, 2u);
  EXPECT_EQ(statistics.viewers, 0u);
  host->Stop();
  server.Stop();
}

// A viewer that names a key proves it to the host through the server, and signs its answer.
TEST(SignalServer, AKeyItsProofAndASignedAnswerPassThroughIt) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  SignalServer server(config);
  server.Start();
  const std::string url = "ws://" + server.address() + "/signal";

  auto host = transport::CreateHostSignalClient(HostConfig(url));
  Latch<std::string> key_seen;
  Latch<std::string> proof_seen;
  Latch<std::string> answer_seen;
  Latch<bool> host_ready;
  host->OnReady([&] { host_ready.Set(true); });
  host->OnPeer([&](const std::string& peer, const protocol::PeerIdentity& who) {
    key_seen.Set(who.key);
    host->SendChallenge(peer, "CHALLENGE");
  });
  host->OnProof([&](const std::string& peer, const std::string& signature) {
    proof_seen.Set(signature);
    host->SendOffer(peer, "v=0 offer");
  });
  host->OnAnswer([&](const std::string&, const std::string& sdp, const std::string& signature) {
    answer_seen.Set(sdp + " " + signature);
  });
  host->Start();
  ASSERT_TRUE(host_ready.Wait());

  SignalConfig viewer_config = ViewerConfig(url);
  viewer_config.key = "PUBLICKEY=";
  auto viewer = transport::CreateViewerSignalClient(viewer_config);
  viewer->OnChallenge([&](const std::string& challenge) { viewer->SendProof("signed " + challenge); });
  viewer->OnOffer([&](const std::string&) { viewer->SendAnswer("v=0 answer", "ANSWERSIGNATURE"); });
  viewer->Start();

  EXPECT_EQ(key_seen.Wait(), "PUBLICKEY=");
  EXPECT_EQ(proof_seen.Wait(), "signed CHALLENGE");
  EXPECT_EQ(answer_seen.Wait(), "v=0 answer ANSWERSIGNATURE");
  viewer->Stop();
  host->Stop();
  server.Stop();
}

TEST(SignalServer, AWrongSecretIsRefusedAndTheClientStopsTrying) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  SignalServer server(config);
  server.Start();
  const std::string url = "ws://" + server.address() + "/signal";
  auto owner = transport::CreateHostSignalClient(HostConfig(url));
  Latch<bool> ready;
  owner->OnReady([&] { ready.Set(true); });
  owner->Start();
  ASSERT_TRUE(ready.Wait());

  auto other_config = HostConfig(url);
  other_config.secret = "ANOTHERSECRETANOTHERSECRETANOTHE";
  auto other = transport::CreateHostSignalClient(other_config);
  Latch<std::string> refused;
  other->OnRefused([&](const std::string& reason) { refused.Set(reason); });
  other->Start();
  EXPECT_EQ(refused.Wait(), "token taken");
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(other->reconnects(), 0u);
  EXPECT_TRUE(owner->connected());
}

TEST(SignalServer, AnOversizedMessageEndsItsConnection) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  config.max_message_bytes = 4096;
  SignalServer server(config);
  server.Start();
  auto viewer = transport::CreateViewerSignalClient(ViewerConfig("ws://" + server.address() + "/signal"));
  viewer->Start();
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (server.statistics().viewers == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_EQ(server.statistics().viewers, 1u);
  // The viewer waits for a host; its answer is larger than the server takes.
  while (!viewer->SendAnswer(std::string(8192, 'x')) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  while (viewer->reconnects() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_GE(viewer->reconnects(), 1u) << "the server should have ended the connection";
}

TEST(SignalServer, PlainRequestsGetThePageTheReleaseOrAStatus) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  config.latest = LatestRelease{"0.2.0", "https://mirell.example/download"};
  SignalServer server(config);
  server.Start();
  const std::string page =
      testsupport::ExchangeOnce(server.port(), "GET /s/ABCDEFGHJKMN HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(page.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << page;
  EXPECT_NE(page.find("Content-Type: text/html; charset=utf-8\r\n"), std::string::npos);
  EXPECT_NE(page.find("VRChat video player"), std::string::npos);
  const std::string latest = testsupport::ExchangeOnce(server.port(), "GET /latest HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_NE(latest.find("Content-Type: application/json"), std::string::npos);
  EXPECT_NE(latest.find(R"({"url":"https://mirell.example/download","version":"0.2.0"})"), std::string::npos) << latest;
  EXPECT_EQ(testsupport::ExchangeOnce(server.port(), "GET /nothing HTTP/1.1\r\nHost: x\r\n\r\n")
                .rfind("HTTP/1.1 404 Not Found\r\n", 0),
            0u);
}

// The page of a public share names its relay's stream, and VRChat's resolver (Debian's yt-dlp, run
// with VRChat's own arguments) plays the link through it; the page of a share that is not public,
// and of an unknown token, resolves to nothing, as today.
TEST(SignalServer, VRChatsResolverPlaysAPublicLinkThroughItsRelayAndNothingElse) {
  if (!testsupport::HaveProgram("yt-dlp")) GTEST_SKIP() << "needs yt-dlp";
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  config.relay_urls = {"rtspt://relay.example.org:8554"};
  SignalServer server(config);
  server.Start();
  const std::string url = "ws://" + server.address() + "/signal";

  SignalConfig public_config = HostConfig(url);
  public_config.token = "PUBLICTOKEN1";
  public_config.is_public = true;
  SignalConfig private_config = HostConfig(url);
  private_config.token = "PRIVATETOKEN";
  auto public_host = transport::CreateHostSignalClient(public_config);
  auto private_host = transport::CreateHostSignalClient(private_config);
  Latch<bool> public_ready;
  Latch<bool> private_ready;
  public_host->OnReady([&] { public_ready.Set(true); });
  private_host->OnReady([&] { private_ready.Set(true); });
  public_host->Start();
  private_host->Start();
  ASSERT_TRUE(public_ready.Wait());
  ASSERT_TRUE(private_ready.Wait());

  testsupport::TempDir home;
  const auto resolve = [&](const std::string& token) {
    testsupport::ProcessOptions options;
    options.environment["HOME"] = home.path().string();
    options.environment["XDG_CACHE_HOME"] = (home.path() / "cache").string();
    options.timeout = 60s;
    return testsupport::RunProcess(
        {"yt-dlp", "--no-check-certificate", "--no-cache-dir", "--rm-cache-dir", "-f",
         "(mp4/best)[height<=?1080][height>=?64][width>=?64]", "--get-url",
         "http://" + server.address() + "/s/" + token},
        options);
  };
  const auto played = resolve("PUBLICTOKEN1");
  EXPECT_EQ(played.exit_code, 0) << played.err;
  EXPECT_EQ(played.out, "rtspt://relay.example.org:8554/s/PUBLICTOKEN1\n");
  for (const char* token : {"PRIVATETOKEN", "UNKNOWNTOKEN"}) {
    const auto refused = resolve(token);
    EXPECT_NE(refused.exit_code, 0) << token << ": " << refused.out;
    EXPECT_EQ(refused.out, "") << token;
    EXPECT_NE(refused.err.find("Unsupported URL"), std::string::npos) << token << ": " << refused.err;
  }

  // The share's end takes the video out of its page.
  public_host->End();
  EXPECT_NE(resolve("PUBLICTOKEN1").exit_code, 0);
  private_host->Stop();
  server.Stop();
}

// A relay that names the operator's secret gets into a public share, and its host hears that the
// peer is the relay; into a share that is not public it is refused at once.
TEST(SignalServer, ARelayJoinsOnlyPublicSharesAndItsHostKnowsIt) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  config.relay_secret = "relay-secret-0123456789";
  SignalServer server(config);
  server.Start();
  const std::string url = "ws://" + server.address() + "/signal";

  SignalConfig public_config = HostConfig(url);
  public_config.is_public = true;
  auto host = transport::CreateHostSignalClient(public_config);
  Latch<bool> host_ready;
  Latch<protocol::PeerIdentity> peer_seen;
  host->OnReady([&] { host_ready.Set(true); });
  host->OnPeer([&](const std::string&, const protocol::PeerIdentity& who) { peer_seen.Set(who); });
  host->Start();
  ASSERT_TRUE(host_ready.Wait());

  SignalConfig relay_config;
  relay_config.url = url;
  relay_config.token = public_config.token;
  relay_config.relay_secret = config.relay_secret;
  auto relay = transport::CreateViewerSignalClient(relay_config);
  Latch<bool> relay_ready;
  relay->OnReady([&] { relay_ready.Set(true); });
  relay->Start();
  EXPECT_TRUE(relay_ready.Wait());
  const auto peer = peer_seen.Wait();
  ASSERT_TRUE(peer.has_value());
  EXPECT_TRUE(peer->relay);
  EXPECT_EQ(peer->identity, "");

  relay_config.token = "NOTPUBLIC123";
  auto refused_relay = transport::CreateViewerSignalClient(relay_config);
  Latch<std::string> refusal;
  refused_relay->OnRefused([&](const std::string& reason) { refusal.Set(reason); });
  refused_relay->Start();
  EXPECT_EQ(refusal.Wait(), "not a public share");
  refused_relay->Stop();
  relay->Stop();
  host->Stop();
  server.Stop();
}

// What a viewer asks before it follows a link to a server it was not configured with.
TEST(SignalServer, ItsEndpointAnswersAPlainGetAsASignalEndpoint) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  SignalServer server(config);
  server.Start();
  const std::string url = "ws://127.0.0.1:" + std::to_string(server.port());
  EXPECT_TRUE(transport::AnswersAsSignalEndpoint(url + "/signal", {1500ms, 8192}));
  EXPECT_FALSE(transport::AnswersAsSignalEndpoint(url + "/s/ABCDEFGHJKMN", {1500ms, 8192}));
  EXPECT_FALSE(transport::AnswersAsSignalEndpoint(url + "/", {1500ms, 8192}));
  EXPECT_FALSE(transport::AnswersAsSignalEndpoint("wss://127.0.0.1:" +
                                                      std::to_string(server.port()) + "/signal",
                                                  {1500ms, 8192}))
      << "no TLS on a plain server";
}

TEST(SignalServer, ConnectionsBeyondTheLimitAreClosedAtOnce) {
  ServerConfig config;
  config.listen = "127.0.0.1:0";
  config.max_connections = 3;
  SignalServer server(config);
  server.Start();
  std::vector<std::unique_ptr<testsupport::TcpClient>> held;
  for (int i = 0; i < 3; ++i) held.push_back(std::make_unique<testsupport::TcpClient>(server.port()));
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (server.open_connections() < 3 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_EQ(server.open_connections(), 3u);
  testsupport::TcpClient extra(server.port());
  extra.Send("GET /s/A HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(extra.ReadToEnd(2s), "");
  EXPECT_TRUE(extra.closed_by_peer());
  held.clear();
  while (server.open_connections() >= 3 && std::chrono::steady_clock::now() < deadline + 5s) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_NE(testsupport::ExchangeOnce(server.port(), "GET /s/A HTTP/1.1\r\nHost: x\r\n\r\n").find("200 OK"),
            std::string::npos);
}

// A connection to address:port that sends `request`; returns whether the server closed it
// without a byte within `limit`.
bool ClosedUnanswered(const std::string& address, std::uint16_t port, const std::string& request,
                      std::chrono::milliseconds limit, int* kept = nullptr) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &target.sin_addr);
  if (connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof(target)) != 0) {
    close(fd);
    return false;
  }
  if (!request.empty()) (void)send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  pollfd readable{fd, POLLIN, 0};
  char byte = 0;
  // A close with our request unread arrives as a reset rather than an end of stream.
  const bool closed = poll(&readable, 1, static_cast<int>(limit.count())) == 1 && recv(fd, &byte, 1, 0) <= 0;
  if (kept != nullptr && !closed) {
    *kept = fd;
  } else {
    close(fd);
  }
  return closed;
}

// One client may not take every place: beyond its share an address's connections are closed at
// once, while others (and this machine, where a reverse proxy brings everybody) are served.
TEST(SignalServer, ConnectionsFromOneAddressBeyondItsShareAreClosedAtOnce) {
  const std::string address = testsupport::NonLoopbackAddress();
  if (address.empty()) GTEST_SKIP() << "this machine has no address but loopback";
  ServerConfig config;
  config.listen = "0.0.0.0:0";
  config.max_connections_per_address = 2;
  SignalServer server(config);
  server.Start();
  std::vector<int> held;
  for (int i = 0; i < 2; ++i) {
    int fd = -1;
    EXPECT_FALSE(ClosedUnanswered(address, server.port(), "", 200ms, &fd));
    held.push_back(fd);
  }
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (server.open_connections() < 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_EQ(server.open_connections(), 2u);
  EXPECT_TRUE(ClosedUnanswered(address, server.port(), "GET /s/A HTTP/1.1\r\nHost: x\r\n\r\n", 5s));
  // Loopback is not counted.
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(testsupport::ExchangeOnce(server.port(), "GET /s/A HTTP/1.1\r\nHost: x\r\n\r\n").find("200 OK"),
              std::string::npos);
  }
  for (const int fd : held) close(fd);
  while (server.open_connections() > 0 && std::chrono::steady_clock::now() < deadline + 5s) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(server.open_connections(), 0u);
  EXPECT_FALSE(ClosedUnanswered(address, server.port(), "GET /s/A HTTP/1.1\r\nHost: x\r\n\r\n", 5s))
      << "a place that freed up is served again";
}

class SignalServerTls : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!testsupport::HaveProgram("openssl")) return;
    certificates_ = new testsupport::TestCertificates();
  }
  static void TearDownTestSuite() {
    delete certificates_;
    certificates_ = nullptr;
    unsetenv("SSL_CERT_FILE");
  }
  void SetUp() override {
    if (certificates_ == nullptr) GTEST_SKIP() << "needs the openssl command";
    ASSERT_TRUE(SetLogFile(log_dir_.path() / "log"));
    SetLogLevel(LogLevel::kDebug);
  }
  void TearDown() override { SetLogLevel(LogLevel::kInfo); }

  std::unique_ptr<SignalServer> StartServer(const std::string& name) {
    ServerConfig config;
    config.listen = "127.0.0.1:0";
    if (!name.empty()) {
      config.tls_cert = certificates_->Path(name + ".pem");
      config.tls_key = certificates_->Path(name + ".key");
    }
    auto server = std::make_unique<SignalServer>(config);
    server->Start();
    return server;
  }

  // Whether a host registers through `url` within a few seconds.
  static bool Registers(const std::string& url) {
    auto host = transport::CreateHostSignalClient(HostConfig(url));
    Latch<bool> ready;
    host->OnReady([&] { ready.Set(true); });
    host->Start();
    return ready.Wait(3s).has_value();
  }
  std::string log() { return testsupport::ReadFileText(log_dir_.path() / "log"); }

  static testsupport::TestCertificates* certificates_;
  testsupport::TempDir log_dir_;
};

testsupport::TestCertificates* SignalServerTls::certificates_ = nullptr;

TEST_F(SignalServerTls, ACertificateOfATrustedCaForTheHostIsAccepted) {
  setenv("SSL_CERT_FILE", certificates_->Path("ca.pem").c_str(), 1);
  const auto server = StartServer("localhost");
  EXPECT_TRUE(Registers("wss://localhost:" + std::to_string(server->port()) + "/signal")) << log();
  EXPECT_TRUE(Registers("wss://127.0.0.1:" + std::to_string(server->port()) + "/signal")) << log();
  const std::string page = testsupport::ExchangeOnce(server->port(), "GET /s/A HTTP/1.1\r\n\r\n", 1s);
  EXPECT_EQ(page.find("200 OK"), std::string::npos) << "plain HTTP on a TLS port";
}

TEST_F(SignalServerTls, ItsEndpointAnswersAPlainGetOverTlsOnlyWithATrustedCertificate) {
  setenv("SSL_CERT_FILE", certificates_->Path("ca.pem").c_str(), 1);
  const auto server = StartServer("localhost");
  const auto other = StartServer("other");
  EXPECT_TRUE(transport::AnswersAsSignalEndpoint(
      "wss://localhost:" + std::to_string(server->port()) + "/signal", {1500ms, 8192}));
  EXPECT_FALSE(transport::AnswersAsSignalEndpoint(
      "wss://localhost:" + std::to_string(other->port()) + "/signal", {1500ms, 8192}));
  EXPECT_FALSE(transport::AnswersAsSignalEndpoint(
      "ws://localhost:" + std::to_string(server->port()) + "/signal", {1500ms, 8192}));
}

TEST_F(SignalServerTls, ACertificateForAnotherNameIsRefused) {
  setenv("SSL_CERT_FILE", certificates_->Path("ca.pem").c_str(), 1);
  const auto server = StartServer("other");
  EXPECT_FALSE(Registers("wss://localhost:" + std::to_string(server->port()) + "/signal"));
  EXPECT_NE(log().find("socket error: "), std::string::npos);
}

TEST_F(SignalServerTls, ACertificateOfAnUntrustedCaIsRefused) {
  // The system's store, which does not hold the test CA.
  unsetenv("SSL_CERT_FILE");
  const auto server = StartServer("localhost");
  EXPECT_FALSE(Registers("wss://localhost:" + std::to_string(server->port()) + "/signal"));
}

TEST_F(SignalServerTls, APlainServerIsRefusedForAWssUrl) {
  setenv("SSL_CERT_FILE", certificates_->Path("ca.pem").c_str(), 1);
  const auto server = StartServer("");
  EXPECT_FALSE(Registers("wss://localhost:" + std::to_string(server->port()) + "/signal"));
  EXPECT_TRUE(Registers("ws://localhost:" + std::to_string(server->port()) + "/signal"));
}

TEST(SignalServerProcess, HelpMistakesAndACleanStopOnSignals) {
  const auto help = testsupport::RunProcess({MIRELL_SIGNAL_BINARY, "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("--listen ADDRESS:PORT"), std::string::npos);
  const auto wrong = testsupport::RunProcess({MIRELL_SIGNAL_BINARY, "--listen"});
  EXPECT_EQ(wrong.exit_code, 2);
  EXPECT_NE(wrong.err.find("--listen needs a value"), std::string::npos) << wrong.err;

  // A quiet log ("error") must not change when it stops: only on a signal.
  for (const auto& [stop, log] : {std::pair{SIGTERM, "default"}, std::pair{SIGINT, "default"},
                                  std::pair{SIGTERM, "error"}}) {
    const bool quiet = std::string_view(log) == "error";
    testsupport::ProcessOptions options;
    options.environment["MIRELL_LOG"] = quiet ? std::optional<std::string>("error") : std::nullopt;
    const std::uint16_t port = testsupport::FreeLoopbackPort();
    testsupport::ChildProcess process(
        {MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(port)}, options);
    // Listening means the stop signals are already taken by the server's own wait.
    bool listening = false;
    for (int i = 0; i < 500 && !listening; ++i) {
      try {
        testsupport::TcpClient probe(port);
        listening = true;
      } catch (const std::runtime_error&) {
        std::this_thread::sleep_for(10ms);
      }
    }
    ASSERT_TRUE(listening) << log;
    EXPECT_TRUE(process.Running()) << log;
    EXPECT_TRUE(testsupport::LoopbackPortAccepts(port)) << log;
    process.Signal(stop);
    const auto result = process.Wait(10s);
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    if (quiet) {
      EXPECT_EQ(result.err.find("info"), std::string::npos) << result.err;
      continue;
    }
    EXPECT_NE(result.err.find("listening on 127.0.0.1:"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("stopping on signal " + std::to_string(stop)), std::string::npos);
  }
  const auto taken = testsupport::RunProcess({MIRELL_SIGNAL_BINARY, "--listen", "256.0.0.1:80"});
  EXPECT_EQ(taken.exit_code, 1);
  EXPECT_NE(taken.err.find("could not start: "), std::string::npos) << taken.err;
}

}  // namespace
}  // namespace mirell::signal
