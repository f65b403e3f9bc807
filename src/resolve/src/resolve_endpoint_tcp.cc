// Linux: the resolve endpoint as a TCP listener on 127.0.0.1 that serves only its own user and
// root.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <thread>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/resolve/resolve_endpoint.h"
#include "mirell/resolve/socket_owner.h"

namespace mirell::resolve {
namespace {

constexpr std::string_view kLoopbackHost = "127.0.0.1";
// How long a finished connection waits for the client to close its side, so that bytes the
// client sent after its request line do not turn our close into a reset that eats the answer.
constexpr int kLingerForClientCloseMs = 200;

std::string EndpointName(const sockaddr_in& address) {
  return fmt::format("{}:{}", kLoopbackHost, ntohs(address.sin_port));
}

// "127.0.0.1:PORT" with PORT a decimal number below 65536; nullopt for anything else.
std::optional<std::uint16_t> ParseLoopbackEndpoint(std::string_view name) {
  if (name.size() <= kLoopbackHost.size() + 1 || !name.starts_with(kLoopbackHost) ||
      name[kLoopbackHost.size()] != ':') {
    return std::nullopt;
  }
  const auto port_text = name.substr(kLoopbackHost.size() + 1);
  unsigned port = 0;
  const auto [end, error] =
      std::from_chars(port_text.data(), port_text.data() + port_text.size(), port);
  if (error != std::errc{} || end != port_text.data() + port_text.size() || port > 65535) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(port);
}

// Waits until `fd` is readable or `wake_fd` is signalled, at most until `deadline`.
enum class Readiness { kReadable, kWoken, kTimedOut };

Readiness WaitForReadable(int fd, int wake_fd, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return Readiness::kTimedOut;
    std::array<pollfd, 2> entries{pollfd{fd, POLLIN, 0}, pollfd{wake_fd, POLLIN, 0}};
    const int ready = poll(entries.data(), entries.size(),
                           static_cast<int>(std::min<std::int64_t>(left.count(), 60'000)));
    if (ready < 0 && errno != EINTR) return Readiness::kWoken;
    if (ready <= 0) continue;
    if (entries[1].revents != 0) return Readiness::kWoken;
    return Readiness::kReadable;
  }
}

class TcpResolveConnection final : public ResolveConnection {
 public:
  TcpResolveConnection(int fd, int wake_fd) : fd_(fd), wake_fd_(wake_fd) {}
  ~TcpResolveConnection() override {
    shutdown(fd_, SHUT_WR);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kLingerForClientCloseMs);
    std::array<char, 4096> discard{};
    while (WaitForReadable(fd_, wake_fd_, deadline) == Readiness::kReadable) {
      if (recv(fd_, discard.data(), discard.size(), 0) <= 0) break;
    }
    close(fd_);
  }

  std::ptrdiff_t Read(std::span<char> buffer,
                      std::chrono::steady_clock::time_point deadline) override {
    switch (WaitForReadable(fd_, wake_fd_, deadline)) {
      case Readiness::kTimedOut:
        return kTimedOut;
      case Readiness::kWoken:
        return kFailed;
      case Readiness::kReadable:
        break;
    }
    for (;;) {
      const auto received = recv(fd_, buffer.data(), buffer.size(), 0);
      if (received >= 0 || errno != EINTR) return received < 0 ? kFailed : received;
    }
  }

  void Write(std::string_view bytes) override {
    while (!bytes.empty()) {
      const auto sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

 private:
  int fd_;
  int wake_fd_;
};

class TcpResolveEndpoint final : public ResolveEndpoint {
 public:
  TcpResolveEndpoint(int fd, int wake_fd, sockaddr_in bound)
      : fd_(fd), wake_fd_(wake_fd), bound_(bound) {}
  ~TcpResolveEndpoint() override {
    close(fd_);
    close(wake_fd_);
  }

  std::unique_ptr<ResolveConnection> Accept() override {
    if (woken_.load()) return nullptr;
    const auto forever = std::chrono::steady_clock::time_point::max();
    if (WaitForReadable(fd_, wake_fd_, forever) != Readiness::kReadable) return nullptr;
    sockaddr_in peer{};
    socklen_t peer_size = sizeof(peer);
    const int client = accept4(fd_, reinterpret_cast<sockaddr*>(&peer), &peer_size, SOCK_CLOEXEC);
    if (client < 0) {
      // Out of descriptors or memory: pause so that a loop that retries does not spin.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      return nullptr;
    }
    if (!PeerMayAsk(peer)) {
      close(client);
      return nullptr;
    }
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return std::make_unique<TcpResolveConnection>(client, wake_fd_);
  }

  void Wake() override {
    woken_.store(true);
    // The event stays readable from now on: every wait of the endpoint and its connections ends.
    const std::uint64_t one = 1;
    MIRELL_WARN_HR(write(wake_fd_, &one, sizeof(one)) == sizeof(one) ? 0 : -errno);
  }

  std::string name() const override { return EndpointName(bound_); }

 private:
  bool PeerMayAsk(const sockaddr_in& peer) const {
    const auto uid = LoopbackPeerUid(peer, bound_);
    if (!uid) {
      LOG_WARN("could not tell who connected from port {} to {}; refused", ntohs(peer.sin_port),
               name());
      return false;
    }
    if (*uid != geteuid() && *uid != 0) {
      LOG_WARN("refused a client of user {} on {}", *uid, name());
      return false;
    }
    return true;
  }

  int fd_;
  int wake_fd_;
  sockaddr_in bound_;
  std::atomic<bool> woken_{false};
};

}  // namespace

std::unique_ptr<ResolveEndpoint> OpenResolveEndpoint(const std::string& name) {
  const auto port = ParseLoopbackEndpoint(name);
  MIRELL_CHECK(port.has_value(), "the resolve endpoint must be 127.0.0.1:PORT, not '{}'", name);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  MIRELL_CHECK(fd >= 0, "could not make a socket for {} ({})", name, HrToString(-errno));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(*port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // Without it the TIME_WAIT entries of connections served just before a restart would keep the
  // port from being bound again for a minute. Linux still refuses a second listener.
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(fd, SOMAXCONN) != 0) {
    const int error = errno;
    close(fd);
    MIRELL_CHECK(error == 0, "could not listen on {} ({})", name, HrToString(-error));
  }
  socklen_t size = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  const int wake_fd = eventfd(0, EFD_CLOEXEC);
  if (wake_fd < 0) {
    const int error = errno;
    close(fd);
    MIRELL_CHECK(error == 0, "could not make the wake event of {} ({})", name, HrToString(-error));
  }
  return std::make_unique<TcpResolveEndpoint>(fd, wake_fd, address);
}

}  // namespace mirell::resolve
