// "--restore-vrchat": put VRChat's resolver back, remove everything Mirell left in its Tools
// directory, and exit, with no window and no Qt. The way out of a stub left behind by a crash.
#pragma once

#include <optional>
#include <string>

namespace mirell::ui {

// Restores the Tools folder `tools_dir` (VRChat's own, found by itself, when not given). The
// exit code: 0 when VRChat's resolver is back in place, 1 when the restore failed (the reason on
// stderr and in the log, "mirell-restore.log" in the temporary directory).
int RunRestoreMode(const std::optional<std::string>& tools_dir);

}  // namespace mirell::ui
