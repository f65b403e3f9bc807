#include "mirell/rtsp/stream_path.h"

#include <gtest/gtest.h>

namespace mirell::rtsp {
namespace {

TEST(RequestPath, UriEndingAfterThePortIsRoot) {
  EXPECT_EQ(RequestPath("rtsp://127.0.0.1:8554"), "/");
  EXPECT_EQ(RequestPath("rtsp://"), "/");
}

TEST(RequestPath, TrailingSlashesGo) {
  EXPECT_EQ(RequestPath("rtsp://127.0.0.1:8554/s/abc/"), "/s/abc");
  EXPECT_EQ(RequestPath("/s/abc//"), "/s/abc");
  EXPECT_EQ(RequestPath("/s/abc/"), "/s/abc");
}

TEST(RequestPath, LoneSlashAndEmpty) {
  EXPECT_EQ(RequestPath("/"), "/");
  EXPECT_EQ(RequestPath("//"), "/");
  EXPECT_EQ(RequestPath(""), "/");
}

TEST(RequestPath, TextWithoutSchemeIsThePath) {
  EXPECT_EQ(RequestPath("s/abc"), "s/abc");
  EXPECT_EQ(RequestPath("ab"), "ab");
  EXPECT_EQ(RequestPath(":/"), ":");
}

TEST(RequestOrigin, TheHostAPlayerNamedOrTheFallback) {
  const std::string fallback = "rtsp://127.0.0.1:8554";
  EXPECT_EQ(RequestOrigin("rtsp://relay.example.org:8554/s/ABC", fallback), "rtsp://relay.example.org:8554");
  EXPECT_EQ(RequestOrigin("rtspt://relay.example.org/s/ABC", fallback), "rtsp://relay.example.org");
  EXPECT_EQ(RequestOrigin("rtsp://[2001:db8::1]:554/s/ABC?x", fallback), "rtsp://[2001:db8::1]:554");
  EXPECT_EQ(RequestOrigin("rtsp://10.0.0.2:8554", fallback), "rtsp://10.0.0.2:8554");
  for (const char* odd : {"/s/ABC", "*", "http://h/s/ABC", "rtsp:///s/ABC", "rtsp://:8554/s/ABC",
                          "rtsp://h\"x/s/ABC", "rtsp://user@h/s/ABC", "rtsp://h%0d%0a/s"}) {
    EXPECT_EQ(RequestOrigin(odd, fallback), fallback) << odd;
  }
}

TEST(TokenFromPath, SuffixesAndQueriesGiveTheSameToken) {
  for (const char* text : {"/s/abc", "/s/abc/", "/s/abc/trackID=0", "/s/abc?x=1", "/s/abc#f",
                           "rtspt://127.0.0.1:8554/s/abc", "rtsp://127.0.0.1:8554/s/abc/trackID=1"}) {
    EXPECT_EQ(TokenFromPath(text), "abc") << text;
  }
}

TEST(TokenFromPath, PathWithoutPrefixGivesItsFirstSegment) {
  EXPECT_EQ(TokenFromPath("/other/thing"), "other");
  EXPECT_EQ(TokenFromPath("rtsp://h:1"), "");
  EXPECT_EQ(TokenFromPath("///s/xyz"), "xyz");
}

}  // namespace
}  // namespace mirell::rtsp
