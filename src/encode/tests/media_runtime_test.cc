#include "mirell/encode/media_runtime.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::encode {
namespace {

TEST(MediaRuntime, RoutesFfmpegLinesIntoOurLogAtDebugOnlyWhileItLives) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  SetLogLevel(LogLevel::kDebug);
  {
    MediaRuntime runtime;
    av_log(nullptr, AV_LOG_WARNING, "routed %d\n", 42);
    av_log(nullptr, AV_LOG_DEBUG, "too chatty\n");
  }
  av_log(nullptr, AV_LOG_WARNING, "after the runtime\n");
  SetLogLevel(LogLevel::kInfo);
  const std::string log = testsupport::ReadFileText(dir.path() / "log");
  EXPECT_NE(log.find("debug"), std::string::npos);
  EXPECT_NE(log.find("ffmpeg: routed 42"), std::string::npos);
  EXPECT_EQ(log.find("too chatty"), std::string::npos);
  EXPECT_EQ(log.find("after the runtime"), std::string::npos);
}

}  // namespace
}  // namespace mirell::encode
