// The signal protocol's words: the "type" of each message and the names of its fields. Client and
// server spell them from here only.
//
// The protocol, one JSON object per text frame, selected by "type":
//   client -> server  "host" {token, secret, media?, public?}   "end" {token}
//                     "join" {token, identity?, displayName?, key?, relay?}
//                     "offer" {peer, sdp}  "deny" {peer}  "challenge" {peer, challenge}
//                     "proof" {signature}  "answer" {sdp, signature?}
//   server -> client  "hosting"  "joined" {media?}  "peer" {peer, identity, displayName, key, relay?}
//                     "peer-gone" {peer}  "offer" {sdp}  "challenge" {challenge}
//                     "proof" {peer, signature}  "answer" {peer, sdp, signature}
//                     "error" {reason}
// A viewer that names a key proves it when its host challenges it (the client's viewer_proof.h); the
// server only passes these on.
// A public share ("public": true) lets everyone in; only into one may a relay join, naming the
// secret its operator gave it and the server; the server tells the host that the peer is a relay.
// Unknown keys are ignored; a binary frame is dropped.
#pragma once

namespace mirell::protocol {

namespace message {
// Client to server.
inline constexpr char kHost[] = "host";
inline constexpr char kJoin[] = "join";
inline constexpr char kEnd[] = "end";
inline constexpr char kDeny[] = "deny";
// Both ways: the server passes them on between a host and one of its viewers.
inline constexpr char kOffer[] = "offer";
inline constexpr char kAnswer[] = "answer";
inline constexpr char kChallenge[] = "challenge";
inline constexpr char kProof[] = "proof";
// Server to client.
inline constexpr char kHosting[] = "hosting";
inline constexpr char kJoined[] = "joined";
inline constexpr char kPeer[] = "peer";
inline constexpr char kPeerGone[] = "peer-gone";
inline constexpr char kError[] = "error";
}  // namespace message

namespace field {
inline constexpr char kType[] = "type";
inline constexpr char kToken[] = "token";
inline constexpr char kSecret[] = "secret";
inline constexpr char kMedia[] = "media";
inline constexpr char kPublic[] = "public";
inline constexpr char kIdentity[] = "identity";
inline constexpr char kDisplayName[] = "displayName";
inline constexpr char kKey[] = "key";
inline constexpr char kRelay[] = "relay";
inline constexpr char kPeer[] = "peer";
inline constexpr char kSdp[] = "sdp";
inline constexpr char kSignature[] = "signature";
inline constexpr char kChallenge[] = "challenge";
inline constexpr char kReason[] = "reason";
}  // namespace field

// The media object's fields.
namespace media_field {
inline constexpr char kWidth[] = "width";
inline constexpr char kHeight[] = "height";
inline constexpr char kFps[] = "fps";
inline constexpr char kVideoKbps[] = "videoKbps";
inline constexpr char kSampleRate[] = "sampleRate";
inline constexpr char kChannels[] = "channels";
inline constexpr char kAudioKbps[] = "audioKbps";
inline constexpr char kAudioConfig[] = "audioConfig";
}  // namespace media_field

}  // namespace mirell::protocol
