// A Windows command line as VRChat (or anything else) may start the stub with: the tail is passed
// on unchanged, the split never fails, and the URL found is one of the arguments.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "command_line.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Two bytes make one UTF-16 unit, as a Windows command line holds them.
  std::wstring command_line;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    command_line.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
  }
  const std::wstring tail = mirell::stub::CommandLineTail(command_line);
  if (tail.size() > command_line.size() ||
      command_line.compare(command_line.size() - tail.size(), tail.size(), tail) != 0) {
    std::abort();
  }
  const auto arguments = mirell::stub::SplitArguments(tail);
  std::size_t characters = 0;
  for (const auto& argument : arguments) characters += argument.size();
  if (characters > tail.size()) std::abort();
  const std::wstring url = mirell::stub::FindUrl(arguments);
  if (!url.empty()) {
    if (url.find(L"://") == std::wstring::npos) std::abort();
    if (std::find(arguments.begin(), arguments.end(), url) == arguments.end()) std::abort();
  }
  return 0;
}
