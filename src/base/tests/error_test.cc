#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <type_traits>

#include "mirell/base/error.h"
#include "mirell/testsupport/subprocess.h"

namespace {

using mirell::Error;
using mirell::HrError;

static_assert(!std::is_base_of_v<Error, HrError>);
static_assert(std::is_base_of_v<std::exception, Error>);
static_assert(std::is_base_of_v<std::exception, HrError>);
static_assert(std::is_copy_constructible_v<Error> && std::is_copy_constructible_v<HrError>);

void CheckStartup(int result) {
  MIRELL_CHECK(result == 0, "WSAStartup failed with {}", result);
}

TEST(Check, PassingCheckDoesNotThrow) { EXPECT_NO_THROW(CheckStartup(0)); }

TEST(Check, MessageHoldsExpressionAndSentence) {
  try {
    CheckStartup(10091);
    FAIL() << "no throw";
  } catch (const Error& error) {
    const std::string what = error.what();
    const std::string tail = ": check failed: result == 0 - WSAStartup failed with 10091";
    ASSERT_GE(what.size(), tail.size());
    EXPECT_EQ(what.substr(what.size() - tail.size()), tail) << what;
    // Reduced file, line, then the full signature.
    EXPECT_EQ(what.rfind("tests/error_test.cc:", 0), 0u) << what;
    EXPECT_NE(what.find(" void {anonymous}::CheckStartup(int): check failed"), std::string::npos)
        << what;
    EXPECT_STREQ(error.location().function_name(), "void {anonymous}::CheckStartup(int)");
  }
}

TEST(Check, CheckWithoutArguments) {
  EXPECT_THROW(MIRELL_CHECK(1 + 1 == 3, "arithmetic is broken"), Error);
}

TEST(Check, CopyDuplicatesTheText) {
  try {
    CheckStartup(1);
  } catch (const Error& error) {
    const Error copy = error;
    EXPECT_STREQ(copy.what(), error.what());
    EXPECT_NE(static_cast<const void*>(copy.what()), static_cast<const void*>(error.what()));
  }
}

TEST(Error, NullFileBeginsWithUnknown) {
  const Error error(mirell::SourceLocation{}, "text");
  EXPECT_EQ(std::string(error.what()).rfind("<unknown>:0 ", 0), 0u) << error.what();
}

TEST(ReducedSourcePath, ParentDirectoryAndName) {
  EXPECT_EQ(mirell::ReducedSourcePath("src\\daemon\\src\\winsock.cpp"), "src/winsock.cpp");
  EXPECT_EQ(mirell::ReducedSourcePath("apps\\mirell-ui\\main.cpp"), "mirell-ui/main.cpp");
  EXPECT_EQ(mirell::ReducedSourcePath("/work/src/base/src/error.cc"), "src/error.cc");
  EXPECT_EQ(mirell::ReducedSourcePath("main.cc"), "main.cc");
  EXPECT_EQ(mirell::ReducedSourcePath(nullptr), "<unknown>");
  EXPECT_EQ(mirell::ReducedSourcePath(""), "<unknown>");
}

TEST(HrToString, SystemTextWhereOneExists) {
  EXPECT_EQ(mirell::HrToString(-ENOENT), "0xFFFFFFFE (No such file or directory)");
  EXPECT_EQ(mirell::HrToString(-EADDRINUSE), "0xFFFFFF9E (Address already in use)");
}

TEST(HrToString, UnknownCodeHasNoParentheses) {
  // FFmpeg's end-of-file tag: a negative code that is no errno value.
  constexpr std::int32_t kTag = -static_cast<std::int32_t>('E' | ('O' << 8) | ('F' << 16) | (' ' << 24));
  EXPECT_EQ(mirell::HrToString(kTag), "0xDFB9B0BB");
  EXPECT_EQ(mirell::HrToString(INT32_MIN), "0x80000000");
}

int FailingCall() { return -EACCES; }
int SucceedingCall() { return 7; }

TEST(CheckHr, ThrowsWithTheCallsText) {
  try {
    MIRELL_CHECK_HR(FailingCall());
    FAIL() << "no throw";
  } catch (const HrError& error) {
    EXPECT_EQ(error.hr(), -EACCES);
    EXPECT_EQ(error.expression(), "FailingCall()");
    const std::string what = error.what();
    const std::string tail = ": `FailingCall()` failed with 0xFFFFFFF3 (Permission denied)";
    ASSERT_GE(what.size(), tail.size());
    EXPECT_EQ(what.substr(what.size() - tail.size()), tail) << what;
    EXPECT_EQ(what.rfind("tests/error_test.cc:", 0), 0u) << what;
  }
}

TEST(CheckHr, NonNegativeResultsPass) {
  EXPECT_NO_THROW(MIRELL_CHECK_HR(SucceedingCall()));
  EXPECT_NO_THROW(MIRELL_CHECK_HR(0));
}

TEST(CheckHr, PosixStatusCarriesErrno) {
  EXPECT_THROW(MIRELL_CHECK_HR(mirell::PosixStatus(::close(-1))), HrError);
  try {
    MIRELL_CHECK_HR(mirell::PosixStatus(::close(-1)));
  } catch (const HrError& error) {
    EXPECT_EQ(error.hr(), -EBADF);
  }
}

TEST(WarnHr, LogsAndGoesOn) {
  mirell::testsupport::TempDir dir;
  ASSERT_TRUE(mirell::SetLogFile(dir.path() / "warn.log"));
  mirell::SetLogLevel(mirell::LogLevel::kError);
  MIRELL_WARN_HR(FailingCall());
  MIRELL_WARN_HR(SucceedingCall());
  mirell::SetLogLevel(mirell::LogLevel::kWarn);
  const std::string text = mirell::testsupport::ReadFileText(dir.path() / "warn.log");
  EXPECT_NE(text.find(" warn  WarnHr_LogsAndGoesOn_Test::TestBody@"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find(": `FailingCall()` failed with 0xFFFFFFF3 (Permission denied) (continuing)\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("SucceedingCall"), std::string::npos);
}

}  // namespace
