// What a host or a viewer sends the signal server, as JSON text: made by the client, read by the
// server. Platform-free, so that the reading can be fuzzed on its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mirell/protocol/stream_media.h"

namespace mirell::protocol {

struct HostRegistration {
  std::string token;
  std::string secret;
  std::optional<StreamMedia> media;
  bool is_public = false;
};

struct JoinRequest {
  std::string token;
  std::string identity;      // May be empty.
  std::string display_name;  // Sent only with an identity.
  std::string key;           // The viewer's public key, which it will prove when asked.
  std::string relay_secret;  // Joins as the server's relay (public shares only).
};

// "host" with token, secret and, when set, media (audioConfig only when non-empty) and
// "public": true.
std::string MakeHostMessage(const HostRegistration& registration);
// "join" with token; identity when non-empty, and displayName only beside an identity; key and
// relay (the relay's secret) when non-empty.
std::string MakeJoinMessage(const JoinRequest& request);
std::string MakeOfferMessage(const std::string& peer, const std::string& sdp);
// The signature only when non-empty.
std::string MakeAnswerMessage(const std::string& sdp, const std::string& signature = {});
std::string MakeChallengeMessage(const std::string& peer, const std::string& challenge);
std::string MakeProofMessage(const std::string& signature);
std::string MakeDenyMessage(const std::string& peer);
// "end" with token: the host is done with the share.
std::string MakeEndMessage(const std::string& token);

struct ClientMessage {
  enum class Kind { kMalformed, kHost, kJoin, kOffer, kAnswer, kChallenge, kProof, kDeny, kEnd, kOther };
  Kind kind = Kind::kMalformed;
  std::string type;  // As sent; "" when absent.
  std::string token;
  std::string secret;
  // "host": the media object cut down to the fields the protocol knows, each of its type (a
  // number that fits 32 bits, an audio configuration of at most 64 characters), as JSON text;
  // nothing else a host sends, however deep, is kept. Empty: no media object.
  std::string media;
  bool is_public = false;
  std::string identity;
  std::string display_name;
  std::string key;
  // "join": the relay field was there (of whatever type); its text when a string, else "".
  std::optional<std::string> relay_secret;
  std::string peer;
  std::string sdp;
  std::string signature;
  std::string challenge;
};

// Reads one text frame as the server does. kMalformed: no JSON, a root that is no object, or a
// field of the message's type that has another JSON type than the protocol's (a media object
// that is no object, a "public" that is no boolean). Missing fields are "" or false; fields the
// message's type does not have are not read.
ClientMessage ParseClientMessage(std::string_view text);

}  // namespace mirell::protocol
