#include "command_line.h"

#include <gtest/gtest.h>

namespace mirell::stub {
namespace {

TEST(CommandLine, TailAfterAQuotedOrBareProgramName) {
  EXPECT_EQ(CommandLineTail(L"\"C:\\Program Files\\yt-dlp.exe\" --get-url x"), L" --get-url x");
  EXPECT_EQ(CommandLineTail(L"yt-dlp.exe --get-url x"), L" --get-url x");
  EXPECT_EQ(CommandLineTail(L"yt-dlp.exe"), L"");
  EXPECT_EQ(CommandLineTail(L"\"unterminated"), L"");
}

TEST(CommandLine, SplitsByTheRuntimeRules) {
  const auto arguments = SplitArguments(L" -f \"mp4/best[height<=?720]\" a\\\\b \"x\\\"y\" \"a\"\"b\" c\\\\\\\"d  \"\" end");
  ASSERT_EQ(arguments.size(), 8u);
  EXPECT_EQ(arguments[0], L"-f");
  EXPECT_EQ(arguments[1], L"mp4/best[height<=?720]");
  EXPECT_EQ(arguments[2], L"a\\\\b");     // Backslashes not before a quote are literal.
  EXPECT_EQ(arguments[3], L"x\"y");        // \" is a quote.
  EXPECT_EQ(arguments[4], L"a\"b");        // "" inside quotes is a quote.
  EXPECT_EQ(arguments[5], L"c\\\"d");      // \\\" is a backslash and a quote.
  EXPECT_EQ(arguments[6], L"");            // An empty quoted argument.
  EXPECT_EQ(arguments[7], L"end");
}

TEST(CommandLine, TheUrlIsTheLastArgumentWithAScheme) {
  EXPECT_EQ(FindUrl({L"--get-url", L"https://a/1", L"-f", L"https://b/2"}), L"https://b/2");
  EXPECT_EQ(FindUrl({L"--get-url", L"-f", L"best"}), L"");
  EXPECT_EQ(FindUrl({}), L"");
}

}  // namespace
}  // namespace mirell::stub
