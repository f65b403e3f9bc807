#include "mirell/transport/viewer_proof.h"

#include <gtest/gtest.h>

namespace mirell::transport {
namespace {

TEST(ViewerProofTest, ChallengesAreFreshAndOfTheirLength) {
  const std::string a = NewChallenge();
  EXPECT_EQ(a.size(), kChallengeLength);
  EXPECT_NE(a, NewChallenge());
}

TEST(ViewerProofTest, StatementsNameTheirPurposeSoOneIsNeverTakenForTheOther) {
  EXPECT_EQ(IdentityStatement("TOKEN", "CH"), "mirell viewer identity 1\nTOKEN\nCH\n");
  EXPECT_EQ(AnswerStatement("TOKEN", "CH", "sha-256 AB"), "mirell viewer answer 1\nTOKEN\nCH\nsha-256 AB\n");
  EXPECT_NE(IdentityStatement("T", "C"), AnswerStatement("T", "C", ""));
}

TEST(ViewerProofTest, TheFingerprintOfADescriptionIsItsOneCertificates) {
  const std::string sdp =
      "v=0\r\no=- 1 0 IN IP4 0.0.0.0\r\ns=-\r\nt=0 0\r\n"
      "m=video 9 UDP/TLS/RTP/SAVPF 96\r\na=fingerprint:SHA-256 AB:CD:EF\r\n"
      "m=audio 9 UDP/TLS/RTP/SAVPF 97\r\na=fingerprint:sha-256  AB:CD:EF \r\n";
  EXPECT_EQ(DtlsFingerprintOf(sdp), "sha-256 AB:CD:EF");
}

TEST(ViewerProofTest, NoFingerprintOrTwoThatDisagreeGiveNone) {
  EXPECT_EQ(DtlsFingerprintOf("v=0\r\nm=video 9 UDP/TLS/RTP/SAVPF 96\r\n"), "");
  EXPECT_EQ(DtlsFingerprintOf("a=fingerprint:sha-256 AB\na=fingerprint:sha-256 AC\n"), "");
  EXPECT_EQ(DtlsFingerprintOf("a=fingerprint:sha-256\n"), "");
  EXPECT_EQ(DtlsFingerprintOf("a=fingerprint:sha-256 AB"), "sha-256 AB");
}

}  // namespace
}  // namespace mirell::transport
