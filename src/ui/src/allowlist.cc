#include "mirell/ui/allowlist.h"

#include <QSettings>
#include <QString>
#include <QStringList>
#include <algorithm>

#include "mirell/daemon/vrchat_identity.h"

namespace mirell::ui {
namespace {

constexpr const char* kKey = "access/allowlist";

}  // namespace

std::string AllowlistElement(const AllowlistEntry& entry) { return entry.user_id + "|" + entry.name; }

AllowlistEntry ParseAllowlistElement(const std::string& element) {
  const auto bar = element.find('|');
  if (bar == std::string::npos) return {element, {}};
  return {element.substr(0, bar), element.substr(bar + 1)};
}

std::vector<AllowlistEntry> LoadAllowlist() {
  std::vector<AllowlistEntry> entries;
  for (const QString& element : QSettings().value(kKey).toStringList()) {
    AllowlistEntry entry = ParseAllowlistElement(element.toStdString());
    if (daemon::IsVRChatUserId(entry.user_id)) entries.push_back(std::move(entry));
  }
  return entries;
}

void SaveAllowlist(const std::vector<AllowlistEntry>& entries) {
  QStringList elements;
  for (const AllowlistEntry& entry : entries) {
    elements.push_back(QString::fromStdString(AllowlistElement(entry)));
  }
  QSettings().setValue(kKey, elements);
}

bool AddToAllowlist(std::vector<AllowlistEntry>& entries, const std::string& user_id,
                    const std::string& name) {
  if (!daemon::IsVRChatUserId(user_id)) return false;
  const auto existing = std::find_if(entries.begin(), entries.end(),
                                     [&](const AllowlistEntry& entry) { return entry.user_id == user_id; });
  if (existing == entries.end()) {
    entries.push_back({user_id, name});
  } else if (!name.empty()) {
    existing->name = name;
  }
  return true;
}

std::map<std::string, std::string> AllowlistToMap(const std::vector<AllowlistEntry>& entries) {
  std::map<std::string, std::string> map;
  for (const AllowlistEntry& entry : entries) map.emplace(entry.user_id, entry.name);
  return map;
}

}  // namespace mirell::ui
