#include <algorithm>

#include "mirell/capture/thumbnails.h"

namespace mirell::capture {

Thumbnail ScaleToFit(const media::BgraView& source, std::uint32_t max_width, std::uint32_t max_height) {
  Thumbnail out;
  if (source.pixels == nullptr || source.width == 0 || source.height == 0 || max_width == 0 || max_height == 0) {
    return out;
  }
  const double scale = std::min({1.0, static_cast<double>(max_width) / source.width,
                                 static_cast<double>(max_height) / source.height});
  out.width = std::max<std::uint32_t>(1, static_cast<std::uint32_t>(source.width * scale));
  out.height = std::max<std::uint32_t>(1, static_cast<std::uint32_t>(source.height * scale));
  out.bgra.resize(static_cast<std::size_t>(out.width) * out.height * 4);
  // Each output pixel covers a block of the source; up to four samples a side are averaged, so
  // the cost follows the thumbnail's size, not the source's.
  for (std::uint32_t y = 0; y < out.height; ++y) {
    const std::uint64_t y0 = std::uint64_t{y} * source.height / out.height;
    const std::uint64_t y1 = std::max(y0 + 1, std::uint64_t{y + 1} * source.height / out.height);
    const std::uint64_t y_step = std::max<std::uint64_t>(1, (y1 - y0) / 4);
    for (std::uint32_t x = 0; x < out.width; ++x) {
      const std::uint64_t x0 = std::uint64_t{x} * source.width / out.width;
      const std::uint64_t x1 = std::max(x0 + 1, std::uint64_t{x + 1} * source.width / out.width);
      const std::uint64_t x_step = std::max<std::uint64_t>(1, (x1 - x0) / 4);
      std::uint32_t sum[3] = {0, 0, 0};
      std::uint32_t samples = 0;
      for (std::uint64_t sy = y0; sy < y1; sy += y_step) {
        const std::uint8_t* row = source.pixels + sy * source.stride;
        for (std::uint64_t sx = x0; sx < x1; sx += x_step) {
          for (int c = 0; c < 3; ++c) sum[c] += row[sx * 4 + static_cast<std::uint64_t>(c)];
          ++samples;
        }
      }
      std::uint8_t* pixel = &out.bgra[(static_cast<std::size_t>(y) * out.width + x) * 4];
      for (int c = 0; c < 3; ++c) pixel[c] = static_cast<std::uint8_t>((sum[c] + samples / 2) / samples);
      pixel[3] = 255;
    }
  }
  return out;
}

}  // namespace mirell::capture
