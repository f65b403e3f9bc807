#include "mirell/session/share_session.h"

#include <cmath>
#include <utility>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/transport/identity_key.h"
#include "mirell/transport/viewer_proof.h"

namespace mirell::session {

using transport::PeerState;

namespace {

// Links made for viewers who wait, at most; each is a WebRTC pipeline with its sockets.
constexpr std::size_t kMaxPrepared = 4;
// An offer older than this is made again on admission: its reflexive candidates may have lapsed
// in the router's table while the user thought about it.
constexpr std::int64_t kPreparedFreshNs = 20'000'000'000;
// Viewers asked to prove their key at once; more are taken as unproved (the server lets 64
// viewers wait on a token).
constexpr std::size_t kMaxProving = 64;

const char* VerdictText(AdmissionVerdict verdict) {
  switch (verdict) {
    case AdmissionVerdict::kLetIn: return "allowlisted, key proved";
    case AdmissionVerdict::kLetInByClaim: return "allowlisted by claimed id only";
    case AdmissionVerdict::kAsk: return "pending";
    case AdmissionVerdict::kAskOtherComputer: return "pending, listed id from another computer";
  }
  return "?";
}

}  // namespace

struct ShareSession::Peer {
  // Destroyed in reverse: the sender stops before the link it sends on goes away.
  std::unique_ptr<transport::PeerLink> link;
  std::unique_ptr<PeerSender> sender;
  std::atomic<bool> gone{false};
  std::string identity;
  std::string display_name;
  bool relay = false;
  std::string key;        // Proved: its answer must be signed with it.
  std::string challenge;  // The one the key was proved under.
  bool allowlisted = false;
  std::int64_t admitted_at = 0;
  std::int64_t rate_at = 0;
  std::uint64_t rate_bytes = 0;
  std::uint64_t uplink_kbps = 0;
  double rate_average = 0;
};

ShareSession::ShareSession(transport::SignalClient* signal, streams::FrameBus* frames,
                           streams::AudioBus* audio, transport::PeerConfig config,
                           transport::OfferMedia media, unsigned audio_clock)
    : signal_(signal),
      frames_(frames),
      audio_(audio),
      peer_config_(std::move(config)),
      offer_media_(std::move(media)),
      audio_clock_(audio_clock) {}

ShareSession::~ShareSession() { Stop(); }

void ShareSession::SetKeyframeHandler(std::function<void()> handler) {
  on_keyframe_ = std::move(handler);
}

void ShareSession::SetPendingHandler(PendingHandler handler) { on_pending_ = std::move(handler); }

void ShareSession::SetPendingGoneHandler(std::function<void(const std::string&)> handler) {
  on_pending_gone_ = std::move(handler);
}

void ShareSession::SetAllowlist(Allowlist allowlist) {
  std::lock_guard lock(mutex_);
  allowlist_ = std::move(allowlist);
}

void ShareSession::Start() {
  if (running_.exchange(true)) return;
  signal_->OnPeer([this](const std::string& id, const protocol::PeerIdentity& identity) {
    OnArrival(id, identity);
  });
  signal_->OnPeerGone([this](const std::string& id) { OnDeparture(id); });
  signal_->OnAnswer([this](const std::string& id, const std::string& sdp, const std::string& signature) {
    OnAnswer(id, sdp, signature);
  });
  signal_->OnProof(
      [this](const std::string& id, const std::string& signature) { OnProof(id, signature); });
}

void ShareSession::OnArrival(const std::string& id, const protocol::PeerIdentity& identity) {
  Arrival arrival;
  arrival.identity = identity;
  arrival.since = SteadyNowNs();
  if (identity.relay && !public_) {
    // The server lets relays into public shares only; a share of ours that is not public trusts
    // no server's word for that.
    LOG_WARN("peer={} a relay in a share that is not public: sent away", id);
    signal_->SendDeny(id);
    return;
  }
  if (!admission_required_ || public_) {
    Admit(id, arrival, false);
    return;
  }
  if (!identity.key.empty() && !transport::KeyFingerprint(identity.key).empty()) {
    arrival.challenge = transport::NewChallenge();
    bool room = false;
    {
      std::lock_guard lock(mutex_);
      room = proving_.size() < kMaxProving;
      if (room) proving_[id] = arrival;
    }
    if (room && signal_->SendChallenge(id, arrival.challenge)) {
      LOG_DEBUG("peer={} asked to prove its key", id);
      return;
    }
    {
      std::lock_guard lock(mutex_);
      proving_.erase(id);
    }
    arrival.challenge.clear();
  }
  Decide(id, std::move(arrival));
}

void ShareSession::OnProof(const std::string& id, const std::string& signature) {
  Arrival arrival;
  {
    std::lock_guard lock(mutex_);
    const auto found = proving_.find(id);
    if (found == proving_.end()) {
      LOG_DEBUG("peer={} a proof nobody asked for", id);
      return;
    }
    arrival = std::move(found->second);
    proving_.erase(found);
  }
  const std::string statement = transport::IdentityStatement(token_, arrival.challenge);
  if (!transport::VerifySignature(arrival.identity.key, statement, signature)) {
    // A proof for another challenge (a replay) or another key: whoever sends it is not the
    // computer it names.
    LOG_WARN("peer={} its proof does not fit the key it named: sent away", id);
    ++refused_proofs_;
    signal_->SendDeny(id);
    return;
  }
  arrival.key_fingerprint = transport::KeyFingerprint(arrival.identity.key);
  Decide(id, std::move(arrival));
}

void ShareSession::Decide(const std::string& id, Arrival arrival) {
  if (!running_.load()) return;
  AdmissionVerdict verdict = AdmissionVerdict::kAsk;
  {
    std::lock_guard lock(mutex_);
    verdict = session::Decide(allowlist_, {arrival.identity.identity, arrival.key_fingerprint});
  }
  const std::string& who = arrival.identity.display_name.empty() ? arrival.identity.identity
                                                                  : arrival.identity.display_name;
  LOG_INFO("peer={} {} id={} key={}", id, VerdictText(verdict), who.empty() ? "-" : who,
           arrival.key_fingerprint.empty() ? "not proved" : arrival.key_fingerprint);
  if (verdict == AdmissionVerdict::kLetIn || verdict == AdmissionVerdict::kLetInByClaim) {
    Admit(id, arrival, true);
    return;
  }
  arrival.other_computer = verdict == AdmissionVerdict::kAskOtherComputer;
  const PendingViewer asked{id, arrival.identity.identity, arrival.identity.display_name,
                            arrival.key_fingerprint, arrival.other_computer};
  {
    std::lock_guard lock(mutex_);
    pending_[id] = std::move(arrival);
  }
  if (on_pending_) on_pending_(asked);
  Prepare(id);
}

void ShareSession::Prepare(const std::string& id) {
  {
    std::lock_guard lock(mutex_);
    if (prepared_.size() >= kMaxPrepared || prepared_.contains(id)) return;
  }
  std::unique_ptr<transport::PeerLink> link;
  try {
    link = transport::CreateOfferer(peer_config_, offer_media_);
  } catch (const std::exception& error) {
    LOG_DEBUG("peer={} no link prepared: {}", id, error.what());
    return;
  }
  {
    std::lock_guard lock(mutex_);
    // Still waiting, and room for it: the user may have decided while the link was made.
    if (running_.load() && pending_.contains(id) && prepared_.size() < kMaxPrepared &&
        !prepared_.contains(id)) {
      prepared_[id] = Prepared{std::move(link), SteadyNowNs()};
    }
  }
  if (link) {
    link->Close();
    return;
  }
  LOG_DEBUG("peer={} offer gathering while the user decides", id);
}

std::unique_ptr<transport::PeerLink> ShareSession::TakePrepared(const std::string& id) {
  Prepared taken;
  {
    std::lock_guard lock(mutex_);
    const auto found = prepared_.find(id);
    if (found == prepared_.end()) return nullptr;
    taken = std::move(found->second);
    prepared_.erase(found);
  }
  if (SteadyNowNs() - taken.made_at > kPreparedFreshNs ||
      taken.link->state() == PeerState::kFailed) {
    taken.link->Close();
    return nullptr;
  }
  return std::move(taken.link);
}

void ShareSession::OnDeparture(const std::string& id) {
  bool was_waiting = false;
  std::unique_ptr<transport::PeerLink> prepared;
  {
    std::lock_guard lock(mutex_);
    const auto found = peers_.find(id);
    if (found != peers_.end()) found->second->gone = true;
    proving_.erase(id);
    // Someone who waited and left is no longer asked about, and the link gathered for them goes.
    was_waiting = pending_.erase(id) > 0;
    const auto ready = prepared_.find(id);
    if (ready != prepared_.end()) {
      prepared = std::move(ready->second.link);
      prepared_.erase(ready);
    }
  }
  if (prepared) prepared->Close();
  if (!was_waiting) return;
  LOG_INFO("peer={} left while waiting", id);
  if (on_pending_gone_) on_pending_gone_(id);
}

void ShareSession::OnAnswer(const std::string& id, const std::string& sdp, const std::string& signature) {
  std::shared_ptr<Peer> peer;
  {
    std::lock_guard lock(mutex_);
    const auto found = peers_.find(id);
    if (found == peers_.end()) {
      LOG_DEBUG("peer={} answer after departure", id);
      return;
    }
    peer = found->second;
  }
  if (!peer->key.empty()) {
    // The answer of a viewer that proved its key must be signed with it, over this answer's
    // certificate: a server that put another answer in its place is caught here.
    const std::string fingerprint = transport::DtlsFingerprintOf(sdp);
    const std::string statement = transport::AnswerStatement(token_, peer->challenge, fingerprint);
    if (fingerprint.empty() || !transport::VerifySignature(peer->key, statement, signature)) {
      LOG_WARN("peer={} its answer is not signed with the key it proved: closed", id);
      ++refused_proofs_;
      peer->gone = true;
      signal_->SendDeny(id);
      return;
    }
  }
  try {
    peer->link->SetRemoteDescription(sdp);
  } catch (const std::exception& error) {
    // The peer stays: it fails by itself or goes on waiting.
    LOG_WARN("peer={} SetRemoteDescription failed: {}", id, error.what());
  }
}

void ShareSession::Approve(const std::string& id) {
  if (!running_.load()) return;
  Arrival arrival;
  {
    std::lock_guard lock(mutex_);
    const auto found = pending_.find(id);
    if (found == pending_.end()) return;
    arrival = std::move(found->second);
    pending_.erase(found);
  }
  // The link is taken or made on the admissions thread: making one can wait on webrtcbin and a
  // name lookup, and the person's click must not hold the window.
  if (!admissions_.Post([this, id, arrival] { Admit(id, arrival, false, TakePrepared(id)); })) {
    LOG_WARN("peer={} not let in: too many admissions at once", id);
  }
}

void ShareSession::Admit(const std::string& id, const Arrival& arrival, bool allowlisted,
                         std::unique_ptr<transport::PeerLink> prepared) {
  if (!running_.load()) {
    if (prepared) prepared->Close();
    return;
  }
  auto peer = std::make_shared<Peer>();
  peer->identity = arrival.identity.identity;
  peer->display_name = arrival.identity.display_name;
  peer->relay = arrival.identity.relay;
  if (!arrival.key_fingerprint.empty()) {
    peer->key = arrival.identity.key;
    peer->challenge = arrival.challenge;
  }
  peer->allowlisted = allowlisted;
  peer->admitted_at = SteadyNowNs();
  peer->rate_at = peer->admitted_at;
  const bool gathered_while_waiting = prepared != nullptr;
  try {
    peer->link = prepared ? std::move(prepared) : transport::CreateOfferer(peer_config_, offer_media_);
  } catch (const std::exception& error) {
    LOG_WARN("peer={} CreateOfferer failed: {}", id, error.what());
    return;
  }
  peer->sender = std::make_unique<PeerSender>(peer->link.get(), frames_, audio_, audio_clock_);

  // The handlers hold the Peer by plain pointer: its link is closed, which ends them, before the
  // Peer is destroyed.
  Peer* const raw = peer.get();
  transport::SignalClient* const signal = signal_;
  peer->link->OnLocalDescription([signal, id](const std::string& sdp) {
    if (!signal->SendOffer(id, sdp)) LOG_WARN("peer={} SendOffer failed", id);
  });
  peer->link->OnKeyframeRequest([this] {
    if (on_keyframe_) on_keyframe_();
  });
  peer->link->OnState([this, raw, id](PeerState state) { OnPeerState(raw, id, state); });

  std::shared_ptr<Peer> replaced;
  {
    std::lock_guard lock(mutex_);
    std::shared_ptr<Peer>& slot = peers_[id];
    replaced = std::exchange(slot, std::move(peer));
  }
  if (replaced) End(*replaced);
  if (gathered_while_waiting) ++admitted_prepared_;
  ++admitted_;
  LOG_INFO("peer={} offering{}", id, gathered_while_waiting ? " (gathered while waiting)" : "");
}

void ShareSession::OnPeerState(Peer* peer, const std::string& id, PeerState state) {
  switch (state) {
    case PeerState::kConnected:
      peer->sender->Start();
      // The new viewer should not wait for the next regular keyframe.
      if (on_keyframe_) on_keyframe_();
      LOG_INFO("peer={} connected", id);
      break;
    case PeerState::kFailed:
    case PeerState::kClosed:
      peer->gone = true;
      break;
    case PeerState::kConnecting:
      break;
  }
}

void ShareSession::Deny(const std::string& id) {
  bool erased = false;
  {
    std::lock_guard lock(mutex_);
    erased = pending_.erase(id) != 0;
  }
  // A late answer to a prompt about someone already handled sends nothing.
  if (!erased) return;
  CloseUnused(id);
  LOG_INFO("peer={} denied", id);
  signal_->SendDeny(id);
}

void ShareSession::Disconnect(const std::string& id) {
  bool known = false;
  {
    std::lock_guard lock(mutex_);
    known = pending_.erase(id) != 0;
    const auto found = peers_.find(id);
    if (found != peers_.end()) {
      found->second->gone = true;
      known = true;
    }
  }
  if (!known) return;
  CloseUnused(id);
  LOG_INFO("peer={} removed", id);
  signal_->SendDeny(id);
}

void ShareSession::Sweep() {
  std::vector<std::shared_ptr<Peer>> gone;
  std::vector<std::pair<std::string, Arrival>> unproved;
  const std::int64_t now = SteadyNowNs();
  const std::int64_t limit_ns = connect_limit_ns_.load();
  const std::int64_t proof_limit_ns = proof_limit_ns_.load();
  {
    std::lock_guard lock(mutex_);
    for (auto it = proving_.begin(); it != proving_.end();) {
      if (now - it->second.since < proof_limit_ns) {
        ++it;
        continue;
      }
      unproved.emplace_back(it->first, std::move(it->second));
      it = proving_.erase(it);
    }
    for (auto it = peers_.begin(); it != peers_.end();) {
      Peer& peer = *it->second;
      // A viewer whose link has not connected within the bound will not: its answer was lost,
      // or no path between the two was found. Its place and its link go.
      if (!peer.gone.load() && peer.link && peer.link->state() == PeerState::kConnecting &&
          now - peer.admitted_at >= limit_ns) {
        LOG_WARN("peer={} not connected within {} s, closed", it->first, limit_ns / 1'000'000'000);
        peer.gone = true;
        ++failed_;
      }
      if (!peer.gone.load()) {
        ++it;
        continue;
      }
      LOG_INFO("peer={} gone", it->first);
      gone.push_back(std::move(it->second));
      it = peers_.erase(it);
    }
  }
  for (auto& [id, arrival] : unproved) {
    LOG_INFO("peer={} did not prove the key it named within {} s", id, proof_limit_ns / 1'000'000'000);
    arrival.challenge.clear();
    // Asking prepares a link: on the admissions thread, not the window's.
    if (!admissions_.Post([this, id, arrival = std::move(arrival)]() mutable { Decide(id, std::move(arrival)); })) {
      LOG_WARN("peer={} not asked about: too many admissions at once", id);
    }
  }
  UpdateRates();
  if (gone.empty()) return;
  departed_ += gone.size();
  // Closing joins the senders' and links' threads: on the admissions thread, not the window's.
  // A full queue (a flood of departures) closes them here rather than not at all.
  auto ending = std::make_shared<std::vector<std::shared_ptr<Peer>>>(std::move(gone));
  if (!admissions_.Post([ending] {
        for (const std::shared_ptr<Peer>& peer : *ending) End(*peer);
      })) {
    for (const std::shared_ptr<Peer>& peer : *ending) End(*peer);
  }
}

double ShareSession::Smooth(double old, double sample, std::int64_t ms) {
  if (old <= 0 || ms < 1) return sample;
  const double seconds = static_cast<double>(ms) / 1000.0;
  return old + (1.0 - std::exp(-seconds / 5.0)) * (sample - old);
}

void ShareSession::UpdateRates() {
  const std::int64_t now = SteadyNowNs();
  std::lock_guard lock(mutex_);
  for (auto& [id, peer] : peers_) {
    if (!peer->sender) continue;
    const std::int64_t ms = (now - peer->rate_at) / 1'000'000;
    if (ms < 1000) continue;  // Samples are at least a second apart.
    const std::uint64_t bytes = peer->sender->bytes_sent();
    const double sample =
        static_cast<double>((bytes - peer->rate_bytes) * 8 / static_cast<std::uint64_t>(ms));
    peer->rate_average = Smooth(peer->rate_average, sample, ms);
    peer->uplink_kbps = static_cast<std::uint64_t>(peer->rate_average + 0.5);
    peer->rate_bytes = bytes;
    peer->rate_at = now;
  }
}

void ShareSession::CloseUnused(const std::string& id) {
  std::shared_ptr<transport::PeerLink> unused;
  {
    // Taken out now, so that its place among the prepared links is free at once.
    std::lock_guard lock(mutex_);
    const auto found = prepared_.find(id);
    if (found == prepared_.end()) return;
    unused = std::move(found->second.link);
    prepared_.erase(found);
  }
  // Closing joins the link's threads: not on the caller's (the interface) thread. A full queue
  // closes it here rather than not at all.
  if (!admissions_.Post([unused] { unused->Close(); })) unused->Close();
}

void ShareSession::End(Peer& peer) {
  if (peer.sender) peer.sender->Stop();
  if (peer.link) peer.link->Close();
}

void ShareSession::Stop() {
  if (!running_.exchange(false)) return;
  // An admission under way finishes first (it adds its viewer, who is then ended with the rest);
  // those that wait are dropped.
  admissions_.Stop();
  std::map<std::string, std::shared_ptr<Peer>> ended;
  std::map<std::string, Prepared> unused;
  {
    std::lock_guard lock(mutex_);
    ended.swap(peers_);
    unused.swap(prepared_);
  }
  for (auto& [id, peer] : ended) End(*peer);
  for (auto& [id, waiting] : unused) waiting.link->Close();
  LOG_INFO("admitted={} departed={}", admitted_.load(), departed_.load());
}

std::vector<ViewerInfo> ShareSession::Viewers() const {
  const std::int64_t now = SteadyNowNs();
  std::vector<ViewerInfo> rows;
  std::lock_guard lock(mutex_);
  rows.reserve(peers_.size());
  for (const auto& [id, peer] : peers_) {
    ViewerInfo row;
    row.connection_id = id;
    row.identity = peer->identity;
    row.display_name = peer->display_name;
    row.allowlisted = peer->allowlisted;
    row.relay = peer->relay;
    if (!peer->key.empty()) row.key_fingerprint = transport::KeyFingerprint(peer->key);
    row.state = peer->link ? peer->link->state() : PeerState::kClosed;
    // From the viewer's first picture: the time before it is the connection's, not watching.
    const std::int64_t first_picture = peer->sender ? peer->sender->first_picture_at() : 0;
    row.seconds = first_picture != 0 ? (now - first_picture) / 1'000'000'000 : 0;
    if (peer->sender) {
      row.bytes_sent = peer->sender->bytes_sent();
      row.frames_sent = peer->sender->frames_sent();
    }
    row.uplink_kbps = static_cast<std::uint32_t>(peer->uplink_kbps);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<PendingViewer> ShareSession::PendingViewers() const {
  std::vector<PendingViewer> rows;
  std::lock_guard lock(mutex_);
  for (const auto& [id, arrival] : pending_) {
    rows.push_back({id, arrival.identity.identity, arrival.identity.display_name,
                    arrival.key_fingerprint, arrival.other_computer});
  }
  return rows;
}

std::size_t ShareSession::ViewerCount() const {
  std::lock_guard lock(mutex_);
  return peers_.size();
}

}  // namespace mirell::session
