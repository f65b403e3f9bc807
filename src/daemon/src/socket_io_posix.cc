// POSIX sockets for the RTSP server.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "socket_io.h"

namespace mirell::daemon {

bool SendAll(int socket, std::span<const std::uint8_t> data) {
  constexpr std::size_t kChunk = 65536;
  while (!data.empty()) {
    const auto sent = send(socket, data.data(), std::min(data.size(), kChunk), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 1) return false;
    data = data.subspan(static_cast<std::size_t>(sent));
  }
  return true;
}

bool WaitReadable(int socket, int timeout_ms) {
  pollfd entry{socket, POLLIN, 0};
  const int ready = poll(&entry, 1, timeout_ms);
  return ready > 0 && (entry.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

std::ptrdiff_t ReceiveSome(int socket, std::span<char> buffer) {
  for (;;) {
    const auto received = recv(socket, buffer.data(), buffer.size(), 0);
    if (received >= 0 || errno != EINTR) return received < 0 ? -1 : received;
  }
}

void SetNoDelay(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

void SetSendTimeout(int socket, int timeout_ms) {
  timeval limit{};
  limit.tv_sec = timeout_ms / 1000;
  limit.tv_usec = (timeout_ms % 1000) * 1000;
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

void ShutdownSocket(int socket) { shutdown(socket, SHUT_RDWR); }

void CloseSocket(int socket) { close(socket); }

}  // namespace mirell::daemon
