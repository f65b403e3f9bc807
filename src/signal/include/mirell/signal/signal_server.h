// The signal server: one port, HTTP and WebSocket, plain or with its own certificate. The
// WebSocket protocol is the hub's; plain requests get the share page, the update endpoint's JSON
// or a status. One I/O thread serves everything; the limits below bound what any client can make
// it hold.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mirell/signal/http_answers.h"
#include "mirell/signal/signal_hub.h"

namespace mirell::signal {

struct ServerConfig {
  std::string listen = "127.0.0.1:8080";  // ADDRESS:PORT; port 0 picks a free one.
  std::string tls_cert;                   // PEM chain; with tls_key, the server speaks TLS only.
  std::string tls_key;
  std::optional<LatestRelease> latest;    // The "/latest" answer; 404 without it.
  HubLimits hub;
  std::string relay_secret;              // What the operator's relays name; empty: no relays.
  std::vector<std::string> relay_urls;   // "rtspt://HOST[:PORT]" of each relay, for public pages.
  std::size_t max_connections = 4096;     // Beyond it new connections are closed at once.
  std::size_t max_connections_per_address = 64;  // The same, for one remote address (not loopback).
  std::size_t max_message_bytes = 65536;  // A larger frame ends its connection.
  std::size_t max_queued_bytes = 1 << 20;  // Unsent frames for one slow reader; then it is ended.
  std::chrono::milliseconds idle{60'000};  // A silent WebSocket is pinged, then ended.
  std::chrono::milliseconds request_limit{10'000};  // TLS handshake and HTTP request, each.
};

class SignalServer {
 public:
  explicit SignalServer(ServerConfig config);
  ~SignalServer();
  SignalServer(const SignalServer&) = delete;
  SignalServer& operator=(const SignalServer&) = delete;

  // Binds, logs "listening on ADDRESS:PORT" at info and starts serving on a thread of its own.
  // Throws Error when the address cannot be bound or the certificate cannot be loaded.
  void Start();
  // Closes every connection and joins the thread. Idempotent.
  void Stop();

  // The address as bound ("127.0.0.1:PORT").
  std::string address() const;
  std::uint16_t port() const;
  // Taken on the server's thread; any thread may ask.
  HubStatistics statistics() const;
  std::size_t open_connections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace mirell::signal
