// MIRELL_LOG is read once per process, so each case runs in a process of its own.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "mirell/testsupport/subprocess.h"

namespace {

using mirell::testsupport::ProcessOptions;
using mirell::testsupport::ProcessResult;
using mirell::testsupport::RunProcess;

ProcessResult Probe(const std::string& mode, std::optional<std::string> mirell_log) {
  ProcessOptions options;
  options.environment["MIRELL_LOG"] = std::move(mirell_log);
  ProcessResult result = RunProcess({MIRELL_LOG_PROBE, mode}, options);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  return result;
}

TEST(LogEnvironment, UnsetMeansWarnAndDropsInfoAndDebug) {
  EXPECT_EQ(Probe("level", std::nullopt).out, "3\n");
  const ProcessResult lines = Probe("lines", std::nullopt);
  EXPECT_EQ(lines.err.find("debug line"), std::string::npos);
  EXPECT_EQ(lines.err.find("info line"), std::string::npos);
  EXPECT_NE(lines.err.find("warn  main@"), std::string::npos) << lines.err;
  EXPECT_NE(lines.err.find("error main@"), std::string::npos) << lines.err;
}

TEST(LogEnvironment, EachWordSelectsItsLevel) {
  EXPECT_EQ(Probe("level", "trace").out, "0\n");
  EXPECT_EQ(Probe("level", "debug").out, "1\n");
  EXPECT_EQ(Probe("level", "info").out, "2\n");
  EXPECT_EQ(Probe("level", "warn").out, "3\n");
  EXPECT_EQ(Probe("level", "error").out, "4\n");
}

TEST(LogEnvironment, WrongCaseIsNotAWord) { EXPECT_EQ(Probe("level", "Debug").out, "3\n"); }

TEST(LogEnvironment, EmptyValueChangesNothing) { EXPECT_EQ(Probe("level", "").out, "3\n"); }

TEST(LogEnvironment, ExplicitLevelBeatsEnvironment) {
  EXPECT_EQ(Probe("set-warn-then-level", "debug").out, "3\n");
}

TEST(LogEnvironment, ValueOf32CharactersIsIgnored) {
  const std::string value = "debug" + std::string(27, 'x');
  ASSERT_EQ(value.size(), 32u);
  EXPECT_EQ(Probe("level", value).out, "3\n");
}

TEST(LogEnvironment, DebugLevelLetsDebugLinesThrough) {
  const ProcessResult lines = Probe("lines", "debug");
  EXPECT_NE(lines.err.find("debug main@"), std::string::npos) << lines.err;
  EXPECT_NE(lines.err.find(": debug line 1\n"), std::string::npos) << lines.err;
  EXPECT_NE(lines.err.find(": info line 2\n"), std::string::npos) << lines.err;
}

TEST(LogEnvironment, WarnHrIsWrittenEvenAtError) {
  const ProcessResult lines = Probe("lines", "error");
  EXPECT_EQ(lines.err.find("warn line"), std::string::npos);
  EXPECT_NE(lines.err.find("warn  main@"), std::string::npos) << lines.err;
  EXPECT_NE(lines.err.find(": `-2` failed with 0xFFFFFFFE (No such file or directory) (continuing)\n"),
            std::string::npos)
      << lines.err;
}

}  // namespace
