#include <string>
#include <string_view>

#include "mirell/base/logging.h"

namespace mirell {
namespace {

constexpr std::string_view kOperator = "operator";
// MSVC and g++ spell the anonymous namespace differently; both are noise in a log line.
constexpr std::string_view kAnonymousNamespaces[] = {"`anonymous-namespace'::", "{anonymous}::"};

std::string_view TrimRight(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

bool EndsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// The name up to its parameter list: the first '(' at angle-bracket depth 0 that does not belong
// to "operator ()".
std::string_view CutParameterList(std::string_view signature) {
  int depth = 0;
  for (std::size_t i = 0; i < signature.size(); ++i) {
    const char c = signature[i];
    if (c == '<') {
      ++depth;
    } else if (c == '>') {
      --depth;
    } else if (c == '(' && depth == 0) {
      const std::string_view before = TrimRight(signature.substr(0, i));
      if (!EndsWith(before, kOperator)) return before;
    }
  }
  return signature;
}

// Drops everything up to the last depth-0 blank before the first "operator": return type and
// calling convention.
std::string_view DropReturnType(std::string_view name) {
  const std::size_t operator_at = name.find(kOperator);
  const std::size_t scan_end = operator_at == std::string_view::npos ? name.size() : operator_at;
  int depth = 0;
  std::size_t last_blank = std::string_view::npos;
  for (std::size_t i = 0; i < scan_end; ++i) {
    const char c = name[i];
    if (c == '<') {
      ++depth;
    } else if (c == '>') {
      --depth;
    } else if (c == ' ' && depth == 0) {
      last_blank = i;
    }
  }
  return last_blank == std::string_view::npos ? name : name.substr(last_blank + 1);
}

void EraseAll(std::string& text, std::string_view needle) {
  for (std::size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at)) {
    text.erase(at, needle.size());
  }
}

}  // namespace

std::string ShortFunctionName(std::string_view signature) {
  if (signature.empty()) return "?";
  std::string result(DropReturnType(TrimRight(CutParameterList(signature))));
  const std::size_t operator_blank = result.find("operator ");
  if (operator_blank != std::string::npos) result.erase(operator_blank + kOperator.size(), 1);
  for (const std::string_view anonymous : kAnonymousNamespaces) EraseAll(result, anonymous);
  return result.empty() ? "?" : result;
}

}  // namespace mirell
