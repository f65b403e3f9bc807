// What a viewer signs to prove its key to a host, and what the host checks. The host sends each
// viewer that names a key a fresh challenge; the viewer signs it with the share's token (so the
// proof is good for this share and this visit only), and later signs its answer's DTLS
// fingerprint under the same challenge, so that the link the host opens ends at the computer
// that proved the key: a signal server that passes on a proof but puts another answer in its
// place is caught.
#pragma once

#include <string>
#include <string_view>

namespace mirell::transport {

// The challenge's length, in characters of the token alphabet (160 bits).
inline constexpr std::size_t kChallengeLength = 32;

std::string NewChallenge();

// The texts that are signed; fields are one line each and cannot hold a line break.
std::string IdentityStatement(std::string_view token, std::string_view challenge);
std::string AnswerStatement(std::string_view token, std::string_view challenge,
                            std::string_view fingerprint);

// The DTLS certificate fingerprint of a session description ("sha-256 AB:CD:..."), as its
// a=fingerprint lines give it, the hash name in lower case. "" when there is none, or when two
// lines disagree: one link has one certificate.
std::string DtlsFingerprintOf(std::string_view sdp);

}  // namespace mirell::transport
