// The capture source on the real X11 capturer: a window on Xvfb through the capturer, the video
// processor and the H.264 encoder onto the bus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "mirell/base/media_time.h"
#include "mirell/capture/capturer.h"
#include "mirell/session/capture_source.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/xvfb.h"
#include "test_window.h"

namespace mirell::session {
namespace {

using testsupport::Eventually;

class CaptureSourceOnX11 : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::XvfbOptions options;
    options.window_manager = true;
    display_ = std::make_unique<testsupport::XvfbDisplay>(options);
    if (!display_->available()) GTEST_SKIP() << "Xvfb or openbox is missing";
    setenv("DISPLAY", display_->name().c_str(), 1);
    encode::H264EncoderConfig config;
    config.width = 640;
    config.height = 360;
    config.bitrate_bps = 1'000'000;
    encoder_ = encode::CreateH264Encoder(config);
  }

  std::unique_ptr<CaptureSource> SourceFor(std::uint32_t window) {
    capture::CaptureTarget target;
    target.window = window;
    target.show_cursor = false;
    return std::make_unique<CaptureSource>(capture::CreateCapturer(target), *encoder_,
                                           encode::CreateVideoProcessor(640, 360), bus_, 30);
  }

  std::unique_ptr<testsupport::XvfbDisplay> display_;
  std::unique_ptr<encode::H264Encoder> encoder_;
  streams::FrameBus bus_;
};

TEST_F(CaptureSourceOnX11, AStillWindowIsRepeatedAtTheTargetRate) {
  capture::TestWindow window(display_->name(), {"--title", "Still", "--color", "FF0000"});
  ASSERT_NE(window.id(), 0u);
  auto source = SourceFor(window.id());
  const auto reader = bus_.Subscribe(256, 0);
  source->Start();
  std::vector<encode::EncodedFramePtr> units;
  ASSERT_TRUE(Eventually([&] {
    while (auto unit = reader->Pop(0)) units.push_back(std::move(unit));
    return units.size() >= 30;
  }));
  source->Stop();
  const auto counters = source->counters();
  EXPECT_LE(counters.captured, 3u) << "a still window is read once or twice, not on every tick";
  EXPECT_GE(counters.repeated, counters.encoded - counters.captured);
  EXPECT_TRUE(units.front()->keyframe);
  for (std::size_t i = 0; i < units.size(); ++i) {
    EXPECT_EQ(units[i]->pts_100ns, static_cast<std::int64_t>(i) * kTicksPerSecond / 30);
  }
}

TEST_F(CaptureSourceOnX11, AWindowChangingFasterThanTheTargetIsReadOncePerTickJustBeforeIt) {
  // Repaints every 8 ms: well above 30 frames a second.
  capture::TestWindow window(display_->name(),
                             {"--title", "Busy", "--color", "FF0000", "--color2", "0000FF", "--alternate-ms", "8"});
  ASSERT_NE(window.id(), 0u);
  auto source = SourceFor(window.id());
  std::mutex mutex;
  std::vector<std::int64_t> ages_ns;  // From a new picture's read to the start of its encoding.
  source->SetTimingCallback([&](const CaptureSource::FrameTiming& timing) {
    std::lock_guard lock(mutex);
    if (!timing.repeated) ages_ns.push_back(timing.encode_start_ns - timing.captured_ns);
  });
  source->Start();
  ASSERT_TRUE(Eventually([&] { return source->counters().encoded >= 60; }));
  source->Stop();
  const auto counters = source->counters();
  // Paced by the source's ticks, the capturer reads no picture that a newer one would replace
  // before it is used (the one or two before the clock starts aside).
  EXPECT_LE(counters.captured, counters.encoded + 3) << "no more reads than ticks";
  EXPECT_LE(counters.dropped, 3u);
  std::lock_guard lock(mutex);
  ASSERT_FALSE(ages_ns.empty());
  // Under a sanitizer a read takes more than half an interval, so ticks go without a new picture
  // and pictures wait longer; the bounds below are about the product's own speed.
  if (testsupport::kSanitizedBuild) return;
  EXPECT_LE(counters.repeated * 3, counters.encoded) << "most ticks have a new picture";
  std::sort(ages_ns.begin(), ages_ns.end());
  // Read just before its tick, a picture waits well under half an interval (16.7 ms); read as
  // soon as it changed, it waited up to a whole one.
  EXPECT_LT(ages_ns[ages_ns.size() / 2], 1'000'000'000 / 30 / 2) << "median age at encoding";
}

}  // namespace
}  // namespace mirell::session
