// One process per instance key. The first start holds the instance's lock for its whole life;
// a later start with the same key asks the first (to show its window, share, or decide about a
// viewer: instance_request.h) and exits. On Linux the lock is an flock on a file named from the
// key in the user's runtime directory, released by the kernel when the process ends however it
// ends, and a request is one line each way over a local socket named from the same key in the
// same directory.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace mirell::ui {

// True if this process is to go on. Takes the lock before anything else is built; a lock that
// cannot be taken at all (no usable directory) lets the process go on, so two may then run.
// False when another process holds it.
bool AcquireSingleInstance(const std::string& key);

// Sends `request` (one line, without its newline) to the instance holding the lock and waits at
// most `limit` for its answer line. nullopt when nobody listens or answers in time.
std::optional<std::string> AskRunningInstance(const std::string& request,
                                              std::chrono::milliseconds limit);

// Answers later starts' requests with `answer` (request line in, reply line out, on the interface
// thread); installed once, a second call does nothing. A request must arrive within 2 s and hold
// at most kMaxInstanceLine bytes, or its connection is closed unanswered.
void ServeInstanceRequests(std::function<std::string(const std::string& request)> answer);

// Where the lock and the show socket live: $XDG_RUNTIME_DIR, else a directory of this user's
// alone (mode 0700) under the temporary directory. Empty when neither is usable.
std::filesystem::path InstanceDirectory();

}  // namespace mirell::ui
