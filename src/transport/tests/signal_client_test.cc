// The signal client over real loopback sockets against a scripted server.
#include "mirell/transport/signal_client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "fake_signal_server.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace mirell::transport {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::FakeSignalServer;

// Records what the handlers saw, for waiting on from the test's thread.
class Events {
 public:
  // Notified under the lock, so that a test that has seen the event may end at once.
  void Add(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }
  bool WaitFor(const std::string& event, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      return std::find(events_.begin(), events_.end(), event) != events_.end();
    });
  }
  int Count(const std::string& event) {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(events_.begin(), events_.end(), event));
  }
  std::vector<std::string> All() {
    std::lock_guard lock(mutex_);
    return events_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

class SignalClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kDebug);
  }
  void TearDown() override { SetLogLevel(LogLevel::kInfo); }

  SignalConfig HostConfig() const {
    SignalConfig config;
    config.url = server_.url();
    config.token = "ABCDEFGHJKMN";
    config.secret = "SECRETSECRETSECRETSECRETSECRET12";
    return config;
  }
  SignalConfig ViewerConfig() const {
    SignalConfig config;
    config.url = server_.url();
    config.token = "ABCDEFGHJKMN";
    return config;
  }

  // Every handler records itself in events_.
  void Watch(SignalClient& client) {
    client.OnReady([this] { events_.Add("ready"); });
    client.OnRefused([this](const std::string& reason) { events_.Add("refused " + reason); });
    client.OnPeer([this](const std::string& peer, const protocol::PeerIdentity& who) {
      events_.Add("peer " + peer + " [" + who.identity + "] [" + who.display_name + "]" +
                  (who.key.empty() ? "" : " key " + who.key));
    });
    client.OnPeerGone([this](const std::string& peer) { events_.Add("gone " + peer); });
    client.OnAnswer([this](const std::string& peer, const std::string& sdp, const std::string& signature) {
      events_.Add("answer " + peer + " " + sdp + (signature.empty() ? "" : " signed " + signature));
    });
    client.OnProof([this](const std::string& peer, const std::string& signature) {
      events_.Add("proof " + peer + " " + signature);
    });
    client.OnChallenge([this](const std::string& challenge) { events_.Add("challenge " + challenge); });
    client.OnOffer([this](const std::string& sdp) { events_.Add("offer " + sdp); });
    client.OnMedia([this](const protocol::StreamMedia& media) {
      events_.Add("media " + std::to_string(media.width) + "x" + std::to_string(media.height) +
                  "@" + std::to_string(media.fps) + " " + media.audio_config);
    });
  }

  Json NextJson() {
    const auto text = server_.NextMessage();
    EXPECT_TRUE(text.has_value()) << "the client sent nothing";
    return text ? Json::parse(*text) : Json();
  }
  std::string log() { return testsupport::ReadFileText(dir_.path() / "log"); }

  testsupport::TempDir dir_;
  FakeSignalServer server_;
  Events events_;
};

TEST_F(SignalClientTest, AHostRegistersAndHearsOfViewersAnswersAndDepartures) {
  auto client = CreateHostSignalClient(HostConfig());
  Watch(*client);
  client->Start();
  const Json host = NextJson();
  EXPECT_EQ(host, Json::parse(R"({"type":"host","token":"ABCDEFGHJKMN",
                                  "secret":"SECRETSECRETSECRETSECRETSECRET12"})"));
  EXPECT_FALSE(client->connected());
  server_.Send(R"({"type":"hosting"})");
  ASSERT_TRUE(events_.WaitFor("ready"));
  EXPECT_TRUE(client->connected());

  server_.Send(R"({"type":"peer","peer":"v1","identity":"usr_1","displayName":"Alice"})");
  ASSERT_TRUE(events_.WaitFor("peer v1 [usr_1] [Alice]"));
  EXPECT_TRUE(client->SendOffer("v1", "v=0 offer"));
  EXPECT_EQ(NextJson(), Json::parse(R"({"type":"offer","peer":"v1","sdp":"v=0 offer"})"));
  server_.Send(R"({"type":"answer","peer":"v1","sdp":"v=0 answer"})");
  ASSERT_TRUE(events_.WaitFor("answer v1 v=0 answer"));
  EXPECT_TRUE(client->SendDeny("v1"));
  EXPECT_EQ(NextJson(), Json::parse(R"({"type":"deny","peer":"v1"})"));
  server_.Send(R"({"type":"peer-gone","peer":"v1"})");
  ASSERT_TRUE(events_.WaitFor("gone v1"));

  client->Stop();
  EXPECT_FALSE(client->connected());
  EXPECT_EQ(log().find("SECRETSECRET"), std::string::npos) << "the secret was logged";
}

TEST_F(SignalClientTest, AViewerIsToldTheMediaBeforeReadyAndAnswersTheOffer) {
  auto config = ViewerConfig();
  config.identity = "usr_9";
  config.display_name = "Bob";
  auto client = CreateViewerSignalClient(config);
  Watch(*client);
  client->Start();
  EXPECT_EQ(NextJson(), Json::parse(R"({"type":"join","token":"ABCDEFGHJKMN","identity":"usr_9",
                                        "displayName":"Bob"})"));
  server_.Send(R"({"type":"joined","media":{"width":1280,"height":720,"fps":30,"audioConfig":"1190"}})");
  ASSERT_TRUE(events_.WaitFor("ready"));
  const auto all = events_.All();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0], "media 1280x720@30 1190");
  EXPECT_EQ(all[1], "ready");

  server_.Send(R"({"type":"offer","sdp":"v=0 from host"})");
  ASSERT_TRUE(events_.WaitFor("offer v=0 from host"));
  EXPECT_TRUE(client->SendAnswer("v=0 from viewer"));
  EXPECT_EQ(NextJson(), Json::parse(R"({"type":"answer","sdp":"v=0 from viewer"})"));
}

TEST_F(SignalClientTest, JoinedWithoutAMediaObjectIsReadyWithoutMedia) {
  auto client = CreateViewerSignalClient(ViewerConfig());
  Watch(*client);
  client->Start();
  NextJson();
  server_.Send(R"({"type":"joined","media":"a string"})");
  ASSERT_TRUE(events_.WaitFor("ready"));
  EXPECT_EQ(events_.All(), std::vector<std::string>{"ready"});
}

TEST_F(SignalClientTest, BadAndUnknownMessagesLeaveTheSocketOpen) {
  auto client = CreateViewerSignalClient(ViewerConfig());
  Watch(*client);
  client->Start();
  NextJson();
  server_.Send("not json at all");
  server_.SendBinary(R"({"type":"offer","sdp":"binary"})");
  server_.Send(R"({"type":"welcome"})");
  server_.Send(R"({"type":"offer","sdp":17})");
  server_.Send(R"([1,2,3])");
  server_.Send(R"({"type":"offer","sdp":"after"})");
  ASSERT_TRUE(events_.WaitFor("offer after"));
  EXPECT_EQ(events_.All(), std::vector<std::string>{"offer after"});
  EXPECT_EQ(server_.connections(), 1);
  EXPECT_EQ(client->malformed_messages(), 3u) << "no JSON, an sdp of another type, no object";
}

TEST_F(SignalClientTest, AnErrorWithoutReasonIsUnknownAndEndsTheRetries) {
  auto client = CreateViewerSignalClient(ViewerConfig());
  Watch(*client);
  client->Start();
  NextJson();
  server_.Send(R"({"type":"error"})");
  ASSERT_TRUE(events_.WaitFor("refused unknown"));
  server_.Drop();
  // No further attempt: the server sees no second connection.
  EXPECT_FALSE(server_.WaitForConnections(2, 2s));
  EXPECT_NE(log().find("refused: unknown"), std::string::npos);
  EXPECT_EQ(log().find("socket closed, reconnecting"), std::string::npos);
  client->Stop();
}

TEST_F(SignalClientTest, ARegisteredSocketThatFallsIsReopenedAtOnceAndRegistersAgain) {
  auto client = CreateHostSignalClient(HostConfig());
  Watch(*client);
  client->Start();
  const Json first = NextJson();
  server_.Send(R"({"type":"hosting"})");
  ASSERT_TRUE(events_.WaitFor("ready"));
  const auto dropped = std::chrono::steady_clock::now();
  server_.Drop();
  ASSERT_TRUE(server_.WaitForConnections(2));
  // No back-off after a registered socket (the first retry waits 500 ms).
  EXPECT_LT(std::chrono::steady_clock::now() - dropped, 450ms);
  EXPECT_EQ(NextJson(), first);
  server_.Send(R"({"type":"hosting"})");
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (events_.Count("ready") < 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(events_.Count("ready"), 2);
  EXPECT_EQ(client->reconnects(), 1u);
  EXPECT_NE(log().find("socket closed, reconnecting"), std::string::npos);
}

// A NAT that forgot the connection, or a machine that slept: the TCP connection looks open and
// nothing comes. The client pings at half the idle limit and, unanswered, reconnects at the limit.
TEST_F(SignalClientTest, AServerThatFallsSilentIsTakenAsGoneAndTheClientReconnects) {
  auto config = HostConfig();
  config.idle_limit = 1s;
  auto client = CreateHostSignalClient(config);
  Watch(*client);
  client->Start();
  EXPECT_EQ(NextJson()["type"], "host");
  server_.Send(R"({"type":"hosting"})");
  ASSERT_TRUE(events_.WaitFor("ready"));
  // Answered pings keep a quiet connection open through several idle limits.
  EXPECT_FALSE(server_.WaitForConnections(2, 2500ms));
  EXPECT_EQ(client->reconnects(), 0u);
  EXPECT_TRUE(client->connected());

  server_.Freeze();
  ASSERT_TRUE(server_.WaitForConnections(2, 5s)) << log();
  EXPECT_EQ(client->reconnects(), 1u);
  EXPECT_EQ(NextJson()["type"], "host") << "it registers again";
  client->Stop();
}

TEST_F(SignalClientTest, EndTellsTheServerAndReturnsWhenItCloses) {
  auto client = CreateHostSignalClient(HostConfig());
  Watch(*client);
  client->Start();
  EXPECT_EQ(NextJson()["type"], "host");
  server_.Send(R"({"type":"hosting"})");
  ASSERT_TRUE(events_.WaitFor("ready"));
  std::atomic<bool> ended{false};
  std::thread ender([&] {
    client->End(60s);
    ended = true;
  });
  const Json end = NextJson();
  EXPECT_EQ(end, Json::parse(R"({"type":"end","token":"ABCDEFGHJKMN"})"));
  EXPECT_FALSE(ended.load()) << "End waits for the server's close";
  const auto closed = std::chrono::steady_clock::now();
  server_.Drop();
  ender.join();
  EXPECT_LT(std::chrono::steady_clock::now() - closed, 30s) << "not the whole limit";
  EXPECT_FALSE(server_.WaitForConnections(2, 700ms)) << "an ended share does not reconnect";
  EXPECT_EQ(log().find("socket closed, reconnecting"), std::string::npos);
}

TEST_F(SignalClientTest, EndWithoutAConnectionOnlyStopsAndAViewerSendsNoEnd) {
  auto config = HostConfig();
  config.url = "ws://127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort()) + "/signal";
  auto host = CreateHostSignalClient(config);
  host->Start();
  host->End(60s);
  EXPECT_FALSE(host->connected());

  auto viewer = CreateViewerSignalClient(ViewerConfig());
  viewer->Start();
  EXPECT_EQ(NextJson()["type"], "join");
  server_.Send(R"({"type":"joined"})");
  ASSERT_TRUE(testsupport::Eventually([&] { return viewer->connected(); }));
  viewer->End(60s);
  EXPECT_FALSE(server_.NextMessage(300ms).has_value()) << "only a host ends a share";
}

TEST_F(SignalClientTest, SendBeforeTheSocketIsOpenFailsAndNothingIsSentLater) {
  // A listener that never completes a WebSocket handshake keeps the client connecting.
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  socklen_t size = sizeof(address);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  auto config = ViewerConfig();
  config.url = "ws://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/signal";
  auto client = CreateViewerSignalClient(config);
  EXPECT_FALSE(client->SendAnswer("too early"));
  client->Start();
  EXPECT_FALSE(client->SendAnswer("still too early"));
  client->Stop();
  close(listener);

  // And against a server that does answer, nothing of the early sends arrives.
  auto second = CreateViewerSignalClient(ViewerConfig());
  EXPECT_FALSE(second->SendAnswer("before start"));
  second->Start();
  EXPECT_EQ(NextJson()["type"], "join");
  EXPECT_FALSE(server_.NextMessage(300ms).has_value());
}

TEST_F(SignalClientTest, FailedAttemptsBackOffBy500Milliseconds) {
  // A port with nobody behind it: every attempt fails at once.
  const std::uint16_t port = testsupport::FreeLoopbackPort();
  auto config = ViewerConfig();
  config.url = "ws://127.0.0.1:" + std::to_string(port) + "/signal";
  auto client = CreateViewerSignalClient(config);
  const auto started = std::chrono::steady_clock::now();
  client->Start();
  // Attempts end at about 0, 0.5 and 1.5 s: three ended attempts take at least 1.5 s.
  while (client->reconnects() < 3 && std::chrono::steady_clock::now() - started < 10s) {
    std::this_thread::sleep_for(5ms);
  }
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_EQ(client->reconnects(), 3u);
  EXPECT_GE(took, 1500ms);
  EXPECT_LT(took, 3000ms);
  EXPECT_NE(log().find("socket error: "), std::string::npos);
}

TEST_F(SignalClientTest, StopDuringTheDelayReturnsAtOnce) {
  const std::uint16_t port = testsupport::FreeLoopbackPort();
  auto config = ViewerConfig();
  config.url = "ws://127.0.0.1:" + std::to_string(port) + "/signal";
  auto client = CreateViewerSignalClient(config);
  client->Start();
  while (client->reconnects() < 2) std::this_thread::sleep_for(5ms);
  // Now in a delay of 1000 ms.
  const auto stopping = std::chrono::steady_clock::now();
  client->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, 200ms);
  client->Stop();  // A second Stop does nothing.
}

TEST_F(SignalClientTest, AUrlOfTheWrongFormIsNotRetriedAndStopEndsTheWait) {
  auto config = ViewerConfig();
  config.url = "https://mirell.example/signal";
  auto client = CreateViewerSignalClient(config);
  client->Start();
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(client->reconnects(), 0u);
  const auto stopping = std::chrono::steady_clock::now();
  client->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, 200ms);
  EXPECT_NE(log().find("could not open https://mirell.example/signal: "), std::string::npos)
      << log();
}

TEST_F(SignalClientTest, FactoriesCheckTheirConfiguration) {
  SignalConfig config;
  try {
    CreateHostSignalClient(config);
    FAIL();
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("check failed: !config.token.empty() - a host needs a token"),
              std::string::npos);
  }
  config.token = "T";
  try {
    CreateHostSignalClient(config);
    FAIL();
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("check failed: !config.secret.empty() - a host needs a secret"),
              std::string::npos);
  }
  config.token.clear();
  try {
    CreateViewerSignalClient(config);
    FAIL();
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("check failed: !config.token.empty() - a viewer needs a token"),
              std::string::npos);
  }
}

TEST_F(SignalClientTest, AHandlerMaySendAndDestroyingTheClientEndsEverything) {
  auto client = CreateHostSignalClient(HostConfig());
  client->OnPeer([&](const std::string& peer, const protocol::PeerIdentity&) {
    client->SendDeny(peer);  // From the socket's thread, with no lock of the client held.
  });
  client->Start();
  NextJson();
  server_.Send(R"({"type":"hosting"})");
  server_.Send(R"({"type":"peer","peer":"x"})");
  EXPECT_EQ(NextJson(), Json::parse(R"({"type":"deny","peer":"x"})"));
  client.reset();
  EXPECT_FALSE(server_.WaitForConnections(2, 700ms));
}

}  // namespace
}  // namespace mirell::transport
