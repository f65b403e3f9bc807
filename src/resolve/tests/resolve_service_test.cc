// The resolve protocol over real loopback sockets.
#include "mirell/resolve/resolve_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace mirell::resolve {
namespace {

using namespace std::chrono_literals;
using testsupport::ExchangeOnce;
using testsupport::TcpClient;


class ResolveServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kDebug);
  }
  void TearDown() override { SetLogLevel(LogLevel::kInfo); }

  // Starts a service on a free port whose resolver records every URL and answers `answer`.
  void StartWith(std::function<ResolveResult(const std::string&)> answer) {
    service_ = std::make_unique<ResolveService>(
        "127.0.0.1:0", [this, answer = std::move(answer)](const std::string& url) {
          {
            std::lock_guard lock(mutex_);
            urls_.push_back(url);
          }
          return answer(url);
        });
    service_->Start();
    port_ = testsupport::EndpointPort(service_->endpoint());
  }
  void StartPassing() {
    StartWith([](const std::string&) { return ResolveResult{}; });
  }

  std::vector<std::string> urls() {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  std::string log() { return testsupport::ReadFileText(dir_.path() / "log"); }

  testsupport::TempDir dir_;
  std::mutex mutex_;
  std::vector<std::string> urls_;
  std::unique_ptr<ResolveService> service_;
  std::uint16_t port_ = 0;
};

TEST_F(ResolveServiceTest, AnswersEachStatus) {
  StartWith([](const std::string& url) {
    if (url == "ours") return ResolveResult{ResolveStatus::kResolved, "rtspt://x/s/1", ""};
    if (url == "broken") return ResolveResult{ResolveStatus::kFailed, "", "no host"};
    return ResolveResult{};
  });
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE ours\n"), "OK rtspt://x/s/1\n");
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE https://example.com/watch?v=1\n"), "PASS\n");
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE broken\n"), "ERR no host\n");
  EXPECT_EQ(service_->requests(), 3u);
  const std::string text = log();
  EXPECT_NE(text.find("ours -> rtspt://x/s/1"), std::string::npos);
  EXPECT_NE(text.find("https://example.com/watch?v=1 is not ours"), std::string::npos);
  EXPECT_NE(text.find("broken failed: no host"), std::string::npos);
}

TEST_F(ResolveServiceTest, LineOfExactly4096BytesIsValid) {
  StartPassing();
  const std::string url(4096 - 8 - 1, 'u');
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE " + url + "\n"), "PASS\n");
  ASSERT_EQ(urls().size(), 1u);
  EXPECT_EQ(urls()[0], url);
}

TEST_F(ResolveServiceTest, FourThousandNinetySixBytesWithoutNewlineAreMalformed) {
  StartPassing();
  TcpClient client(port_);
  client.Send("RESOLVE " + std::string(4096 - 8, 'u'));
  EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_TRUE(client.closed_by_peer());
  EXPECT_TRUE(urls().empty());
  EXPECT_NE(log().find("malformed request bytes=4096"), std::string::npos);
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE next\n"), "PASS\n");
}

TEST_F(ResolveServiceTest, VerbWithBlankAndNewlineResolvesEmptyUrl) {
  StartPassing();
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE \n"), "PASS\n");
  ASSERT_EQ(urls().size(), 1u);
  EXPECT_EQ(urls()[0], "");
}

TEST_F(ResolveServiceTest, VerbWithoutBlankIsUnknown) {
  StartPassing();
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE\n"), "ERR unknown verb\n");
  EXPECT_TRUE(urls().empty());
  EXPECT_EQ(service_->requests(), 0u);
  EXPECT_NE(log().find("unknown verb in 'RESOLVE'"), std::string::npos);
}

TEST_F(ResolveServiceTest, LowerCaseVerbIsUnknown) {
  StartPassing();
  EXPECT_EQ(ExchangeOnce(port_, "resolve https://example.com\n"), "ERR unknown verb\n");
  EXPECT_TRUE(urls().empty());
}

TEST_F(ResolveServiceTest, ALineEndedByCrLfMeansTheSameUrl) {
  StartPassing();
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE https://example.com/s/ABCDEFGHJKMN\r\n"), "PASS\n");
  ASSERT_EQ(urls().size(), 1u);
  EXPECT_EQ(urls()[0], "https://example.com/s/ABCDEFGHJKMN");
  // Only the one CR before the newline goes; one inside the URL stays (and makes it no link).
  EXPECT_EQ(ParseResolveRequest("RESOLVE a\rb\r"), "a\rb");
}

TEST_F(ResolveServiceTest, TwoLinesInOneWriteResolveOnlyTheFirst) {
  StartPassing();
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE first\nRESOLVE second\n"), "PASS\n");
  EXPECT_EQ(urls(), std::vector<std::string>{"first"});
  EXPECT_EQ(service_->requests(), 1u);
}

TEST_F(ResolveServiceTest, LineSplitOverSeveralWritesIsOneRequest) {
  StartPassing();
  TcpClient client(port_);
  client.Send("RESO");
  std::this_thread::sleep_for(20ms);
  client.Send("LVE split");
  std::this_thread::sleep_for(20ms);
  client.Send("\n");
  EXPECT_EQ(client.ReadToEnd(), "PASS\n");
  EXPECT_EQ(urls(), std::vector<std::string>{"split"});
}

TEST_F(ResolveServiceTest, ClientThatClosesAtOnceIsMalformedAndNextIsServed) {
  StartPassing();
  { TcpClient client(port_); }
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE after\n"), "PASS\n");
  EXPECT_NE(log().find("malformed request bytes=0"), std::string::npos);
  EXPECT_EQ(urls(), std::vector<std::string>{"after"});
}

TEST_F(ResolveServiceTest, PartialLineThenCloseIsMalformed) {
  StartPassing();
  {
    TcpClient client(port_);
    client.Send("RESOLVE half");
    client.ShutdownWrite();
    EXPECT_EQ(client.ReadToEnd(), "");
  }
  EXPECT_NE(log().find("malformed request bytes=12"), std::string::npos);
  EXPECT_TRUE(urls().empty());
}

// Any program of the user can open the endpoint and say nothing (a browser's preconnect does):
// it is closed once the read limit passes, and the request behind it is answered.
TEST_F(ResolveServiceTest, SilentClientIsClosedAtTheLimitAndTheNextIsServed) {
  StartPassing();
  TcpClient silent(port_);
  const auto started = std::chrono::steady_clock::now();
  auto waiting =
      std::async(std::launch::async, [this] { return ExchangeOnce(port_, "RESOLVE later\n"); });
  ASSERT_EQ(waiting.wait_for(kRequestReadLimit + 3s), std::future_status::ready);
  EXPECT_EQ(waiting.get(), "PASS\n");
  EXPECT_GE(std::chrono::steady_clock::now() - started, kRequestReadLimit - 100ms);
  EXPECT_EQ(urls(), std::vector<std::string>{"later"});

  EXPECT_EQ(silent.ReadToEnd(1s), "");
  EXPECT_TRUE(silent.closed_by_peer());
  EXPECT_NE(log().find("no request line within 2000 ms (bytes=0); closed"), std::string::npos)
      << log();
  EXPECT_EQ(log().find("malformed request"), std::string::npos) << log();
}

TEST_F(ResolveServiceTest, HalfALineThenSilenceIsClosedAtTheLimit) {
  StartPassing();
  TcpClient client(port_);
  client.Send("RESOLVE https://mirell.example/s/AB");
  EXPECT_EQ(client.ReadToEnd(kRequestReadLimit + 3s), "");
  EXPECT_TRUE(client.closed_by_peer());
  EXPECT_TRUE(urls().empty());
  EXPECT_NE(log().find("no request line within 2000 ms (bytes=35); closed"), std::string::npos)
      << log();
}

TEST_F(ResolveServiceTest, StopIsNotHeldByASilentClient) {
  StartPassing();
  TcpClient silent(port_);
  // Wait until the service is reading from the silent client: a request behind it is queued.
  auto queued = std::async(std::launch::async, [this] { return ExchangeOnce(port_, "RESOLVE q\n"); });
  EXPECT_EQ(queued.wait_for(200ms), std::future_status::timeout);

  const auto started = std::chrono::steady_clock::now();
  service_->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
  EXPECT_EQ(queued.get(), "");
  EXPECT_TRUE(urls().empty());
  EXPECT_EQ(log().find("malformed request"), std::string::npos) << log();
}

// Served connections leave TIME_WAIT entries behind; a restart on the same port must still bind.
TEST_F(ResolveServiceTest, StartsAgainAtOnceOnTheSamePortAfterServing) {
  StartPassing();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ExchangeOnce(port_, "RESOLVE x\n"), "PASS\n");
  const std::string same = "127.0.0.1:" + std::to_string(port_);
  service_->Stop();
  ResolveService again(same, [](const std::string&) { return ResolveResult{}; });
  ASSERT_NO_THROW(again.Start());
  EXPECT_EQ(again.endpoint(), same);
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE again\n"), "PASS\n");
}

TEST_F(ResolveServiceTest, FailedWithEmptyReasonAnswersBareErr) {
  StartWith([](const std::string&) { return ResolveResult{ResolveStatus::kFailed, "", ""}; });
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE x\n"), "ERR \n");
}

TEST_F(ResolveServiceTest, UnknownStatusAnswersNothing) {
  StartWith([](const std::string&) {
    return ResolveResult{static_cast<ResolveStatus>(7), "ignored", "ignored"};
  });
  TcpClient client(port_);
  client.Send("RESOLVE x\n");
  EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_TRUE(client.closed_by_peer());
  EXPECT_EQ(service_->requests(), 1u);
}

TEST_F(ResolveServiceTest, OverlongUnknownLineLogsOnlyThirtyTwoBytes) {
  StartPassing();
  const std::string line = "GET /" + std::string(100, 'a') + "tail";
  EXPECT_EQ(ExchangeOnce(port_, line + "\n"), "ERR unknown verb\n");
  const std::string text = log();
  EXPECT_NE(text.find("unknown verb in '" + line.substr(0, 32) + "'"), std::string::npos);
  EXPECT_EQ(text.find(line.substr(0, 33)), std::string::npos);
}

TEST_F(ResolveServiceTest, ThrowingResolverDropsTheConnectionAndIsNotCounted) {
  StartWith([](const std::string& url) -> ResolveResult {
    if (url == "bad") throw std::runtime_error("viewing broke");
    return ResolveResult{};
  });
  TcpClient client(port_);
  client.Send("RESOLVE bad\n");
  EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_TRUE(client.closed_by_peer());
  EXPECT_EQ(service_->requests(), 0u);
  EXPECT_NE(log().find("request failed: viewing broke"), std::string::npos);
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE good\n"), "PASS\n");
  EXPECT_EQ(service_->requests(), 1u);
}

TEST_F(ResolveServiceTest, ClientsAreServedOneAtATime) {
  std::atomic<int> inside{0};
  std::atomic<int> most_inside{0};
  StartWith([&](const std::string&) {
    const int now = ++inside;
    int seen = most_inside.load();
    while (now > seen && !most_inside.compare_exchange_weak(seen, now)) {
    }
    std::this_thread::sleep_for(5ms);
    --inside;
    return ResolveResult{};
  });
  std::vector<std::future<std::string>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::async(std::launch::async, [this, i] {
      return ExchangeOnce(port_, "RESOLVE " + std::to_string(i) + "\n");
    }));
  }
  for (auto& client : clients) EXPECT_EQ(client.get(), "PASS\n");
  EXPECT_EQ(most_inside.load(), 1);
  EXPECT_EQ(service_->requests(), 8u);
}

TEST_F(ResolveServiceTest, StopEndsAnIdleLoopPromptlyAndClosesTheEndpoint) {
  StartPassing();
  const auto started = std::chrono::steady_clock::now();
  service_->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  EXPECT_EQ(service_->endpoint(), "");
  EXPECT_THROW(TcpClient client(port_), std::runtime_error);
  EXPECT_NE(log().find("stopped after 0 requests"), std::string::npos);
  service_->Stop();  // A second Stop does nothing.
}

TEST_F(ResolveServiceTest, CanStartAgainAfterStop) {
  StartPassing();
  service_->Stop();
  service_->Start();
  port_ = testsupport::EndpointPort(service_->endpoint());
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE again\n"), "PASS\n");
}

TEST_F(ResolveServiceTest, StartTwiceDoesNothing) {
  StartPassing();
  const std::string endpoint = service_->endpoint();
  service_->Start();
  EXPECT_EQ(service_->endpoint(), endpoint);
}

TEST_F(ResolveServiceTest, EmptyResolverFailsTheCheck) {
  try {
    ResolveService service("127.0.0.1:0", nullptr);
    FAIL() << "constructed without a resolver";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find(
                  "check failed: resolver_ != nullptr - ResolveService needs a resolver"),
              std::string::npos);
  }
}

TEST_F(ResolveServiceTest, TakenEndpointMakesStartThrowAndLeavesItStopped) {
  StartPassing();
  ResolveService second("127.0.0.1:" + std::to_string(port_), [](const std::string&) {
    return ResolveResult{};
  });
  try {
    second.Start();
    FAIL() << "bound a taken port";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("could not listen on 127.0.0.1:" +
                                             std::to_string(port_)),
              std::string::npos);
  }
  EXPECT_EQ(second.endpoint(), "");
  second.Stop();
  EXPECT_EQ(ExchangeOnce(port_, "RESOLVE first-still-serves\n"), "PASS\n");
}

TEST_F(ResolveServiceTest, EndpointOfAnotherFormIsRefused) {
  for (const std::string name : {"\\\\.\\pipe\\mirell", "0.0.0.0:8555", "127.0.0.1:", "127.0.0.1:70000",
                                 "127.0.0.1:12x", "localhost:8555"}) {
    ResolveService service(name, [](const std::string&) { return ResolveResult{}; });
    try {
      service.Start();
      ADD_FAILURE() << "accepted " << name;
    } catch (const Error& error) {
      EXPECT_NE(std::string(error.what()).find("the resolve endpoint must be 127.0.0.1:PORT, not '" +
                                               name + "'"),
                std::string::npos);
    }
  }
}

}  // namespace
}  // namespace mirell::resolve
