// "--restore-vrchat": put VRChat's resolver back, remove everything Mirell left in its Tools
// directory, and exit, with no window and no Qt. The way out of a stub left behind by a crash.
#pragma once

namespace mirell::ui {

// -1 when this is no restore run (main goes on); otherwise the exit code, always 0: the log
// file ("mirell-restore.log" in the temporary directory) is the only report.
int RunRestoreMode(int argc, char** argv);

}  // namespace mirell::ui
