// The pointer drawn into a picture: premultiplied alpha, clipping at every edge.
#include "cursor_overlay.h"

#include <gtest/gtest.h>

#include <vector>

namespace mirell::capture {
namespace {

struct Picture {
  Picture(std::uint32_t w, std::uint32_t h) : width(w), height(h), pixels(w * h * 4, 100) {}
  std::uint8_t* at(std::uint32_t x, std::uint32_t y) { return &pixels[(y * width + x) * 4]; }
  std::uint32_t width, height;
  std::vector<std::uint8_t> pixels;
};

TEST(OverlayCursor, OpaquePixelsReplaceTranslucentOnesBlendTransparentOnesLeaveAlone) {
  Picture picture(8, 8);
  // Opaque white, half-transparent premultiplied red (128 of 255 alpha: red 128), transparent.
  const std::vector<std::uint32_t> argb{0xFFFFFFFF, 0x80800000, 0x00000000, 0xFF000000};
  OverlayCursor(picture.pixels.data(), 32, 8, 8, {argb, 2, 2, 3, 3});
  EXPECT_EQ(picture.at(3, 3)[0], 255);
  EXPECT_EQ(picture.at(3, 3)[2], 255);
  // Red: 128 + 100 x 127 / 255 = 178; blue and green: 0 + 50.
  EXPECT_EQ(picture.at(4, 3)[2], 178);
  EXPECT_EQ(picture.at(4, 3)[0], 50);
  EXPECT_EQ(picture.at(3, 4)[0], 100);
  EXPECT_EQ(picture.at(4, 4)[1], 0);
  EXPECT_EQ(picture.at(2, 2)[0], 100) << "outside the cursor";
}

TEST(OverlayCursor, ACursorPartlyOrWhollyOutsideIsClipped) {
  Picture picture(4, 4);
  const std::vector<std::uint32_t> argb(16, 0xFF000000);
  OverlayCursor(picture.pixels.data(), 16, 4, 4, {argb, 4, 4, -2, -3});
  EXPECT_EQ(picture.at(0, 0)[0], 0);
  EXPECT_EQ(picture.at(1, 0)[0], 0);
  EXPECT_EQ(picture.at(2, 0)[0], 100);
  EXPECT_EQ(picture.at(0, 1)[0], 100);
  Picture untouched(4, 4);
  OverlayCursor(untouched.pixels.data(), 16, 4, 4, {argb, 4, 4, 10, 10});
  OverlayCursor(untouched.pixels.data(), 16, 4, 4, {argb, 4, 4, -10, 0});
  EXPECT_EQ(untouched.pixels, std::vector<std::uint8_t>(64, 100));
  // A pixel list shorter than the size it claims is not drawn at all.
  OverlayCursor(untouched.pixels.data(), 16, 4, 4, {std::span<const std::uint32_t>(argb.data(), 3), 4, 4, 0, 0});
  EXPECT_EQ(untouched.pixels, std::vector<std::uint8_t>(64, 100));
}

}  // namespace
}  // namespace mirell::capture
