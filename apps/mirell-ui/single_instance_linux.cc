#include <QLocalServer>
#include <QLocalSocket>
#include <QObject>
#include <QString>
#include <QWidget>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "single_instance.h"

namespace mirell::ui {
namespace {

// Set when the lock is attempted: the show socket is named from the same key.
std::string& InstanceKeyOfThisProcess() {
  static std::string key;
  return key;
}

std::filesystem::path LockPath(const std::filesystem::path& directory, const std::string& key) {
  return directory / ("mirell-" + key + ".lock");
}

std::filesystem::path ShowSocketPath(const std::filesystem::path& directory,
                                     const std::string& key) {
  return directory / ("mirell-" + key + ".show");
}

// A directory under the shared temporary directory is only ours if we own it and nobody else
// may write into it; otherwise another user could take our lock or answer our show request.
bool IsPrivateDirectory(const std::filesystem::path& directory) {
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0) return false;
  return S_ISDIR(status.st_mode) && status.st_uid == ::getuid() &&
         (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// Posted, not awaited: the running instance may be busy, and nobody handles a request sent
// before its window exists (accepted: the user starts again).
void SendShowRequest(const std::filesystem::path& socket_path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = socket_path.string();
  if (path.size() >= sizeof(address.sun_path)) return;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return;
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    const char request = '\n';
    [[maybe_unused]] const ssize_t sent = ::send(socket, &request, 1, MSG_NOSIGNAL);
  }
  ::close(socket);
}

}  // namespace

std::filesystem::path InstanceDirectory() {
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    if (std::filesystem::path directory(runtime); IsPrivateDirectory(directory)) return directory;
  }
  std::error_code error;
  const std::filesystem::path temporary = std::filesystem::temp_directory_path(error);
  if (error) return {};
  const std::filesystem::path directory = temporary / ("mirell-" + std::to_string(::getuid()));
  ::mkdir(directory.c_str(), 0700);
  return IsPrivateDirectory(directory) ? directory : std::filesystem::path{};
}

bool AcquireSingleInstance(const std::string& key) {
  InstanceKeyOfThisProcess() = key;
  const std::filesystem::path directory = InstanceDirectory();
  if (directory.empty()) return true;
  // Kept open, never closed: the lock lives as long as the process.
  const int lock = ::open(LockPath(directory, key).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock < 0) return true;
  if (::flock(lock, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno != EWOULDBLOCK) {
    ::close(lock);
    return true;
  }
  ::close(lock);
  SendShowRequest(ShowSocketPath(directory, key));
  return false;
}

void InstallShowRequestFilter(QWidget* window) {
  static QLocalServer* server = nullptr;  // Installed once, never freed.
  if (server != nullptr || window == nullptr) return;
  const std::filesystem::path directory = InstanceDirectory();
  if (directory.empty()) return;
  const QString path =
      QString::fromStdString(ShowSocketPath(directory, InstanceKeyOfThisProcess()).string());
  // We hold the lock, so a socket file left there is a dead instance's.
  QLocalServer::removeServer(path);
  server = new QLocalServer;
  server->setSocketOptions(QLocalServer::UserAccessOption);
  if (!server->listen(path)) return;
  QObject::connect(server, &QLocalServer::newConnection, window, [window] {
    while (QLocalSocket* connection = server->nextPendingConnection()) {
      connection->disconnectFromServer();
      connection->deleteLater();
    }
    window->showNormal();
    window->raise();
    window->activateWindow();
  });
}

}  // namespace mirell::ui
