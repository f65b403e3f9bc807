// The server's side of the signal protocol: which connection hosts which token, which viewers
// wait on it, and where each message goes. It knows connections only by id and reaches them
// through a Router. Every call comes from one thread (the server's); time is passed in, so that
// the rules can be tested without waiting.
//
// A host registers a token with its secret ("host" -> "hosting"); the same token and secret from
// a new connection take the token over (the old connection is closed) and the waiting viewers are
// announced to it again; another secret is refused. The token stays its host's (its secret's
// digest is kept) while the host is away, until the host says "end" or a day has passed, so that
// nobody who read the link can take it while the host reconnects. A viewer's "join" is answered "joined" (with
// the host's media) while the host is there, and the host is told "peer" with a fresh peer id;
// with no host the viewer waits, for at most the grace period, for one to come back. Offers go
// from host to viewer by peer id, answers from viewer to its host stamped with its peer id;
// "deny" ends that viewer with "error". A viewer whose connection ends is reported "peer-gone".
// A viewer may name a key in its join; the host's "challenge" and the viewer's "proof" pass
// through like offers and answers, and the server checks nothing of them: the host does.
// A host may register its token as public (anyone with the link watches). Only into a public
// token may a relay join, one that names the operator's relay secret; any other join that names
// one is refused, and so is a relay's join of a token that is not public or not known. The host
// hears such a peer as a relay. A host that registers again without "public" sends its relays away.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "mirell/protocol/client_messages.h"
#include "mirell/signal/signal_router.h"

namespace mirell::signal {

using Clock = std::chrono::steady_clock;

struct HubLimits {
  std::size_t max_viewers_per_token = 64;
  std::size_t max_tokens_per_connection = 4;  // A host's; a viewer's connection joins one token.
  std::chrono::milliseconds grace{30'000};    // A token's viewers wait this long for its host.
  std::chrono::milliseconds reserve{24 * 3'600'000};  // A token stays its host's while away.
  std::size_t max_tokens = 65'536;  // Held at once, hosted or reserved; a new one beyond is refused.
  std::chrono::milliseconds register_within{10'000};  // A connection that sends no host/join.
  double messages_per_second = 20;  // Sustained rate per connection ...
  double message_burst = 60;        // ... with this many at once.
};

struct HubStatistics {
  std::size_t connections = 0;
  std::size_t tokens = 0;
  std::size_t viewers = 0;
  std::uint64_t relayed = 0;  // Offers and answers passed on.
};

class SignalHub {
 public:
  // An empty relay secret admits no relay.
  SignalHub(Router& router, HubLimits limits, std::string relay_secret = {});

  void Opened(ConnectionId id, Clock::time_point now);
  // One text frame from a connection.
  void Received(ConnectionId id, std::string_view text, Clock::time_point now);
  // A binary frame: not part of the protocol.
  void ReceivedBinary(ConnectionId id);
  void Closed(ConnectionId id);
  // Ends what has waited too long: unregistered connections, and viewers whose host has not come
  // back within the grace period. Call a few times a second.
  void Sweep(Clock::time_point now);

  HubStatistics statistics() const;
  // Whether the token is held (hosted, or kept for its host) as a public share.
  bool IsPublic(std::string_view token) const;

 private:
  enum class Role { kNone, kHost, kViewer };
  struct Connection {
    Role role = Role::kNone;
    Clock::time_point opened;
    double allowance = 0;  // Messages it may still send now (a token bucket).
    Clock::time_point refilled;
    std::vector<std::string> tokens;  // A host's tokens; a viewer's one.
    std::string peer;                 // A viewer's peer id.
  };
  struct Viewer {
    ConnectionId connection = 0;
    Clock::time_point waiting_since;  // Its join.
    std::string identity;
    std::string display_name;
    std::string key;
    bool relay = false;
    bool joined = false;  // "joined" was sent.
  };
  struct Token {
    std::string secret_digest;  // Empty until a host registered it.
    std::optional<ConnectionId> host;
    std::string media;  // The host's media object as JSON text; empty when none.
    bool is_public = false;
    std::vector<std::string> viewers;  // Peer ids, in order of arrival.
    Clock::time_point hostless_since;
  };

  void Host(ConnectionId id, Connection& connection, const protocol::ClientMessage& message);
  void Join(ConnectionId id, Connection& connection, const protocol::ClientMessage& message);
  void Offer(ConnectionId id, const protocol::ClientMessage& message);
  void Answer(const Connection& connection, const protocol::ClientMessage& message);
  void Challenge(ConnectionId id, const protocol::ClientMessage& message);
  void Proof(const Connection& connection, const protocol::ClientMessage& message);
  void Deny(ConnectionId id, const protocol::ClientMessage& message);
  void End(ConnectionId id, Connection& connection, const protocol::ClientMessage& message);
  // Tells each of the token's viewers `reason` and closes them.
  void SendViewersAway(Token& token, std::string_view reason);
  // Its relays, when it is no longer public; the host hears them gone.
  void SendRelaysAway(Token& token);
  // "joined" to a waiting viewer and "peer" to the token's host.
  void Announce(Token& token, const std::string& peer);
  bool Allowed(Connection& connection, Clock::time_point now);
  void Refuse(ConnectionId id, std::string_view reason);
  // The viewer's token, or null when the peer is not a viewer of a token `host` hosts.
  Token* TokenOfPeerHostedBy(ConnectionId host, const std::string& peer);
  void DropViewer(const std::string& peer, bool tell_host);

  Router& router_;
  const HubLimits limits_;
  const std::string relay_secret_digest_;  // Empty: no relay.
  std::unordered_map<ConnectionId, Connection> connections_;
  std::unordered_map<std::string, Token> tokens_;
  std::unordered_map<std::string, Viewer> viewers_;  // By peer id.
  std::uint64_t relayed_ = 0;
  Clock::time_point now_;  // The time of the latest call that told it.
};

// Compares two secrets in time that depends on their lengths only.
bool SameSecret(std::string_view a, std::string_view b);

}  // namespace mirell::signal
