#include "peer_media_format.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>
#include <vector>

#include "mirell/media/aac_rtp.h"

namespace mirell::transport {
namespace {

struct SdpSection {
  std::string_view media;                // "audio", "video", "application", ...
  std::vector<std::string_view> formats;  // Payload types in the order of the m= line.
  std::vector<std::string_view> attributes;  // The text after "a=".
};

std::vector<std::string_view> SplitWords(std::string_view text) {
  std::vector<std::string_view> words;
  std::size_t at = 0;
  while (at < text.size()) {
    while (at < text.size() && text[at] == ' ') ++at;
    std::size_t end = text.find(' ', at);
    if (end == std::string_view::npos) end = text.size();
    if (end > at) words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

// The media sections of a description; lines end in CRLF or LF.
std::vector<SdpSection> ReadSections(std::string_view sdp) {
  std::vector<SdpSection> sections;
  std::size_t at = 0;
  while (at < sdp.size()) {
    std::size_t end = sdp.find('\n', at);
    if (end == std::string_view::npos) end = sdp.size();
    std::string_view line = sdp.substr(at, end - at);
    at = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.starts_with("m=")) {
      std::vector<std::string_view> words = SplitWords(line.substr(2));
      SdpSection section;
      if (!words.empty()) section.media = words[0];
      for (std::size_t i = 3; i < words.size(); ++i) section.formats.push_back(words[i]);
      sections.push_back(std::move(section));
    } else if (line.starts_with("a=") && !sections.empty()) {
      sections.back().attributes.push_back(line.substr(2));
    }
  }
  return sections;
}

std::uint32_t ParseNumber(std::string_view text, std::string_view what) {
  std::uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    throw std::invalid_argument(fmt::format("{} is not a number: '{}'", what, text));
  }
  return value;
}

// The "<rate>[/<channels>]" after "<pt> <name>/" of an a=rtpmap line for `format`, if it is one.
std::optional<RemoteAudioFormat> ReadRtpMap(std::string_view attribute, std::string_view format) {
  constexpr std::string_view kRtpMap = "rtpmap:";
  if (!attribute.starts_with(kRtpMap)) return std::nullopt;
  std::string_view rest = attribute.substr(kRtpMap.size());
  std::size_t space = rest.find(' ');
  if (space == std::string_view::npos || rest.substr(0, space) != format) return std::nullopt;
  std::string_view encoding = rest.substr(space + 1);
  std::size_t slash = encoding.find('/');
  if (slash == std::string_view::npos) {
    throw std::invalid_argument(fmt::format("rtpmap without a clock rate: '{}'", attribute));
  }
  std::string_view clock = encoding.substr(slash + 1);
  std::string_view parameters;
  if (std::size_t second = clock.find('/'); second != std::string_view::npos) {
    parameters = clock.substr(second + 1);
    clock = clock.substr(0, second);
  }
  RemoteAudioFormat result;
  result.sample_rate = ParseNumber(clock, "clock rate");
  result.channels = parameters.empty() ? 1 : ParseNumber(parameters, "channel count");
  return result;
}

bool HasMid(const SdpSection& section, std::string_view mid) {
  for (std::string_view attribute : section.attributes) {
    if (attribute.starts_with("mid:") && attribute.substr(4) == mid) return true;
  }
  return false;
}

bool IsUnreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

}  // namespace

std::string_view PeerStateWord(PeerState state) {
  switch (state) {
    case PeerState::kConnecting:
      return "connecting";
    case PeerState::kConnected:
      return "connected";
    case PeerState::kFailed:
      return "failed";
    case PeerState::kClosed:
      return "closed";
  }
  return "?";
}

std::string AudioFormatParameters(const OfferMedia& media) {
  media::Bytes config = media.audio_specific_config;
  if (config.empty()) config = media::MakeAacLcAudioSpecificConfig(media.sample_rate, media.channels);
  return fmt::format(
      "streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength={};indexlength={};"
      "indexdeltalength={};config={}",
      media::kAuSizeLengthBits, media::kAuIndexLengthBits, media::kAuIndexLengthBits,
      media::HexEncode(config));
}

std::optional<RemoteAudioFormat> ReadRemoteAudioFormat(std::string_view sdp) {
  for (const SdpSection& section : ReadSections(sdp)) {
    if (section.media == "application" || !HasMid(section, kAudioMid)) continue;
    for (std::string_view format : section.formats) {
      for (std::string_view attribute : section.attributes) {
        if (auto found = ReadRtpMap(attribute, format)) return found;
      }
    }
    return std::nullopt;
  }
  return std::nullopt;
}

std::size_t CountCandidates(std::string_view sdp) {
  constexpr std::string_view kCandidate = "a=candidate:";
  std::size_t count = 0;
  for (std::size_t at = sdp.find(kCandidate); at != std::string_view::npos;
       at = sdp.find(kCandidate, at + kCandidate.size())) {
    ++count;
  }
  return count;
}

std::string_view CandidateTypeWord(std::string_view ice_type) {
  if (ice_type == "host") return "host";
  if (ice_type == "srflx") return "server-reflexive";
  if (ice_type == "prflx") return "peer-reflexive";
  if (ice_type == "relay") return "relay";
  return "unknown";
}

std::string IceServerDescription(const IceServer& server) {
  if (server.username.empty()) return server.url;
  return fmt::format("{} (as {})", server.url, server.username);
}

std::string PercentEncode(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (IsUnreserved(c)) {
      out += c;
    } else {
      out += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
  }
  return out;
}

IceServerUri ToIceServerUri(const IceServer& server) {
  std::string_view url = server.url;
  std::size_t colon = url.find(':');
  if (colon == std::string_view::npos) throw std::invalid_argument("not a stun: or turn: URL");
  std::string_view scheme = url.substr(0, colon);
  std::string_view rest = url.substr(colon + 1);
  if (rest.starts_with("//")) rest.remove_prefix(2);

  IceServerUri result;
  std::uint32_t default_port = 3478;
  if (scheme == "stun") {
    result.turn = false;
  } else if (scheme == "turn") {
    result.turn = true;
  } else if (scheme == "turns") {
    result.turn = true;
    default_port = 5349;
  } else {
    throw std::invalid_argument(fmt::format("unknown scheme '{}'", scheme));
  }

  std::string_view query;
  if (std::size_t mark = rest.find('?'); mark != std::string_view::npos) {
    query = rest.substr(mark);
    rest = rest.substr(0, mark);
  }
  if (result.turn && !query.empty() && query != "?transport=udp" && query != "?transport=tcp") {
    throw std::invalid_argument(fmt::format("unknown parameters '{}'", query));
  }
  if (!result.turn && !query.empty()) throw std::invalid_argument("a STUN URL takes no parameters");
  if (rest.find('@') != std::string_view::npos || rest.find('/') != std::string_view::npos) {
    throw std::invalid_argument("credentials and paths do not belong in the URL");
  }

  // host, [v6]:port or host:port
  std::string_view host = rest;
  std::string_view port_text;
  if (rest.starts_with('[')) {
    std::size_t close = rest.find(']');
    if (close == std::string_view::npos) throw std::invalid_argument("unclosed IPv6 address");
    host = rest.substr(0, close + 1);
    std::string_view after = rest.substr(close + 1);
    if (!after.empty()) {
      if (after[0] != ':') throw std::invalid_argument("text after the IPv6 address");
      port_text = after.substr(1);
    }
  } else if (std::size_t port_colon = rest.rfind(':'); port_colon != std::string_view::npos) {
    host = rest.substr(0, port_colon);
    port_text = rest.substr(port_colon + 1);
  }
  if (host.empty() || host == "[]") throw std::invalid_argument("no host");
  std::uint32_t port = default_port;
  if (!port_text.empty() || rest.ends_with(':')) {
    port = ParseNumber(port_text, "port");
    if (port == 0 || port > 65535) throw std::invalid_argument(fmt::format("port {} is out of range", port));
  }

  result.host = host.starts_with('[') ? host.substr(1, host.size() - 2) : host;
  result.port = static_cast<std::uint16_t>(port);
  if (!result.turn) {
    result.uri = fmt::format("stun://{}:{}", host, port);
    return result;
  }
  if (server.username.empty()) throw std::invalid_argument("a TURN server needs a username");
  result.uri = fmt::format("{}://{}:{}@{}:{}{}", scheme, PercentEncode(server.username),
                           PercentEncode(server.credential), host, port, query);
  return result;
}

}  // namespace mirell::transport
