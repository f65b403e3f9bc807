// Linux: VRChat runs under Proton, so its preferences are in the prefix's registry, which Wine
// keeps as the text file user.reg (keys relative to the current user's root).
#include <fstream>
#include <sstream>

#include "mirell/vrchat/vrchat_paths.h"
#include "mirell/vrchat/vrchat_settings.h"
#include "wine_registry.h"

namespace mirell::vrchat {
namespace {

constexpr std::string_view kPreferencesKey = "Software\\VRChat\\VRChat";
constexpr int kReadAttempts = 5;

std::optional<std::string> ReadWhole(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

std::optional<std::vector<RegistryValue>> ReadVRChatPreferences() {
  const auto file = DefaultVRChatPreferencesFile();
  if (file.empty()) return std::nullopt;
  // Wine saves the registry by writing a new file and renaming it over the old one, which a
  // reader sees whole. Should another writer rewrite it in place, two reads that agree stand for
  // a text that was not changing.
  auto text = ReadWhole(file);
  for (int attempt = 1; text && attempt < kReadAttempts; ++attempt) {
    auto again = ReadWhole(file);
    if (again == text) break;
    text = std::move(again);
  }
  if (!text) return std::nullopt;
  return ReadWineRegistryKey(*text, kPreferencesKey);
}

}  // namespace mirell::vrchat
