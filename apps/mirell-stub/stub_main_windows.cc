// The stub that stands in VRChat's Tools directory as yt-dlp.exe. It asks Mirell over the resolve
// endpoint whether the URL is a share link; if so it prints the loopback address as yt-dlp prints
// a URL, and otherwise it runs the preserved real resolver with its own command line, relaying
// that program's output and exit code. Anything unexpected falls through to the real resolver.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <string>
#include <vector>

#include "command_line.h"
#include "stub_config.h"

namespace mirell::stub {
namespace {

std::wstring Widen(const std::string& text) {
  if (text.empty()) return {};
  const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
  return wide;
}

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return {};
  const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(), length, nullptr, nullptr);
  return narrow;
}

std::wstring OwnDirectory() {
  std::vector<wchar_t> buffer(32768);
  const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
  std::wstring path(buffer.data(), length);
  const auto slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash + 1);
}

std::string ReadWholeFile(const std::wstring& path) {
  HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return {};
  std::string text;
  char buffer[4096];
  DWORD read = 0;
  while (ReadFile(file, buffer, sizeof(buffer), &read, nullptr) && read > 0) text.append(buffer, read);
  CloseHandle(file);
  return text;
}

class Log {
 public:
  Log(bool enabled, const std::wstring& directory) : enabled_(enabled), path_(directory + L"mirell-stub.log") {}

  // Appends one line. Several stubs may run at once: a named mutex serialises seek and write,
  // since appends from different processes lose lines under Wine otherwise.
  void Line(const std::string& text) const {
    if (!enabled_) return;
    HANDLE mutex = CreateMutexW(nullptr, FALSE, L"Local\\mirell-stub-log");
    if (mutex != nullptr) WaitForSingleObject(mutex, 5000);
    HANDLE file = CreateFileW(path_.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
      SYSTEMTIME now;
      GetLocalTime(&now);
      char stamp[64];
      wsprintfA(stamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u pid=%lu ", now.wYear, now.wMonth, now.wDay,
                now.wHour, now.wMinute, now.wSecond, now.wMilliseconds, GetCurrentProcessId());
      const std::string line = stamp + text + "\r\n";
      SetFilePointer(file, 0, nullptr, FILE_END);
      DWORD written = 0;
      WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
      CloseHandle(file);
    }
    if (mutex != nullptr) {
      ReleaseMutex(mutex);
      CloseHandle(mutex);
    }
  }

 private:
  bool enabled_;
  std::wstring path_;
};

// The longest the stub waits for Mirell, connection and answer together: past it VRChat gets the
// real resolver, as on any other failure, so a daemon that hangs can never hang VRChat's player.
constexpr DWORD kAskLimitMs = 5000;

// Milliseconds left until `deadline` (a GetTickCount64 value), 0 once it has passed.
DWORD MsUntil(ULONGLONG deadline) {
  const ULONGLONG now = GetTickCount64();
  return now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
}

// Waits until the socket is writable (connected) or readable, at most until `deadline`.
bool WaitForSocket(SOCKET s, bool for_write, ULONGLONG deadline) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(s, &set);
  fd_set failed;
  FD_ZERO(&failed);
  FD_SET(s, &failed);
  const DWORD left = MsUntil(deadline);
  timeval timeout{static_cast<long>(left / 1000), static_cast<long>((left % 1000) * 1000)};
  const int ready = for_write ? select(0, nullptr, &set, &failed, &timeout)
                              : select(0, &set, nullptr, &failed, &timeout);
  return ready > 0 && FD_ISSET(s, &set);
}

// Connects without blocking past `deadline`, then sends the request.
bool ConnectAndSend(SOCKET s, const addrinfo& address, const std::string& request, ULONGLONG deadline) {
  u_long non_blocking = 1;
  if (ioctlsocket(s, FIONBIO, &non_blocking) != 0) return false;
  if (connect(s, address.ai_addr, static_cast<int>(address.ai_addrlen)) != 0) {
    if (WSAGetLastError() != WSAEWOULDBLOCK || !WaitForSocket(s, true, deadline)) return false;
  }
  std::size_t offset = 0;
  while (offset < request.size()) {
    const int sent = send(s, request.data() + offset, static_cast<int>(request.size() - offset), 0);
    if (sent > 0) {
      offset += static_cast<std::size_t>(sent);
    } else if (sent < 0 && WSAGetLastError() == WSAEWOULDBLOCK && WaitForSocket(s, true, deadline)) {
      continue;
    } else {
      return false;
    }
  }
  return true;
}

// One request line, the answer up to its newline or the end of the connection. Empty when the
// endpoint cannot be reached, said nothing, or took longer than kAskLimitMs.
std::string AskOverTcp(const std::string& endpoint, const std::string& request) {
  const ULONGLONG deadline = GetTickCount64() + kAskLimitMs;
  const auto colon = endpoint.rfind(':');
  if (colon == std::string::npos) return {};
  const std::string host = endpoint.substr(0, colon);
  const std::string port = endpoint.substr(colon + 1);
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return {};
  std::string answer;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) == 0) {
    SOCKET s = socket(found->ai_family, found->ai_socktype, found->ai_protocol);
    if (s != INVALID_SOCKET && ConnectAndSend(s, *found, request, deadline)) {
      char buffer[4096];
      while (answer.find('\n') == std::string::npos && WaitForSocket(s, false, deadline)) {
        const int count = recv(s, buffer, sizeof(buffer), 0);
        if (count <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(count));
      }
      // An answer cut short by the deadline is no answer.
      if (answer.find('\n') == std::string::npos && MsUntil(deadline) == 0) answer.clear();
    }
    if (s != INVALID_SOCKET) closesocket(s);
    freeaddrinfo(found);
  }
  WSACleanup();
  return answer;
}

// The same over a named pipe, with the same bound: overlapped reads and writes that are
// cancelled when the deadline passes.
std::string AskOverPipe(const std::string& endpoint, const std::string& request) {
  const ULONGLONG deadline = GetTickCount64() + kAskLimitMs;
  const std::wstring name = Widen(endpoint);
  HANDLE pipe = INVALID_HANDLE_VALUE;
  // The one pipe instance may be busy with another stub.
  while (pipe == INVALID_HANDLE_VALUE) {
    pipe = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       FILE_FLAG_OVERLAPPED, nullptr);
    if (pipe != INVALID_HANDLE_VALUE) break;
    const DWORD left = MsUntil(deadline);
    if (GetLastError() != ERROR_PIPE_BUSY || left == 0 || !WaitNamedPipeW(name.c_str(), left)) return {};
  }
  OVERLAPPED overlapped{};
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (overlapped.hEvent == nullptr) {
    CloseHandle(pipe);
    return {};
  }
  // One overlapped operation, waited for until the deadline; false when it failed or timed out.
  const auto finish = [&](BOOL started, DWORD& transferred) {
    if (!started && GetLastError() != ERROR_IO_PENDING) return false;
    if (WaitForSingleObject(overlapped.hEvent, MsUntil(deadline)) != WAIT_OBJECT_0) {
      CancelIo(pipe);
      GetOverlappedResult(pipe, &overlapped, &transferred, TRUE);
      return false;
    }
    return GetOverlappedResult(pipe, &overlapped, &transferred, FALSE) != FALSE;
  };
  std::string answer;
  DWORD written = 0;
  if (finish(WriteFile(pipe, request.data(), static_cast<DWORD>(request.size()), nullptr, &overlapped), written)) {
    char buffer[4096];
    DWORD read = 0;
    while (answer.find('\n') == std::string::npos) {
      ResetEvent(overlapped.hEvent);
      if (!finish(ReadFile(pipe, buffer, sizeof(buffer), nullptr, &overlapped), read) || read == 0) break;
      answer.append(buffer, read);
    }
    if (answer.find('\n') == std::string::npos && MsUntil(deadline) == 0) answer.clear();
  }
  CloseHandle(overlapped.hEvent);
  CloseHandle(pipe);
  return answer;
}

// The one place that chooses the transport.
std::string AskDaemon(const std::string& endpoint, const std::string& url) {
  const std::string request = "RESOLVE " + url + "\n";
  return IsNamedPipe(endpoint) ? AskOverPipe(endpoint, request) : AskOverTcp(endpoint, request);
}

void WriteAll(HANDLE handle, const char* data, DWORD size) {
  while (size > 0) {
    DWORD written = 0;
    if (!WriteFile(handle, data, size, &written, nullptr) || written == 0) return;
    data += written;
    size -= written;
  }
}

struct Relay {
  HANDLE from;
  HANDLE to;
};

// Copies the child's output to ours byte for byte. When ours is closed it keeps reading and
// discards, or the child would block on a full pipe.
DWORD WINAPI RelayThread(void* parameter) {
  const auto* relay = static_cast<const Relay*>(parameter);
  bool writable = relay->to != nullptr && relay->to != INVALID_HANDLE_VALUE;
  char buffer[8192];
  DWORD read = 0;
  while (ReadFile(relay->from, buffer, sizeof(buffer), &read, nullptr) && read > 0) {
    if (!writable) continue;
    DWORD offset = 0;
    while (offset < read) {
      DWORD written = 0;
      if (!WriteFile(relay->to, buffer + offset, read - offset, &written, nullptr) || written == 0) {
        writable = false;
        break;
      }
      offset += written;
    }
  }
  return 0;
}

// Runs the preserved resolver with our own arguments as they stand; returns its exit code.
int RunOriginal(const std::wstring& directory, const StubConfig& config, const std::wstring& tail, const Log& log) {
  const std::wstring program = directory + Widen(config.original);
  std::wstring command = L"\"" + program + L"\"" + tail;
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE out_read = nullptr, out_write = nullptr, err_read = nullptr, err_write = nullptr;
  if (!CreatePipe(&out_read, &out_write, &inheritable, 0) || !CreatePipe(&err_read, &err_write, &inheritable, 0)) {
    log.Line("could not make pipes for the original");
    return 1;
  }
  SetHandleInformation(out_read, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(err_read, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = out_write;
  startup.hStdError = err_write;
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
    log.Line("could not start " + Narrow(program) + " (error " + std::to_string(GetLastError()) + ")");
    CloseHandle(out_read);
    CloseHandle(out_write);
    CloseHandle(err_read);
    CloseHandle(err_write);
    return 1;
  }
  // Only the child holds the write ends now, so the relays end when it does.
  CloseHandle(out_write);
  CloseHandle(err_write);
  Relay out{out_read, GetStdHandle(STD_OUTPUT_HANDLE)};
  Relay err{err_read, GetStdHandle(STD_ERROR_HANDLE)};
  HANDLE threads[2] = {CreateThread(nullptr, 0, RelayThread, &out, 0, nullptr),
                       CreateThread(nullptr, 0, RelayThread, &err, 0, nullptr)};
  WaitForSingleObject(process.hProcess, INFINITE);
  WaitForMultipleObjects(2, threads, TRUE, INFINITE);
  DWORD exit_code = 1;
  GetExitCodeProcess(process.hProcess, &exit_code);
  CloseHandle(threads[0]);
  CloseHandle(threads[1]);
  CloseHandle(out_read);
  CloseHandle(err_read);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  log.Line("original exited with " + std::to_string(exit_code));
  return static_cast<int>(exit_code);
}

int Run() {
  const std::wstring directory = OwnDirectory();
  const StubConfig config = ParseStubConfig(ReadWholeFile(directory + L"mirell-stub.cfg"));
  const Log log(config.log, directory);
  const std::wstring tail = CommandLineTail(GetCommandLineW());
  const std::string url = Narrow(FindUrl(SplitArguments(tail)));
  log.Line("asked for '" + url + "' with" + Narrow(tail));
  if (!url.empty()) {
    const std::string answer = AskDaemon(config.pipe, url);
    if (answer.starts_with("OK ")) {
      const auto end = answer.find('\n');
      // Printed as yt-dlp prints a URL on Windows: one line, CR LF.
      const std::string line = answer.substr(3, end == std::string::npos ? std::string::npos : end - 3) + "\r\n";
      WriteAll(GetStdHandle(STD_OUTPUT_HANDLE), line.data(), static_cast<DWORD>(line.size()));
      log.Line("resolved to " + line.substr(0, line.size() - 2));
      return 0;
    }
    log.Line(answer.empty() ? "no answer from " + config.pipe + "; running the original"
                            : "answer " + answer.substr(0, answer.find('\n')) + "; running the original");
  }
  return RunOriginal(directory, config, tail, log);
}

}  // namespace
}  // namespace mirell::stub

int wmain() { return mirell::stub::Run(); }
