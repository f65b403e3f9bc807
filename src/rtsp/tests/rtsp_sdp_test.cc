#include "rtsp_sdp.h"

#include <gtest/gtest.h>

#include "mirell/media/aac_rtp.h"
#include "rtcp_sender_report.h"

namespace mirell::rtsp {
namespace {

std::vector<std::uint8_t> Bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(Base64, StandardAlphabetWithPadding) {
  EXPECT_EQ(Base64Encode(Bytes("")), "");
  EXPECT_EQ(Base64Encode(Bytes("f")), "Zg==");
  EXPECT_EQ(Base64Encode(Bytes("fo")), "Zm8=");
  EXPECT_EQ(Base64Encode(Bytes("foo")), "Zm9v");
  EXPECT_EQ(Base64Encode(Bytes("foobar")), "Zm9vYmFy");
  EXPECT_EQ(Base64Encode(std::vector<std::uint8_t>{0xFB, 0xFF}), "+/8=");
}

const std::vector<std::uint8_t> kSps = {0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9};
const std::vector<std::uint8_t> kPps = {0x68, 0xEB, 0xE3, 0xCB};

std::vector<std::uint8_t> AnnexB(std::initializer_list<std::vector<std::uint8_t>> nals) {
  std::vector<std::uint8_t> out;
  for (const auto& nal : nals) {
    out.insert(out.end(), {0, 0, 0, 1});
    out.insert(out.end(), nal.begin(), nal.end());
  }
  return out;
}

TEST(Sdp, VideoOnlyToTheByte) {
  const std::string expected =
      "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=mirell\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
      "a=range:npt=now-\r\na=control:*\r\nm=video 0 RTP/AVP 96\r\nb=AS:6000\r\n"
      "a=fmtp:96 packetization-mode=1; profile-level-id=64001F; "
      "sprop-parameter-sets=Z2QAH6zZ,aOvjyw==\r\n"
      "a=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
  EXPECT_EQ(BuildSdp(AnnexB({kSps, kPps}), 6000, std::nullopt), expected);
}

TEST(Sdp, WithAudioToTheByte) {
  streams::AudioConfig audio{48000, 2, 128, {0x11, 0x90}};
  const std::string sdp = BuildSdp(AnnexB({kSps, kPps}), 6000, audio);
  const std::string audio_part =
      "m=audio 0 RTP/AVP 97\r\nb=AS:128\r\na=fmtp:97 streamtype=5;profile-level-id=1;"
      "mode=AAC-hbr;sizelength=13;indexlength=3;indexdeltalength=3;config=1190\r\n"
      "a=rtpmap:97 mpeg4-generic/48000/2\r\na=control:trackID=1\r\n";
  ASSERT_GE(sdp.size(), audio_part.size());
  EXPECT_EQ(sdp.substr(sdp.size() - audio_part.size()), audio_part);
}

TEST(Sdp, EmptyAudioConfigIsMadeFromRateAndChannels) {
  streams::AudioConfig audio{44100, 1, 96, {}};
  const std::string sdp = BuildSdp(AnnexB({kSps, kPps}), 6000, audio);
  EXPECT_NE(sdp.find("config=" + media::HexEncode(media::MakeAacLcAudioSpecificConfig(44100, 1))),
            std::string::npos);
  EXPECT_NE(sdp.find("config=1208\r\n"), std::string::npos);
  EXPECT_NE(sdp.find("mpeg4-generic/44100/1\r\n"), std::string::npos);
}

TEST(Sdp, NoSpsGivesTheDefaultProfileAndNoParameterSets) {
  const std::string sdp = BuildSdp(AnnexB({kPps}), 3000, std::nullopt);
  EXPECT_NE(sdp.find("a=fmtp:96 packetization-mode=1; profile-level-id=42E01E\r\n"),
            std::string::npos);
  EXPECT_EQ(sdp.find("sprop-parameter-sets"), std::string::npos);
}

TEST(Sdp, ShortSpsKeepsTheDefaultProfileAndLastOfEachKindWins) {
  const std::vector<std::uint8_t> short_sps = {0x67, 0x42, 0x01};
  const std::vector<std::uint8_t> second_pps = {0x68, 0x01};
  const std::string sdp = BuildSdp(AnnexB({kSps, kPps, short_sps, second_pps}), 1, std::nullopt);
  EXPECT_NE(sdp.find("profile-level-id=64001F"), std::string::npos)
      << "the short SPS is kept as text but does not set the profile";
  EXPECT_NE(sdp.find("sprop-parameter-sets=" + Base64Encode(short_sps) + "," +
                     Base64Encode(second_pps)),
            std::string::npos);
}

TEST(SenderReport, ExactLayoutAndSdesPadding) {
  const auto report = BuildSenderReport(0x11223344, 0xAABBCCDD00112233ULL, 0x01020304, 7, 1000);
  const std::vector<std::uint8_t> expected = {
      0x80, 200, 0, 6,                  // SR, length 6
      0x11, 0x22, 0x33, 0x44,           // SSRC
      0xAA, 0xBB, 0xCC, 0xDD,           // NTP upper
      0x00, 0x11, 0x22, 0x33,           // NTP lower
      0x01, 0x02, 0x03, 0x04,           // RTP time
      0, 0, 0, 7,                       // packets
      0, 0, 0x03, 0xE8,                 // octets
      0x81, 202, 0, 5,                  // SDES, 5 words after the header
      0x11, 0x22, 0x33, 0x44,           // SSRC
      1, 12, 'm', 'i', 'r', 'e', 'l', 'l', '-', 'p', 'r', 'o', 'b', 'e',
      0,                                // end of items
      0};                               // padding to a multiple of 4
  EXPECT_EQ(report, expected);
}

TEST(NtpTime, EpochAndFractions) {
  EXPECT_EQ(NtpTime(0), 0x83AA7E80ULL << 32);
  EXPECT_EQ(NtpTime(5'000'000), (0x83AA7E80ULL << 32) | 0x80000000ULL);
  EXPECT_EQ(NtpTime(10'000'000 + 2'500'000), ((0x83AA7E80ULL + 1) << 32) | 0x40000000ULL);
}

}  // namespace
}  // namespace mirell::rtsp
