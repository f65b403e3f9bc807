// The relay: an RTSP server whose streams are public shares, each fetched once over a peer link
// as a Mirell viewer fetches one, and served to every player of it. A player's first request for
// a token asks the signal server (joining as its relay); a token the server refuses is answered
// 404. Players get the holding card until the host's picture comes; a share whose last player
// has gone keeps its link for the grace, then leaves.
//
// Threads: the RTSP server's lookup threads call Lookup, which makes new watches one at a time under
// join_mutex_ (the gate too is under it; Viewing's locks are taken inside it); Viewing's own
// threads fetch; one poll thread ends idle and refused watches. Start and Stop from one thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "join_gate.h"
#include "mirell/rtsp/rtsp_server.h"
#include "mirell/session/viewing.h"
#include "mirell/streams/media_stream.h"
#include "mirell/streams/stream_registry.h"
#include "relay_options.h"

namespace mirell::relay {

class Relay {
 public:
  explicit Relay(const RelayOptions& options);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // Binds and starts serving. Throws Error when the address cannot be bound.
  void Start();
  // Ends every player and link. Idempotent.
  void Stop();

  std::uint16_t port() const { return rtsp_.port(); }
  std::size_t shares() const { return viewing_.WatchCount(); }

 private:
  // `peer`: the player's address, which has an allowance of joins of its own.
  std::shared_ptr<streams::MediaStream> Lookup(const std::string& path, std::uint32_t peer);
  void PollLoop();

  const RelayOptions options_;
  streams::StreamRegistry registry_;
  session::Viewing viewing_;
  std::mutex join_mutex_;
  JoinGate gate_;  // Under join_mutex_.
  rtsp::RtspServer rtsp_;
  std::mutex poll_mutex_;
  std::condition_variable poll_wake_;
  bool stopping_ = false;  // Under poll_mutex_.
  std::thread poll_thread_;
};

}  // namespace mirell::relay
