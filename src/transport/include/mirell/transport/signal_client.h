// The one WebSocket connection that a share or a watched token holds to the signal server. A host
// registers its token and learns of viewers; a viewer joins a token. Session descriptions pass
// through it as JSON text frames; it carries no media and never reads an SDP.
//
// The protocol's messages are described in mirell/protocol/message_names.h.
//
// Each client runs a thread of its own that opens the socket, registers on every open, and
// reopens it when it falls: at once after a registered socket, else after 500 ms more each time,
// at most 10 s, for as long as the client lives. An "error" from the server ends the retries.
#pragma once

#include <cstdint>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "mirell/protocol/stream_media.h"

namespace mirell::transport {

struct SignalConfig {
  std::string url;  // "ws://" or "wss://" URL of the signal server.
  std::string token;
  std::string secret;        // Host only.
  std::string identity;      // Viewer only; may be empty.
  std::string display_name;  // Viewer only; sent only with an identity.
  std::string key;           // Viewer only: its public key, which it will prove when asked.
  bool is_public = false;    // Host only: anyone with the link may watch, a relay too.
  std::string relay_secret;  // Viewer only: joins as the server's relay (public shares only).
  std::optional<protocol::StreamMedia> media;  // Host only.
  // A server silent this long (a ping goes out at half of it) is taken as gone, and the client
  // reconnects. Zero: never.
  std::chrono::milliseconds idle_limit{30'000};
};

// Handlers run on the socket's I/O thread, with no lock of the client held, so they may call the
// Send operations; they must not destroy the client (mark, and let a poll do it). Set them all
// before Start. An empty handler drops its message.
class SignalClient {
 public:
  virtual ~SignalClient() = default;

  // The server accepted the registration ("hosting" or "joined"); again after every reconnect.
  virtual void OnReady(std::function<void()> handler) = 0;
  // The server sent "error"; the client will not reconnect.
  virtual void OnRefused(std::function<void(const std::string& reason)> handler) = 0;
  // Host: a viewer arrived. An identity-less viewer has an empty display name too.
  virtual void OnPeer(
      std::function<void(const std::string& peer, const protocol::PeerIdentity& identity)> handler) = 0;
  // Host: a viewer left.
  virtual void OnPeerGone(std::function<void(const std::string& peer)> handler) = 0;
  // Host: a viewer's answer, and its signature ("" when it sent none).
  virtual void OnAnswer(std::function<void(const std::string& peer, const std::string& sdp,
                                           const std::string& signature)>
                            handler) = 0;
  // Host: a viewer's signature over the challenge sent to it.
  virtual void OnProof(
      std::function<void(const std::string& peer, const std::string& signature)> handler) = 0;
  // Host. Each Send returns whether the frame went to an open socket; nothing is queued for a
  // socket that is down. Any thread.
  virtual bool SendOffer(const std::string& peer, const std::string& sdp) = 0;
  virtual bool SendDeny(const std::string& peer) = 0;
  virtual bool SendChallenge(const std::string& peer, const std::string& challenge) = 0;
  // Viewer: the host's media, told before OnReady.
  virtual void OnMedia(std::function<void(const protocol::StreamMedia& media)> handler) = 0;
  // Viewer: the host's offer.
  virtual void OnOffer(std::function<void(const std::string& sdp)> handler) = 0;
  // Viewer: the host asks it to prove its key.
  virtual void OnChallenge(std::function<void(const std::string& challenge)> handler) = 0;
  // Viewer. An empty signature is left out.
  virtual bool SendAnswer(const std::string& sdp, const std::string& signature = {}) = 0;
  virtual bool SendProof(const std::string& signature) = 0;

  // Starts the client's thread; a second call does nothing.
  virtual void Start() = 0;
  // Ends the thread and closes the socket; a second call does nothing. Never from a handler. The
  // server keeps a host's token for it (a reconnect gets it back) until End or a day has passed.
  virtual void Stop() = 0;
  // Host: tells the server that the share is over, so that it lets the token go and sends the
  // waiting viewers away, waits at most `limit` for the server to close the connection, then
  // stops as Stop does. Not connected: only stops. Never from a handler.
  virtual void End(std::chrono::milliseconds limit = std::chrono::milliseconds(1000)) = 0;
  // True from "hosting"/"joined" until that socket ends.
  virtual bool connected() const = 0;
  // How many connection attempts have ended.
  virtual std::uint64_t reconnects() const = 0;
  // How many text frames from the server were no message of the protocol (dropped; the socket
  // stays open).
  virtual std::uint64_t malformed_messages() const = 0;
};

// Fail a check when the token (or, for a host, the secret) is empty.
std::unique_ptr<SignalClient> CreateHostSignalClient(const SignalConfig& config);
std::unique_ptr<SignalClient> CreateViewerSignalClient(const SignalConfig& config);

}  // namespace mirell::transport
