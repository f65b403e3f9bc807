#include "mirell/media/color.h"

#include <algorithm>

#include "mirell/base/error.h"

namespace mirell::media {
namespace {

// BT.709 limited-range factors in 15-bit fixed point; 16384 rounds to nearest.
std::uint8_t Luma(std::uint32_t b, std::uint32_t g, std::uint32_t r) {
  return static_cast<std::uint8_t>(std::min<std::uint32_t>(((2032 * b + 20128 * g + 5983 * r + 16384) >> 15) + 16, 255));
}

// Arithmetic right shift: a negative sum floors.
std::uint8_t Chroma(std::int32_t weighted_sum) {
  return static_cast<std::uint8_t>(std::clamp(((weighted_sum + 16384) >> 15) + 128, 0, 255));
}

}  // namespace

void BgraToNv12(std::span<const std::uint8_t> bgra, std::size_t bgra_stride, std::uint32_t width,
                std::uint32_t height, std::span<std::uint8_t> nv12) {
  MIRELL_CHECK(width % 2 == 0 && height % 2 == 0, "NV12 needs even dimensions, got {}x{}", width, height);
  MIRELL_CHECK(bgra_stride >= static_cast<std::size_t>(width) * 4,
               "BGRA stride {} is shorter than {} pixels", bgra_stride, width);
  MIRELL_CHECK(bgra.size() >= bgra_stride * height, "BGRA buffer is {} bytes, need {}", bgra.size(),
               bgra_stride * height);
  MIRELL_CHECK(nv12.size() == Nv12FrameSize(width, height), "NV12 buffer is {} bytes, need {}",
               nv12.size(), Nv12FrameSize(width, height));
  if (height == 0) return;

  std::uint8_t* const y_plane = nv12.data();
  std::uint8_t* const uv_plane = nv12.data() + static_cast<std::size_t>(width) * height;
  for (std::uint32_t y = 0; y < height; y += 2) {
    const std::uint8_t* const row0 = bgra.data() + static_cast<std::size_t>(y) * bgra_stride;
    const std::uint8_t* const row1 = row0 + bgra_stride;
    std::uint8_t* const luma0 = y_plane + static_cast<std::size_t>(y) * width;
    std::uint8_t* const luma1 = luma0 + width;
    std::uint8_t* const chroma = uv_plane + static_cast<std::size_t>(y / 2) * width;
    for (std::uint32_t x = 0; x < width; x += 2) {
      const std::uint8_t* const p00 = row0 + static_cast<std::size_t>(x) * 4;
      const std::uint8_t* const p01 = p00 + 4;
      const std::uint8_t* const p10 = row1 + static_cast<std::size_t>(x) * 4;
      const std::uint8_t* const p11 = p10 + 4;
      luma0[x] = Luma(p00[0], p00[1], p00[2]);
      luma0[x + 1] = Luma(p01[0], p01[1], p01[2]);
      luma1[x] = Luma(p10[0], p10[1], p10[2]);
      luma1[x + 1] = Luma(p11[0], p11[1], p11[2]);
      const auto mean = [&](int channel) {
        return static_cast<std::int32_t>((p00[channel] + p01[channel] + p10[channel] + p11[channel] + 2) >> 2);
      };
      const std::int32_t b = mean(0);
      const std::int32_t g = mean(1);
      const std::int32_t r = mean(2);
      chroma[x] = Chroma(14392 * b - 11094 * g - 3298 * r);
      chroma[x + 1] = Chroma(14392 * r - 13071 * g - 1320 * b);
    }
  }
}

}  // namespace mirell::media
