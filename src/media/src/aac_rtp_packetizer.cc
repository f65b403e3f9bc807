#include <algorithm>
#include <array>

#include "mirell/base/error.h"
#include "mirell/media/aac_rtp.h"

namespace mirell::media {
namespace {

// In the order of the MPEG-4 sampling frequency index.
constexpr std::array<std::uint32_t, 13> kSamplingFrequencies = {
    96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
constexpr std::uint32_t kAacLcObjectType = 2;

}  // namespace

AacRtpPacketizer::AacRtpPacketizer(AacRtpPacketizerConfig config) : config_(config) {
  MIRELL_CHECK(config_.max_payload_size > kRtpHeaderSize + kAuHeaderSectionBytes,
               "max_payload_size {} leaves no room for an AAC payload", config_.max_payload_size);
  const RtpStreamIdentity identity = DrawRtpIdentity(config_.ssrc, config_.initial_sequence);
  config_.ssrc = identity.ssrc;
  next_sequence_ = identity.first_sequence;
}

void AacRtpPacketizer::Packetize(ByteSpan access_unit, std::uint32_t rtp_timestamp,
                                 std::vector<Bytes>& packets) {
  if (access_unit.empty()) return;
  MIRELL_CHECK(access_unit.size() <= kMaxAuSize,
               "AAC access unit of {} bytes does not fit a {}-bit size field", access_unit.size(),
               kAuSizeLengthBits);
  const std::size_t room = config_.max_payload_size - kRtpHeaderSize - kAuHeaderSectionBytes;
  // Every fragment carries the size of the whole unit, the AU-Index being 0.
  const auto au_header = static_cast<std::uint16_t>(access_unit.size() << kAuIndexLengthBits);
  for (std::size_t offset = 0; offset < access_unit.size();) {
    const std::size_t chunk = std::min(access_unit.size() - offset, room);
    const bool end = offset + chunk == access_unit.size();
    Bytes packet;
    packet.reserve(chunk + kRtpHeaderSize + kAuHeaderSectionBytes);
    AppendRtpHeader(packet, config_.payload_type, end, next_sequence_++, rtp_timestamp, config_.ssrc);
    packet.push_back(0x00);  // AU-headers-length: 16 bits.
    packet.push_back(0x10);
    packet.push_back(static_cast<std::uint8_t>(au_header >> 8));
    packet.push_back(static_cast<std::uint8_t>(au_header));
    packet.insert(packet.end(), access_unit.begin() + static_cast<std::ptrdiff_t>(offset),
                  access_unit.begin() + static_cast<std::ptrdiff_t>(offset + chunk));
    packets.push_back(std::move(packet));
    offset += chunk;
  }
}

Bytes MakeAacLcAudioSpecificConfig(std::uint32_t sample_rate, std::uint32_t channels) {
  const auto found = std::find(kSamplingFrequencies.begin(), kSamplingFrequencies.end(), sample_rate);
  const int frequency_index =
      found == kSamplingFrequencies.end() ? -1 : static_cast<int>(found - kSamplingFrequencies.begin());
  MIRELL_CHECK(frequency_index >= 0, "{} Hz is not an MPEG-4 sampling frequency", sample_rate);
  MIRELL_CHECK(channels >= 1 && channels <= 2, "{} channels is outside what we encode", channels);
  const std::uint32_t value = kAacLcObjectType << 11 | static_cast<std::uint32_t>(frequency_index) << 7 |
                              channels << 3;
  return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

}  // namespace mirell::media
