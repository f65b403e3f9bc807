// Where VRChat keeps its files on this machine. On Linux VRChat runs under Steam's Proton, so its
// Windows folders live inside the Proton prefix of its app id in one of the Steam libraries.
#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

namespace mirell::vrchat {

// VRChat's Tools directory (where its resolver yt-dlp.exe lives); empty when none is found.
std::filesystem::path DefaultToolsDirectory();

// VRChat's own folder, where it writes its logs (the Tools directory's parent); empty when none
// is found.
std::filesystem::path DefaultVRChatDirectory();

// The file that holds VRChat's preferences: its registry, under Proton the prefix's user.reg
// (Wine keeps the registry as text); empty when none is found.
std::filesystem::path DefaultVRChatPreferencesFile();

// The Steam libraries of this user: the Steam roots that exist, and every library listed in their
// steamapps/libraryfolders.vdf, in that order, without repeats.
std::vector<std::filesystem::path> SteamLibraries();

// The "path" values of a libraryfolders.vdf text, in order.
std::vector<std::filesystem::path> ParseLibraryFolders(std::string_view vdf);

}  // namespace mirell::vrchat
