#include "interop_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "mirell/testsupport/subprocess.h"

namespace mirell::media::testing {
namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void RunOrThrow(const std::vector<std::string>& argv) {
  const auto result = testsupport::RunProcess(argv);
  if (result.exit_code != 0) throw std::runtime_error(argv[0] + " failed: " + result.err);
}

}  // namespace

UdpSocket::UdpSocket() {
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw std::runtime_error("socket");
  // Bursts from a payloader that does not pace must not overflow the default buffer; the
  // forced size needs privileges, the plain one is the fallback.
  const int size = 16 << 20;
  if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  sockaddr_in address = Loopback(0);
  if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) throw std::runtime_error("bind");
  socklen_t length = sizeof address;
  getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
}

UdpSocket::~UdpSocket() { close(fd_); }

void UdpSocket::SendTo(int port, ByteSpan packet) {
  const sockaddr_in address = Loopback(port);
  if (sendto(fd_, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
      static_cast<ssize_t>(packet.size())) {
    throw std::runtime_error("sendto");
  }
}

std::optional<Bytes> UdpSocket::Receive(std::chrono::milliseconds timeout) {
  pollfd poller{fd_, POLLIN, 0};
  if (poll(&poller, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
  Bytes buffer(65536);
  const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
  if (n < 0) return std::nullopt;
  buffer.resize(static_cast<std::size_t>(n));
  return buffer;
}

int FreeUdpPort() {
  UdpSocket probe;
  return probe.port();
}

std::filesystem::path MakeH264Fixture(const std::filesystem::path& dir, int frames, int width, int height,
                                      int bitrate_kbps, const std::string& source) {
  const auto path = dir / "fixture.h264";
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  std::vector<std::string> command = {
      "ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
      source.empty() ? "testsrc2=size=" + size + ":rate=30" : source, "-s", size, "-frames:v",
      std::to_string(frames), "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast", "-bf", "0",
      "-g", "15", "-x264-params", "aud=1:repeat-headers=1"};
  if (bitrate_kbps > 0) {
    const std::string rate = std::to_string(bitrate_kbps) + "k";
    command.insert(command.end(), {"-b:v", rate, "-minrate", rate, "-maxrate", rate, "-bufsize", rate});
  }
  command.insert(command.end(), {"-f", "h264", path.string()});
  RunOrThrow(command);
  return path;
}

std::vector<Bytes> SplitAtDelimiters(const Bytes& stream) {
  std::vector<std::size_t> starts;
  std::int64_t start = -1;
  for (std::int64_t next = FindStartCode(stream, 0, start); next >= 0;
       next = FindStartCode(stream, static_cast<std::size_t>(next), start)) {
    if (static_cast<std::size_t>(next) < stream.size() && (stream[static_cast<std::size_t>(next)] & 0x1F) == 9) {
      starts.push_back(static_cast<std::size_t>(start));
    }
  }
  std::vector<Bytes> units;
  for (std::size_t i = 0; i < starts.size(); ++i) {
    const std::size_t end = i + 1 < starts.size() ? starts[i + 1] : stream.size();
    units.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(starts[i]),
                       stream.begin() + static_cast<std::ptrdiff_t>(end));
  }
  return units;
}

std::filesystem::path MakeAacFixture(const std::filesystem::path& dir, double seconds,
                                     const std::string& source) {
  const auto path = dir / "fixture.aac";
  RunOrThrow({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
              source.empty() ? "sine=frequency=1000:sample_rate=48000" : source, "-t",
              std::to_string(seconds), "-ac", "2", "-c:a", "aac",
              "-b:a", "128k", "-f", "adts", path.string()});
  return path;
}

std::vector<Bytes> ParseAdts(const Bytes& stream) {
  std::vector<Bytes> units;
  std::size_t at = 0;
  while (at + 7 <= stream.size()) {
    if (stream[at] != 0xFF || (stream[at + 1] & 0xF0) != 0xF0) throw std::runtime_error("lost ADTS sync");
    const bool crc = (stream[at + 1] & 0x01) == 0;
    const std::size_t length = (static_cast<std::size_t>(stream[at + 3] & 0x03) << 11) |
                               (static_cast<std::size_t>(stream[at + 4]) << 3) | (stream[at + 5] >> 5);
    const std::size_t header = crc ? 9 : 7;
    if (length < header || at + length > stream.size()) throw std::runtime_error("bad ADTS length");
    units.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(at + header),
                       stream.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
  }
  return units;
}

Bytes WrapAdts(const std::vector<Bytes>& units, int sample_rate, int channels) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
  int rate_index = 0;
  while (rate_index < 11 && kRates[rate_index] != sample_rate) ++rate_index;
  Bytes stream;
  for (const auto& unit : units) {
    const std::size_t length = unit.size() + 7;
    // Sync, MPEG-4, no CRC; AAC-LC (profile 1), rate index, channels; frame length; buffer full.
    const auto rate = static_cast<std::size_t>(rate_index);
    const auto channel_count = static_cast<std::size_t>(channels);
    const std::uint8_t header[7] = {
        0xFF, 0xF1, static_cast<std::uint8_t>((std::size_t{1} << 6) | (rate << 2) | ((channel_count >> 2) & 1)),
        static_cast<std::uint8_t>(((channel_count & 3) << 6) | ((length >> 11) & 3)),
        static_cast<std::uint8_t>((length >> 3) & 0xFF), static_cast<std::uint8_t>(((length & 7) << 5) | 0x1F), 0xFC};
    stream.insert(stream.end(), header, header + 7);
    stream.insert(stream.end(), unit.begin(), unit.end());
  }
  return stream;
}

std::vector<Framemd5Line> ParseFramemd5(const std::string& text) {
  std::vector<Framemd5Line> lines;
  std::istringstream input(text);
  std::string row;
  while (std::getline(input, row)) {
    if (row.empty() || row[0] == '#') continue;
    std::vector<std::string> items;
    std::istringstream fields(row);
    for (std::string item; std::getline(fields, item, ',');) {
      item.erase(0, item.find_first_not_of(' '));
      items.push_back(item);
    }
    if (items.size() < 6) continue;
    lines.push_back({std::stoi(items[0]), std::stoll(items[1]), std::stoll(items[2]), std::stoll(items[3]),
                     std::stoul(items[4]), items[5]});
  }
  return lines;
}

Bytes ReadBytes(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream contents;
  contents << file.rdbuf();
  const std::string text = contents.str();
  return Bytes(text.begin(), text.end());
}

void WriteBytes(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

bool WaitForUdpPort(int port, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (testsupport::UdpPortBound(port)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

}  // namespace mirell::media::testing
