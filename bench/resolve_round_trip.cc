// Round trip of one RESOLVE request over the resolve endpoint (connect, request, answer, close;
// the peer check included), beside a bare TCP echo server on loopback doing the same exchange, in
// the same run. Also the cost of the peer lookup alone. Usage: bench_resolve [requests]
#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "mirell/resolve/resolve_service.h"
#include "mirell/resolve/socket_owner.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::string_view kRequest = "RESOLVE https://example.com/watch?v=1\n";

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Like the stub: connect, write the line, read to the newline, close.
void AskOnce(std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const auto address = Loopback(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) std::abort();
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  if (send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL) < 0) std::abort();
  char buffer[256];
  for (;;) {
    const auto count = recv(fd, buffer, sizeof(buffer), 0);
    if (count <= 0 || std::find(buffer, buffer + count, '\n') != buffer + count) break;
  }
  close(fd);
}

struct Figures {
  double median_us, p99_us;
};

Figures Measure(std::uint16_t port, int count) {
  std::vector<double> micros;
  micros.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    AskOnce(port);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::sort(micros.begin(), micros.end());
  return {micros[micros.size() / 2], micros[micros.size() * 99 / 100]};
}

// The reference: one thread, accept, read to the newline, write "PASS\n", close.
class EchoServer {
 public:
  EchoServer() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    auto address = Loopback(0);
    socklen_t size = sizeof(address);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd_, SOMAXCONN) != 0) {
      std::abort();
    }
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~EchoServer() {
    stop_ = true;
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
    close(fd_);
  }
  std::uint16_t port() const { return port_; }

 private:
  void Serve() {
    while (!stop_) {
      const int client = accept(fd_, nullptr, nullptr);
      if (client < 0) continue;
      char buffer[4096];
      std::size_t received = 0;
      while (received < sizeof(buffer)) {
        const auto count = recv(client, buffer + received, sizeof(buffer) - received, 0);
        if (count <= 0) break;
        received += static_cast<std::size_t>(count);
        if (std::find(buffer, buffer + received, '\n') != buffer + received) break;
      }
      send(client, "PASS\n", 5, MSG_NOSIGNAL);
      close(client);
    }
  }

  int fd_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

double PeerLookupMicros(int count) {
  EchoServer server;  // Any listener will do; only the connection's addresses matter.
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const auto address = Loopback(server.port());
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) std::abort();
  sockaddr_in client{};
  socklen_t size = sizeof(client);
  getsockname(fd, reinterpret_cast<sockaddr*>(&client), &size);
  std::vector<double> micros;
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (!mirell::resolve::LoopbackPeerUid(client, address)) std::abort();
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  close(fd);
  std::sort(micros.begin(), micros.end());
  return micros[micros.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
  mirell::resolve::ResolveService service(
      "127.0.0.1:0", [](const std::string&) { return mirell::resolve::ResolveResult{}; });
  service.Start();
  const std::string endpoint = service.endpoint();
  const auto resolve_port =
      static_cast<std::uint16_t>(std::atoi(endpoint.c_str() + endpoint.rfind(':') + 1));
  EchoServer echo;

  // Warm both paths, then measure them back to back.
  Measure(resolve_port, 200);
  Measure(echo.port(), 200);
  const Figures echo_figures = Measure(echo.port(), count);
  const Figures resolve_figures = Measure(resolve_port, count);

  fmt::print("{} requests, one client at a time, microseconds per round trip\n", count);
  fmt::print("{:<28} {:>10} {:>10}\n", "", "median", "p99");
  fmt::print("{:<28} {:>10.1f} {:>10.1f}\n", "bare TCP echo", echo_figures.median_us,
             echo_figures.p99_us);
  fmt::print("{:<28} {:>10.1f} {:>10.1f}\n", "RESOLVE (with peer check)", resolve_figures.median_us,
             resolve_figures.p99_us);
  fmt::print("ratio of medians: {:.2f}\n", resolve_figures.median_us / echo_figures.median_us);
  fmt::print("peer uid lookup alone: {:.1f} us median\n", PeerLookupMicros(2000));
  fmt::print("resolver calls answered: {}\n", service.requests());
  return 0;
}
