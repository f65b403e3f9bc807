#include "rtsp_request.h"

#include <gtest/gtest.h>

namespace mirell::rtsp {
namespace {

TEST(RtspRequestParse, RequestLineAndHeaders) {
  const auto request = ParseRtspRequest(
      "SETUP rtsp://127.0.0.1:8554/s/abc/trackID=1 RTSP/1.0\r\n"
      "CSeq:  3 \r\n"
      "transport:\tRTP/AVP/TCP;unicast;interleaved=2-3\t \r\n"
      "SESSION: 4D524C01\r\n"
      "User-Agent: x\r\n"
      "no colon here\r\n"
      "\r\n");
  EXPECT_TRUE(request.valid);
  EXPECT_EQ(request.method, "SETUP");
  EXPECT_EQ(request.uri, "rtsp://127.0.0.1:8554/s/abc/trackID=1");
  EXPECT_EQ(request.cseq, 3);
  EXPECT_EQ(request.transport, "RTP/AVP/TCP;unicast;interleaved=2-3");
  EXPECT_EQ(request.session, "4D524C01");
  EXPECT_EQ(request.track_id, 1);
}

TEST(RtspRequestParse, LaterHeaderOverwritesAndBadCseqIsZero) {
  auto request = ParseRtspRequest("OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nCSeq: 9\r\n\r\n");
  EXPECT_EQ(request.cseq, 9);
  request = ParseRtspRequest("OPTIONS * RTSP/1.0\r\nCSeq: x\r\n\r\n");
  EXPECT_EQ(request.cseq, 0);
  EXPECT_TRUE(request.valid);
}

TEST(RtspRequestParse, OneBlankOnlyIsInvalidAndKeepsCseqZero) {
  const auto request = ParseRtspRequest("OPTIONS rtsp://x\r\nCSeq: 5\r\n\r\n");
  EXPECT_FALSE(request.valid);
  EXPECT_EQ(request.cseq, 0);
}

TEST(RtspRequestParse, EmptyOrTinyHeadsAreInvalid) {
  EXPECT_FALSE(ParseRtspRequest("").valid);
  EXPECT_FALSE(ParseRtspRequest("X").valid);
  EXPECT_FALSE(ParseRtspRequest("\r\n\r\n").valid);
  EXPECT_FALSE(ParseRtspRequest("PLAY \r\n\r\n").valid);
}

TEST(RtspRequestParse, ProtocolWordIsNotChecked) {
  const auto request = ParseRtspRequest("PLAY u whatever\r\n\r\n");
  EXPECT_TRUE(request.valid);
  EXPECT_EQ(request.uri, "u");
}

TEST(RtspRequestParse, TrackIdIsTheLastOccurrence) {
  EXPECT_EQ(ParseRtspRequest("SETUP a/trackID=0/trackID=7 RTSP/1.0\r\n\r\n").track_id, 7);
  EXPECT_EQ(ParseRtspRequest("SETUP rtsp://h/s/t RTSP/1.0\r\n\r\n").track_id, -1);
  EXPECT_EQ(ParseRtspRequest("SETUP trackID=x RTSP/1.0\r\n\r\n").track_id, 0);
}

TEST(RtspFraming, SplitRequestWaitsForTheBlankLine) {
  std::string pending = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n";
  std::vector<RtspRequest> requests;
  FrameRtspInput(pending, requests);
  EXPECT_TRUE(requests.empty());
  pending += "\r\n";
  FrameRtspInput(pending, requests);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].cseq, 1);
  EXPECT_TRUE(pending.empty());
}

TEST(RtspFraming, TwoRequestsInOneReadBothComeInOrder) {
  std::string pending =
      "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\nDESCRIBE rtsp://h/s/t RTSP/1.0\r\nCSeq: 2\r\n\r\nPLA";
  std::vector<RtspRequest> requests;
  FrameRtspInput(pending, requests);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method, "OPTIONS");
  EXPECT_EQ(requests[1].method, "DESCRIBE");
  EXPECT_EQ(pending, "PLA");
}

TEST(RtspFraming, InterleavedFrameBetweenRequestsIsCountedAndRemoved) {
  std::string pending = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
  pending += std::string("$\x01\x00\x03", 4) + "abc";
  pending += "OPTIONS * RTSP/1.0\r\nCSeq: 2\r\n\r\n";
  std::vector<RtspRequest> requests;
  const auto result = FrameRtspInput(pending, requests);
  EXPECT_EQ(result.interleaved_frames, 1u);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].cseq, 2);
  EXPECT_TRUE(pending.empty());
}

TEST(RtspFraming, InterleavedFrameLongerThanWhatArrivedWaits) {
  std::string pending = std::string("$\x01\x01\x00", 4) + std::string(100, 'x');
  std::vector<RtspRequest> requests;
  EXPECT_EQ(FrameRtspInput(pending, requests).interleaved_frames, 0u);
  EXPECT_EQ(pending.size(), 104u);
  pending += std::string(156, 'x');
  EXPECT_EQ(FrameRtspInput(pending, requests).interleaved_frames, 1u);
  EXPECT_TRUE(pending.empty());
  pending = "$\x01";
  EXPECT_EQ(FrameRtspInput(pending, requests).interleaved_frames, 0u);
  EXPECT_EQ(pending.size(), 2u);
}

TEST(RtspFraming, SixtyFiveThousandFiveHundredThirtySixBytesAreKeptOneMoreDropsAll) {
  std::string pending(kMaxPendingBytes, 'a');
  std::vector<RtspRequest> requests;
  EXPECT_EQ(FrameRtspInput(pending, requests).dropped_bytes, 0u);
  EXPECT_EQ(pending.size(), 65536u);
  pending += "a";
  EXPECT_EQ(FrameRtspInput(pending, requests).dropped_bytes, 65537u);
  EXPECT_TRUE(pending.empty());
  EXPECT_TRUE(requests.empty());
}

}  // namespace
}  // namespace mirell::rtsp
