// Thumbnails' scaling: proportions kept, never enlarged, blocks averaged, alpha opaque.
#include <gtest/gtest.h>

#include <vector>

#include "mirell/capture/thumbnails.h"

namespace mirell::capture {
namespace {

std::vector<std::uint8_t> Solid(std::uint32_t w, std::uint32_t h, std::uint8_t b, std::uint8_t g, std::uint8_t r) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(w) * h * 4, 0);
  for (std::size_t i = 0; i < pixels.size(); i += 4) {
    pixels[i] = b;
    pixels[i + 1] = g;
    pixels[i + 2] = r;
  }
  return pixels;
}

TEST(ScaleToFit, AWideSourceFillsTheWidthAndKeepsItsProportions) {
  const auto pixels = Solid(1920, 1080, 10, 20, 30);
  const Thumbnail out = ScaleToFit({pixels.data(), 1920 * 4, 1920, 1080}, 320, 240);
  EXPECT_EQ(out.width, 320u);
  EXPECT_EQ(out.height, 180u);
  ASSERT_EQ(out.bgra.size(), 320u * 180u * 4u);
  for (std::size_t i = 0; i < out.bgra.size(); i += 4) {
    ASSERT_EQ(out.bgra[i], 10);
    ASSERT_EQ(out.bgra[i + 1], 20);
    ASSERT_EQ(out.bgra[i + 2], 30);
    ASSERT_EQ(out.bgra[i + 3], 255);
  }
}

TEST(ScaleToFit, ASquareSourceFillsTheHeight) {
  const auto pixels = Solid(1000, 1000, 0, 0, 0);
  const Thumbnail out = ScaleToFit({pixels.data(), 4000, 1000, 1000}, 320, 180);
  EXPECT_EQ(out.width, 180u);
  EXPECT_EQ(out.height, 180u);
}

TEST(ScaleToFit, ASmallSourceIsNeverEnlarged) {
  const auto pixels = Solid(100, 50, 0, 0, 0);
  const Thumbnail out = ScaleToFit({pixels.data(), 400, 100, 50}, 320, 180);
  EXPECT_EQ(out.width, 100u);
  EXPECT_EQ(out.height, 50u);
}

TEST(ScaleToFit, FineDetailIsAveragedNotSampled) {
  // Black and white columns, halved: every thumbnail pixel is the grey between them.
  std::vector<std::uint8_t> pixels(64 * 64 * 4, 0);
  for (std::size_t y = 0; y < 64; ++y) {
    for (std::size_t x = 1; x < 64; x += 2) {
      for (int c = 0; c < 3; ++c) pixels[(y * 64 + x) * 4 + static_cast<std::size_t>(c)] = 254;
    }
  }
  const Thumbnail out = ScaleToFit({pixels.data(), 256, 64, 64}, 32, 32);
  ASSERT_EQ(out.width, 32u);
  for (std::size_t i = 0; i < out.bgra.size(); i += 4) ASSERT_EQ(out.bgra[i], 127);
}

TEST(ScaleToFit, NothingToScaleGivesAnEmptyThumbnail) {
  const auto pixels = Solid(10, 10, 0, 0, 0);
  EXPECT_TRUE(ScaleToFit({pixels.data(), 40, 0, 10}, 320, 180).bgra.empty());
  EXPECT_TRUE(ScaleToFit({nullptr, 40, 10, 10}, 320, 180).bgra.empty());
  EXPECT_TRUE(ScaleToFit({pixels.data(), 40, 10, 10}, 0, 180).bgra.empty());
}

}  // namespace
}  // namespace mirell::capture
