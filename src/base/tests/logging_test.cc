#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"

namespace {

using mirell::LogLevel;
using mirell::testsupport::ReadFileText;
using mirell::testsupport::TempDir;

// Each test leaves the threshold and file as the next one expects.
class LoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mirell::SetLogLevel(LogLevel::kTrace);
    ASSERT_TRUE(mirell::SetLogFile(log_path()));
  }
  void TearDown() override { mirell::SetLogLevel(LogLevel::kWarn); }
  std::filesystem::path log_path() const { return dir_.path() / "test.log"; }
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::stringstream text(ReadFileText(log_path()));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }

  TempDir dir_;
};

TEST(LogLevelText, FiveCharactersPerLevel) {
  EXPECT_EQ(mirell::LogLevelText(LogLevel::kTrace), "trace");
  EXPECT_EQ(mirell::LogLevelText(LogLevel::kDebug), "debug");
  EXPECT_EQ(mirell::LogLevelText(LogLevel::kInfo), "info ");
  EXPECT_EQ(mirell::LogLevelText(LogLevel::kWarn), "warn ");
  EXPECT_EQ(mirell::LogLevelText(LogLevel::kError), "error");
  EXPECT_EQ(mirell::LogLevelText(static_cast<LogLevel>(5)), "?????");
  EXPECT_EQ(mirell::LogLevelText(static_cast<LogLevel>(-1)), "?????");
}

void LogFromAFunction() { LOG_INFO("capture target gone, {}", "stopped"); }

TEST_F(LoggingTest, LineHasTimeLevelShortNameLineAndMessage) {
  LogFromAFunction();
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 1u);
  const std::regex format(
      R"(^\d\d:\d\d:\d\d\.\d\d\d info  LogFromAFunction@\d+: capture target gone, stopped$)");
  EXPECT_TRUE(std::regex_match(lines[0], format)) << lines[0];
}

TEST_F(LoggingTest, LineEndsWithOneLineFeed) {
  LOG_WARN("one");
  const std::string text = ReadFileText(log_path());
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  EXPECT_EQ(text.find('\r'), std::string::npos);
}

TEST_F(LoggingTest, TimeIsLocalTimeOfDay) {
  LOG_ERROR("now");
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 1u);
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  const int hour = std::stoi(lines[0].substr(0, 2));
  // The hour of the line is the local hour now, or the one just before across a boundary.
  EXPECT_TRUE(hour == local.tm_hour || hour == (local.tm_hour + 23) % 24) << lines[0];
}

int evaluations = 0;
int CountedArgument() { return ++evaluations; }

TEST_F(LoggingTest, FilteredMessageDoesNotEvaluateArguments) {
  mirell::SetLogLevel(LogLevel::kInfo);
  evaluations = 0;
  LOG_DEBUG("never {}", CountedArgument());
  EXPECT_EQ(evaluations, 0);
  LOG_INFO("once {}", CountedArgument());
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(LoggingTest, ThresholdDropsLowerLevels) {
  mirell::SetLogLevel(LogLevel::kWarn);
  LOG_DEBUG("d");
  LOG_INFO("i");
  LOG_WARN("w");
  LOG_ERROR("e");
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find(" warn  "), std::string::npos);
  EXPECT_NE(lines[1].find(" error "), std::string::npos);
}

TEST_F(LoggingTest, LogWriteIgnoresThreshold) {
  mirell::SetLogLevel(LogLevel::kError);
  mirell::LogWrite(LogLevel::kDebug, "written anyway", std::source_location::current());
  ASSERT_EQ(Lines().size(), 1u);
  EXPECT_NE(Lines()[0].find("debug"), std::string::npos);
}

TEST_F(LoggingTest, SetLogFileTruncates) {
  LOG_WARN("first run");
  ASSERT_EQ(Lines().size(), 1u);
  ASSERT_TRUE(mirell::SetLogFile(log_path()));
  EXPECT_TRUE(ReadFileText(log_path()).empty());
}

TEST_F(LoggingTest, FailedSetLogFileKeepsTheCurrentFile) {
  EXPECT_FALSE(mirell::SetLogFile(dir_.path() / "no-such-dir" / "x.log"));
  LOG_WARN("still here");
  ASSERT_EQ(Lines().size(), 1u);
  EXPECT_NE(Lines()[0].find("still here"), std::string::npos);
}

TEST_F(LoggingTest, ConcurrentLinesNeverInterleave) {
  constexpr int kLinesPerThread = 2000;
  const std::string payload_a(300, 'a');
  const std::string payload_b(300, 'b');
  auto writer = [](const std::string& payload) {
    for (int i = 0; i < kLinesPerThread; ++i) LOG_INFO("{} {}", payload, i);
  };
  std::thread a(writer, payload_a);
  std::thread b(writer, payload_b);
  a.join();
  b.join();
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 2u * kLinesPerThread);
  const std::regex whole(R"(^\d\d:\d\d:\d\d\.\d\d\d info  \S+@\d+: (a{300}|b{300}) \d+$)");
  int a_lines = 0;
  for (const auto& line : lines) {
    ASSERT_TRUE(std::regex_match(line, whole)) << line;
    if (line.find(payload_a) != std::string::npos) ++a_lines;
  }
  EXPECT_EQ(a_lines, kLinesPerThread);
}

}  // namespace
