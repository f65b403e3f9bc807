// The process-wide log: one threshold, stderr and an optional file.
//
// Any thread may log. A line is formatted before the log's mutex is taken and written in one
// write under it, so lines from different threads never interleave.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <source_location>
#include <string>
#include <string_view>

namespace mirell {

using SourceLocation = std::source_location;

enum class LogLevel : std::int32_t {
  kTrace = 0,
  kDebug = 1,
  kInfo = 2,
  kWarn = 3,
  kError = 4,
};

// The threshold. The first call of either function reads MIRELL_LOG exactly once, so an explicit
// SetLogLevel always wins over the environment, whichever happens first.
LogLevel GetLogLevel();
void SetLogLevel(LogLevel level);

// Opens `path` for writing, truncating it: a log holds one run. Returns false and keeps the
// current file when the open fails. The file is never closed explicitly.
bool SetLogFile(const std::filesystem::path& path);

// Writes one line to stderr and the log file, whatever the threshold.
void LogWrite(LogLevel level, std::string_view message, const SourceLocation& location);

// The five-character text of a level in a log line; "?????" outside the table.
std::string_view LogLevelText(LogLevel level);

// Reduces a full function signature to its qualified name: return type, calling convention,
// parameter list and the anonymous-namespace qualifier removed. Empty input gives "?".
std::string ShortFunctionName(std::string_view signature);

namespace detail {
extern std::atomic<bool> log_environment_read;
extern std::atomic<std::int32_t> log_threshold;
void ReadLogEnvironment();

// The filter at the call site: one load and one comparison once the environment has been read.
inline bool LogEnabled(LogLevel level) {
  if (!log_environment_read.load(std::memory_order_acquire)) ReadLogEnvironment();
  return static_cast<std::int32_t>(level) >= log_threshold.load(std::memory_order_relaxed);
}
}  // namespace detail

}  // namespace mirell

// Arguments of a filtered message are not evaluated.
#define MIRELL_LOG_AT(level, format_text, ...)                                                   \
  do {                                                                                      \
    if (::mirell::detail::LogEnabled(level)) {                                              \
      ::mirell::LogWrite(level, ::fmt::format(format_text __VA_OPT__(, ) __VA_ARGS__),           \
                         ::std::source_location::current());                                \
    }                                                                                       \
  } while (false)

#define LOG_DEBUG(format_text, ...) MIRELL_LOG_AT(::mirell::LogLevel::kDebug, format_text __VA_OPT__(, ) __VA_ARGS__)
#define LOG_INFO(format_text, ...) MIRELL_LOG_AT(::mirell::LogLevel::kInfo, format_text __VA_OPT__(, ) __VA_ARGS__)
#define LOG_WARN(format_text, ...) MIRELL_LOG_AT(::mirell::LogLevel::kWarn, format_text __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR(format_text, ...) MIRELL_LOG_AT(::mirell::LogLevel::kError, format_text __VA_OPT__(, ) __VA_ARGS__)
