#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "mirell/testsupport/subprocess.h"

extern char** environ;

namespace mirell::testsupport {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, (dir_.path() / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, (dir_.path() / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const std::string name = text.substr(0, text.find('='));
    if (options.environment.count(name) == 0) env.push_back(text);
  }
  for (const auto& [name, value] : options.environment) {
    if (value) env.push_back(name + "=" + *value);
  }
  std::vector<std::string> args = argv;
  std::vector<char*> arg_pointers, env_pointers;
  for (auto& a : args) arg_pointers.push_back(a.data());
  arg_pointers.push_back(nullptr);
  for (auto& e : env) env_pointers.push_back(e.data());
  env_pointers.push_back(nullptr);
  const int spawned = posix_spawnp(&pid_, args.at(0).c_str(), &actions, nullptr, arg_pointers.data(),
                                   env_pointers.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error("cannot start " + args[0] + ": " + std::strerror(spawned));
}

ChildProcess::~ChildProcess() {
  if (!reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
  }
}

void ChildProcess::Signal(int signal_number) {
  if (!reaped_) kill(pid_, signal_number);
}

bool ChildProcess::Running() {
  if (reaped_) return false;
  const pid_t done = waitpid(pid_, &status_, WNOHANG);
  if (done == pid_) reaped_ = true;
  return !reaped_;
}

ProcessResult ChildProcess::Wait(std::chrono::milliseconds timeout) {
  ProcessResult result;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (Running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!reaped_) {
    result.timed_out = true;
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
    reaped_ = true;
  }
  if (WIFEXITED(status_)) result.exit_code = WEXITSTATUS(status_);
  if (WIFSIGNALED(status_)) result.signal = WTERMSIG(status_);
  result.out = ReadFileText(dir_.path() / "out");
  result.err = ReadFileText(dir_.path() / "err");
  return result;
}

bool UdpPortBound(int port) {
  for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
    std::ifstream file(table);
    std::string line;
    std::getline(file, line);  // Header.
    while (std::getline(file, line)) {
      std::istringstream fields(line);
      std::string slot, local;
      fields >> slot >> local;
      const auto colon = local.rfind(':');
      if (colon != std::string::npos && std::stoi(local.substr(colon + 1), nullptr, 16) == port) return true;
    }
  }
  return false;
}

}  // namespace mirell::testsupport
