// The RTSP 1.0 server that VRChat's player reads from: RTP interleaved on the TCP connection only,
// no authentication. Mirell's own listens on 127.0.0.1; the relay on the address its operator
// gives. One I/O thread serves every connection, event by event; finding a stream (which may wait
// for a signal server) and waiting for its description run on lookup threads beside it.
// After PLAY each connection primes its player from the stream's history and then sends as its
// buses wake it; each access unit is made into RTP packets once for all players.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mirell/streams/media_stream.h"

namespace mirell::rtsp {

// Finds a stream by request path ("/s/TOKEN"); called on the lookup threads, and may block.
using StreamLookup = std::function<std::shared_ptr<streams::MediaStream>(const std::string& path)>;
// The same, told who asks: the player's IPv4 address (host order), 0 for this machine's own
// (127.x.x.x), whose players may all come through one proxy.
using PeerStreamLookup =
    std::function<std::shared_ptr<streams::MediaStream>(const std::string& path, std::uint32_t peer)>;

class RtspServer {
 public:
  explicit RtspServer(StreamLookup lookup);
  explicit RtspServer(PeerStreamLookup lookup);
  ~RtspServer();
  RtspServer(const RtspServer&) = delete;
  RtspServer& operator=(const RtspServer&) = delete;

  // Binds 127.0.0.1:port (0 picks a free port) and starts accepting. Throws Error on failure.
  void Start(std::uint16_t port);
  // The same on an IPv4 address ("0.0.0.0": every interface).
  void Start(const std::string& address, std::uint16_t port);
  // Ends every connection and joins the server's threads (a lookup under way is waited for).
  // Idempotent.
  void Stop();
  // The port actually bound, after Start.
  std::uint16_t port() const { return port_; }
  // When set, each PLAY draws a random start for the RTP time stamps (off by default).
  void SetRandomizeRtpBase(bool randomize) { randomize_rtp_base_ = randomize; }
  // Connections served at once; one more is closed as soon as it is accepted, so that nobody can
  // make the server hold connections without bound. Before Start. Default kDefaultMaxClients.
  static constexpr std::size_t kDefaultMaxClients = 32;
  void SetMaxClients(std::size_t limit) { max_clients_ = limit; }
  // The same for the connections from one IPv4 address, loopback ones (127.x.x.x: a local
  // player, a proxy in front) not counted, so that one stranger cannot take every place. Before
  // Start. Default: no limit but the total.
  void SetMaxClientsPerAddress(std::size_t limit) { max_clients_per_address_ = limit; }
  // Until it plays, a connection must send a whole request within this long of connecting and of
  // its last request, or it is closed: a connection that only holds its place, or sends a head a
  // byte at a time, gives its place back. Before Start. Default 10 s.
  void SetRequestWithin(std::chrono::milliseconds limit) { request_within_ = limit; }
  // A playing connection whose player takes nothing of what is written to it for this long is
  // closed (checked once a second). Before Start. Default 15 s.
  void SetSendTimeout(std::chrono::milliseconds limit) { send_within_ = limit; }
  // Connections closed for being beyond the limit, since Start.
  std::uint64_t refused_connections() const { return refused_.load(); }
  // Connections being served.
  std::size_t connections() const { return connections_.load(); }
  // Access units made into RTP packets since Start: once each however many players take it
  // (again only for a late player primed from further back than the server remembers).
  std::uint64_t packetized_units() const;
  // Lookups waiting at once (for a signal server's answer, a remote host's description); more
  // wait their turn. A connection closed meanwhile gives its turn up.
  static constexpr int kLookupThreads = 8;

 private:
  struct Impl;
  void Accept();  // I/O thread.

  PeerStreamLookup lookup_;
  std::unique_ptr<Impl> impl_;
  bool randomize_rtp_base_ = false;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> refused_{0};
  std::atomic<std::size_t> connections_{0};
  std::size_t max_clients_ = kDefaultMaxClients;
  std::size_t max_clients_per_address_ = SIZE_MAX;
  std::chrono::milliseconds request_within_{10'000};
  std::chrono::milliseconds send_within_{15'000};
  std::uint16_t port_ = 0;
};

}  // namespace mirell::rtsp
