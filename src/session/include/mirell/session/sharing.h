// The host's side of a share: the chain capture -> encoder -> stream -> signal client -> share
// session, the share's token and secret, its time limit, and the swap of what is captured
// without viewers noticing. One instance lives as long as the process and holds at most one
// share at a time. One encoder serves every viewer: capture and sound write into one stream's
// buses, and each admitted viewer reads them through a sender of its own, so the number of
// viewers does not change the cost of capture and encoding. The stream is published under the
// token, so that this machine can play its own share through the loopback RTSP server.
//
// Threads: every operation that changes the share comes from the thread that made the object
// (the interface thread; checked in debug builds); the reading ones may come from any thread:
// token() is asked from the resolver's thread too (it takes mutex_, so it may wait out a
// retarget). The pending handler, the keyframe handlers and the signal client's handlers run on
// library threads. mutex_ guards the settings, the allowlist and the state (the compiler checks
// it: MIRELL_GUARDED_BY); it is held through the whole of Retarget (no reader sees a half-swapped
// share) and released around the stopping in Stop and Revoke, which wait for threads whose
// handlers may call back. Start reads the settings once, under the lock, and builds the share
// outside it. Lock order: mutex_, then the session's.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mirell/base/mutex.h"
#include "mirell/base/thread_checker.h"
#include "mirell/capture/audio_capturer.h"
#include "mirell/capture/capturer.h"
#include "mirell/encode/share_quality.h"
#include "mirell/session/share_session.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/transport/peer_config.h"

namespace mirell::session {

// What the user picked.
struct ShareTarget {
  capture::CaptureTarget capture;
  std::string label;             // What the user calls it; shown and logged, never sent.
  std::uint32_t process_id = 0;  // A window's process, for its sound.
  bool whole_mix = false;        // Capture the whole output mix; set for a monitor.
};

// Where pictures and sound come from: the platform's capture, or what a test puts in its place.
struct CaptureFactories {
  std::function<std::unique_ptr<capture::ICapturer>(const capture::CaptureTarget&)> picture =
      capture::CreateCapturer;
  // One process tree's sound (silence while it plays nothing), never the whole mix.
  std::function<std::unique_ptr<capture::IAudioCapturer>(std::uint32_t pid, const capture::AudioFormat&)>
      process_sound = capture::CreateProcessLoopbackCapturer;
  std::function<std::unique_ptr<capture::IAudioCapturer>(const capture::AudioFormat&)> whole_mix =
      capture::CreateDeviceLoopbackCapturer;
};

// How the share stands with its signal server, the only way viewers reach it.
enum class SignalState {
  kOff,         // No share, or no signal server: it plays on this computer only.
  kConnecting,  // Not registered yet.
  kConnected,   // Registered: viewers can reach it.
  kLost,        // Was registered or tried, and is trying again.
  kRefused,     // The server said no (refusal() says why); no more tries.
};

class Sharing {
 public:
  struct Config {
    encode::ShareQuality quality;
    std::uint32_t video_profile = 1;   // Main.
    bool audio_enabled = true;         // Share sound at all.
    bool always_whole_mix = false;     // The whole output mix for windows too.
    std::int64_t prime_ms = 500;       // History a new reader of the stream gets.
    std::string signal_url;            // Empty: no peering, the share plays locally only.
    std::vector<transport::IceServer> ice_servers;
    std::uint32_t ice_policy = 0;
    std::string share_prefix;          // Host and "/s/", no scheme.
    std::int64_t lifetime_minutes = 360;  // 0 or less: no limit.
  };

  using PendingHandler = ShareSession::PendingHandler;

  Sharing(streams::StreamRegistry& registry, Config config, CaptureFactories factories = {});
  // Stops.
  ~Sharing();
  Sharing(const Sharing&) = delete;
  Sharing& operator=(const Sharing&) = delete;

  // Begins a share, replacing any that runs; new token and secret. Throws on failure, and then
  // nothing is left running or published.
  void Start(const ShareTarget& target);
  // Swaps what a running share captures: same token, stream, encoder and viewers, frame times
  // going on where they were. Throws on failure, and the old source goes on. No share: nothing.
  void Retarget(const ShareTarget& target);
  // New token and secret for the running share; every viewer and player of the old link is
  // dropped, and the same stream plays on under the new link.
  void Revoke();
  // Ends the share; nothing when none runs.
  void Stop();
  // Adds `minutes` to the time that is left, up to 24 hours from now; a share without a limit
  // keeps none.
  void Extend(std::int32_t minutes);
  // The heartbeat: ends a share whose time is up, and sweeps the door.
  void Poll();

  // Read at each call, so that it applies to a running share too.
  void OnViewerPending(PendingHandler handler);
  // The signal server refused the running share (on the signal client's thread; copy and post).
  void OnRefused(std::function<void(const std::string& reason)> handler);
  // A waiting viewer left before the user decided (on the signal client's thread; copy and post).
  void OnViewerPendingGone(std::function<void(const std::string& connection_id)> handler);
  // Also handed to the running share's door.
  void SetAllowlist(Allowlist allowlist);
  // For the next share; a running one keeps what it has.
  void SetIceServers(std::vector<transport::IceServer> servers, std::uint32_t policy);
  void SetQuality(const encode::ShareQuality& quality);
  // False admits every viewer at once.
  void SetAdmissionRequired(bool required);
  // For the next share: anyone with its link can watch (every viewer is let in at once) and its
  // signal server is told so, which lets the server's relay serve it to players without Mirell.
  void SetPublic(bool is_public);
  // Whether the running share is public; false without one.
  bool is_public() const;
  // The user's decisions about a viewer, forwarded to the door; nothing without a share.
  void Admit(const std::string& connection_id);
  void Deny(const std::string& connection_id);
  void Disconnect(const std::string& connection_id);

  // Each has a neutral answer when there is no share.
  bool active() const;
  bool capture_running() const;
  bool audio_open() const;
  bool audio_whole_mix() const;
  bool expired() const { return expired_.load(); }
  std::int64_t seconds_left() const;
  std::string label() const;
  std::string token() const;
  SignalState signal_state() const;
  // Why the server refused the running share; empty when it did not.
  std::string refusal() const;
  // "https://" + share prefix + token ("http://" for a plain ws:// signal server, whose page is
  // plain too); empty without a share or without a share prefix (no meeting place).
  std::string link() const;
  std::size_t viewer_count() const;
  std::uint32_t uplink_kbps() const;  // Summed over the viewers.
  std::vector<ViewerInfo> viewers() const;
  std::vector<PendingViewer> pending_viewers() const;

 private:
  struct State;
  // What a share is built from, read together under mutex_.
  struct Settings {
    Config config;
    bool admission_required = false;
    bool is_public = false;
    Allowlist allowlist;
  };

  Settings CurrentSettings() const MIRELL_REQUIRES(mutex_);
  // The state's sound, as far as it can be opened; a failure leaves the share silent.
  void OpenAudio(State& state, const ShareTarget& target, const Config& config);
  // The signal client and the door, when there is a signal server.
  void StartPeering(State& state, const Settings& settings);
  std::unique_ptr<class CaptureSource> MakeCaptureSource(State& state, const ShareTarget& target,
                                                         const encode::ShareQuality& quality);

  streams::StreamRegistry& registry_;
  const CaptureFactories factories_;
  const ThreadChecker owner_thread_;
  std::atomic<bool> expired_{false};
  // Its own lock: the door calls it on the signal client's thread, which must never wait for
  // mutex_ (held through a whole Retarget).
  Mutex handler_mutex_ MIRELL_ACQUIRED_AFTER(mutex_);
  PendingHandler on_viewer_pending_ MIRELL_GUARDED_BY(handler_mutex_);
  std::function<void(const std::string&)> on_viewer_pending_gone_ MIRELL_GUARDED_BY(handler_mutex_);
  std::function<void(const std::string&)> on_refused_ MIRELL_GUARDED_BY(handler_mutex_);
  mutable Mutex mutex_;
  Config config_ MIRELL_GUARDED_BY(mutex_);
  bool admission_required_ MIRELL_GUARDED_BY(mutex_) = false;
  bool public_ MIRELL_GUARDED_BY(mutex_) = false;
  Allowlist allowlist_ MIRELL_GUARDED_BY(mutex_);
  std::unique_ptr<State> state_ MIRELL_GUARDED_BY(mutex_);
};

}  // namespace mirell::session
