#include <QByteArray>
#include <QLocalServer>
#include <QLocalSocket>
#include <QObject>
#include <QString>
#include <QTimer>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "instance_request.h"
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

// Waits until `socket` is ready for `events` or `deadline` passes.
bool WaitFor(int socket, short events, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd entry{socket, events, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
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
  return false;
}

std::optional<std::string> AskRunningInstance(const std::string& request,
                                              std::chrono::milliseconds limit) {
  const std::filesystem::path directory = InstanceDirectory();
  if (directory.empty()) return std::nullopt;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = ShowSocketPath(directory, InstanceKeyOfThisProcess()).string();
  if (path.size() >= sizeof(address.sun_path)) return std::nullopt;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::optional<std::string> reply;
  const std::string line = request + "\n";
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
      ::send(socket, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
    std::string received;
    char buffer[1024];
    while (received.find('\n') == std::string::npos && received.size() <= kMaxInstanceLine &&
           WaitFor(socket, POLLIN, deadline)) {
      const ssize_t got = ::recv(socket, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      received.append(buffer, static_cast<std::size_t>(got));
    }
    if (const auto end = received.find('\n'); end != std::string::npos) reply = received.substr(0, end);
  }
  ::close(socket);
  return reply;
}

void ServeInstanceRequests(std::function<std::string(const std::string& request)> answer) {
  static QLocalServer* server = nullptr;  // Installed once, never freed.
  if (server != nullptr) return;
  const std::filesystem::path directory = InstanceDirectory();
  if (directory.empty()) return;
  const QString path =
      QString::fromStdString(ShowSocketPath(directory, InstanceKeyOfThisProcess()).string());
  // We hold the lock, so a socket file left there is a dead instance's.
  QLocalServer::removeServer(path);
  server = new QLocalServer;
  server->setSocketOptions(QLocalServer::UserAccessOption);
  if (!server->listen(path)) return;
  QObject::connect(server, &QLocalServer::newConnection, server, [answer = std::move(answer)] {
    while (QLocalSocket* connection = server->nextPendingConnection()) {
      // Nobody holds the interface thread: a request that does not come in time is dropped.
      QTimer::singleShot(2000, connection, [connection] { connection->abort(); });
      QObject::connect(connection, &QLocalSocket::disconnected, connection, &QObject::deleteLater);
      QObject::connect(connection, &QLocalSocket::readyRead, connection, [connection, answer] {
        if (!connection->canReadLine()) {
          if (connection->bytesAvailable() > static_cast<qint64>(kMaxInstanceLine)) connection->abort();
          return;
        }
        const QByteArray line = connection->readLine(static_cast<qint64>(kMaxInstanceLine) + 2);
        const std::string request = line.trimmed().toStdString();
        const std::string reply = answer(request) + "\n";
        connection->write(reply.data(), static_cast<qint64>(reply.size()));
        connection->disconnectFromServer();  // After what was written has gone.
      });
    }
  });
}

}  // namespace mirell::ui
