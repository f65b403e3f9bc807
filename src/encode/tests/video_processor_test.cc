// The video processor on real pixels: the letterbox rectangles, black bars, BT.709 limited-range
// colours, the ring of four pictures and the one log line of a size change.
#include "mirell/encode/video_processor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::encode {
namespace {

// A solid BGRA picture, with `padding` spare bytes at the end of each row.
struct SolidPicture {
  SolidPicture(std::uint32_t width, std::uint32_t height, std::uint8_t r, std::uint8_t g,
               std::uint8_t b, std::size_t padding = 0)
      : stride(width * 4 + padding), pixels(stride * height, 0xEE) {
    for (std::uint32_t y = 0; y < height; ++y) {
      for (std::uint32_t x = 0; x < width; ++x) {
        std::uint8_t* pixel = &pixels[y * stride + x * 4];
        pixel[0] = b;
        pixel[1] = g;
        pixel[2] = r;
        pixel[3] = 0;  // X11 leaves the fourth byte 0: it must not matter.
      }
    }
    view = {pixels.data(), stride, width, height};
  }
  std::size_t stride;
  std::vector<std::uint8_t> pixels;
  media::BgraView view;
};

std::uint8_t LumaAt(const Nv12Frame& picture, std::uint32_t x, std::uint32_t y) {
  return picture.bytes()[static_cast<std::size_t>(y) * picture.width() + x];
}
// Cb and Cr of the 2x2 block that holds pixel (x, y).
std::pair<std::uint8_t, std::uint8_t> ChromaAt(const Nv12Frame& picture, std::uint32_t x, std::uint32_t y) {
  const std::size_t plane = static_cast<std::size_t>(picture.width()) * picture.height();
  const std::size_t at = plane + static_cast<std::size_t>(y / 2) * picture.width() + (x & ~1u);
  return {picture.bytes()[at], picture.bytes()[at + 1]};
}

const std::pair<std::uint8_t, std::uint8_t> kNeutral{128, 128};

struct Bt709Limited {
  double y, cb, cr;
};
// The textbook BT.709 equations for 8-bit full-range RGB into limited-range YCbCr.
Bt709Limited ExpectedBt709(double r, double g, double b) {
  const double luma = 0.2126 * r + 0.7152 * g + 0.0722 * b;
  return {16 + 219 * luma / 255, 128 + 224 * ((b - luma) / 1.8556) / 255,
          128 + 224 * ((r - luma) / 1.5748) / 255};
}

TEST(FitRectangle, SameProportionsFillTheOutput) {
  EXPECT_EQ(FitRectangle(1280, 720, 1920, 1080), (PictureRectangle{0, 0, 1920, 1080}));
}

TEST(FitRectangle, ASquareSourceGetsBarsLeftAndRight) {
  EXPECT_EQ(FitRectangle(1000, 1000, 1920, 1080), (PictureRectangle{420, 0, 1500, 1080}));
}

TEST(FitRectangle, AWideSourceGetsBarsAboveAndBelow) {
  EXPECT_EQ(FitRectangle(2000, 500, 1920, 1080), (PictureRectangle{0, 300, 1920, 780}));
}

TEST(VideoProcessor, AnOddOrZeroOutputIsAFailedCheck) {
  EXPECT_THROW(CreateVideoProcessor(1921, 1080), Error);
  EXPECT_THROW(CreateVideoProcessor(1920, 1081), Error);
  EXPECT_THROW(CreateVideoProcessor(0, 1080), Error);
}

TEST(VideoProcessor, ASourceWithAZeroSideIsAFailedCheck) {
  const auto processor = CreateVideoProcessor(640, 360);
  SolidPicture picture(16, 16, 0, 0, 0);
  media::BgraView empty = picture.view;
  empty.width = 0;
  EXPECT_THROW(processor->ToNv12(empty), Error);
  empty = picture.view;
  empty.height = 0;
  EXPECT_THROW(processor->ToNv12(empty), Error);
  empty = picture.view;
  empty.pixels = nullptr;
  EXPECT_THROW(processor->ToNv12(empty), Error);
}

TEST(VideoProcessor, ASixteenByNineSourceFillsTheWholeOutput) {
  const auto processor = CreateVideoProcessor(1920, 1080);
  SolidPicture white(1280, 720, 255, 255, 255);
  const Nv12Frame& out = processor->ToNv12(white.view);
  ASSERT_EQ(out.width(), 1920u);
  ASSERT_EQ(out.height(), 1080u);
  for (const std::uint32_t x : {0u, 1u, 960u, 1918u, 1919u}) {
    for (const std::uint32_t y : {0u, 540u, 1079u}) {
      EXPECT_NEAR(LumaAt(out, x, y), 235, 2) << x << "," << y;
    }
  }
}

TEST(VideoProcessor, ASquareSourceIsPillarboxedAtTheExactColumns) {
  const auto processor = CreateVideoProcessor(1920, 1080);
  SolidPicture white(1000, 1000, 255, 255, 255);
  const Nv12Frame& out = processor->ToNv12(white.view);
  for (const std::uint32_t y : {0u, 540u, 1079u}) {
    EXPECT_EQ(LumaAt(out, 0, y), 16);
    EXPECT_EQ(LumaAt(out, 419, y), 16) << "the last column of the left bar, row " << y;
    EXPECT_NEAR(LumaAt(out, 420, y), 235, 2) << "the first column of the picture, row " << y;
    EXPECT_NEAR(LumaAt(out, 1499, y), 235, 2) << "the last column of the picture, row " << y;
    EXPECT_EQ(LumaAt(out, 1500, y), 16) << "the first column of the right bar, row " << y;
    EXPECT_EQ(ChromaAt(out, 100, y), kNeutral);
  }
}

TEST(VideoProcessor, AWideSourceIsLetterboxedAtTheExactRows) {
  const auto processor = CreateVideoProcessor(1920, 1080);
  SolidPicture white(2000, 500, 255, 255, 255);
  const Nv12Frame& out = processor->ToNv12(white.view);
  for (const std::uint32_t x : {0u, 960u, 1919u}) {
    EXPECT_EQ(LumaAt(out, x, 299), 16);
    EXPECT_NEAR(LumaAt(out, x, 300), 235, 2);
    EXPECT_NEAR(LumaAt(out, x, 779), 235, 2);
    EXPECT_EQ(LumaAt(out, x, 780), 16);
    EXPECT_EQ(ChromaAt(out, x, 100), kNeutral);
  }
}

TEST(VideoProcessor, PrimaryColoursComeOutAsBt709LimitedRange) {
  const auto processor = CreateVideoProcessor(320, 180);
  struct Colour {
    std::uint8_t r, g, b;
  };
  for (const Colour colour : {Colour{255, 0, 0}, Colour{0, 255, 0}, Colour{0, 0, 255},
                              Colour{255, 255, 255}, Colour{0, 0, 0}}) {
    // Padded rows, as a capture's may be.
    SolidPicture picture(320, 180, colour.r, colour.g, colour.b, 64);
    const Nv12Frame& out = processor->ToNv12(picture.view);
    const auto expected = ExpectedBt709(colour.r, colour.g, colour.b);
    const auto [cb, cr] = ChromaAt(out, 160, 90);
    SCOPED_TRACE(testing::Message() << "rgb " << int{colour.r} << "," << int{colour.g} << ","
                                    << int{colour.b});
    EXPECT_NEAR(LumaAt(out, 160, 90), expected.y, 2);
    EXPECT_NEAR(cb, expected.cb, 2);
    EXPECT_NEAR(cr, expected.cr, 2);
  }
}

TEST(VideoProcessor, TheFifthCallReturnsTheFirstPictureAgain) {
  const auto processor = CreateVideoProcessor(64, 36);
  SolidPicture picture(64, 36, 10, 20, 30);
  std::vector<const Nv12Frame*> outputs;
  for (int i = 0; i < 5; ++i) outputs.push_back(&processor->ToNv12(picture.view));
  EXPECT_EQ(outputs[4], outputs[0]);
  for (int i = 1; i < 4; ++i) {
    EXPECT_NE(outputs[static_cast<std::size_t>(i)], outputs[0]);
    EXPECT_NE(outputs[static_cast<std::size_t>(i)]->bytes().data(), outputs[0]->bytes().data());
  }
}

TEST(VideoProcessor, ASizeChangeLogsOneLineKeepsTheOutputSizeAndRepaintsTheBars) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  const LogLevel saved = GetLogLevel();
  SetLogLevel(LogLevel::kInfo);

  const auto processor = CreateVideoProcessor(1920, 1080);
  SolidPicture full(1920, 1080, 255, 255, 255);
  SolidPicture wide(2000, 500, 255, 255, 255);
  // Every picture of the ring first carries a full-frame picture, so stale content would show.
  for (int i = 0; i < 4; ++i) processor->ToNv12(full.view);
  for (int i = 0; i < 4; ++i) {
    const Nv12Frame& out = processor->ToNv12(wide.view);
    ASSERT_EQ(out.width(), 1920u);
    ASSERT_EQ(out.height(), 1080u);
    EXPECT_EQ(LumaAt(out, 960, 100), 16) << "bar row painted black again, picture " << i;
    EXPECT_NEAR(LumaAt(out, 960, 540), 235, 2);
  }
  EXPECT_EQ(processor->width(), 1920u);
  EXPECT_EQ(processor->height(), 1080u);

  SetLogLevel(saved);
  const std::string log = testsupport::ReadFileText(dir.path() / "log");
  std::size_t lines = 0;
  for (std::size_t at = log.find("source "); at != std::string::npos; at = log.find("source ", at + 1)) ++lines;
  EXPECT_EQ(lines, 1u) << log;
  EXPECT_NE(log.find("source 2000x500 -> 1920x1080"), std::string::npos) << log;
}

}  // namespace
}  // namespace mirell::encode
