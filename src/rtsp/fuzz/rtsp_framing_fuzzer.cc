// What an RTSP player sends, cut into arbitrary reads: the framing must consume only whole request
// heads and interleaved frames, never hold more than its limit, and parse every head it takes.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "rtsp_request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The first byte sets the size of the reads that the rest arrives in.
  const std::size_t read_size = static_cast<std::size_t>(data[0]) + 1;
  const std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
  std::string pending;
  std::vector<mirell::rtsp::RtspRequest> requests;
  std::size_t consumed_or_dropped = 0;
  for (std::size_t at = 0; at < input.size(); at += read_size) {
    pending += input.substr(at, read_size);
    const std::size_t before = pending.size();
    const auto result = mirell::rtsp::FrameRtspInput(pending, requests);
    if (pending.size() > mirell::rtsp::kMaxPendingBytes) std::abort();
    if (result.dropped_bytes != 0 && !pending.empty()) std::abort();
    consumed_or_dropped += before - pending.size();
  }
  // Nothing appears from nowhere: what left the buffer is at most what went in.
  if (consumed_or_dropped + pending.size() != input.size()) std::abort();
  // The parser alone, on the whole input as one head: a request line it accepts has a method,
  // a blank, the URI and another blank, and the URI is taken from between them.
  const auto request = mirell::rtsp::ParseRtspRequest(input);
  if (request.valid) {
    const std::string line = input.substr(0, input.find("\r\n"));
    const auto first = line.find(' ');
    if (first == std::string::npos || line.find(' ', first + 1) == std::string::npos) std::abort();
    if (request.method != line.substr(0, first)) std::abort();
    if (line.compare(first + 1, request.uri.size(), request.uri) != 0) std::abort();
  }
  return 0;
}
