// A scripted WebSocket server on loopback for the signal client's tests: it records every frame a
// client sends and sends whatever the test says, malformed or not. Test code only.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace mirell::transport::testing {

class FakeSignalServer {
 public:
  // Listens on 127.0.0.1 at a free port.
  FakeSignalServer();
  ~FakeSignalServer();
  FakeSignalServer(const FakeSignalServer&) = delete;
  FakeSignalServer& operator=(const FakeSignalServer&) = delete;

  // "ws://127.0.0.1:PORT/signal".
  std::string url() const;
  std::uint16_t port() const;

  // The next text frame any client sent, in order; nullopt when none came within `timeout`.
  std::optional<std::string> NextMessage(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Waits until `count` WebSocket connections have been accepted in all.
  bool WaitForConnections(int count, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  int connections() const;

  // To the newest connection: a text frame, or a binary one.
  void Send(const std::string& text);
  void SendBinary(const std::string& bytes);
  // Ends the newest connection's TCP connection without a closing handshake.
  void Drop();
  // The newest connection goes silent as a half-open one does: its TCP connection stays, but
  // nothing more is read from it or answered (pings included).
  void Freeze();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace mirell::transport::testing
