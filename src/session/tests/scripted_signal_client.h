// A signal client with no socket, for the session's unit tests: the test plays the server by
// calling the handlers the session set, and reads back what the session sent. Test code only.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "mirell/transport/signal_client.h"

namespace mirell::session::testing {

class ScriptedSignalClient : public transport::SignalClient {
 public:
  struct Sent {
    std::string type;  // "offer", "deny", "challenge", "answer" or "proof".
    std::string peer;
    std::string sdp;        // The challenge of a "challenge".
    std::string signature;  // Of an "answer" or "proof".
  };

  void OnReady(std::function<void()> handler) override { on_ready_ = std::move(handler); }
  void OnRefused(std::function<void(const std::string&)> handler) override {
    on_refused_ = std::move(handler);
  }
  void OnPeer(std::function<void(const std::string&, const protocol::PeerIdentity&)> handler)
      override {
    on_peer_ = std::move(handler);
    ++peer_handler_sets_;
  }
  void OnPeerGone(std::function<void(const std::string&)> handler) override {
    on_peer_gone_ = std::move(handler);
  }
  void OnAnswer(std::function<void(const std::string&, const std::string&, const std::string&)> handler)
      override {
    on_answer_ = std::move(handler);
  }
  void OnProof(std::function<void(const std::string&, const std::string&)> handler) override {
    on_proof_ = std::move(handler);
  }
  void OnChallenge(std::function<void(const std::string&)> handler) override {
    on_challenge_ = std::move(handler);
  }
  void OnMedia(std::function<void(const protocol::StreamMedia&)> handler) override {
    on_media_ = std::move(handler);
  }
  void OnOffer(std::function<void(const std::string&)> handler) override {
    on_offer_ = std::move(handler);
  }
  bool SendOffer(const std::string& peer, const std::string& sdp) override {
    return Record({"offer", peer, sdp, {}});
  }
  bool SendDeny(const std::string& peer) override { return Record({"deny", peer, {}, {}}); }
  bool SendChallenge(const std::string& peer, const std::string& challenge) override {
    return Record({"challenge", peer, challenge, {}});
  }
  bool SendAnswer(const std::string& sdp, const std::string& signature) override {
    return Record({"answer", {}, sdp, signature});
  }
  bool SendProof(const std::string& signature) override { return Record({"proof", {}, {}, signature}); }
  void Start() override {}
  void Stop() override {}
  void End(std::chrono::milliseconds) override { ++ends_; }
  int ends() const { return ends_; }
  bool connected() const override { return true; }
  std::uint64_t reconnects() const override { return 0; }
  std::uint64_t malformed_messages() const override { return 0; }

  // The server's side.
  void Peer(const std::string& peer, protocol::PeerIdentity identity) {
    if (on_peer_) on_peer_(peer, identity);
  }
  void PeerGone(const std::string& peer) {
    if (on_peer_gone_) on_peer_gone_(peer);
  }
  void Answer(const std::string& peer, const std::string& sdp, const std::string& signature = {}) {
    if (on_answer_) on_answer_(peer, sdp, signature);
  }
  void Proof(const std::string& peer, const std::string& signature) {
    if (on_proof_) on_proof_(peer, signature);
  }
  void Challenge(const std::string& challenge) {
    if (on_challenge_) on_challenge_(challenge);
  }
  // The challenge last sent to `peer`, or "".
  std::string ChallengeSentTo(const std::string& peer) const {
    std::lock_guard lock(mutex_);
    std::string challenge;
    for (const Sent& message : sent_) {
      if (message.type == "challenge" && message.peer == peer) challenge = message.sdp;
    }
    return challenge;
  }
  bool has_peer_handlers() const { return on_peer_ && on_peer_gone_ && on_answer_; }
  // How many times a viewer arrival handler was handed over.
  int peer_handler_sets() const { return peer_handler_sets_; }

  std::vector<Sent> sent() const {
    std::lock_guard lock(mutex_);
    return sent_;
  }
  std::size_t CountSent(const std::string& type) const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    for (const Sent& message : sent_) count += message.type == type ? 1u : 0u;
    return count;
  }
  void set_send_result(bool result) { send_result_ = result; }

 private:
  bool Record(Sent message) {
    std::lock_guard lock(mutex_);
    sent_.push_back(std::move(message));
    return send_result_;
  }

  std::function<void()> on_ready_;
  std::function<void(const std::string&)> on_refused_;
  std::function<void(const std::string&, const protocol::PeerIdentity&)> on_peer_;
  std::function<void(const std::string&)> on_peer_gone_;
  int peer_handler_sets_ = 0;
  int ends_ = 0;
  std::function<void(const std::string&, const std::string&, const std::string&)> on_answer_;
  std::function<void(const std::string&, const std::string&)> on_proof_;
  std::function<void(const std::string&)> on_challenge_;
  std::function<void(const protocol::StreamMedia&)> on_media_;
  std::function<void(const std::string&)> on_offer_;
  mutable std::mutex mutex_;
  std::vector<Sent> sent_;
  std::atomic<bool> send_result_{true};
};

}  // namespace mirell::session::testing
