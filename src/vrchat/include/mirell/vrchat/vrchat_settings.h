// One VRChat preference: whether it may load URLs outside its trusted list. Without it share
// links load and then show nothing, so the interface warns. Read only; nothing here writes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirell::vrchat {

enum class UntrustedUrls : std::uint32_t {
  kAllowed = 0,  // The preference is on.
  kBlocked = 1,  // Off, or never written.
  kUnknown = 2,  // It could not be read.
};

// A value of a registry key as the registry keeps it: its name, type (the registry's numbers:
// 4 is a 32-bit number) and bytes.
struct RegistryValue {
  static constexpr std::uint32_t kDword = 4;
  std::string name;
  std::uint32_t type = 0;
  std::string data;
};

// The decision from the values of VRChat's preferences key (nothing: the key could not be
// opened): the exact name first, then the same setting under any other hash suffix.
UntrustedUrls UntrustedUrlsFromKey(const std::optional<std::vector<RegistryValue>>& values);

// The values of VRChat's preferences key on this machine; nothing when there is no such key.
std::optional<std::vector<RegistryValue>> ReadVRChatPreferences();

// The preference as VRChat last saved it (it saves when it exits).
UntrustedUrls AllowUntrustedUrls();

// Where the setting is in VRChat's menus, for the interface's warning.
std::string_view UntrustedUrlsSettingPath();

}  // namespace mirell::vrchat
