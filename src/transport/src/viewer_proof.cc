#include "mirell/transport/viewer_proof.h"

#include <cctype>

#include "mirell/protocol/share_token.h"

namespace mirell::transport {
namespace {

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

// "sha-256 AB:CD:..." with the hash name in lower case and one blank between.
std::string NormalFingerprint(std::string_view value) {
  value = Trim(value);
  const std::size_t blank = value.find_first_of(" \t");
  if (blank == std::string_view::npos) return {};
  std::string hash(value.substr(0, blank));
  for (char& c : hash) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const std::string_view digest = Trim(value.substr(blank));
  if (hash.empty() || digest.empty()) return {};
  return hash + " " + std::string(digest);
}

}  // namespace

std::string NewChallenge() { return protocol::RandomCrockford(kChallengeLength); }

std::string IdentityStatement(std::string_view token, std::string_view challenge) {
  std::string text = "mirell viewer identity 1\n";
  text.append(token).append("\n").append(challenge).append("\n");
  return text;
}

std::string AnswerStatement(std::string_view token, std::string_view challenge,
                            std::string_view fingerprint) {
  std::string text = "mirell viewer answer 1\n";
  text.append(token).append("\n").append(challenge).append("\n").append(fingerprint).append("\n");
  return text;
}

std::string DtlsFingerprintOf(std::string_view sdp) {
  constexpr std::string_view kPrefix = "a=fingerprint:";
  std::string found;
  std::size_t at = 0;
  while (at < sdp.size()) {
    std::size_t end = sdp.find('\n', at);
    if (end == std::string_view::npos) end = sdp.size();
    const std::string_view line = sdp.substr(at, end - at);
    at = end + 1;
    if (line.substr(0, kPrefix.size()) != kPrefix) continue;
    const std::string fingerprint = NormalFingerprint(line.substr(kPrefix.size()));
    if (fingerprint.empty()) return {};
    if (!found.empty() && found != fingerprint) return {};
    found = fingerprint;
  }
  return found;
}

}  // namespace mirell::transport
