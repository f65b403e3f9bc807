// The update check's rules: the document, the versions and their order, the skipped version.
#include <gtest/gtest.h>

#include "mirell/settings/update_check.h"
#include "temporary_settings.h"

namespace mirell::settings {
namespace {

TEST(UpdateDocument, VersionAndUrlAreTakenOtherMembersIgnored) {
  const auto info = ParseUpdateInfo(
      R"({"version":"0.2","url":"https://mirell.example/get","notes":["x"],"size":3})");
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->version, "0.2");
  EXPECT_EQ(info->url, "https://mirell.example/get");
}

TEST(UpdateDocument, AnythingElseGivesNothing) {
  for (const char* body :
       {"", "not json", "[]", "\"0.2\"", "{}", R"({"version":"0.2"})", R"({"url":"https://x"})",
        R"({"version":"","url":"https://x"})", R"({"version":2,"url":"https://x"})",
        R"({"version":"0.2","url":null})", R"({"version":"0.2","url":"https://x")"}) {
    EXPECT_FALSE(ParseUpdateInfo(body).has_value()) << body;
  }
}

TEST(UpdateVersion, DottedDecimalsAndOneTrailingDot) {
  EXPECT_EQ(ParseVersion("1.2.3"), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(ParseVersion("0"), (std::vector<int>{0}));
  EXPECT_EQ(ParseVersion("1.2."), (std::vector<int>{1, 2}));
  EXPECT_EQ(ParseVersion("2147483647"), (std::vector<int>{2147483647}));
  for (const char* text : {"", ".", ".1", "1..2", "1.2..", "1.2-beta", "v1", "-1", "+1", "1.-2",
                           "2147483648", "1. 2", " 1", "1.2 "}) {
    EXPECT_FALSE(ParseVersion(text).has_value()) << text;
  }
}

TEST(UpdateVersion, TheSameVersionIsNotNewer) {
  EXPECT_FALSE(IsNewerVersion("0.1.3", "0.1.3"));
  EXPECT_FALSE(IsNewerVersion("1.2", "1.2.0"));
  EXPECT_FALSE(IsNewerVersion("1.2.0", "1.2"));
}

TEST(UpdateVersion, NewerOlderAndMissingPieces) {
  EXPECT_TRUE(IsNewerVersion("0.1.3", "0.2"));
  EXPECT_TRUE(IsNewerVersion("0.1.3", "0.1.3.1"));  // A missing piece counts as 0.
  EXPECT_TRUE(IsNewerVersion("0.9", "0.10"));        // Numbers, not text.
  EXPECT_FALSE(IsNewerVersion("0.1.3", "0.1.2"));
  EXPECT_FALSE(IsNewerVersion("0.2", "0.1.9"));
  EXPECT_FALSE(IsNewerVersion("0.1.3", "0.2-beta"));
  EXPECT_FALSE(IsNewerVersion("dev", "9.9"));
}

TEST(UpdatePrompt, OnlyNewerOverHttpsAndNotTheSkippedText) {
  EXPECT_TRUE(ShouldPrompt("0.1.3", {"0.2", "https://mirell.example/"}, ""));
  EXPECT_FALSE(ShouldPrompt("0.1.3", {"0.1.3", "https://mirell.example/"}, ""));
  EXPECT_FALSE(ShouldPrompt("0.1.3", {"99.0", "http://mirell.example/"}, ""));
  EXPECT_FALSE(ShouldPrompt("0.1.3", {"99.0", "HTTPS://mirell.example/"}, ""));  // Case-sensitive.
  EXPECT_FALSE(ShouldPrompt("0.1.3", {"0.2", "https://mirell.example/"}, "0.2"));
  // The skipped version is compared as text: 0.2.0 skipped still lets 0.2 through.
  EXPECT_TRUE(ShouldPrompt("0.1.3", {"0.2", "https://mirell.example/"}, "0.2.0"));
}

class SkippedVersionStore : public TemporarySettings {};

TEST_F(SkippedVersionStore, NoneUntilSavedThenTheExactText) {
  EXPECT_EQ(LoadSkippedVersion(), "");
  SaveSkippedVersion("0.2.0");
  EXPECT_EQ(LoadSkippedVersion(), "0.2.0");
  EXPECT_EQ(QSettings().value("update/skippedVersion").toString(), "0.2.0");
}

}  // namespace
}  // namespace mirell::settings
