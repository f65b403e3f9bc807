#include "mirell/transport/https_get.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "mirell/base/logging.h"
#include "mirell/protocol/signal_endpoint.h"
#include "mirell/testsupport/https_test_server.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/transport/signal_endpoint.h"

namespace mirell::transport {
namespace {

using namespace std::chrono_literals;

class HttpsGetTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("SSL_CERT_FILE", certificates_->Path("ca.pem").c_str(), 1); }
  void TearDown() override { unsetenv("SSL_CERT_FILE"); }

  testsupport::TestCertificates* certificates_ = &testsupport::SharedHttpsTestSite().certificates;
  testsupport::HttpsTestServer* server_ = &testsupport::SharedHttpsTestSite().server;
};

using testsupport::SilentListener;

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(HttpsGetTest, TheLimitsAreFiveSecondsAPhaseAndEightKilobytes) {
  const HttpsGetLimits limits;
  EXPECT_EQ(limits.phase, 5000ms);
  EXPECT_EQ(limits.max_body_bytes, 8192u);
}

TEST_F(HttpsGetTest, ABodyOfAVerifiedServerArrivesWhole) {
  server_->Put("latest", R"({"version":"0.2","url":"https://mirell.example/"})");
  EXPECT_EQ(HttpsGet(server_->Url("/files/latest")),
            R"({"version":"0.2","url":"https://mirell.example/"})");
  EXPECT_EQ(HttpsGet(server_->Url("/files/latest", "localhost")),
            R"({"version":"0.2","url":"https://mirell.example/"})");
}

TEST_F(HttpsGetTest, PlainHttpIsRefusedWithoutAsking) {
  server_->Put("plain", "answer");
  const std::string url = "http://127.0.0.1:" + std::to_string(server_->port()) + "/files/plain";
  EXPECT_FALSE(HttpsGet(url).has_value());
  EXPECT_FALSE(HttpsGet("").has_value());
  EXPECT_FALSE(HttpsGet("not a url").has_value());
}

TEST_F(HttpsGetTest, AnyStatusButTwoHundredGivesNothing) {
  for (const int status : {201, 204, 301, 404, 500}) {
    EXPECT_FALSE(HttpsGet(server_->Url("/status/" + std::to_string(status))).has_value())
        << status;
  }
  EXPECT_TRUE(HttpsGet(server_->Url("/status/200")).has_value());
}

TEST_F(HttpsGetTest, EightKilobytesArriveAndOneByteMoreIsDropped) {
  server_->Put("exact", std::string(8192, 'a'));
  server_->Put("over", std::string(8193, 'a'));
  const std::optional<std::string> exact = HttpsGet(server_->Url("/files/exact"));
  ASSERT_TRUE(exact.has_value());
  EXPECT_EQ(exact->size(), 8192u);
  EXPECT_FALSE(HttpsGet(server_->Url("/files/over")).has_value());
}

TEST_F(HttpsGetTest, ACertificateForAnotherNameOrFromAnUnknownAuthorityIsRefused) {
  server_->Put("latest", "{}");
  testsupport::HttpsTestServer other(*certificates_, "other");
  other.Put("latest", "{}");
  EXPECT_FALSE(HttpsGet(other.Url("/files/latest")).has_value());
  // The system's store, which does not hold the tests' authority.
  unsetenv("SSL_CERT_FILE");
  EXPECT_FALSE(HttpsGet(server_->Url("/files/latest")).has_value());
}

TEST_F(HttpsGetTest, AServerThatNeverAnswersEndsTheRequestAtTheLimit) {
  const HttpsGetLimits limits{1000ms, 8192};
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(HttpsGet(server_->Url("/silent"), limits).has_value());
  const double after_request = SecondsSince(start);
  EXPECT_GE(after_request, 0.9);
  EXPECT_LT(after_request, 3.5);  // Connect and send are quick; the receive phase ran out.

  SilentListener listener;
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(
      HttpsGet("https://127.0.0.1:" + std::to_string(listener.port()) + "/latest", limits)
          .has_value());
  const double after_handshake = SecondsSince(start);
  EXPECT_GE(after_handshake, 0.9);
  EXPECT_LT(after_handshake, 3.5);
}

// A web server that is not a Mirell signal server, whatever it answers, is not taken for one.
TEST_F(HttpsGetTest, OnlyTheSignalEndpointsMarkerMakesASignalEndpoint) {
  const std::string site = "wss://127.0.0.1:" + std::to_string(server_->port());
  const HttpsGetLimits limits{1500ms, 8192};
  server_->Put("marked", std::string(protocol::kSignalEndpointMarker) + "\n");
  EXPECT_FALSE(AnswersAsSignalEndpoint(site + "/files/marked", limits)) << "200 is no endpoint";
  EXPECT_FALSE(AnswersAsSignalEndpoint(site + "/status/426", limits)) << "426 without the marker";
  EXPECT_FALSE(AnswersAsSignalEndpoint(site + "/signal", limits)) << "404";
  EXPECT_FALSE(AnswersAsSignalEndpoint("https://127.0.0.1:1/signal", limits)) << "not a ws URL";
  EXPECT_FALSE(AnswersAsSignalEndpoint("", limits));
}

TEST_F(HttpsGetTest, ASignalEndpointThatNeverAnswersIsNoneAtTheLimit) {
  const HttpsGetLimits limits{1000ms, 8192};
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(AnswersAsSignalEndpoint(
      "wss://127.0.0.1:" + std::to_string(server_->port()) + "/silent", limits));
  EXPECT_GE(SecondsSince(start), 0.9);
  EXPECT_LT(SecondsSince(start), 3.5);
  SilentListener listener;
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(
      AnswersAsSignalEndpoint("ws://127.0.0.1:" + std::to_string(listener.port()) + "/signal", limits));
  EXPECT_GE(SecondsSince(start), 0.9);
  EXPECT_LT(SecondsSince(start), 3.5);
}

TEST_F(HttpsGetTest, NothingListeningFailsAtOnce) {
  int port = 0;
  {
    SilentListener closed;
    port = closed.port();
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(HttpsGet("https://127.0.0.1:" + std::to_string(port) + "/latest").has_value());
  EXPECT_LT(SecondsSince(start), 2.0);
}

}  // namespace
}  // namespace mirell::transport
