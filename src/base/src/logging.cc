#include "mirell/base/logging.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

namespace mirell {
namespace detail {

std::atomic<bool> log_environment_read{false};
std::atomic<std::int32_t> log_threshold{static_cast<std::int32_t>(LogLevel::kWarn)};

namespace {

constexpr std::size_t kEnvironmentBufferSize = 32;

struct EnvironmentWord {
  const char* word;
  LogLevel level;
};
constexpr std::array<EnvironmentWord, 5> kEnvironmentWords{{
    {"trace", LogLevel::kTrace},
    {"debug", LogLevel::kDebug},
    {"info", LogLevel::kInfo},
    {"warn", LogLevel::kWarn},
    {"error", LogLevel::kError},
}};

std::once_flag environment_once;

void ApplyEnvironment() {
  const char* value = std::getenv("MIRELL_LOG");
  // The value must fit a 32-byte buffer with its terminator; a longer one counts as a failed read.
  if (value == nullptr || value[0] == '\0' || std::strlen(value) >= kEnvironmentBufferSize) return;
  LogLevel level = LogLevel::kWarn;
  for (const auto& entry : kEnvironmentWords) {
    if (std::strcmp(value, entry.word) == 0) level = entry.level;
  }
  log_threshold.store(static_cast<std::int32_t>(level), std::memory_order_relaxed);
}

}  // namespace

void ReadLogEnvironment() {
  std::call_once(environment_once, ApplyEnvironment);
  log_environment_read.store(true, std::memory_order_release);
}

}  // namespace detail

namespace {

std::mutex log_mutex;
std::FILE* log_file = nullptr;  // Guarded by log_mutex.

std::string LocalTimeOfDay() {
  const auto now = std::chrono::system_clock::now();
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  const std::time_t seconds = static_cast<std::time_t>(millis / 1000);
  std::tm local{};
  localtime_r(&seconds, &local);
  return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                     millis % 1000);
}

}  // namespace

LogLevel GetLogLevel() {
  detail::ReadLogEnvironment();
  return static_cast<LogLevel>(detail::log_threshold.load(std::memory_order_relaxed));
}

void SetLogLevel(LogLevel level) {
  detail::ReadLogEnvironment();
  detail::log_threshold.store(static_cast<std::int32_t>(level), std::memory_order_relaxed);
}

std::string_view LogLevelText(LogLevel level) {
  switch (level) {
    case LogLevel::kTrace: return "trace";
    case LogLevel::kDebug: return "debug";
    case LogLevel::kInfo: return "info ";
    case LogLevel::kWarn: return "warn ";
    case LogLevel::kError: return "error";
  }
  return "?????";
}

bool SetLogFile(const std::filesystem::path& path) {
  // "e": the log must not leak into child processes such as a preserved resolver.
  std::FILE* file = std::fopen(path.c_str(), "we");
  if (file == nullptr) return false;
  std::lock_guard lock(log_mutex);
  if (log_file != nullptr) std::fclose(log_file);
  log_file = file;
  return true;
}

void LogWrite(LogLevel level, std::string_view message, const SourceLocation& location) {
  const std::string line =
      fmt::format("{} {} {}@{}: {}\n", LocalTimeOfDay(), LogLevelText(level),
                  ShortFunctionName(location.function_name()), location.line(), message);
  std::lock_guard lock(log_mutex);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  if (log_file != nullptr) {
    std::fwrite(line.data(), 1, line.size(), log_file);
    std::fflush(log_file);
  }
}

}  // namespace mirell
