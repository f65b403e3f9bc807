// A minimal RTSP client over a real socket for the server's tests: requests and responses, and
// the interleaved frames that follow PLAY.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace mirell::rtsp::testing {

struct RtspResponse {
  int status = 0;
  std::string status_line;
  std::map<std::string, std::string> headers;  // Names as sent.
  std::string body;
  std::string raw;  // The whole response, head and body.
};

struct InterleavedFrame {
  std::uint8_t channel = 0;
  std::vector<std::uint8_t> payload;
};

class RtspTestClient {
 public:
  explicit RtspTestClient(std::uint16_t port);
  ~RtspTestClient();
  RtspTestClient(const RtspTestClient&) = delete;
  RtspTestClient& operator=(const RtspTestClient&) = delete;

  void SendRaw(std::string_view bytes);
  // Sends "METHOD uri RTSP/1.0" with CSeq and the extra header lines, and reads the response.
  RtspResponse Request(const std::string& method, const std::string& uri, int cseq,
                       const std::string& extra_headers = {});
  // Reads the next response; interleaved frames met on the way are kept for ReadFrame.
  RtspResponse ReadResponse(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // The next interleaved frame, or nothing when `timeout` passes or the server closes.
  std::optional<InterleavedFrame> ReadFrame(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // True once the server has closed the connection.
  bool closed() const { return closed_; }
  // True when the server closes the connection within `timeout` (anything sent is discarded).
  bool WaitClosed(std::chrono::milliseconds timeout);
  int fd() const { return fd_; }

 private:
  bool Fill(std::chrono::steady_clock::time_point deadline);

  int fd_ = -1;
  std::string buffer_;
  std::vector<InterleavedFrame> frames_;
  bool closed_ = false;
};

// The 16-bit sequence number, 32-bit time stamp, SSRC and marker of an RTP packet.
struct RtpFields {
  std::uint16_t sequence = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;
  bool marker = false;
  std::uint8_t payload_type = 0;
};
RtpFields ReadRtpFields(const std::vector<std::uint8_t>& packet);

}  // namespace mirell::rtsp::testing
