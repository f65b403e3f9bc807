// Runs a child process for a test and captures what it prints. Test code only.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace mirell::testsupport {

struct ProcessResult {
  int exit_code = -1;     // The child's exit status; -1 when it was killed by a signal.
  int signal = 0;         // The signal that ended it, or 0.
  bool timed_out = false; // The child outlived the time limit and was killed.
  std::string out;
  std::string err;
};

struct ProcessOptions {
  // Variables to set (or, with std::nullopt, to remove) on top of this process's environment.
  std::map<std::string, std::optional<std::string>> environment;
  std::chrono::milliseconds timeout{60'000};
  std::string stdin_text;
};

// Runs argv[0] (searched on PATH) with the arguments and waits for it; never throws for a child
// that fails, only for one that cannot be started.
ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// True when `program` is found on PATH.
bool HaveProgram(const std::string& program);

// A fresh directory under the system's temporary directory, removed with its contents on
// destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// The whole content of a file, or an empty string when it cannot be read.
std::string ReadFileText(const std::filesystem::path& path);

// A file of exactly `size` bytes (sparse beyond the first) whose first byte is `tag`, so that
// files of the same size can be told apart; an empty file when `size` is 0.
void MakeTaggedFile(const std::filesystem::path& path, std::uintmax_t size, char tag = 'x');
// The first byte of a file, or -1 (as char) when it cannot be read.
char FirstByteOf(const std::filesystem::path& path);

}  // namespace mirell::testsupport

namespace mirell::testsupport {

// A child that runs while the test goes on: its stdout and stderr go to files in a temporary
// directory. The destructor kills it if it is still running.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void Signal(int signal_number);
  // Waits up to `timeout`; kills it when that passes (timed_out is then set).
  ProcessResult Wait(std::chrono::milliseconds timeout);
  bool Running();
  int pid() const { return pid_; }

 private:
  TempDir dir_;
  int pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
};

// True once some socket of this machine is bound to this UDP port (read from /proc/net/udp).
bool UdpPortBound(int port);

}  // namespace mirell::testsupport
