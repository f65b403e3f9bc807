// The door of one share: it takes the viewers that the signal client reports, has each that
// names a key prove it, lets them in by the allowlist (admission.h) or by asking the user, and
// gives each admitted viewer a peer link and a peer sender of its own. A viewer that proved its
// key must sign its answer's DTLS fingerprint with it (viewer_proof.h), so the link opened is
// the one of the computer that proved the key. It turns a viewer's arrival into an offer and the viewer's answer into the
// link, keeps the list the window shows and works out each viewer's uplink rate.
//
// Threads: the signal client's thread runs the arrival, departure and answer handlers; the link's
// threads run its state handler; the session's admissions thread makes (or takes) the link of a
// viewer the user let in and closes the links prepared for those turned away; everything else
// comes from the interface thread, which never waits on the WebRTC stack. The mutex guards the
// three maps and is never held across a call into the network or the WebRTC stack: links are made
// and senders stopped outside it. Handlers only set flags; Sweep, on the interface thread,
// removes what they marked.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mirell/base/serial_worker.h"
#include "mirell/session/admission.h"
#include "mirell/session/peer_sender.h"
#include "mirell/streams/audio_bus.h"
#include "mirell/streams/frame_bus.h"
#include "mirell/transport/peer_config.h"
#include "mirell/transport/peer_link.h"
#include "mirell/transport/signal_client.h"

namespace mirell::session {

// One row of the viewer list.
struct ViewerInfo {
  std::string connection_id;
  std::string identity;
  std::string display_name;
  bool allowlisted = false;
  bool relay = false;           // The signal server's relay, serving players without Mirell.
  std::string key_fingerprint;  // Of the key it proved; empty: none.
  transport::PeerState state = transport::PeerState::kConnecting;
  std::int64_t seconds = 0;  // Watching: from its first picture, 0 before.
  std::uint64_t bytes_sent = 0;
  std::uint64_t frames_sent = 0;
  std::uint32_t uplink_kbps = 0;
};

// One viewer waiting for the user's decision.
struct PendingViewer {
  std::string connection_id;
  std::string identity;
  std::string display_name;
  std::string key_fingerprint;  // Empty: it proved no key.
  bool other_computer = false;  // Its id is on the allowlist with other keys only.
};

class ShareSession {
 public:
  using PendingHandler = std::function<void(const PendingViewer&)>;

  // `audio` may be null: the share has no sound. `audio_clock` is the audio RTP clock in Hz.
  ShareSession(transport::SignalClient* signal, streams::FrameBus* frames, streams::AudioBus* audio,
               transport::PeerConfig config, transport::OfferMedia media, unsigned audio_clock);
  ~ShareSession();
  ShareSession(const ShareSession&) = delete;
  ShareSession& operator=(const ShareSession&) = delete;

  // Before Start. The keyframe handler makes the encoder emit one; the pending handler asks the
  // user about a viewer, on the signal client's thread, and must only copy and post.
  void SetKeyframeHandler(std::function<void()> handler);
  void SetPendingHandler(PendingHandler handler);
  // A viewer who was waiting left before the user decided; same thread and rule as above.
  void SetPendingGoneHandler(std::function<void(const std::string& connection_id)> handler);
  // Applies to viewers who arrive later; those already waiting stay waiting.
  void SetAllowlist(Allowlist allowlist);
  // The share's token, which proofs are bound to. Before Start.
  void SetShareToken(std::string token) { token_ = std::move(token); }
  // False lets every viewer in. Before Start.
  void SetAdmissionRequired(bool required) { admission_required_ = required; }
  // A public share lets every viewer in, its signal server's relay too; a share that is not
  // public sends a relay away whatever the server says. Before Start.
  void SetPublic(bool is_public) { public_ = is_public; }
  // How long an admitted viewer's link may take to connect before it is closed (default 15 s);
  // the next Sweep applies it.
  void SetConnectLimit(std::chrono::milliseconds limit) {
    connect_limit_ns_ = std::chrono::duration_cast<std::chrono::nanoseconds>(limit).count();
  }

  // How long a viewer that names a key may take to prove it before it is taken as unproved
  // (default 10 s); the next Sweep applies it.
  void SetProofLimit(std::chrono::milliseconds limit) {
    proof_limit_ns_ = std::chrono::duration_cast<std::chrono::nanoseconds>(limit).count();
  }

  // Takes the signal client's viewer handlers; a second call does nothing.
  void Start();
  // The user's decisions. An unknown connection id does nothing. Approve returns at once: the
  // viewer's link is made (or the one prepared taken) on the session's admissions thread.
  void Approve(const std::string& connection_id);
  void Deny(const std::string& connection_id);
  void Disconnect(const std::string& connection_id);
  // Removes the viewers that are gone, takes those whose proof is overdue as unproved, and
  // updates the uplink rates; on the interface thread.
  void Sweep();
  // Ends every viewer; a second call does nothing.
  void Stop();

  std::vector<ViewerInfo> Viewers() const;
  std::vector<PendingViewer> PendingViewers() const;
  std::size_t ViewerCount() const;
  std::uint64_t admitted() const { return admitted_.load(); }
  // Admitted viewers whose offer was gathered while the user decided.
  std::uint64_t admitted_prepared() const { return admitted_prepared_.load(); }
  std::uint64_t departed() const { return departed_.load(); }
  // Admitted viewers whose link did not connect within the limit.
  std::uint64_t failed() const { return failed_.load(); }
  // Viewers sent away for a proof or an answer signature that did not fit the key they named.
  std::uint64_t refused_proofs() const { return refused_proofs_.load(); }

  // Kilobits per second: an exponential moving average with a time constant of five seconds,
  // whatever the interval of the samples. The first sample (old <= 0) is taken as it is.
  static double Smooth(double old, double sample, std::int64_t ms);

 private:
  struct Peer;
  // A viewer from its arrival until it is let in.
  struct Arrival {
    protocol::PeerIdentity identity;
    std::string challenge;        // Sent to it, when it named a key.
    std::string key_fingerprint;  // Once it proved the key.
    bool other_computer = false;
    std::int64_t since = 0;       // Steady clock, ns.
  };

  void OnArrival(const std::string& connection_id, const protocol::PeerIdentity& identity);
  void OnProof(const std::string& connection_id, const std::string& signature);
  void OnDeparture(const std::string& connection_id);
  void OnAnswer(const std::string& connection_id, const std::string& sdp, const std::string& signature);
  // By the allowlist: let in, or asked about.
  void Decide(const std::string& connection_id, Arrival arrival);
  // `prepared`: a link made while the viewer waited, or null for a new one.
  void Admit(const std::string& connection_id, const Arrival& arrival, bool allowlisted,
             std::unique_ptr<transport::PeerLink> prepared = nullptr);
  // Makes a link for a waiting viewer, so that its offer gathers while the user decides; nothing
  // is sent before admission. At most kMaxPrepared at a time: a flood of joins costs no more.
  void Prepare(const std::string& connection_id);
  // The waiting viewer's prepared link, if one is there and still fresh.
  std::unique_ptr<transport::PeerLink> TakePrepared(const std::string& connection_id);
  void OnPeerState(Peer* peer, const std::string& connection_id, transport::PeerState state);
  // Closes the link prepared for a viewer who will not need it, on the admissions thread.
  void CloseUnused(const std::string& connection_id);
  void UpdateRates();
  static void End(Peer& peer);

  transport::SignalClient* signal_;
  streams::FrameBus* frames_;
  streams::AudioBus* audio_;
  const transport::PeerConfig peer_config_;
  const transport::OfferMedia offer_media_;
  const unsigned audio_clock_;
  std::function<void()> on_keyframe_;

  mutable std::mutex mutex_;
  // Shared only so that an answer being applied keeps its link alive through a concurrent Sweep.
  std::map<std::string, std::shared_ptr<Peer>> peers_;
  std::map<std::string, Arrival> proving_;
  std::map<std::string, Arrival> pending_;
  struct Prepared {
    std::unique_ptr<transport::PeerLink> link;
    std::int64_t made_at = 0;  // Steady clock, ns.
  };
  std::map<std::string, Prepared> prepared_;
  Allowlist allowlist_;
  std::string token_;
  bool admission_required_ = true;
  bool public_ = false;
  PendingHandler on_pending_;
  std::function<void(const std::string&)> on_pending_gone_;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> admitted_{0};
  std::atomic<std::uint64_t> admitted_prepared_{0};
  std::atomic<std::uint64_t> departed_{0};
  std::atomic<std::uint64_t> failed_{0};
  std::atomic<std::uint64_t> refused_proofs_{0};
  std::atomic<std::int64_t> connect_limit_ns_{15'000'000'000};
  std::atomic<std::int64_t> proof_limit_ns_{10'000'000'000};
  // Last: made after, and stopped (joined) before, everything its tasks touch.
  SerialWorker admissions_{"admit", 64};
};

}  // namespace mirell::session
