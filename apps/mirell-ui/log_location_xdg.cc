// The XDG base directories: $XDG_STATE_HOME, else $HOME/.local/state.
#include <cstdlib>
#include <system_error>

#include "log_location.h"

namespace mirell::ui {

std::filesystem::path DefaultLogDirectory() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && state[0] == '/') return std::filesystem::path(state) / "mirell";
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home != nullptr && home[0] != '\0' ? home : "/") / ".local/state/mirell";
}

bool PrepareLogFile(const std::filesystem::path& log) {
  std::error_code error;
  if (log.has_parent_path()) std::filesystem::create_directories(log.parent_path(), error);
  if (error) return false;
  if (std::filesystem::exists(log, error)) {
    std::filesystem::rename(log, log.string() + ".1", error);
  }
  return true;
}

}  // namespace mirell::ui
