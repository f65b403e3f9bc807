// The system's two failure types and the checks that raise them.
//
// A broken precondition or an unavailable resource is MIRELL_CHECK and throws Error. A failed
// platform call on the main path is MIRELL_CHECK_HR and throws HrError; one that nothing depends
// on is MIRELL_WARN_HR, which logs and goes on. "Negative status" means a negated errno value or
// a library's negative error code (FFmpeg's AVERROR values are of that kind).
#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <source_location>
#include <string>

#include "mirell/base/logging.h"

namespace mirell {

// A failed check. what() is complete enough to show a person as it stands.
class Error : public std::exception {
 public:
  Error(SourceLocation location, std::string message);
  const char* what() const noexcept override { return message_.c_str(); }
  const SourceLocation& location() const noexcept { return location_; }

 private:
  SourceLocation location_;
  std::string message_;
};

// A platform call that returned a negative status. Not derived from Error: the system catches
// std::exception only.
class HrError : public std::exception {
 public:
  HrError(std::int32_t hr, std::string expression, SourceLocation location);
  const char* what() const noexcept override { return message_.c_str(); }
  std::int32_t hr() const noexcept { return hr_; }
  const std::string& expression() const noexcept { return expression_; }
  const SourceLocation& location() const noexcept { return location_; }

 private:
  std::int32_t hr_;
  std::string expression_;
  SourceLocation location_;
  std::string message_;
};

[[noreturn]] void ThrowError(std::string&& message, const SourceLocation& location);
[[noreturn]] void ThrowHr(std::int32_t hr, const char* expression, const SourceLocation& location);
// Logs "`expression` failed with ... (continuing)" at warn, at every threshold.
void WarnHr(std::int32_t hr, const char* expression, const SourceLocation& location);

// "0x{:08X} ({})" with the system's text for the negated value where one exists, else "0x{:08X}".
std::string HrToString(std::int32_t hr);

// The parent directory and name of a source path, with forward slashes; "<unknown>" for null.
std::string ReducedSourcePath(const char* file);

// Turns a POSIX "-1 and errno" result into a negative status for the _HR checks.
inline std::int32_t PosixStatus(long result) { return result < 0 ? -errno : 0; }

}  // namespace mirell

// The format string is one literal built at compile time: the expression's text stands in it,
// so a checked expression must hold no braces.
#define MIRELL_CHECK(expression, format_text, ...)                                                   \
  do {                                                                                          \
    if (!(expression)) {                                                                        \
      ::mirell::ThrowError(                                                                     \
          ::fmt::format("check failed: " #expression " - " format_text __VA_OPT__(, ) __VA_ARGS__),  \
          ::std::source_location::current());                                                   \
    }                                                                                           \
  } while (false)

#define MIRELL_CHECK_HR(call)                                                                   \
  do {                                                                                          \
    const auto mirell_status_ = (call);                                                         \
    if (mirell_status_ < 0) {                                                                   \
      ::mirell::ThrowHr(static_cast<::std::int32_t>(mirell_status_), #call,                     \
                        ::std::source_location::current());                                     \
    }                                                                                           \
  } while (false)

#define MIRELL_WARN_HR(call)                                                                    \
  do {                                                                                          \
    const auto mirell_status_ = (call);                                                         \
    if (mirell_status_ < 0) {                                                                   \
      ::mirell::WarnHr(static_cast<::std::int32_t>(mirell_status_), #call,                      \
                       ::std::source_location::current());                                      \
    }                                                                                           \
  } while (false)
