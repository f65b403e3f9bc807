#include "wine_registry.h"

#include <cstdint>
#include <string>

#include "mirell/base/ascii.h"

namespace mirell::vrchat {
namespace {

constexpr std::uint32_t kString = 1;
constexpr std::uint32_t kBinary = 3;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void AppendUtf8(std::string& out, std::uint32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// Undoes Wine's escapes in a name or string: \\ \" \n \r \t \0 and \xHHHH for other characters.
// `text` starts after an opening quote when `quoted`, and the reading stops at the closing one;
// `used` tells how many bytes were read (including that quote). Nothing when a quote is missing.
std::optional<std::string> Unescape(std::string_view text, bool quoted, std::size_t& used) {
  std::string out;
  std::size_t at = 0;
  while (at < text.size()) {
    const char c = text[at++];
    if (quoted && c == '"') {
      used = at;
      return out;
    }
    if (c != '\\' || at == text.size()) {
      out += c;
      continue;
    }
    const char e = text[at++];
    switch (e) {
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      case 't': out += '\t'; break;
      case '0': out += '\0'; break;
      case 'x': {
        std::uint32_t code = 0;
        int digits = 0;
        for (; digits < 4 && at < text.size() && HexValue(text[at]) >= 0; ++digits, ++at) {
          code = code * 16 + static_cast<std::uint32_t>(HexValue(text[at]));
        }
        if (digits == 0) {
          out += 'x';
        } else {
          AppendUtf8(out, code);
        }
        break;
      }
      default: out += e; break;  // \\ and \" and anything unknown stand for themselves.
    }
  }
  used = at;
  if (quoted) return std::nullopt;
  return out;
}

// "hex:01,02,ff" bytes; nothing when a byte is malformed.
std::optional<std::string> HexBytes(std::string_view text) {
  std::string bytes;
  std::size_t at = 0;
  while (at < text.size()) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
    if (at == text.size()) break;
    if (at + 1 >= text.size() || HexValue(text[at]) < 0 || HexValue(text[at + 1]) < 0) return std::nullopt;
    bytes += static_cast<char>(HexValue(text[at]) * 16 + HexValue(text[at + 1]));
    at += 2;
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
    if (at < text.size() && text[at] != ',') return std::nullopt;
    ++at;
  }
  return bytes;
}

// The part of a value line after "=": its type and bytes.
std::optional<RegistryValue> ReadData(std::string_view data) {
  RegistryValue value;
  std::size_t used = 0;
  if (data.substr(0, 1) == "\"") {
    auto text = Unescape(data.substr(1), true, used);
    if (!text) return std::nullopt;
    value.type = kString;
    value.data = std::move(*text);
    return value;
  }
  if (data.substr(0, 6) == "dword:") {
    // A malformed number keeps its type but not four bytes, so it is not taken as a number.
    value.type = RegistryValue::kDword;
    const std::string_view digits = data.substr(6);
    if (digits.size() != 8) return value;
    std::uint32_t number = 0;
    for (const char c : digits) {
      if (HexValue(c) < 0) return value;
      number = number * 16 + static_cast<std::uint32_t>(HexValue(c));
    }
    for (int i = 0; i < 4; ++i) value.data += static_cast<char>((number >> (8 * i)) & 0xFF);
    return value;
  }
  if (data.substr(0, 4) == "str(" || data.substr(0, 4) == "hex(" || data.substr(0, 4) == "hex:") {
    const bool hex = data[0] == 'h';
    std::uint32_t type = hex ? kBinary : 0;
    std::size_t at = 3;
    if (data[3] == '(') {
      type = 0;
      for (at = 4; at < data.size() && HexValue(data[at]) >= 0; ++at) {
        type = type * 16 + static_cast<std::uint32_t>(HexValue(data[at]));
      }
      if (at >= data.size() || data[at] != ')') return std::nullopt;
      ++at;
    }
    if (at >= data.size() || data[at] != ':') return std::nullopt;
    ++at;
    value.type = type;
    if (hex) {
      auto bytes = HexBytes(data.substr(at));
      if (!bytes) return std::nullopt;
      value.data = std::move(*bytes);
    } else {
      if (data.substr(at, 1) != "\"") return std::nullopt;
      auto text = Unescape(data.substr(at + 1), true, used);
      if (!text) return std::nullopt;
      value.data = std::move(*text);
    }
    return value;
  }
  return std::nullopt;
}

// One value line: "name"=data or @=data (the key's default value, whose name is empty).
std::optional<RegistryValue> ReadValueLine(std::string_view line) {
  std::string name;
  std::size_t at = 0;
  if (line.substr(0, 2) == "@=") {
    at = 1;
  } else if (line.substr(0, 1) == "\"") {
    std::size_t used = 0;
    auto unescaped = Unescape(line.substr(1), true, used);
    if (!unescaped) return std::nullopt;
    name = std::move(*unescaped);
    at = 1 + used;
  } else {
    return std::nullopt;
  }
  if (at >= line.size() || line[at] != '=') return std::nullopt;
  auto value = ReadData(line.substr(at + 1));
  if (!value) return std::nullopt;
  value->name = std::move(name);
  return value;
}

// The key path of a section line "[Path\\To\\Key] 123", escapes undone; nothing for other lines.
std::optional<std::string> SectionKey(std::string_view line) {
  if (line.substr(0, 1) != "[") return std::nullopt;
  const std::size_t close = line.rfind(']');
  if (close == std::string_view::npos) return std::nullopt;
  std::size_t used = 0;
  return Unescape(line.substr(1, close - 1), false, used);
}

std::string_view TrimEnd(std::string_view line) {
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
  return line;
}

}  // namespace

std::optional<std::vector<RegistryValue>> ReadWineRegistryKey(std::string_view text, std::string_view key) {
  std::optional<std::vector<RegistryValue>> values;
  bool inside = false;
  std::string logical;  // A line with its continuations ("\" at the end) joined.
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = TrimEnd(text.substr(start, end - start));
    start = end + 1;
    if (!logical.empty()) {
      while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    }
    if (!line.empty() && line.back() == '\\' && (line.size() < 2 || line[line.size() - 2] != '\\')) {
      logical.append(line.substr(0, line.size() - 1));
      continue;
    }
    logical.append(line);
    const std::string whole = std::move(logical);
    logical.clear();

    if (auto section = SectionKey(whole)) {
      // A key may appear once; a second section of the same name would only add to it.
      inside = EqualsIgnoringAsciiCase(*section, key);
      if (inside && !values) values.emplace();
      continue;
    }
    if (!inside || whole.empty() || whole[0] == '#' || whole[0] == ';') continue;
    if (auto value = ReadValueLine(whole)) values->push_back(std::move(*value));
  }
  return values;
}

}  // namespace mirell::vrchat
