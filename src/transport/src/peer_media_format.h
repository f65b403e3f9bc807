// The text side of the link's media format and ICE set-up, free of any WebRTC stack: what goes into
// an offer, what is read back out of the other side's description, and the words of the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "mirell/transport/peer_link.h"

namespace mirell::transport {

// "streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;indexlength=3;indexdeltalength=3;
// config=<hex>", the config being the media's AudioSpecificConfig or, when that is empty, the
// AAC-LC one made from its rate and channels (which throws for a rate or channel count AAC-LC
// cannot describe).
std::string AudioFormatParameters(const OfferMedia& media);

struct RemoteAudioFormat {
  std::uint32_t sample_rate = 0;
  std::uint32_t channels = 0;
};

// The rate and channels of the first payload type with an RTP map in the first media section
// whose mid is "audio" (application sections skipped); nullopt when there is none. Channels are 1
// when the map gives none. Text that is not a number there throws std::invalid_argument.
std::optional<RemoteAudioFormat> ReadRemoteAudioFormat(std::string_view sdp);

// How many "a=candidate:" lines a description holds.
std::size_t CountCandidates(std::string_view sdp);

// "host", "server-reflexive", "peer-reflexive", "relay" from ICE's short type names
// (host, srflx, prflx, relay); "unknown" for anything else.
std::string_view CandidateTypeWord(std::string_view ice_type);

// How a server appears in the log: its URL, and "(as <username>)" when it has one. Never the
// password.
std::string IceServerDescription(const IceServer& server);

// An ICE server in the form the WebRTC stack takes: "stun://host:port" or
// "turn[s]://user:password@host:port[?transport=...]", the credentials percent-encoded.
struct IceServerUri {
  bool turn = false;
  std::string uri;
  std::string host;  // As written; an IPv6 address without its brackets.
  std::uint16_t port = 0;
};
// Takes "stun:", "turn:" and "turns:" URLs (RFC 7064 and 7065), with or without "//". Throws
// std::invalid_argument, with the reason, for any other scheme, a missing host, a bad port, or a
// TURN server without a username.
IceServerUri ToIceServerUri(const IceServer& server);

// RFC 3986 percent-encoding of everything but the unreserved characters.
std::string PercentEncode(std::string_view text);

}  // namespace mirell::transport
