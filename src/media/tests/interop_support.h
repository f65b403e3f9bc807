// Loopback UDP and media fixtures made at test time by the ffmpeg command line, for the tests
// against GStreamer's and FFmpeg's own RTP and codec implementations.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "mirell/media/nal.h"

namespace mirell::media::testing {

// A UDP socket on 127.0.0.1: sends to a port, or receives on its own port.
class UdpSocket {
 public:
  UdpSocket();  // Bound to 127.0.0.1 on a free port, with a large receive buffer.
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  int port() const { return port_; }
  void SendTo(int port, ByteSpan packet);
  // One datagram, or nothing when `timeout` passes first.
  std::optional<Bytes> Receive(std::chrono::milliseconds timeout);

 private:
  int fd_ = -1;
  int port_ = 0;
};

// A free UDP port on 127.0.0.1 at the moment of asking.
int FreeUdpPort();

// H.264 from testsrc2 (or the lavfi `source`, 30 frames per second, of any size: it is scaled)
// with libx264, no B-frames, an access unit delimiter in front of every unit and parameter sets
// in front of every keyframe. With `bitrate_kbps` above 0, at that constant rate instead of
// x264's default quality.
std::filesystem::path MakeH264Fixture(const std::filesystem::path& dir, int frames, int width, int height,
                                      int bitrate_kbps = 0, const std::string& source = {});
// Splits an Annex B stream into access units at its delimiters (NAL type 9).
std::vector<Bytes> SplitAtDelimiters(const Bytes& stream);

// Stereo 48 kHz AAC-LC of a 1 kHz sine (or of the 48 kHz lavfi `source`), as ADTS. ffmpeg's
// encoder puts 1024 samples of priming in front: unit k decodes to the source's unit k - 1.
std::filesystem::path MakeAacFixture(const std::filesystem::path& dir, double seconds,
                                     const std::string& source = {});
// The raw access units of an ADTS stream.
std::vector<Bytes> ParseAdts(const Bytes& stream);
// Raw AAC-LC access units as an ADTS stream that any decoder reads.
Bytes WrapAdts(const std::vector<Bytes>& units, int sample_rate, int channels);

Bytes ReadBytes(const std::filesystem::path& path);
void WriteBytes(const std::filesystem::path& path, const Bytes& bytes);

// One line of ffmpeg's framemd5 output: "stream, dts, pts, duration, size, hash".
struct Framemd5Line {
  int stream = 0;
  std::int64_t dts = 0;
  std::int64_t pts = 0;
  std::int64_t duration = 0;
  std::size_t size = 0;
  std::string hash;
};
// The frame lines of a framemd5 text; comment lines are skipped.
std::vector<Framemd5Line> ParseFramemd5(const std::string& text);

// Waits until some socket is bound to the UDP port; false after `timeout`.
bool WaitForUdpPort(int port, std::chrono::milliseconds timeout);

}  // namespace mirell::media::testing
