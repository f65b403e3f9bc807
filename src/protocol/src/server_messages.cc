#include "mirell/protocol/server_messages.h"

#include "json_text.h"
#include "media_object.h"
#include "mirell/protocol/message_names.h"

namespace mirell::protocol {

std::string MakeHostingMessage() { return Dump({{field::kType, message::kHosting}}); }

std::string MakeJoinedMessage(std::string_view media_json) {
  Json message = {{field::kType, message::kJoined}};
  if (!media_json.empty()) {
    const Json media = Json::parse(media_json, nullptr, false);
    if (media.is_object()) message[field::kMedia] = media;
  }
  return Dump(message);
}

std::string MakePeerMessage(const std::string& peer, const PeerIdentity& identity) {
  Json message = {{field::kType, message::kPeer}, {field::kPeer, peer}};
  if (!identity.identity.empty()) {
    message[field::kIdentity] = identity.identity;
    if (!identity.display_name.empty()) message[field::kDisplayName] = identity.display_name;
  }
  if (!identity.key.empty()) message[field::kKey] = identity.key;
  if (identity.relay) message[field::kRelay] = true;
  return Dump(message);
}

std::string MakePeerGoneMessage(const std::string& peer) {
  return Dump({{field::kType, message::kPeerGone}, {field::kPeer, peer}});
}

std::string MakeOfferToViewerMessage(const std::string& sdp) {
  return Dump({{field::kType, message::kOffer}, {field::kSdp, sdp}});
}

std::string MakeChallengeToViewerMessage(const std::string& challenge) {
  return Dump({{field::kType, message::kChallenge}, {field::kChallenge, challenge}});
}

std::string MakeAnswerToHostMessage(const std::string& peer, const std::string& sdp,
                                    const std::string& signature) {
  Json message = {{field::kType, message::kAnswer}, {field::kPeer, peer}, {field::kSdp, sdp}};
  if (!signature.empty()) message[field::kSignature] = signature;
  return Dump(message);
}

std::string MakeProofToHostMessage(const std::string& peer, const std::string& signature) {
  return Dump({{field::kType, message::kProof}, {field::kPeer, peer}, {field::kSignature, signature}});
}

std::string MakeErrorMessage(std::string_view reason) {
  return Dump({{field::kType, message::kError}, {field::kReason, reason}});
}

namespace {

using Kind = ServerMessage::Kind;

// Throws the JSON library's type error for a field of another type.
bool ReadFields(const Json& root, ServerMessage& message) {
  message.type = StringField(root, field::kType);
  const std::string& type = message.type;
  if (type == message::kHosting) {
    message.kind = Kind::kHosting;
  } else if (type == message::kJoined) {
    message.kind = Kind::kJoined;
    const auto media = root.find(field::kMedia);
    if (media != root.end() && media->is_object()) message.media = BelievedMedia(*media);
  } else if (type == message::kPeer) {
    message.kind = Kind::kPeer;
    message.peer = StringField(root, field::kPeer);
    message.identity.identity = StringField(root, field::kIdentity);
    message.identity.display_name = StringField(root, field::kDisplayName);
    if (message.identity.identity.empty()) message.identity.display_name.clear();
    message.identity.key = StringField(root, field::kKey);
    message.identity.relay = root.value(field::kRelay, false);
  } else if (type == message::kPeerGone) {
    message.kind = Kind::kPeerGone;
    message.peer = StringField(root, field::kPeer);
  } else if (type == message::kOffer) {
    message.kind = Kind::kOffer;
    message.sdp = StringField(root, field::kSdp);
  } else if (type == message::kAnswer) {
    message.kind = Kind::kAnswer;
    message.peer = StringField(root, field::kPeer);
    message.sdp = StringField(root, field::kSdp);
    message.signature = StringField(root, field::kSignature);
  } else if (type == message::kChallenge) {
    message.kind = Kind::kChallenge;
    message.challenge = StringField(root, field::kChallenge);
  } else if (type == message::kProof) {
    message.kind = Kind::kProof;
    message.peer = StringField(root, field::kPeer);
    message.signature = StringField(root, field::kSignature);
  } else if (type == message::kError) {
    message.kind = Kind::kError;
    message.reason = root.value(field::kReason, std::string("unknown"));
  } else {
    message.kind = Kind::kOther;
  }
  return true;
}

}  // namespace

ServerMessage ParseServerMessage(std::string_view text) { return ReadMessage<ServerMessage>(text, ReadFields); }

StreamMedia ReadStreamMedia(std::string_view media_json) {
  const Json object = Json::parse(media_json, nullptr, false);
  return object.is_object() ? BelievedMedia(object) : StreamMedia{};
}

}  // namespace mirell::protocol
