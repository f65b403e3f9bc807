// What the signal server sends hosts and viewers, as JSON text: made by the server, read by the
// client. Platform-free, so that the reading can be fuzzed on its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mirell/protocol/stream_media.h"

namespace mirell::protocol {

std::string MakeHostingMessage();
// `media_json` as ClientMessage::media keeps it; empty: no media object.
std::string MakeJoinedMessage(std::string_view media_json);
// To the host: "peer" with the viewer's identity (displayName only beside one), key, and
// "relay": true for the operator's relay.
std::string MakePeerMessage(const std::string& peer, const PeerIdentity& identity);
std::string MakePeerGoneMessage(const std::string& peer);
// To a viewer: its host's offer and challenge.
std::string MakeOfferToViewerMessage(const std::string& sdp);
std::string MakeChallengeToViewerMessage(const std::string& challenge);
// To a host: a viewer's answer (the signature only when non-empty) and proof, named by its peer.
std::string MakeAnswerToHostMessage(const std::string& peer, const std::string& sdp,
                                    const std::string& signature);
std::string MakeProofToHostMessage(const std::string& peer, const std::string& signature);
std::string MakeErrorMessage(std::string_view reason);

struct ServerMessage {
  enum class Kind {
    kMalformed, kHosting, kJoined, kPeer, kPeerGone, kOffer, kAnswer, kChallenge, kProof, kError, kOther
  };
  Kind kind = Kind::kMalformed;
  std::string type;                  // As sent; "" when absent.
  std::optional<StreamMedia> media;  // "joined" with a media object.
  std::string peer;
  std::string sdp;
  std::string reason;
  std::string challenge;
  std::string signature;  // "proof", "answer".
  PeerIdentity identity;
};

// Reads one text frame as the client does. kMalformed: no JSON, a root that is no object, or a
// field of the message's type with another JSON type than the protocol's. Missing fields take the
// protocol's defaults: "" for strings, "unknown" for an error's reason; a name without an
// identity is dropped.
ServerMessage ParseServerMessage(std::string_view text);

// The media object's fields: each number within its range (see the .cc), the AudioSpecificConfig
// as a short run of hexadecimal digits; anything else is 0 or empty, "not said".
StreamMedia ReadStreamMedia(std::string_view media_json);

}  // namespace mirell::protocol
