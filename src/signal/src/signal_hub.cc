#include "mirell/signal/signal_hub.h"

#include <algorithm>
#include <cctype>

#include "mirell/base/logging.h"
#include "mirell/protocol/client_messages.h"
#include "mirell/protocol/server_messages.h"
#include "mirell/protocol/share_token.h"
#include "secret_digest.h"

namespace mirell::signal {
namespace {

constexpr std::size_t kMaxTokenLength = 64;
constexpr std::size_t kMaxSecretLength = 256;
constexpr std::size_t kMaxNameLength = 256;
constexpr std::size_t kPeerIdLength = 16;
// Keys, challenges and signatures are short texts (base64 of 32 and 64 bytes, 32 characters):
// room for their form to change, none for a payload.
constexpr std::size_t kMaxProofFieldLength = 256;

bool ValidToken(const std::string& token) {
  return !token.empty() && token.size() <= kMaxTokenLength &&
         std::all_of(token.begin(), token.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
}

}  // namespace

bool SameSecret(std::string_view a, std::string_view b) {
  const std::size_t length = std::max(a.size(), b.size());
  unsigned difference = a.size() == b.size() ? 0u : 1u;
  for (std::size_t i = 0; i < length; ++i) {
    const auto x = static_cast<unsigned char>(i < a.size() ? a[i] : 0);
    const auto y = static_cast<unsigned char>(i < b.size() ? b[i] : 0);
    difference |= static_cast<unsigned>(x ^ y);
  }
  return difference == 0;
}

SignalHub::SignalHub(Router& router, HubLimits limits, std::string relay_secret)
    : router_(router),
      limits_(limits),
      relay_secret_digest_(relay_secret.empty() ? std::string() : SecretDigest(relay_secret)) {}

bool SignalHub::IsPublic(std::string_view token) const {
  const auto found = tokens_.find(std::string(token));
  return found != tokens_.end() && found->second.is_public;
}

void SignalHub::Opened(ConnectionId id, Clock::time_point now) {
  now_ = now;
  Connection connection;
  connection.opened = now;
  connection.allowance = limits_.message_burst;
  connection.refilled = now;
  connections_[id] = std::move(connection);
}

void SignalHub::ReceivedBinary(ConnectionId id) { Refuse(id, "text frames only"); }

void SignalHub::Received(ConnectionId id, std::string_view text, Clock::time_point now) {
  now_ = now;
  const auto found = connections_.find(id);
  if (found == connections_.end()) return;
  Connection& connection = found->second;
  if (!Allowed(connection, now)) return Refuse(id, "too many messages");
  const protocol::ClientMessage message = protocol::ParseClientMessage(text);
  using Kind = protocol::ClientMessage::Kind;
  if (message.kind == Kind::kMalformed) return Refuse(id, "malformed message");
  if (message.kind == Kind::kHost) return Host(id, connection, message);
  if (message.kind == Kind::kJoin) return Join(id, connection, message);
  if (connection.role == Role::kNone) return Refuse(id, "register first");
  const bool host = connection.role == Role::kHost;
  if (message.kind == Kind::kOffer && host) return Offer(id, message);
  if (message.kind == Kind::kDeny && host) return Deny(id, message);
  if (message.kind == Kind::kEnd && host) return End(id, connection, message);
  if (message.kind == Kind::kChallenge && host) return Challenge(id, message);
  if (message.kind == Kind::kAnswer && !host) return Answer(connection, message);
  if (message.kind == Kind::kProof && !host) return Proof(connection, message);
  LOG_DEBUG("connection {}: ignoring a {} message", id, message.type.substr(0, 32));
}

void SignalHub::Host(ConnectionId id, Connection& connection, const protocol::ClientMessage& message) {
  const std::string& token_name = message.token;
  const std::string& secret = message.secret;
  if (connection.role == Role::kViewer) return Refuse(id, "a viewer cannot host");
  if (!ValidToken(token_name)) return Refuse(id, "bad token");
  if (secret.empty() || secret.size() > kMaxSecretLength) return Refuse(id, "bad secret");
  const bool is_public = message.is_public;
  const bool already_ours =
      std::find(connection.tokens.begin(), connection.tokens.end(), token_name) != connection.tokens.end();
  if (!already_ours && connection.tokens.size() >= limits_.max_tokens_per_connection) {
    return Refuse(id, "too many tokens on one connection");
  }

  auto existing = tokens_.find(token_name);
  const std::string digest = SecretDigest(secret);
  // A token that only viewers have asked for so far has no secret yet: its first host sets it.
  if (existing != tokens_.end() && !existing->second.secret_digest.empty() &&
      !SameSecret(existing->second.secret_digest, digest)) {
    LOG_INFO("connection {}: refused a host for a token held under another secret", id);
    return Refuse(id, "token taken");
  }
  if (existing == tokens_.end() && tokens_.size() >= limits_.max_tokens) {
    LOG_WARN("connection {}: refused a new token, {} are held", id, tokens_.size());
    return Refuse(id, "server full");
  }
  Token& token = existing != tokens_.end() ? existing->second : tokens_[token_name];
  token.secret_digest = digest;
  token.media = message.media;
  token.is_public = is_public;
  if (token.host && *token.host != id) {
    // The same host from a new connection (it restarted, or its network changed).
    const ConnectionId old = *token.host;
    const auto old_connection = connections_.find(old);
    if (old_connection != connections_.end()) {
      auto& old_tokens = old_connection->second.tokens;
      old_tokens.erase(std::remove(old_tokens.begin(), old_tokens.end(), token_name), old_tokens.end());
    }
    router_.Disconnect(old);
    LOG_INFO("connection {} took over a token from connection {}", id, old);
  }
  // A host that registers again on the same connection (to change what it said) knows its
  // viewers already.
  const bool new_host = token.host != id;
  token.host = id;
  connection.role = Role::kHost;
  if (!already_ours) connection.tokens.push_back(token_name);
  router_.Deliver(id, protocol::MakeHostingMessage());
  // A share that is no longer public keeps no relay in it.
  if (!is_public) SendRelaysAway(token);
  LOG_INFO("connection {} hosts a token with {} viewers waiting", id, token.viewers.size());
  if (new_host) {
    for (const auto& peer : token.viewers) Announce(token, peer);
  }
}

void SignalHub::Join(ConnectionId id, Connection& connection, const protocol::ClientMessage& message) {
  const std::string& token_name = message.token;
  const std::string& identity = message.identity;
  const std::string& display_name = message.display_name;
  const std::string& key = message.key;
  if (connection.role != Role::kNone) return Refuse(id, "one token per viewer connection");
  if (!ValidToken(token_name)) return Refuse(id, "bad token");
  if (identity.size() > kMaxNameLength || display_name.size() > kMaxNameLength) {
    return Refuse(id, "name too long");
  }
  if (key.size() > kMaxProofFieldLength) return Refuse(id, "key too long");
  const bool relay = message.relay_secret.has_value();
  auto found = tokens_.find(token_name);
  if (relay) {
    // A relay field of another type reads as an empty secret, which no server has.
    if (relay_secret_digest_.empty() || message.relay_secret->empty() ||
        message.relay_secret->size() > kMaxSecretLength ||
        !SameSecret(relay_secret_digest_, SecretDigest(*message.relay_secret))) {
      LOG_INFO("connection {}: refused a relay with a wrong secret", id);
      return Refuse(id, "not a relay of this server");
    }
    // Unknown and private tokens alike: a relay learns nothing of shares it may not serve.
    if (found == tokens_.end() || !found->second.is_public) return Refuse(id, "not a public share");
  }
  if (found != tokens_.end() && found->second.viewers.size() >= limits_.max_viewers_per_token) {
    return Refuse(id, "too many viewers");
  }
  Token& token = found != tokens_.end() ? found->second : tokens_[token_name];
  if (found == tokens_.end()) token.hostless_since = now_;

  const std::string peer = protocol::RandomCrockford(kPeerIdLength);
  Viewer viewer;
  viewer.connection = id;
  viewer.waiting_since = now_;
  viewer.identity = identity;
  viewer.display_name = identity.empty() ? std::string() : display_name;
  viewer.key = key;
  viewer.relay = relay;
  viewers_[peer] = std::move(viewer);
  token.viewers.push_back(peer);
  connection.role = Role::kViewer;
  connection.tokens = {token_name};
  connection.peer = peer;
  if (token.host) {
    Announce(token, peer);
  } else {
    LOG_DEBUG("connection {} waits for a host", id);
  }
}

void SignalHub::Announce(Token& token, const std::string& peer) {
  const auto found = viewers_.find(peer);
  if (found == viewers_.end() || !token.host) return;
  Viewer& viewer = found->second;
  if (!viewer.joined) {
    router_.Deliver(viewer.connection, protocol::MakeJoinedMessage(token.media));
    viewer.joined = true;
  }
  router_.Deliver(*token.host, protocol::MakePeerMessage(
                                   peer, {viewer.identity, viewer.display_name, viewer.key, viewer.relay}));
}

SignalHub::Token* SignalHub::TokenOfPeerHostedBy(ConnectionId host, const std::string& peer) {
  const auto viewer = viewers_.find(peer);
  if (viewer == viewers_.end()) return nullptr;
  const auto connection = connections_.find(viewer->second.connection);
  if (connection == connections_.end() || connection->second.tokens.empty()) return nullptr;
  const auto token = tokens_.find(connection->second.tokens.front());
  if (token == tokens_.end() || token->second.host != host) return nullptr;
  return &token->second;
}

void SignalHub::Offer(ConnectionId id, const protocol::ClientMessage& message) {
  const std::string& peer = message.peer;
  if (TokenOfPeerHostedBy(id, peer) == nullptr) {
    LOG_DEBUG("connection {}: an offer for a peer that is not its viewer", id);
    return;
  }
  router_.Deliver(viewers_[peer].connection, protocol::MakeOfferToViewerMessage(message.sdp));
  ++relayed_;
}

void SignalHub::Answer(const Connection& connection, const protocol::ClientMessage& message) {
  // A viewer sent away (denied, its host gone) may still have frames on their way.
  if (connection.tokens.empty()) return;
  const auto token = tokens_.find(connection.tokens.front());
  if (token == tokens_.end() || !token->second.host) return;  // The host is away; lost.
  // A signature beyond any a key of ours makes is not passed on.
  const bool signed_answer = message.signature.size() <= kMaxProofFieldLength;
  router_.Deliver(*token->second.host,
                  protocol::MakeAnswerToHostMessage(connection.peer, message.sdp,
                                                    signed_answer ? message.signature : std::string()));
  ++relayed_;
}

void SignalHub::Challenge(ConnectionId id, const protocol::ClientMessage& message) {
  const std::string& challenge = message.challenge;
  if (challenge.empty() || challenge.size() > kMaxProofFieldLength) return;
  if (TokenOfPeerHostedBy(id, message.peer) == nullptr) return;
  router_.Deliver(viewers_[message.peer].connection, protocol::MakeChallengeToViewerMessage(challenge));
}

void SignalHub::Proof(const Connection& connection, const protocol::ClientMessage& message) {
  const std::string& signature = message.signature;
  if (signature.empty() || signature.size() > kMaxProofFieldLength || connection.tokens.empty()) return;
  const auto token = tokens_.find(connection.tokens.front());
  if (token == tokens_.end() || !token->second.host) return;
  router_.Deliver(*token->second.host, protocol::MakeProofToHostMessage(connection.peer, signature));
}

void SignalHub::Deny(ConnectionId id, const protocol::ClientMessage& message) {
  const std::string& peer = message.peer;
  if (TokenOfPeerHostedBy(id, peer) == nullptr) return;
  const ConnectionId viewer = viewers_[peer].connection;
  router_.Deliver(viewer, protocol::MakeErrorMessage("the host said no"));
  router_.Disconnect(viewer);
  DropViewer(peer, false);
}

void SignalHub::End(ConnectionId id, Connection& connection, const protocol::ClientMessage& message) {
  const std::string& token_name = message.token;
  const auto token = tokens_.find(token_name);
  if (token == tokens_.end() || token->second.host != id) {
    LOG_DEBUG("connection {}: an end for a token it does not host", id);
    return;
  }
  SendViewersAway(token->second, "the share has ended");
  tokens_.erase(token);
  auto& held = connection.tokens;
  held.erase(std::remove(held.begin(), held.end(), token_name), held.end());
  LOG_INFO("connection {} ended a share", id);
  // The host waits for this close to know that the end arrived.
  if (held.empty()) router_.Disconnect(id);
}

void SignalHub::SendViewersAway(Token& token, std::string_view reason) {
  for (const auto& peer : std::vector<std::string>(token.viewers)) {
    const auto viewer = viewers_.find(peer);
    if (viewer == viewers_.end()) continue;
    const ConnectionId connection = viewer->second.connection;
    router_.Deliver(connection, protocol::MakeErrorMessage(reason));
    router_.Disconnect(connection);
    DropViewer(peer, false);
  }
}

void SignalHub::SendRelaysAway(Token& token) {
  for (const auto& peer : std::vector<std::string>(token.viewers)) {
    const auto viewer = viewers_.find(peer);
    if (viewer == viewers_.end() || !viewer->second.relay) continue;
    const ConnectionId connection = viewer->second.connection;
    router_.Deliver(connection, protocol::MakeErrorMessage("not a public share"));
    router_.Disconnect(connection);
    DropViewer(peer, true);
  }
}

void SignalHub::DropViewer(const std::string& peer, bool tell_host) {
  const auto viewer = viewers_.find(peer);
  if (viewer == viewers_.end()) return;
  const auto connection = connections_.find(viewer->second.connection);
  if (connection != connections_.end() && !connection->second.tokens.empty()) {
    const auto token = tokens_.find(connection->second.tokens.front());
    if (token != tokens_.end()) {
      auto& list = token->second.viewers;
      list.erase(std::remove(list.begin(), list.end(), peer), list.end());
      if (tell_host && token->second.host && viewer->second.joined) {
        router_.Deliver(*token->second.host, protocol::MakePeerGoneMessage(peer));
      }
    }
    connection->second.tokens.clear();
    connection->second.peer.clear();
  }
  viewers_.erase(viewer);
}

void SignalHub::Closed(ConnectionId id) {
  const auto found = connections_.find(id);
  if (found == connections_.end()) return;
  const Connection& connection = found->second;
  if (connection.role == Role::kViewer && !connection.peer.empty()) {
    DropViewer(std::string(connection.peer), true);
  } else if (connection.role == Role::kHost) {
    // Its tokens stay reserved, with their viewers, for the grace period.
    for (const auto& name : connection.tokens) {
      const auto token = tokens_.find(name);
      if (token == tokens_.end() || token->second.host != id) continue;
      token->second.host.reset();
      token->second.hostless_since = now_;
    }
  }
  connections_.erase(id);
}

void SignalHub::Sweep(Clock::time_point now) {
  now_ = now;
  std::vector<ConnectionId> silent;
  for (const auto& [id, connection] : connections_) {
    if (connection.role == Role::kNone && now - connection.opened >= limits_.register_within) {
      silent.push_back(id);
    }
  }
  for (const auto id : silent) Refuse(id, "no registration");

  for (auto token = tokens_.begin(); token != tokens_.end();) {
    if (token->second.host || now - token->second.hostless_since < limits_.grace) {
      ++token;
      continue;
    }
    // Each viewer waits the grace from when the host left or from its own join, the later.
    for (const auto& peer : std::vector<std::string>(token->second.viewers)) {
      const auto viewer = viewers_.find(peer);
      if (viewer == viewers_.end()) continue;
      const Clock::time_point since = std::max(token->second.hostless_since, viewer->second.waiting_since);
      if (now - since < limits_.grace) continue;
      const ConnectionId connection = viewer->second.connection;
      router_.Deliver(connection, protocol::MakeErrorMessage("the host is not there"));
      router_.Disconnect(connection);
      DropViewer(peer, false);
    }
    // A token a host registered stays its host's for the reserve; one only viewers asked for
    // goes with the last of them.
    const bool keep = token->second.secret_digest.empty()
                          ? !token->second.viewers.empty()
                          : now - token->second.hostless_since < limits_.reserve;
    if (keep) {
      ++token;
      continue;
    }
    SendViewersAway(token->second, "the host is not there");
    token = tokens_.erase(token);
  }
}

bool SignalHub::Allowed(Connection& connection, Clock::time_point now) {
  const double seconds = std::chrono::duration<double>(now - connection.refilled).count();
  connection.refilled = now;
  connection.allowance =
      std::min(limits_.message_burst, connection.allowance + seconds * limits_.messages_per_second);
  if (connection.allowance < 1) return false;
  connection.allowance -= 1;
  return true;
}

void SignalHub::Refuse(ConnectionId id, std::string_view reason) {
  LOG_DEBUG("connection {}: refused ({})", id, reason);
  router_.Deliver(id, protocol::MakeErrorMessage(reason));
  router_.Disconnect(id);
  // Forget it now: nothing more it sends counts. Its Closed comes later and finds nothing.
  Closed(id);
}

HubStatistics SignalHub::statistics() const {
  return {connections_.size(), tokens_.size(), viewers_.size(), relayed_};
}

}  // namespace mirell::signal
