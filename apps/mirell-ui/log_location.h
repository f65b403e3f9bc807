// Where mirell-ui writes its log: where the desktop keeps an application's state, never beside
// the executable (an install under /usr/bin cannot write there, and ~/.local/bin is no place for
// logs). Each start keeps the run before it, so that the log of a crash survives the restart
// that recovers from it.
#pragma once

#include <filesystem>

namespace mirell::ui {

// $XDG_STATE_HOME/mirell, or ~/.local/state/mirell without it (an absolute path only, as the
// XDG rules say).
std::filesystem::path DefaultLogDirectory();

// Renames an existing `log` to `log` + ".1", replacing an older one, and makes its folder; false
// when the folder cannot be made (the run then goes on without a log file).
bool PrepareLogFile(const std::filesystem::path& log);

}  // namespace mirell::ui
