#include "mirell/testsupport/subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace mirell::testsupport {
namespace {

std::vector<std::string> MergedEnvironment(
    const std::map<std::string, std::optional<std::string>>& changes) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const auto eq = text.find('=');
    if (eq != std::string::npos) merged[text.substr(0, eq)] = text.substr(eq + 1);
  }
  for (const auto& [name, value] : changes) {
    if (value) {
      merged[name] = *value;
    } else {
      merged.erase(name);
    }
  }
  std::vector<std::string> result;
  for (const auto& [name, value] : merged) result.push_back(name + "=" + value);
  return result;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& s : strings) result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

void MakePipe(int fds[2]) {
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::strerror(errno));
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
  int in[2], out[2], err[2];
  MakePipe(in);
  MakePipe(out);
  MakePipe(err);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // Its own process group, so that a time-out can end the child's children too.
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);

  std::vector<std::string> args = argv;
  std::vector<std::string> env = MergedEnvironment(options.environment);
  auto arg_pointers = Pointers(args);
  auto env_pointers = Pointers(env);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, args.at(0).c_str(), &actions, &attributes,
                                   arg_pointers.data(), env_pointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (spawned != 0) {
    close(in[1]);
    close(out[0]);
    close(err[0]);
    throw std::runtime_error("cannot start " + args[0] + ": " + std::strerror(spawned));
  }

  ProcessResult result;
  std::size_t written = 0;
  int stdin_fd = in[1];
  if (options.stdin_text.empty()) {
    close(stdin_fd);
    stdin_fd = -1;
  } else {
    fcntl(stdin_fd, F_SETFL, O_NONBLOCK);
  }
  const auto deadline = std::chrono::steady_clock::now() + options.timeout;
  int open_outputs = 2;
  int fds[2] = {out[0], err[0]};
  while (open_outputs > 0 || stdin_fd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      result.timed_out = true;
      kill(-pid, SIGKILL);
      break;
    }
    pollfd polls[3];
    nfds_t count = 0;
    for (int fd : fds) {
      if (fd >= 0) polls[count++] = {fd, POLLIN, 0};
    }
    if (stdin_fd >= 0) polls[count++] = {stdin_fd, POLLOUT, 0};
    if (poll(polls, count, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    for (nfds_t i = 0; i < count; ++i) {
      if (polls[i].revents == 0) continue;
      if (polls[i].fd == stdin_fd) {
        const ssize_t n = write(stdin_fd, options.stdin_text.data() + written,
                                options.stdin_text.size() - written);
        if (n > 0) written += static_cast<std::size_t>(n);
        if (n < 0 || written == options.stdin_text.size()) {
          close(stdin_fd);
          stdin_fd = -1;
        }
        continue;
      }
      char buffer[65536];
      const ssize_t n = read(polls[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (polls[i].fd == fds[0] ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
      } else {
        for (int& fd : fds) {
          if (fd == polls[i].fd) {
            close(fd);
            fd = -1;
          }
        }
        --open_outputs;
      }
    }
  }
  for (int fd : fds) {
    if (fd >= 0) close(fd);
  }
  if (stdin_fd >= 0) close(stdin_fd);

  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    result.exit_code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  return result;
}

bool HaveProgram(const std::string& program) {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return false;
  std::stringstream dirs(path);
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "mirell-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error(std::strerror(errno));
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ReadFileText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream buffer;
  buffer << file.rdbuf();
  return buffer.str();
}

void MakeTaggedFile(const std::filesystem::path& path, std::uintmax_t size, char tag) {
  {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (size > 0) file.put(tag);
  }
  std::filesystem::resize_file(path, size);
}

char FirstByteOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return static_cast<char>(file.get());
}

}  // namespace mirell::testsupport
