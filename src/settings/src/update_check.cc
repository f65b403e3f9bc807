#include "mirell/settings/update_check.h"

#include <QSettings>
#include <QString>
#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace mirell::settings {

std::optional<UpdateInfo> ParseUpdateInfo(const std::string& body) {
  const nlohmann::json document = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) return std::nullopt;
  const auto version = document.find("version");
  const auto url = document.find("url");
  if (version == document.end() || url == document.end()) return std::nullopt;
  if (!version->is_string() || !url->is_string()) return std::nullopt;
  UpdateInfo info{version->get<std::string>(), url->get<std::string>()};
  if (info.version.empty()) return std::nullopt;
  return info;
}

std::optional<std::vector<int>> ParseVersion(const std::string& text) {
  if (text.empty()) return std::nullopt;
  std::vector<int> pieces;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t dot = std::min(text.find('.', at), text.size());
    int piece = 0;
    const char* begin = text.data() + at;
    const char* end = text.data() + dot;
    const auto [stop, error] = std::from_chars(begin, end, piece);
    if (begin == end || error != std::errc{} || stop != end || piece < 0) return std::nullopt;
    pieces.push_back(piece);
    at = dot + 1;  // Past the end after the last piece, or after a single trailing dot.
  }
  return pieces;
}

bool IsNewerVersion(const std::string& current, const std::string& candidate) {
  const std::optional<std::vector<int>> have = ParseVersion(current);
  const std::optional<std::vector<int>> offered = ParseVersion(candidate);
  if (!have || !offered) return false;
  const std::size_t length = std::max(have->size(), offered->size());
  for (std::size_t i = 0; i < length; ++i) {
    const int mine = i < have->size() ? (*have)[i] : 0;
    const int theirs = i < offered->size() ? (*offered)[i] : 0;
    if (mine != theirs) return mine < theirs;
  }
  return false;
}

bool ShouldPrompt(const std::string& current, const UpdateInfo& info, const std::string& skipped) {
  return IsNewerVersion(current, info.version) && info.url.rfind("https://", 0) == 0 &&
         info.version != skipped;
}

std::string LoadSkippedVersion() {
  return QSettings().value("update/skippedVersion").toString().toStdString();
}

void SaveSkippedVersion(const std::string& version) {
  QSettings().setValue("update/skippedVersion", QString::fromStdString(version));
}

}  // namespace mirell::settings
