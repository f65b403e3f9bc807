#include "rtsp_sdp.h"

#include <fmt/format.h>

#include "mirell/media/aac_rtp.h"
#include "mirell/media/nal.h"

namespace mirell::rtsp {

std::string Base64Encode(std::span<const std::uint8_t> bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                static_cast<std::uint32_t>(bytes[i + 1]) << 8 | bytes[i + 2];
    text += kAlphabet[group >> 18 & 63];
    text += kAlphabet[group >> 12 & 63];
    text += kAlphabet[group >> 6 & 63];
    text += kAlphabet[group & 63];
  }
  const std::size_t left = bytes.size() - i;
  if (left > 0) {
    std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16;
    if (left == 2) group |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
    text += kAlphabet[group >> 18 & 63];
    text += kAlphabet[group >> 12 & 63];
    text += left == 2 ? kAlphabet[group >> 6 & 63] : '=';
    text += '=';
  }
  return text;
}

std::string BuildSdp(std::span<const std::uint8_t> sequence_header, std::uint32_t bitrate_kbps,
                     const std::optional<streams::AudioConfig>& audio) {
  std::string profile_id = "42E01E";
  std::string sps, pps;
  for (const auto nal : media::SplitAnnexB(sequence_header)) {
    if (nal.empty()) continue;
    const int type = nal[0] & 0x1F;
    if (type == 7) {
      sps = Base64Encode(nal);
      if (nal.size() >= 4) profile_id = fmt::format("{:02X}{:02X}{:02X}", nal[1], nal[2], nal[3]);
    } else if (type == 8) {
      pps = Base64Encode(nal);
    }
  }
  std::string format_line = "a=fmtp:96 packetization-mode=1; profile-level-id=" + profile_id;
  if (!sps.empty() && !pps.empty()) format_line += fmt::format("; sprop-parameter-sets={},{}", sps, pps);

  std::string sdp = fmt::format(
      "v=0\r\no=- 0 0 IN IP4 {0}\r\ns=mirell\r\nc=IN IP4 {0}\r\nt=0 0\r\na=range:npt=now-\r\n"
      "a=control:*\r\nm=video 0 RTP/AVP 96\r\nb=AS:{1}\r\n{2}\r\na=rtpmap:96 H264/90000\r\n"
      "a=control:trackID=0\r\n",
      kLoopback, bitrate_kbps, format_line);
  if (audio) {
    const auto config =
        audio->audio_specific_config.empty()
            ? media::MakeAacLcAudioSpecificConfig(audio->sample_rate, audio->channels)
            : audio->audio_specific_config;
    sdp += fmt::format(
        "m=audio 0 RTP/AVP 97\r\nb=AS:{0}\r\na=fmtp:97 streamtype=5;profile-level-id=1;"
        "mode=AAC-hbr;sizelength={1};indexlength={2};indexdeltalength={2};config={3}\r\n"
        "a=rtpmap:97 mpeg4-generic/{4}/{5}\r\na=control:trackID=1\r\n",
        audio->bitrate_kbps, media::kAuSizeLengthBits, media::kAuIndexLengthBits,
        media::HexEncode(config), audio->sample_rate, audio->channels);
  }
  return sdp;
}

}  // namespace mirell::rtsp
