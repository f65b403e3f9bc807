// The viewer's side of shares: it turns a token into a stream that VRChat's player reads from the
// loopback RTSP server, and gets that stream filled, first with the holding card and then with
// the host's media over a peer link. One watch per token, each with its own signal client, link
// and receiver; a watch lives only as long as a player reads it.
//
// Threads: Ensure runs on the resolve service's one thread (a relay's on its players' threads,
// one at a time under ensure_mutex_, which is taken before mutex_); Poll, Stop and the setters on
// the interface thread; the handlers on the signal client's and the link's threads. The mutex guards
// the watch list and the join settings (MIRELL_GUARDED_BY, checked by clang), and is never held across a network or library call. The
// handlers touch only their own watch's flag, stream, link, receiver and holding source, never the
// list: they mark a watch done and the next Poll removes it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mirell/base/mutex.h"
#include "mirell/session/holding_source.h"
#include "mirell/streams/media_stream.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/transport/identity_key.h"
#include "mirell/transport/peer_config.h"
#include "mirell/transport/signal_client.h"

namespace mirell::session {

class Viewing {
 public:
  struct Config {
    std::string signal_url;  // Empty: a watch plays only the card.
    bool share_identity = true;
    std::vector<transport::IceServer> ice_servers;
    std::uint32_t ice_policy = 0;
    bool holding_card = true;
    std::int64_t prime_ms = 500;  // History a new player gets.
    std::uint32_t fps = 30;       // Of the card, and of a stream until the host's is known.
    std::uint32_t video_kbps = 25000;
    std::uint32_t audio_kbps = 192;
    std::int64_t idle_grace_s = 6;  // Without players, then the watch is dropped.
    std::size_t max_watches = 8;    // Links watched at once.
    // Joins as the signal server's relay, which only public shares let in; empty: as a viewer.
    std::string relay_secret;
    std::string card_title = "Waiting to be let in";
  };

  // With a holding card, starts building its clip in the background.
  Viewing(streams::StreamRegistry& registry, Config config);
  ~Viewing();
  Viewing(const Viewing&) = delete;
  Viewing& operator=(const Viewing&) = delete;

  enum class EnsureResult {
    kReady,    // A stream is published under the token.
    kTooMany,  // max_watches are being watched: nothing new is made.
    kFailed,   // The link could not be made; nothing is published.
  };
  // Links watched at once by default: each costs a peer connection and a signal connection, and
  // a local program may resolve any number of them.
  static constexpr std::size_t kMaxWatches = 8;
  // Makes sure a stream is published under the token: the host's own when this program shares
  // it, else a new watch that plays the card at once and fetches the host's media. Waits for
  // nothing but the card, at most 120 ms.
  // The watch meets the host at `signal_url` (empty: it plays only the card); without one, at
  // the configured signal server.
  EnsureResult Ensure(const std::string& token);
  EnsureResult Ensure(const std::string& token, const std::string& signal_url);
  // What the signal server said of a watch's join.
  enum class JoinState {
    kWaiting,  // Nothing yet: the server is slow, or the host is away and the watch waits.
    kJoined,   // The host is there; its media was told.
    kRefused,  // Sent away; its stream is withdrawn.
    kNoWatch,  // No watch of that token (or one without a signal server).
  };
  // Waits at most `limit` for the server's first word on the token's watch.
  JoinState WaitJoinState(const std::string& token, std::chrono::milliseconds limit) const;
  // Drops the watches that are done or have had no player for the grace period.
  void Poll();
  // Ends every watch.
  void Stop();
  // Marks that token's watch done; the next Poll removes it.
  void Drop(const std::string& token);

  // For later joins and watches.
  void SetIdentity(protocol::PeerIdentity identity);
  void SetShareIdentity(bool share);
  // This installation's key, named beside the identity and proved to each host that asks.
  void SetIdentityKey(std::shared_ptr<const transport::IdentityKey> key);
  void SetIceServers(std::vector<transport::IceServer> servers, std::uint32_t policy);

  std::size_t WatchCount() const;
  // Whether the card's clip has been built within `ms`; false without a card.
  bool WaitCardReady(int ms) const;

  // The stream's audio, history and description from what a host said; zero fields take the
  // defaults (48 kHz, stereo, 128 kb/s) and a missing or bad config is derived from them.
  static void ApplyMedia(streams::MediaStream& stream, const protocol::StreamMedia& media);

  // A watch that no player ever read is dropped after this long (or the grace, if longer): a
  // link resolved by something that never plays it must not keep a peer connection for ever.
  static constexpr std::int64_t kNeverPlayedGraceS = 30;
  // The idle rule: whether a watch with `players` readers is to be dropped at `now`. Updates the
  // two fields it keeps.
  struct IdleState {
    bool had_players = false;
    std::int64_t idle_since = 0;  // Steady nanoseconds; 0 while not counting.
  };
  static bool IdleDrop(IdleState& state, std::size_t players, std::int64_t now,
                       std::int64_t grace_s);

 private:
  struct Watch;

  static void End(streams::StreamRegistry& registry, Watch& watch);
  // Starts the card in a watch that has none, unless the host's picture has come; any thread.
  static void StartCard(Watch& watch, const HoldingClip& clip);
  // The card's builder thread, once the card is ready: every watch made before it gets it.
  void StartWaitingCards();

  streams::StreamRegistry& registry_;
  const std::string signal_url_;
  mutable Mutex mutex_;
  bool share_identity_ MIRELL_GUARDED_BY(mutex_);
  std::vector<transport::IceServer> ice_servers_ MIRELL_GUARDED_BY(mutex_);
  std::uint32_t ice_policy_ MIRELL_GUARDED_BY(mutex_);
  const bool holding_card_;
  const std::int64_t prime_ms_;
  const std::uint32_t fps_;
  const std::uint32_t video_kbps_;
  const std::uint32_t audio_kbps_;
  const std::int64_t idle_grace_s_;
  const std::size_t max_watches_;
  const std::string relay_secret_;
  std::unique_ptr<HoldingClip> clip_;
  Mutex ensure_mutex_ MIRELL_ACQUIRED_BEFORE(mutex_);
  std::string identity_ MIRELL_GUARDED_BY(mutex_);
  std::string display_name_ MIRELL_GUARDED_BY(mutex_);
  std::shared_ptr<const transport::IdentityKey> key_ MIRELL_GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<Watch>> watches_ MIRELL_GUARDED_BY(mutex_);
};

}  // namespace mirell::session
