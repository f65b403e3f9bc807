#include "mirell/signal/http_answers.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "mirell/protocol/signal_endpoint.h"

namespace mirell::signal {
namespace {

TEST(HttpAnswers, TheSharePageIsTheSameForAnyTokenAndSelfContained) {
  const auto live = AnswerHttp("GET", "/s/ABCDEFGHJKMN", std::nullopt);
  const auto dead = AnswerHttp("GET", "/s/ZZZZZZZZZZZZ?x=1", std::nullopt);
  EXPECT_EQ(live.status, 200u);
  EXPECT_EQ(live.content_type, "text/html; charset=utf-8");
  EXPECT_EQ(live.body, dead.body);
  EXPECT_NE(live.body.find("VRChat"), std::string::npos);
  EXPECT_NE(live.body.find("Mirell"), std::string::npos);
  EXPECT_EQ(live.body.find("ABCDEFGHJKMN"), std::string::npos);
  for (const char* external : {"http://", "https://", "src=", "href=", "@import", "url("}) {
    EXPECT_EQ(live.body.find(external), std::string::npos) << external;
  }
  EXPECT_EQ(AnswerHttp("GET", "/s/", std::nullopt).status, 404u);
}

TEST(HttpAnswers, APublicSharesPageNamesItsRelayStreamForVRChatsResolver) {
  const PublicStreamLookup lookup = [](std::string_view token) {
    return token == "PUBLIC123456" ? std::string("rtspt://relay.example.org:8554/s/PUBLIC123456")
                                   : std::string();
  };
  const auto page = AnswerHttp("GET", "/s/PUBLIC123456", std::nullopt, lookup);
  EXPECT_EQ(page.status, 200u);
  EXPECT_NE(page.body.find(R"(<video hidden src="rtspt://relay.example.org:8554/s/PUBLIC123456">)"),
            std::string::npos)
      << page.body;
  EXPECT_NE(page.body.find("Anyone with this link can watch"), std::string::npos);

  // Not public, or not known: today's page, the same for both.
  const auto other = AnswerHttp("GET", "/s/PRIVATE12345", std::nullopt, lookup);
  EXPECT_EQ(other.body, AnswerHttp("GET", "/s/ZZZZZZZZZZZZ", std::nullopt, lookup).body);
  EXPECT_EQ(other.body, AnswerHttp("GET", "/s/PRIVATE12345", std::nullopt).body);
  EXPECT_EQ(other.body.find("<video"), std::string::npos);
}

TEST(HttpAnswers, TheRelayAddressIsEscapedInThePage) {
  const auto page = AnswerHttp("GET", "/s/T", std::nullopt,
                               [](std::string_view) { return std::string(R"(rtspt://a"><script>&)"); });
  EXPECT_EQ(page.body.find("<script>"), std::string::npos);
  EXPECT_NE(page.body.find("rtspt://a&quot;&gt;&lt;script&gt;&amp;"), std::string::npos);
}

TEST(HttpAnswers, LatestAnswersJsonOnlyWhenConfigured) {
  EXPECT_EQ(AnswerHttp("GET", "/latest", std::nullopt).status, 404u);
  const auto answer = AnswerHttp("GET", "/latest", LatestRelease{"0.2.0", "https://x.example/get"});
  EXPECT_EQ(answer.status, 200u);
  EXPECT_EQ(answer.content_type, "application/json");
  EXPECT_EQ(nlohmann::json::parse(answer.body),
            nlohmann::json::parse(R"({"version":"0.2.0","url":"https://x.example/get"})"));
}

// A viewer follows a link to a server it does not know only after this answer.
TEST(HttpAnswers, TheSignalEndpointSaysWhatItIsToAPlainGet) {
  const auto answer = AnswerHttp("GET", "/signal", std::nullopt);
  EXPECT_EQ(answer.status, protocol::kSignalEndpointStatus);
  EXPECT_TRUE(answer.body.starts_with(std::string(protocol::kSignalEndpointMarker) + "\n"))
      << answer.body;
  for (const std::string_view path : {"/", "/s/ABCDEFGHJKMN", "/latest", "/signal/x", "/signals"}) {
    EXPECT_EQ(AnswerHttp("GET", path, std::nullopt).body.find(protocol::kSignalEndpointMarker),
              std::string::npos)
        << path;
  }
}

TEST(HttpAnswers, OtherPathsAndMethods) {
  EXPECT_EQ(AnswerHttp("GET", "/", std::nullopt).status, 404u);
  EXPECT_EQ(AnswerHttp("GET", "/signal", std::nullopt).status, 426u);
  EXPECT_EQ(AnswerHttp("GET", "/signal?x=1", std::nullopt).status, 426u);
  EXPECT_EQ(AnswerHttp("POST", "/s/ABC", std::nullopt).status, 405u);
  EXPECT_EQ(AnswerHttp("HEAD", "/s/ABC", std::nullopt).status, 200u);
}

}  // namespace
}  // namespace mirell::signal
