#include "mirell/testsupport/tcp_client.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <mutex>
#include <random>
#include <stdexcept>

namespace mirell::testsupport {
namespace {

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

TcpClient::TcpClient(std::uint16_t port) : TcpClient("127.0.0.1", port) {}

TcpClient::TcpClient(const std::string& text, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("not an IPv4 address: " + text);
  }
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw std::runtime_error("socket failed");
  if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const std::string reason = std::strerror(errno);
    close(fd_);
    fd_ = -1;
    throw std::runtime_error("connect to port " + std::to_string(port) + " failed: " + reason);
  }
}

TcpClient::~TcpClient() { Close(); }

void TcpClient::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void TcpClient::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) throw std::runtime_error("send failed");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void TcpClient::ShutdownWrite() { shutdown(fd_, SHUT_WR); }

std::string TcpClient::ReadToEnd(std::chrono::milliseconds timeout) {
  std::string received;
  closed_by_peer_ = false;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buffer[8192];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd entry{fd_, POLLIN, 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0) break;
    const auto count = recv(fd_, buffer, sizeof(buffer), 0);
    if (count <= 0) {
      closed_by_peer_ = true;
      break;
    }
    received.append(buffer, static_cast<std::size_t>(count));
  }
  return received;
}

std::string ExchangeOnce(std::uint16_t port, std::string_view request,
                         std::chrono::milliseconds timeout) {
  TcpClient client(port);
  client.Send(request);
  return client.ReadToEnd(timeout);
}

std::uint16_t EndpointPort(std::string_view endpoint) {
  const auto colon = endpoint.rfind(':');
  unsigned port = 0;
  if (colon == std::string_view::npos ||
      std::from_chars(endpoint.data() + colon + 1, endpoint.data() + endpoint.size(), port).ec != std::errc{} ||
      port > 65535) {
    return 0;
  }
  return static_cast<std::uint16_t>(port);
}

std::uint16_t FreeLoopbackPort() {
  // Below the kernel's range for outgoing connections (32768-60999 by default): a port handed
  // out there could be taken by any connection a test makes before the program it is meant for
  // binds it (seen: an RTSP port taken in the seconds before a viewer started). Here only another
  // test's bind can take it, and the bind below checks that it is free now.
  constexpr unsigned kFirst = 20000;
  constexpr unsigned kCount = 12000;
  static std::mt19937 random(std::random_device{}());
  static std::mutex random_mutex;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    unsigned candidate = 0;
    {
      std::lock_guard lock(random_mutex);
      candidate = kFirst + static_cast<unsigned>(random() % kCount);
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) break;
    auto address = Loopback(static_cast<std::uint16_t>(candidate));
    const bool free = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    if (free) return static_cast<std::uint16_t>(candidate);
  }
  throw std::runtime_error("could not find a free port");
}

std::string NonLoopbackAddress() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  std::string found;
  for (ifaddrs* entry = list; entry != nullptr && found.empty(); entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
    if ((ntohl(address->sin_addr.s_addr) >> 24) == 127) continue;
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text));
    found = text;
  }
  freeifaddrs(list);
  return found;
}

bool LoopbackPortAccepts(std::uint16_t port) {
  try {
    TcpClient probe(port);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

SilentListener::SilentListener() {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw std::runtime_error("socket failed");
  auto address = Loopback(0);
  socklen_t size = sizeof address;
  if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd_, 16) != 0 ||
      getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    close(fd_);
    throw std::runtime_error("could not listen on loopback");
  }
  port_ = ntohs(address.sin_port);
}

SilentListener::~SilentListener() { close(fd_); }

}  // namespace mirell::testsupport
