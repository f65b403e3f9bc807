// One small HTTPS GET, for questions a program asks a server of its own (is there a newer
// version?). The certificate chain is verified against the system's CA store (or OpenSSL's
// SSL_CERT_FILE / SSL_CERT_DIR) and must name the URL's host.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace mirell::transport {

struct HttpsGetLimits {
  // Each of name lookup, connect (with the TLS handshake), sending and receiving.
  std::chrono::milliseconds phase{5000};
  std::size_t max_body_bytes = 8192;
};

// The body of a 200 answer. nullopt, with the reason at debug, for a URL that is not "https://",
// any failure of the network or of TLS, a phase past its limit, another status, or a longer body.
// Blocks the calling thread for at most four phases.
std::optional<std::string> HttpsGet(const std::string& url, const HttpsGetLimits& limits = {});

// Call first thing in main, before anything uses TLS: the TLS library then skips its own clean-up
// at exit, so a request still running on a detached thread when the process ends never finds the
// library torn down under it (the operating system frees everything anyway).
void KeepTlsThroughExit();

}  // namespace mirell::transport
