// Who gets into a share without being asked: VRChat user ids with the names the user gave them,
// in the user's order, stored under "access/allowlist" as "id|name" strings, and the computers
// (identity key fingerprints) let in under each id, under "access/allowlistKeys" as "id|key"
// strings. An id is only what a viewer claims; a key is what it proves.
#pragma once

#include <string>
#include <vector>

namespace mirell::settings {

struct AllowlistEntry {
  std::string user_id;
  std::string name;  // May be empty.
  std::vector<std::string> key_fingerprints;
};

// Entries whose id is not a VRChat user id are dropped silently; order kept, duplicates too;
// each key goes to the first entry of its id.
std::vector<AllowlistEntry> LoadAllowlist();
void SaveAllowlist(const std::vector<AllowlistEntry>& entries);
// False when `user_id` is no VRChat user id. An id already there keeps its place and takes the
// new name unless that is empty; a new one is appended. A non-empty key fingerprint is added to
// the entry's keys unless it is there.
bool AddToAllowlist(std::vector<AllowlistEntry>& entries, const std::string& user_id,
                    const std::string& name, const std::string& key_fingerprint = {});
// Adds the key to the entry of `user_id` when there is one; false when there is none.
bool AddKeyToAllowlist(std::vector<AllowlistEntry>& entries, const std::string& user_id,
                       const std::string& key_fingerprint);

// The stored form of one entry and back: only the first bar separates, so names may hold bars.
std::string AllowlistElement(const AllowlistEntry& entry);
AllowlistEntry ParseAllowlistElement(const std::string& element);

}  // namespace mirell::settings
