#include "mirell/vrchat/vrchat_settings.h"

#include <cstring>

#include "mirell/base/ascii.h"
#include "mirell/base/logging.h"

namespace mirell::vrchat {
namespace {

constexpr std::string_view kValueName = "VRC_ALLOW_UNTRUSTED_URL_h3795044449";
constexpr std::string_view kValuePrefix = "VRC_ALLOW_UNTRUSTED_URL_h";

// A value counts only as a 32-bit number of four bytes.
std::optional<UntrustedUrls> Decide(const RegistryValue& value) {
  if (value.type != RegistryValue::kDword || value.data.size() != 4) return std::nullopt;
  std::uint32_t number = 0;
  std::memcpy(&number, value.data.data(), sizeof number);
  return number == 0 ? UntrustedUrls::kBlocked : UntrustedUrls::kAllowed;
}

}  // namespace

UntrustedUrls UntrustedUrlsFromKey(const std::optional<std::vector<RegistryValue>>& values) {
  if (!values) {
    LOG_DEBUG("no preferences key, cannot read the untrusted-URL setting");
    return UntrustedUrls::kUnknown;
  }
  for (const auto& value : *values) {
    // The registry finds a value by its name in any letter case.
    if (!EqualsIgnoringAsciiCase(value.name, kValueName)) continue;
    if (const auto decided = Decide(value)) return *decided;
    break;
  }
  // The name ends in a hash that another VRChat build may compute differently.
  const RegistryValue* found = nullptr;
  for (const auto& value : *values) {
    if (value.name.compare(0, kValuePrefix.size(), kValuePrefix) == 0) {
      found = &value;
      break;
    }
  }
  if (found == nullptr) {
    LOG_DEBUG("the untrusted-URL setting has never been written; it is off");
    return UntrustedUrls::kBlocked;
  }
  if (const auto decided = Decide(*found)) return *decided;
  LOG_DEBUG("the untrusted-URL setting is not a number we understand");
  return UntrustedUrls::kUnknown;
}

UntrustedUrls AllowUntrustedUrls() { return UntrustedUrlsFromKey(ReadVRChatPreferences()); }

std::string_view UntrustedUrlsSettingPath() {
  return "Settings, then Comfort & Safety, then Allow Untrusted URLs";
}

}  // namespace mirell::vrchat
