// Whether an answer of the update endpoint is worth telling the user about: the document's form,
// dotted versions and their order, and the one version the user asked not to hear of again
// (QSettings "update/skippedVersion").
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace mirell::settings {

struct UpdateInfo {
  std::string version;
  std::string url;
};

// A JSON object with string members "version" (not empty) and "url"; other members are ignored.
std::optional<UpdateInfo> ParseUpdateInfo(const std::string& body);
// "1.2.3" gives 1, 2, 3. Each piece a non-negative decimal that fits 32 bits; one trailing dot is
// accepted; "1.2-beta", "", ".1" and "1..2" are not versions.
std::optional<std::vector<int>> ParseVersion(const std::string& text);
// Missing pieces count as 0, so 1.2 and 1.2.0 are the same; false when either is no version.
bool IsNewerVersion(const std::string& current, const std::string& candidate);
// Newer, offered over https://, and not the exact text the user skipped.
bool ShouldPrompt(const std::string& current, const UpdateInfo& info, const std::string& skipped);

std::string LoadSkippedVersion();  // Empty when none.
void SaveSkippedVersion(const std::string& version);

}  // namespace mirell::settings
