// Which VRChat account the user is signed in to, read from VRChat's own log as it grows. A viewer
// claims this account when it asks to be let in, and the host's allowlist is keyed by it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace mirell::vrchat {

struct VRChatIdentity {
  std::string user_id;
  std::string display_name;
};

// A VRChat user id: "usr_" and a UUID of hexadecimal digits (either case), or an older id of 6
// to 20 letters and digits. One rule for the allowlist and for the log.
bool IsVRChatUserId(std::string_view id);

// What follows "User Authenticated: " on a log line: a display name, a blank, and the user id in
// parentheses (the last " (" counts, so a name may hold parentheses). Nothing when the id fails.
std::optional<VRChatIdentity> ParseAuthenticatedAccount(std::string_view rest);

// The newest "output_log_*.txt" of a directory, by last-write time (the first found among equals);
// empty when there is none.
std::filesystem::path NewestVRChatLog(const std::filesystem::path& directory);

class VRChatIdentityWatcher {
 public:
  // An empty directory means VRChat's own, inside its Proton prefix; while there is none (VRChat
  // never ran), each Poll looks for it again.
  explicit VRChatIdentityWatcher(std::filesystem::path log_directory = {});
  ~VRChatIdentityWatcher();
  VRChatIdentityWatcher(VRChatIdentityWatcher&&) noexcept;
  VRChatIdentityWatcher& operator=(VRChatIdentityWatcher&&) noexcept;

  // Reads what was added to the newest log; true when the account changed by this call.
  bool Poll();
  VRChatIdentity Identity() const;
  // The log the account was read from; empty before one was found.
  std::filesystem::path CurrentLog() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace mirell::vrchat
