#include "mirell/protocol/client_messages.h"

#include "json_text.h"
#include "media_object.h"
#include "mirell/protocol/message_names.h"

namespace mirell::protocol {

std::string MakeHostMessage(const HostRegistration& registration) {
  Json message = {{field::kType, message::kHost},
                  {field::kToken, registration.token},
                  {field::kSecret, registration.secret}};
  if (registration.media) message[field::kMedia] = MediaObjectOf(*registration.media);
  if (registration.is_public) message[field::kPublic] = true;
  return Dump(message);
}

std::string MakeJoinMessage(const JoinRequest& request) {
  Json message = {{field::kType, message::kJoin}, {field::kToken, request.token}};
  if (!request.identity.empty()) {
    message[field::kIdentity] = request.identity;
    if (!request.display_name.empty()) message[field::kDisplayName] = request.display_name;
  }
  if (!request.key.empty()) message[field::kKey] = request.key;
  if (!request.relay_secret.empty()) message[field::kRelay] = request.relay_secret;
  return Dump(message);
}

std::string MakeOfferMessage(const std::string& peer, const std::string& sdp) {
  return Dump({{field::kType, message::kOffer}, {field::kPeer, peer}, {field::kSdp, sdp}});
}

std::string MakeAnswerMessage(const std::string& sdp, const std::string& signature) {
  Json message = {{field::kType, message::kAnswer}, {field::kSdp, sdp}};
  if (!signature.empty()) message[field::kSignature] = signature;
  return Dump(message);
}

std::string MakeChallengeMessage(const std::string& peer, const std::string& challenge) {
  return Dump({{field::kType, message::kChallenge}, {field::kPeer, peer}, {field::kChallenge, challenge}});
}

std::string MakeProofMessage(const std::string& signature) {
  return Dump({{field::kType, message::kProof}, {field::kSignature, signature}});
}

std::string MakeDenyMessage(const std::string& peer) {
  return Dump({{field::kType, message::kDeny}, {field::kPeer, peer}});
}

std::string MakeEndMessage(const std::string& token) {
  return Dump({{field::kType, message::kEnd}, {field::kToken, token}});
}

namespace {

using Kind = ClientMessage::Kind;

// False, or the JSON library's type error, for a field of another type.
bool ReadFields(const Json& root, ClientMessage& message) {
  message.type = StringField(root, field::kType);
  const std::string& type = message.type;
  if (type == message::kHost) {
    message.kind = Kind::kHost;
    message.token = StringField(root, field::kToken);
    message.secret = StringField(root, field::kSecret);
    const auto media = root.find(field::kMedia);
    if (media != root.end()) {
      if (!media->is_object()) return false;
      message.media = Dump(KnownMediaFields(*media));
    }
    message.is_public = root.value(field::kPublic, false);
  } else if (type == message::kJoin) {
    message.kind = Kind::kJoin;
    message.token = StringField(root, field::kToken);
    message.identity = StringField(root, field::kIdentity);
    message.display_name = StringField(root, field::kDisplayName);
    message.key = StringField(root, field::kKey);
    const auto relay = root.find(field::kRelay);
    if (relay != root.end()) message.relay_secret = relay->is_string() ? relay->get<std::string>() : std::string();
  } else if (type == message::kOffer) {
    message.kind = Kind::kOffer;
    message.peer = StringField(root, field::kPeer);
    message.sdp = StringField(root, field::kSdp);
  } else if (type == message::kAnswer) {
    message.kind = Kind::kAnswer;
    message.sdp = StringField(root, field::kSdp);
    message.signature = StringField(root, field::kSignature);
  } else if (type == message::kChallenge) {
    message.kind = Kind::kChallenge;
    message.peer = StringField(root, field::kPeer);
    message.challenge = StringField(root, field::kChallenge);
  } else if (type == message::kProof) {
    message.kind = Kind::kProof;
    message.signature = StringField(root, field::kSignature);
  } else if (type == message::kDeny) {
    message.kind = Kind::kDeny;
    message.peer = StringField(root, field::kPeer);
  } else if (type == message::kEnd) {
    message.kind = Kind::kEnd;
    message.token = StringField(root, field::kToken);
  } else {
    message.kind = Kind::kOther;
  }
  return true;
}

}  // namespace

ClientMessage ParseClientMessage(std::string_view text) { return ReadMessage<ClientMessage>(text, ReadFields); }

}  // namespace mirell::protocol
