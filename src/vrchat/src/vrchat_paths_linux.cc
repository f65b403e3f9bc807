// Linux: VRChat under Proton. Its AppData lives in the prefix of app 438100 in a Steam library.
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "mirell/vrchat/vrchat_paths.h"

namespace mirell::vrchat {
namespace {

constexpr const char* kVrchatAppId = "438100";

std::filesystem::path Home() {
  const char* home = std::getenv("HOME");
  return home != nullptr ? std::filesystem::path(home) : std::filesystem::path();
}

// The quoted strings of a VDF text, with its backslash escapes undone.
std::vector<std::string> QuotedTokens(std::string_view text) {
  std::vector<std::string> tokens;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '"') continue;
    std::string token;
    for (++at; at < text.size() && text[at] != '"'; ++at) {
      if (text[at] == '\\' && at + 1 < text.size()) ++at;
      token += text[at];
    }
    tokens.push_back(std::move(token));
  }
  return tokens;
}

}  // namespace

std::vector<std::filesystem::path> ParseLibraryFolders(std::string_view vdf) {
  std::vector<std::filesystem::path> paths;
  const auto tokens = QuotedTokens(vdf);
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i) {
    if (tokens[i] == "path") paths.emplace_back(tokens[++i]);
  }
  return paths;
}

std::vector<std::filesystem::path> SteamLibraries() {
  const auto home = Home();
  if (home.empty()) return {};
  const std::filesystem::path roots[] = {
      home / ".steam" / "steam",
      home / ".local" / "share" / "Steam",
      home / ".var" / "app" / "com.valvesoftware.Steam" / ".local" / "share" / "Steam",
  };
  std::vector<std::filesystem::path> libraries;
  const auto add = [&](const std::filesystem::path& library) {
    std::error_code ignored;
    if (!std::filesystem::is_directory(library, ignored)) return;
    const auto canonical = std::filesystem::weakly_canonical(library, ignored);
    for (const auto& known : libraries) {
      if (std::filesystem::weakly_canonical(known, ignored) == canonical) return;
    }
    libraries.push_back(library);
  };
  for (const auto& root : roots) {
    add(root);
    std::ifstream file(root / "steamapps" / "libraryfolders.vdf");
    if (!file) continue;
    std::stringstream text;
    text << file.rdbuf();
    for (const auto& library : ParseLibraryFolders(text.str())) add(library);
  }
  return libraries;
}

namespace {

std::filesystem::path PrefixIn(const std::filesystem::path& library) {
  return library / "steamapps" / "compatdata" / kVrchatAppId / "pfx";
}

std::filesystem::path VRChatDirectoryIn(const std::filesystem::path& library) {
  return PrefixIn(library) / "drive_c" / "users" / "steamuser" / "AppData" / "LocalLow" / "VRChat" / "VRChat";
}

// The first library's path made by `place` that `exists` accepts.
template <typename Place, typename Exists>
std::filesystem::path FirstInLibraries(Place place, Exists exists) {
  for (const auto& library : SteamLibraries()) {
    const auto path = place(library);
    std::error_code ignored;
    if (exists(path, ignored)) return path;
  }
  return {};
}

bool IsDirectory(const std::filesystem::path& path, std::error_code& error) {
  return std::filesystem::is_directory(path, error);
}

bool IsRegularFile(const std::filesystem::path& path, std::error_code& error) {
  return std::filesystem::is_regular_file(path, error);
}

}  // namespace

std::filesystem::path DefaultToolsDirectory() {
  return FirstInLibraries([](const auto& library) { return VRChatDirectoryIn(library) / "Tools"; }, IsDirectory);
}

std::filesystem::path DefaultVRChatDirectory() {
  return FirstInLibraries([](const auto& library) { return VRChatDirectoryIn(library); }, IsDirectory);
}

std::filesystem::path DefaultVRChatPreferencesFile() {
  return FirstInLibraries([](const auto& library) { return PrefixIn(library) / "user.reg"; }, IsRegularFile);
}

}  // namespace mirell::vrchat
