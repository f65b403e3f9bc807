// Stands in for VRChat in tests: runs the program given as its first argument with the rest of
// its own command line, reads the child's stdout through a pipe as VRChat does, and prints
// "exit=<code>" on one line followed by exactly the bytes the child wrote.
#include <windows.h>

#include <string>

#include "../command_line.h"

int wmain() {
  const std::wstring tail = mirell::stub::CommandLineTail(GetCommandLineW());
  // The first argument is the program; the rest of the line goes on as it stands.
  std::size_t at = tail.find_first_not_of(L" \t");
  const bool quoted = at != std::wstring::npos && tail[at] == L'"';
  const std::size_t program_end = quoted ? tail.find(L'"', at + 1) + 1 : tail.find_first_of(L" \t", at);
  const std::wstring program_token = tail.substr(at, program_end - at);
  const std::wstring rest = program_end >= tail.size() ? std::wstring() : tail.substr(program_end);
  std::wstring command = program_token + rest;

  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE read_end = nullptr, write_end = nullptr;
  CreatePipe(&read_end, &write_end, &inheritable, 0);
  SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = write_end;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
    return 100;
  }
  CloseHandle(write_end);
  std::string captured;
  char buffer[4096];
  DWORD read = 0;
  while (ReadFile(read_end, buffer, sizeof(buffer), &read, nullptr) && read > 0) captured.append(buffer, read);
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD exit_code = 0;
  GetExitCodeProcess(process.hProcess, &exit_code);
  const std::string header = "exit=" + std::to_string(exit_code) + "\n";
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), header.data(), static_cast<DWORD>(header.size()), &written, nullptr);
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), captured.data(), static_cast<DWORD>(captured.size()), &written, nullptr);
  return 0;
}
