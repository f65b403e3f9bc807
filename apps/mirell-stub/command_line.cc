#include "command_line.h"

namespace mirell::stub {

std::wstring CommandLineTail(const std::wstring& command_line) {
  std::size_t at = 0;
  // The program name: quoted up to the next quote, or up to the first blank. No escapes.
  if (at < command_line.size() && command_line[at] == L'"') {
    const auto close = command_line.find(L'"', at + 1);
    at = close == std::wstring::npos ? command_line.size() : close + 1;
  } else {
    while (at < command_line.size() && command_line[at] != L' ' && command_line[at] != L'\t') ++at;
  }
  return command_line.substr(at);
}

std::vector<std::wstring> SplitArguments(const std::wstring& tail) {
  std::vector<std::wstring> arguments;
  std::size_t at = 0;
  for (;;) {
    while (at < tail.size() && (tail[at] == L' ' || tail[at] == L'\t')) ++at;
    if (at >= tail.size()) break;
    std::wstring argument;
    bool quoted = false;
    for (; at < tail.size(); ++at) {
      const wchar_t c = tail[at];
      if (!quoted && (c == L' ' || c == L'\t')) break;
      if (c == L'\\') {
        // Backslashes are literal unless they precede a quote: then pairs become one backslash,
        // and an odd one escapes the quote.
        std::size_t count = 0;
        while (at < tail.size() && tail[at] == L'\\') {
          ++count;
          ++at;
        }
        if (at < tail.size() && tail[at] == L'"') {
          argument.append(count / 2, L'\\');
          if (count % 2 == 1) {
            argument += L'"';
            continue;
          }
          --at;  // Let the quote be handled below.
          continue;
        }
        argument.append(count, L'\\');
        --at;
        continue;
      }
      if (c == L'"') {
        // "" inside quotes is a literal quote.
        if (quoted && at + 1 < tail.size() && tail[at + 1] == L'"') {
          argument += L'"';
          ++at;
        } else {
          quoted = !quoted;
        }
        continue;
      }
      argument += c;
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

std::wstring FindUrl(const std::vector<std::wstring>& arguments) {
  for (auto it = arguments.rbegin(); it != arguments.rend(); ++it) {
    if (it->find(L"://") != std::wstring::npos) return *it;
  }
  return {};
}

}  // namespace mirell::stub
