#include "stub_config.h"

#include <gtest/gtest.h>

namespace mirell::stub {
namespace {

TEST(StubConfig, DefaultsWhenTheFileIsMissingOrEmpty) {
  const auto config = ParseStubConfig("");
  EXPECT_EQ(config.pipe, "127.0.0.1:8555");
  EXPECT_EQ(config.original, "yt-dlp-mirell-orig.exe");
  EXPECT_FALSE(config.log);
}

TEST(StubConfig, ReadsTheDaemonsFileWithEitherLineEnding) {
  for (const std::string eol : {"\n", "\r\n"}) {
    const auto config = ParseStubConfig("# Written by the mirell daemon. Removed when it shuts down." + eol +
                                        "pipe=127.0.0.1:40001" + eol + "original=orig.exe" + eol + "log=1" + eol);
    EXPECT_EQ(config.pipe, "127.0.0.1:40001");
    EXPECT_EQ(config.original, "orig.exe");
    EXPECT_TRUE(config.log);
  }
}

TEST(StubConfig, CommentsUnknownKeysAndMalformedLinesAreSkipped) {
  const auto config = ParseStubConfig("#pipe=x\nnonsense\ncolour=blue\n  pipe = \\\\.\\pipe\\mirell \nlog=0\n");
  EXPECT_EQ(config.pipe, "\\\\.\\pipe\\mirell");
  EXPECT_FALSE(config.log);
  EXPECT_TRUE(IsNamedPipe(config.pipe));
  EXPECT_FALSE(IsNamedPipe("127.0.0.1:8555"));
}

TEST(StubConfig, LastValueWinsAndNoFinalNewlineIsFine) {
  EXPECT_EQ(ParseStubConfig("pipe=a:1\npipe=b:2").pipe, "b:2");
}

}  // namespace
}  // namespace mirell::stub
