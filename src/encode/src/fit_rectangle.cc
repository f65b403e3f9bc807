#include "mirell/encode/video_processor.h"

namespace mirell::encode {

PictureRectangle FitRectangle(std::uint32_t source_width, std::uint32_t source_height,
                              std::uint32_t output_width, std::uint32_t output_height) {
  PictureRectangle rectangle{0, 0, static_cast<std::int32_t>(output_width),
                             static_cast<std::int32_t>(output_height)};
  const double source_aspect = static_cast<double>(source_width) / source_height;
  const double output_aspect = static_cast<double>(output_width) / output_height;
  if (source_aspect > output_aspect) {
    const auto h = static_cast<std::int32_t>(output_width / source_aspect);
    rectangle.top = (static_cast<std::int32_t>(output_height) - h) / 2;
    rectangle.bottom = rectangle.top + h;
  } else if (output_aspect > source_aspect) {
    const auto w = static_cast<std::int32_t>(output_height * source_aspect);
    rectangle.left = (static_cast<std::int32_t>(output_width) - w) / 2;
    rectangle.right = rectangle.left + w;
  }
  return rectangle;
}

}  // namespace mirell::encode
