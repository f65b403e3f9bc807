// Who gets into a share without being asked: VRChat user ids with the names the user gave them,
// in the user's order, stored under "access/allowlist" as "id|name" strings. A convenience, not a
// security boundary: an id is only what a viewer claims.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace mirell::ui {

struct AllowlistEntry {
  std::string user_id;
  std::string name;  // May be empty.
};

// Entries whose id is not a VRChat user id are dropped silently; order kept, duplicates too.
std::vector<AllowlistEntry> LoadAllowlist();
void SaveAllowlist(const std::vector<AllowlistEntry>& entries);
// False when `user_id` is no VRChat user id. An id already there keeps its place and takes the
// new name unless that is empty; a new one is appended.
bool AddToAllowlist(std::vector<AllowlistEntry>& entries, const std::string& user_id,
                    const std::string& name);
// What the share's door takes; with duplicate ids the first stays.
std::map<std::string, std::string> AllowlistToMap(const std::vector<AllowlistEntry>& entries);

// The stored form of one entry and back: only the first bar separates, so names may hold bars.
std::string AllowlistElement(const AllowlistEntry& entry);
AllowlistEntry ParseAllowlistElement(const std::string& element);

}  // namespace mirell::ui
