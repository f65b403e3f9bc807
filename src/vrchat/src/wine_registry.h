// Wine keeps a prefix's registry as text (user.reg for the current user's keys):
//   [Software\\VRChat\\VRChat] 1700000000
//   "Name"=dword:00000001
//   "Other"=hex:01,02,03
// where a long value goes on over several lines, each but the last ending in a backslash.
// Reading one key's values out of that text, tolerant of what it does not know: a value whose
// line cannot be read is left out, not fatal.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "mirell/vrchat/vrchat_settings.h"

namespace mirell::vrchat {

// The values of `key` (a path below the file's root, single backslashes, any letter case);
// nothing when the text has no section for it.
std::optional<std::vector<RegistryValue>> ReadWineRegistryKey(std::string_view text, std::string_view key);

}  // namespace mirell::vrchat
