// The signal protocol's messages as JSON text: what the client writes and how it reads what the
// server sends. Platform-free, so that the reading can be fuzzed on its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "mirell/transport/signal_client.h"

namespace mirell::transport {

// "host" with token, secret and, when set, media (audioConfig only when non-empty) and
// "public": true.
std::string MakeHostMessage(const SignalConfig& config);
// "join" with token; identity when non-empty, and displayName only beside an identity; key and
// relay (the relay's secret) when non-empty.
std::string MakeJoinMessage(const SignalConfig& config);
std::string MakeOfferMessage(const std::string& peer, const std::string& sdp);
// The signature only when non-empty.
std::string MakeAnswerMessage(const std::string& sdp, const std::string& signature = {});
std::string MakeChallengeMessage(const std::string& peer, const std::string& challenge);
std::string MakeProofMessage(const std::string& signature);
std::string MakeDenyMessage(const std::string& peer);
// "end" with token: the host is done with the share.
std::string MakeEndMessage(const std::string& token);

struct ServerMessage {
  enum class Kind {
    kUnparseable, kHosting, kJoined, kPeer, kPeerGone, kOffer, kAnswer, kChallenge, kProof, kError, kOther
  };
  Kind kind = Kind::kUnparseable;
  std::string type;                  // As sent; "" when absent.
  std::optional<StreamMedia> media;  // "joined" with a media object.
  std::string peer;
  std::string sdp;
  std::string reason;
  std::string challenge;
  std::string signature;  // "proof", "answer".
  PeerIdentity identity;
};

// Reads one text frame. Text that is no JSON gives kUnparseable. A root that is no object, or a
// field of the wrong type, throws the JSON library's type error (nlohmann::json::exception),
// which the socket's message callback logs. Missing fields take the protocol's defaults: "" for
// strings, "unknown" for an error's reason; a name without an identity is dropped.
ServerMessage ParseServerMessage(std::string_view text);

// The media object's fields: each number within its range (see the .cc), the AudioSpecificConfig
// as a short run of hexadecimal digits; anything else is 0 or empty, "not said".
StreamMedia ReadStreamMedia(std::string_view media_json);

// The wait before the next connection attempt: none after a registered socket, else 500 ms more
// than the last, at most 10 s.
std::int64_t NextReconnectDelayMs(std::int64_t delay_ms, bool registered);

}  // namespace mirell::transport
