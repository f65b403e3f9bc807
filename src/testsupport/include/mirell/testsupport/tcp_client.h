// A plain loopback TCP client for tests that talk to our servers over real sockets.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace mirell::testsupport {

class TcpClient {
 public:
  // Connects to 127.0.0.1:port; throws std::runtime_error when that fails.
  explicit TcpClient(std::uint16_t port);
  // Connects to an IPv4 address given as text; throws as above.
  TcpClient(const std::string& address, std::uint16_t port);
  ~TcpClient();
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;

  void Send(std::string_view bytes);
  // Ends our side of the connection (the server reads its end).
  void ShutdownWrite();
  // Reads until the server ends the connection or `timeout` passes; returns what arrived.
  std::string ReadToEnd(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // True when the server ended the connection during the last ReadToEnd.
  bool closed_by_peer() const { return closed_by_peer_; }
  void Close();
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  bool closed_by_peer_ = false;
};

// One exchange: connect, send `request`, read the whole answer.
std::string ExchangeOnce(std::uint16_t port, std::string_view request,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10));

// The port of an endpoint "host:PORT"; 0 when there is none.
std::uint16_t EndpointPort(std::string_view endpoint);

// This machine's first IPv4 address that is not loopback, as text; empty when it has none.
std::string NonLoopbackAddress();

// Whether something accepts connections on 127.0.0.1:port now (a server that has come up).
bool LoopbackPortAccepts(std::uint16_t port);

// A port on 127.0.0.1 that was free a moment ago (bound and released), from 20000-31999, below
// the range the kernel gives outgoing connections, so that none of those can take it meanwhile.
std::uint16_t FreeLoopbackPort();

// A port on 127.0.0.1 that takes connections (the kernel completes them) and never says a word:
// a server that never answers.
class SilentListener {
 public:
  SilentListener();
  ~SilentListener();
  SilentListener(const SilentListener&) = delete;
  SilentListener& operator=(const SilentListener&) = delete;
  std::uint16_t port() const { return port_; }

 private:
  int fd_ = -1;
  std::uint16_t port_ = 0;
};

}  // namespace mirell::testsupport
