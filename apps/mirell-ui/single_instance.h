// One process per instance key. The first start holds the instance's lock for its whole life;
// a later start with the same key asks the first to show its window and exits. On Linux the
// lock is an flock on a file named from the key in the user's runtime directory, released by
// the kernel when the process ends however it ends, and the show request is a connection to a
// local socket named from the same key in the same directory.
#pragma once

#include <filesystem>
#include <string>

class QWidget;

namespace mirell::ui {

// True if this process is to go on. Takes the lock before anything else is built; a lock that
// cannot be taken at all (no usable directory) lets the process go on, so two may then run.
// False after sending the show request to the running instance.
bool AcquireSingleInstance(const std::string& key);

// Shows, raises and activates `window` whenever a later start asks; installed once, a second
// call does nothing. Interface thread.
void InstallShowRequestFilter(QWidget* window);

// Where the lock and the show socket live: $XDG_RUNTIME_DIR, else a directory of this user's
// alone (mode 0700) under the temporary directory. Empty when neither is usable.
std::filesystem::path InstanceDirectory();

}  // namespace mirell::ui
