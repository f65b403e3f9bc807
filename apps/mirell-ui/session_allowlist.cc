#include "session_allowlist.h"

#include <algorithm>

namespace mirell::ui {

session::Allowlist SessionAllowlistOf(const std::vector<settings::AllowlistEntry>& entries) {
  session::Allowlist allowlist;
  for (const settings::AllowlistEntry& entry : entries) {
    const auto [at, added] = allowlist.try_emplace(entry.user_id);
    if (added) at->second.name = entry.name;
    auto& keys = at->second.key_fingerprints;
    for (const std::string& key : entry.key_fingerprints) {
      if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
    }
  }
  return allowlist;
}

}  // namespace mirell::ui
