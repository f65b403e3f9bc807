// A process of its own for the tests of MIRELL_LOG, which is read once per process.
// Usage: log_probe <level | set-warn-then-level | lines>
#include <cstdio>
#include <cstring>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  if (std::strcmp(argv[1], "level") == 0) {
    std::printf("%d\n", static_cast<int>(mirell::GetLogLevel()));
  } else if (std::strcmp(argv[1], "set-warn-then-level") == 0) {
    mirell::SetLogLevel(mirell::LogLevel::kWarn);
    std::printf("%d\n", static_cast<int>(mirell::GetLogLevel()));
  } else if (std::strcmp(argv[1], "lines") == 0) {
    LOG_DEBUG("debug line {}", 1);
    LOG_INFO("info line {}", 2);
    LOG_WARN("warn line {}", 3);
    LOG_ERROR("error line {}", 4);
    MIRELL_WARN_HR(-2);
  } else {
    return 2;
  }
  return 0;
}
