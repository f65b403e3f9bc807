#include "timecode.h"

#include <gtest/gtest.h>

#include <vector>

namespace mirell::timecode {
namespace {

// A grey picture with the strip painted as the demo window paints it: one cell per bit, white
// for 1, on a mid-grey background.
std::vector<std::uint8_t> Painted(std::uint32_t value, int width, int height) {
  std::vector<std::uint8_t> grey(static_cast<std::size_t>(width * height), 90);
  const std::uint64_t cells = Cells(value);
  const double cell = CellSize(width);
  for (int i = 0; i < kCells; ++i) {
    const bool one = ((cells >> (kCells - 1 - i)) & 1u) != 0;
    for (int y = 0; y < static_cast<int>(cell); ++y) {
      for (int x = static_cast<int>(i * cell); x < static_cast<int>((i + 1) * cell); ++x) {
        grey[static_cast<std::size_t>(y * width + x)] = one ? 235 : 16;
      }
    }
  }
  return grey;
}

TEST(TimeCode, APaintedValueReadsBackAtItsOwnSizeAndScaled) {
  for (const std::uint32_t value : {1u, 0x12345678u, 0xFFFFFFFFu, Now()}) {
    const auto full = Painted(value, 1280, 720);
    EXPECT_EQ(Read(full.data(), 1280, 720, 1280), value);
    const auto small = Painted(value, 640, 360);
    EXPECT_EQ(Read(small.data(), 640, 360, 640), value);
  }
}

TEST(TimeCode, APictureWithoutTheStripOrWithAFlippedCellReadsAsNothing) {
  const std::vector<std::uint8_t> black(1280 * 720, 16);
  EXPECT_EQ(Read(black.data(), 1280, 720, 1280), std::nullopt);
  const std::vector<std::uint8_t> white(1280 * 720, 235);
  EXPECT_EQ(Read(white.data(), 1280, 720, 1280), std::nullopt);
  auto torn = Painted(0x12345678u, 1280, 720);
  for (int y = 0; y < 32; ++y) {
    for (int x = 0; x < 32; ++x) torn[static_cast<std::size_t>(y * 1280 + x)] ^= 0xFF;
  }
  EXPECT_EQ(Read(torn.data(), 1280, 720, 1280), std::nullopt);
  EXPECT_EQ(Read(nullptr, 1280, 720, 1280), std::nullopt);
  EXPECT_EQ(Read(black.data(), 20, 720, 20), std::nullopt);
}

TEST(TimeCode, ElapsedTimeIsRightAcrossTheWrapOfTheCounter) {
  EXPECT_DOUBLE_EQ(ElapsedMs(1000, 1500), 50.0);
  EXPECT_DOUBLE_EQ(ElapsedMs(0xFFFFFF00u, 0x00000100u), 51.2);
}

}  // namespace
}  // namespace mirell::timecode
