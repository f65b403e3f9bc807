#include "rtsp_request.h"

#include <cstdlib>

#include "mirell/base/ascii.h"

namespace mirell::rtsp {
namespace {

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

std::int32_t AtoiOf(std::string_view text) { return std::atoi(std::string(text).c_str()); }

}  // namespace

RtspRequest ParseRtspRequest(std::string_view head) {
  RtspRequest request;
  if (head.size() < 2) return request;
  const auto line_end = head.find("\r\n");
  const auto line = head.substr(0, line_end);
  if (line.empty()) return request;
  const auto first_blank = line.find(' ');
  if (first_blank == std::string_view::npos || first_blank + 1 >= line.size()) return request;
  const auto second_blank = line.find(' ', first_blank + 1);
  if (second_blank == std::string_view::npos) return request;
  request.method = std::string(line.substr(0, first_blank));
  request.uri = std::string(line.substr(first_blank + 1, second_blank - first_blank - 1));

  auto rest = line_end == std::string_view::npos ? std::string_view() : head.substr(line_end + 2);
  while (!rest.empty()) {
    const auto end = rest.find("\r\n");
    const auto header = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
    if (header.empty()) break;
    const auto colon = header.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string name = AsciiLower(Trim(header.substr(0, colon)));
    const auto value = Trim(header.substr(colon + 1));
    if (name == "cseq") {
      request.cseq = AtoiOf(value);
    } else if (name == "transport") {
      request.transport = std::string(value);
    } else if (name == "session") {
      request.session = std::string(value);
    }
  }

  constexpr std::string_view kTrackId = "trackID=";
  const auto track = request.uri.rfind(kTrackId);
  if (request.uri.size() >= kTrackId.size() && track != std::string::npos) {
    request.track_id = AtoiOf(std::string_view(request.uri).substr(track + kTrackId.size()));
  }
  request.valid = true;
  return request;
}

FramingResult FrameRtspInput(std::string& pending, std::vector<RtspRequest>& requests) {
  FramingResult result;
  while (!pending.empty()) {
    if (pending.front() == '$') {
      if (pending.size() < 4) break;
      const std::size_t length = (static_cast<std::size_t>(static_cast<unsigned char>(pending[2])) << 8 |
                                  static_cast<unsigned char>(pending[3])) +
                                 4;
      if (pending.size() < length) break;
      ++result.interleaved_frames;
      pending.erase(0, length);
      continue;
    }
    const auto blank_line = pending.find("\r\n\r\n");
    if (pending.size() < 4 || blank_line == std::string::npos) break;
    const std::size_t head_size = blank_line + 4;
    requests.push_back(ParseRtspRequest(std::string_view(pending).substr(0, head_size)));
    pending.erase(0, head_size);
  }
  if (pending.size() > kMaxPendingBytes) {
    result.dropped_bytes = pending.size();
    pending.clear();
  }
  return result;
}

}  // namespace mirell::rtsp
