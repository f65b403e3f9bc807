#include "rtsp_test_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "mirell/testsupport/tcp_client.h"

namespace mirell::rtsp::testing {

RtspTestClient::RtspTestClient(std::uint16_t port) {
  // Borrow the connect logic and keep the descriptor.
  testsupport::TcpClient client(port);
  fd_ = dup(client.fd());
}

RtspTestClient::~RtspTestClient() {
  if (fd_ >= 0) close(fd_);
}

void RtspTestClient::SendRaw(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) throw std::runtime_error("send failed");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

bool RtspTestClient::Fill(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  if (left.count() < 0 || closed_) return false;
  pollfd entry{fd_, POLLIN, 0};
  if (poll(&entry, 1, static_cast<int>(left.count())) <= 0) return false;
  char chunk[65536];
  const auto count = recv(fd_, chunk, sizeof(chunk), 0);
  if (count <= 0) {
    closed_ = true;
    return false;
  }
  buffer_.append(chunk, static_cast<std::size_t>(count));
  return true;
}

RtspResponse RtspTestClient::Request(const std::string& method, const std::string& uri, int cseq,
                                     const std::string& extra_headers) {
  SendRaw(method + " " + uri + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n" +
          extra_headers + "\r\n");
  return ReadResponse();
}

RtspResponse RtspTestClient::ReadResponse(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    // Interleaved frames ahead of the response are set aside.
    while (buffer_.size() >= 4 && buffer_[0] == '$') {
      const std::size_t length = static_cast<std::size_t>(static_cast<unsigned char>(buffer_[2])) << 8 |
                                 static_cast<unsigned char>(buffer_[3]);
      if (buffer_.size() < length + 4) break;
      frames_.push_back({static_cast<std::uint8_t>(buffer_[1]),
                         {buffer_.begin() + 4, buffer_.begin() + 4 + static_cast<long>(length)}});
      buffer_.erase(0, length + 4);
    }
    if (!buffer_.empty() && buffer_[0] != '$') {
      const auto head_end = buffer_.find("\r\n\r\n");
      if (head_end != std::string::npos) {
        RtspResponse response;
        const std::string head = buffer_.substr(0, head_end + 2);
        response.status_line = head.substr(0, head.find("\r\n"));
        if (response.status_line.size() > 9) response.status = std::atoi(response.status_line.c_str() + 9);
        std::size_t line_start = head.find("\r\n") + 2;
        while (line_start < head.size()) {
          const auto line_end = head.find("\r\n", line_start);
          const std::string line = head.substr(line_start, line_end - line_start);
          const auto colon = line.find(':');
          if (colon != std::string::npos) {
            std::string value = line.substr(colon + 1);
            while (!value.empty() && value.front() == ' ') value.erase(0, 1);
            response.headers[line.substr(0, colon)] = value;
          }
          line_start = line_end + 2;
        }
        std::size_t body_size = 0;
        if (response.headers.count("Content-Length")) {
          body_size = static_cast<std::size_t>(std::atoi(response.headers["Content-Length"].c_str()));
        }
        if (buffer_.size() >= head_end + 4 + body_size) {
          response.body = buffer_.substr(head_end + 4, body_size);
          response.raw = buffer_.substr(0, head_end + 4 + body_size);
          buffer_.erase(0, head_end + 4 + body_size);
          return response;
        }
      }
    }
    if (!Fill(deadline)) return {};
  }
}

std::optional<InterleavedFrame> RtspTestClient::ReadFrame(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (!frames_.empty()) {
      auto frame = std::move(frames_.front());
      frames_.erase(frames_.begin());
      return frame;
    }
    if (buffer_.size() >= 4 && buffer_[0] == '$') {
      const std::size_t length = static_cast<std::size_t>(static_cast<unsigned char>(buffer_[2])) << 8 |
                                 static_cast<unsigned char>(buffer_[3]);
      if (buffer_.size() >= length + 4) {
        InterleavedFrame frame{static_cast<std::uint8_t>(buffer_[1]),
                               {buffer_.begin() + 4, buffer_.begin() + 4 + static_cast<long>(length)}};
        buffer_.erase(0, length + 4);
        return frame;
      }
    } else if (!buffer_.empty()) {
      throw std::runtime_error("unexpected bytes where an interleaved frame should be");
    }
    if (!Fill(deadline)) return std::nullopt;
  }
}

bool RtspTestClient::WaitClosed(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!closed_) {
    buffer_.clear();
    if (!Fill(deadline) && !closed_) return false;
  }
  return true;
}

RtpFields ReadRtpFields(const std::vector<std::uint8_t>& packet) {
  RtpFields fields;
  if (packet.size() < 12) return fields;
  fields.marker = (packet[1] & 0x80) != 0;
  fields.payload_type = packet[1] & 0x7F;
  fields.sequence = static_cast<std::uint16_t>(packet[2] << 8 | packet[3]);
  fields.timestamp = static_cast<std::uint32_t>(packet[4]) << 24 | static_cast<std::uint32_t>(packet[5]) << 16 |
                     static_cast<std::uint32_t>(packet[6]) << 8 | packet[7];
  fields.ssrc = static_cast<std::uint32_t>(packet[8]) << 24 | static_cast<std::uint32_t>(packet[9]) << 16 |
                static_cast<std::uint32_t>(packet[10]) << 8 | packet[11];
  return fields;
}

}  // namespace mirell::rtsp::testing
