#include "mirell/settings/allowlist.h"

#include <QSettings>
#include <QString>
#include <QStringList>
#include <algorithm>

#include "mirell/vrchat/vrchat_identity.h"

namespace mirell::settings {
namespace {

constexpr const char* kKey = "access/allowlist";
constexpr const char* kKeysKey = "access/allowlistKeys";

std::vector<AllowlistEntry>::iterator Find(std::vector<AllowlistEntry>& entries, const std::string& user_id) {
  return std::find_if(entries.begin(), entries.end(),
                      [&](const AllowlistEntry& entry) { return entry.user_id == user_id; });
}

void AddKey(AllowlistEntry& entry, const std::string& key_fingerprint) {
  auto& keys = entry.key_fingerprints;
  if (!key_fingerprint.empty() && std::find(keys.begin(), keys.end(), key_fingerprint) == keys.end()) {
    keys.push_back(key_fingerprint);
  }
}

}  // namespace

std::string AllowlistElement(const AllowlistEntry& entry) { return entry.user_id + "|" + entry.name; }

AllowlistEntry ParseAllowlistElement(const std::string& element) {
  const auto bar = element.find('|');
  if (bar == std::string::npos) return {element, {}, {}};
  return {element.substr(0, bar), element.substr(bar + 1), {}};
}

std::vector<AllowlistEntry> LoadAllowlist() {
  std::vector<AllowlistEntry> entries;
  const QSettings settings;
  for (const QString& element : settings.value(kKey).toStringList()) {
    AllowlistEntry entry = ParseAllowlistElement(element.toStdString());
    if (vrchat::IsVRChatUserId(entry.user_id)) entries.push_back(std::move(entry));
  }
  for (const QString& element : settings.value(kKeysKey).toStringList()) {
    const AllowlistEntry pair = ParseAllowlistElement(element.toStdString());
    const auto entry = Find(entries, pair.user_id);
    if (entry != entries.end()) AddKey(*entry, pair.name);
  }
  return entries;
}

void SaveAllowlist(const std::vector<AllowlistEntry>& entries) {
  QStringList elements;
  QStringList keys;
  for (const AllowlistEntry& entry : entries) {
    elements.push_back(QString::fromStdString(AllowlistElement(entry)));
    for (const std::string& key : entry.key_fingerprints) {
      keys.push_back(QString::fromStdString(entry.user_id + "|" + key));
    }
  }
  QSettings settings;
  settings.setValue(kKey, elements);
  settings.setValue(kKeysKey, keys);
}

bool AddToAllowlist(std::vector<AllowlistEntry>& entries, const std::string& user_id,
                    const std::string& name, const std::string& key_fingerprint) {
  if (!vrchat::IsVRChatUserId(user_id)) return false;
  auto existing = Find(entries, user_id);
  if (existing == entries.end()) {
    entries.push_back({user_id, name, {}});
    existing = entries.end() - 1;
  } else if (!name.empty()) {
    existing->name = name;
  }
  AddKey(*existing, key_fingerprint);
  return true;
}

bool AddKeyToAllowlist(std::vector<AllowlistEntry>& entries, const std::string& user_id,
                       const std::string& key_fingerprint) {
  const auto existing = Find(entries, user_id);
  if (existing == entries.end()) return false;
  AddKey(*existing, key_fingerprint);
  return true;
}

}  // namespace mirell::settings
