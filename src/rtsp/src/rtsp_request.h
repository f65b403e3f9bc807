// RTSP request heads and the framing of what a client sends: request heads ending in a blank
// line, and interleaved "$" frames (the client's RTCP), which are counted and discarded.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mirell::rtsp {

struct RtspRequest {
  std::string method;  // Case as received.
  std::string uri;
  std::int32_t cseq = 0;   // 0 when absent or not a number.
  std::string transport;   // Empty when absent.
  std::string session;     // Parsed, never compared.
  bool valid = false;      // The request line was understood.
  std::int32_t track_id = -1;  // From "trackID=" in the URI; -1 when absent.
};

// Parses one request head (request line and headers, up to the blank line).
RtspRequest ParseRtspRequest(std::string_view head);

// Above this many bytes of pending input with no complete request, the input is dropped.
inline constexpr std::size_t kMaxPendingBytes = 0x10000;

struct FramingResult {
  std::uint64_t interleaved_frames = 0;  // "$" frames removed.
  std::size_t dropped_bytes = 0;         // Non-zero when the pending input overflowed.
};

// Takes every complete request head and interleaved frame from the front of `pending`, appending
// the parsed requests to `requests`. What is incomplete stays in `pending`, unless it exceeds
// kMaxPendingBytes, in which case all of it is dropped.
FramingResult FrameRtspInput(std::string& pending, std::vector<RtspRequest>& requests);

}  // namespace mirell::rtsp
