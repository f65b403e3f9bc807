#include "signal_messages.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace mirell::transport {
namespace {

using Json = nlohmann::json;

constexpr std::int64_t kDelayStepMs = 500;
constexpr std::int64_t kMaxDelayMs = 10'000;

std::string Dump(const Json& message) {
  // Compact; text that is not valid UTF-8 is replaced rather than refused.
  return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// An unsigned integer in [low, high], else 0 ("not said"): what a host advertises sizes a viewer's
// buffers, so a value no encoder of ours makes is not believed.
std::uint32_t NumberOf(const Json& object, const char* key, std::uint64_t low, std::uint64_t high) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_unsigned()) return 0;
  const std::uint64_t value = found->get<std::uint64_t>();
  return value >= low && value <= high ? static_cast<std::uint32_t>(value) : 0;
}

// An AudioSpecificConfig is a few bytes; anything but an even run of hexadecimal digits of that
// size is not one.
bool IsAudioConfigText(const std::string& text) {
  if (text.size() < 4 || text.size() > 32 || text.size() % 2 != 0) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  });
}

StreamMedia MediaOf(const Json& object) {
  StreamMedia media;
  media.width = NumberOf(object, "width", 16, 8192);
  media.height = NumberOf(object, "height", 16, 8192);
  media.fps = NumberOf(object, "fps", 1, 240);
  media.video_kbps = NumberOf(object, "videoKbps", 1, 200'000);
  media.sample_rate = NumberOf(object, "sampleRate", 8000, 96'000);
  media.channels = NumberOf(object, "channels", 1, 2);
  media.audio_kbps = NumberOf(object, "audioKbps", 1, 1024);
  const auto config = object.find("audioConfig");
  if (config != object.end() && config->is_string() && IsAudioConfigText(config->get<std::string>())) {
    media.audio_config = config->get<std::string>();
  }
  return media;
}

}  // namespace

std::string MakeHostMessage(const SignalConfig& config) {
  Json message = {{"type", "host"}, {"token", config.token}, {"secret", config.secret}};
  if (config.media) {
    const StreamMedia& media = *config.media;
    Json object = {{"width", media.width},           {"height", media.height},
                   {"fps", media.fps},               {"videoKbps", media.video_kbps},
                   {"sampleRate", media.sample_rate}, {"channels", media.channels},
                   {"audioKbps", media.audio_kbps}};
    if (!media.audio_config.empty()) object["audioConfig"] = media.audio_config;
    message["media"] = std::move(object);
  }
  if (config.is_public) message["public"] = true;
  return Dump(message);
}

std::string MakeJoinMessage(const SignalConfig& config) {
  Json message = {{"type", "join"}, {"token", config.token}};
  if (!config.identity.empty()) {
    message["identity"] = config.identity;
    if (!config.display_name.empty()) message["displayName"] = config.display_name;
  }
  if (!config.key.empty()) message["key"] = config.key;
  if (!config.relay_secret.empty()) message["relay"] = config.relay_secret;
  return Dump(message);
}

std::string MakeOfferMessage(const std::string& peer, const std::string& sdp) {
  return Dump({{"type", "offer"}, {"peer", peer}, {"sdp", sdp}});
}

std::string MakeAnswerMessage(const std::string& sdp, const std::string& signature) {
  Json message = {{"type", "answer"}, {"sdp", sdp}};
  if (!signature.empty()) message["signature"] = signature;
  return Dump(message);
}

std::string MakeChallengeMessage(const std::string& peer, const std::string& challenge) {
  return Dump({{"type", "challenge"}, {"peer", peer}, {"challenge", challenge}});
}

std::string MakeProofMessage(const std::string& signature) {
  return Dump({{"type", "proof"}, {"signature", signature}});
}

std::string MakeDenyMessage(const std::string& peer) {
  return Dump({{"type", "deny"}, {"peer", peer}});
}

std::string MakeEndMessage(const std::string& token) { return Dump({{"type", "end"}, {"token", token}}); }

ServerMessage ParseServerMessage(std::string_view text) {
  ServerMessage message;
  const Json root = Json::parse(text, nullptr, false);
  if (root.is_discarded()) return message;
  // value() throws a type error for a root that is no object or a field of another type.
  message.type = root.value("type", std::string());
  using Kind = ServerMessage::Kind;
  if (message.type == "hosting") {
    message.kind = Kind::kHosting;
  } else if (message.type == "joined") {
    message.kind = Kind::kJoined;
    const auto media = root.find("media");
    if (media != root.end() && media->is_object()) message.media = MediaOf(*media);
  } else if (message.type == "peer") {
    message.kind = Kind::kPeer;
    message.peer = root.value("peer", std::string());
    message.identity.identity = root.value("identity", std::string());
    message.identity.display_name = root.value("displayName", std::string());
    if (message.identity.identity.empty()) message.identity.display_name.clear();
    message.identity.key = root.value("key", std::string());
    message.identity.relay = root.value("relay", false);
  } else if (message.type == "peer-gone") {
    message.kind = Kind::kPeerGone;
    message.peer = root.value("peer", std::string());
  } else if (message.type == "offer") {
    message.kind = Kind::kOffer;
    message.sdp = root.value("sdp", std::string());
  } else if (message.type == "answer") {
    message.kind = Kind::kAnswer;
    message.peer = root.value("peer", std::string());
    message.sdp = root.value("sdp", std::string());
    message.signature = root.value("signature", std::string());
  } else if (message.type == "challenge") {
    message.kind = Kind::kChallenge;
    message.challenge = root.value("challenge", std::string());
  } else if (message.type == "proof") {
    message.kind = Kind::kProof;
    message.peer = root.value("peer", std::string());
    message.signature = root.value("signature", std::string());
  } else if (message.type == "error") {
    message.kind = Kind::kError;
    message.reason = root.value("reason", std::string("unknown"));
  } else {
    message.kind = Kind::kOther;
  }
  return message;
}

StreamMedia ReadStreamMedia(std::string_view media_json) {
  const Json object = Json::parse(media_json, nullptr, false);
  return object.is_object() ? MediaOf(object) : StreamMedia{};
}

std::int64_t NextReconnectDelayMs(std::int64_t delay_ms, bool registered) {
  return registered ? 0 : std::min(delay_ms + kDelayStepMs, kMaxDelayMs);
}

}  // namespace mirell::transport
