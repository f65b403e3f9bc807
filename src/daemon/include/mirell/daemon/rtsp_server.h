// The RTSP 1.0 server that VRChat's player reads from: RTP interleaved on the TCP connection only,
// no authentication, one thread per connection. Mirell's own listens on 127.0.0.1; the relay on
// the address its operator gives. After PLAY each
// connection primes its player from the stream's history and then sends as fast as frames come.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mirell/daemon/media_stream.h"

namespace mirell::daemon {

// Finds a stream by request path ("/s/TOKEN"); called on connection threads.
using StreamLookup = std::function<std::shared_ptr<MediaStream>(const std::string& path)>;

class RtspServer {
 public:
  explicit RtspServer(StreamLookup lookup);
  ~RtspServer();
  RtspServer(const RtspServer&) = delete;
  RtspServer& operator=(const RtspServer&) = delete;

  // Binds 127.0.0.1:port (0 picks a free port) and starts accepting. Throws Error on failure.
  void Start(std::uint16_t port);
  // The same on an IPv4 address ("0.0.0.0": every interface).
  void Start(const std::string& address, std::uint16_t port);
  // Ends the accept loop and every connection, and joins their threads. Idempotent.
  void Stop();
  // The port actually bound, after Start.
  std::uint16_t port() const { return port_; }
  // When set, each PLAY draws a random start for the RTP time stamps (off by default).
  void SetRandomizeRtpBase(bool randomize) { randomize_rtp_base_ = randomize; }
  // Connections served at once (a thread each); one more is closed as soon as it is accepted, so
  // that a local program cannot make the server spend a thread per connection without bound.
  // Before Start. Default kDefaultMaxClients.
  static constexpr std::size_t kDefaultMaxClients = 32;
  void SetMaxClients(std::size_t limit) { max_clients_ = limit; }
  // The same for the connections from one IPv4 address, loopback ones (127.x.x.x: a local
  // player, a proxy in front) not counted, so that one stranger cannot take every place. Before Start. Default: no limit but the total.
  void SetMaxClientsPerAddress(std::size_t limit) { max_clients_per_address_ = limit; }
  // Until it plays, a connection must send a whole request within this long of connecting and of
  // its last request, or it is closed: a connection that only holds its place, or sends a head a
  // byte at a time, gives its thread back. Before Start. Default 10 s.
  void SetRequestWithin(std::chrono::milliseconds limit) { request_within_ = limit; }
  // Connections closed for being beyond the limit, since Start.
  std::uint64_t refused_connections() const { return refused_.load(); }

 private:
  struct Client {
    std::thread thread;
    int socket = -1;
    std::shared_ptr<std::atomic<bool>> finished;
    std::uint32_t address = 0;  // The peer's IPv4 address, host order.
  };

  void AcceptLoop();
  void ReapFinishedClients();
  void ServeConnection(int socket, std::uint64_t client);

  StreamLookup lookup_;
  bool randomize_rtp_base_ = false;
  int listener_ = -1;
  std::thread accept_thread_;
  // Changed only by the accept thread while running, and by Stop after joining it; the mutex
  // lets Stop shut every live socket down while the accept thread may still be adding one.
  std::mutex clients_mutex_;
  std::vector<Client> client_threads_;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> next_client_{0};
  std::atomic<std::uint64_t> refused_{0};
  std::size_t max_clients_ = kDefaultMaxClients;
  std::size_t max_clients_per_address_ = SIZE_MAX;
  std::chrono::milliseconds request_within_{10'000};
  std::uint16_t port_ = 0;
};

}  // namespace mirell::daemon
