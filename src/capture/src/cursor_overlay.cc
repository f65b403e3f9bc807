#include "cursor_overlay.h"

#include <algorithm>

namespace mirell::capture {

void OverlayCursor(std::uint8_t* pixels, std::size_t stride, std::uint32_t width, std::uint32_t height,
                   const CursorImage& cursor) {
  if (cursor.argb.size() < static_cast<std::size_t>(cursor.width) * cursor.height) return;
  const std::int64_t x0 = std::max<std::int64_t>(cursor.left, 0);
  const std::int64_t y0 = std::max<std::int64_t>(cursor.top, 0);
  const std::int64_t x1 = std::min<std::int64_t>(std::int64_t{cursor.left} + cursor.width, width);
  const std::int64_t y1 = std::min<std::int64_t>(std::int64_t{cursor.top} + cursor.height, height);
  for (std::int64_t y = y0; y < y1; ++y) {
    std::uint8_t* row = pixels + static_cast<std::size_t>(y) * stride;
    const std::size_t cursor_row = static_cast<std::size_t>(y - cursor.top) * cursor.width;
    for (std::int64_t x = x0; x < x1; ++x) {
      const std::uint32_t source = cursor.argb[cursor_row + static_cast<std::size_t>(x - cursor.left)];
      const std::uint32_t alpha = source >> 24;
      if (alpha == 0) continue;
      std::uint8_t* pixel = row + static_cast<std::size_t>(x) * 4;
      const std::uint32_t keep = 255 - alpha;
      // Premultiplied: result = source + destination x (1 - alpha), per channel.
      for (int channel = 0; channel < 3; ++channel) {
        const std::uint32_t s = (source >> (8 * channel)) & 0xFF;
        const std::uint32_t blended = s + (pixel[channel] * keep + 127) / 255;
        pixel[channel] = static_cast<std::uint8_t>(std::min<std::uint32_t>(blended, 255));
      }
    }
  }
}

}  // namespace mirell::capture
