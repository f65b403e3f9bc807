// Stands in for VRChat's real resolver in tests: prints its raw command line tail and each
// argument on stdout, a line on stderr, and exits with 3.
#include <windows.h>

#include <string>

#include "../command_line.h"

namespace {

void Write(DWORD which, const std::wstring& text) {
  const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string bytes(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), bytes.data(), length, nullptr, nullptr);
  DWORD written = 0;
  WriteFile(GetStdHandle(which), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

}  // namespace

int wmain() {
  const std::wstring tail = mirell::stub::CommandLineTail(GetCommandLineW());
  std::wstring out = L"tail=[" + tail + L"]\n";
  for (const auto& argument : mirell::stub::SplitArguments(tail)) out += L"arg=[" + argument + L"]\n";
  Write(STD_OUTPUT_HANDLE, out);
  Write(STD_ERROR_HANDLE, L"fake resolver speaking on stderr\n");
  return 3;
}
