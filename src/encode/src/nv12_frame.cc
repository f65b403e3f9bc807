#include "mirell/encode/nv12_frame.h"

#include "mirell/base/error.h"

namespace mirell::encode {

Nv12Frame Nv12Frame::Allocate(std::uint32_t width, std::uint32_t height) {
  MIRELL_CHECK(width > 0 && height > 0 && width % 2 == 0 && height % 2 == 0,
               "NV12 requires even, non-zero dimensions, got {}x{}", width, height);
  Nv12Frame frame;
  frame.width_ = width;
  frame.height_ = height;
  frame.size_ = static_cast<std::size_t>(width) * height * 3 / 2;
  frame.storage_ = std::shared_ptr<std::uint8_t[]>(new std::uint8_t[frame.size_]);
  return frame;
}

}  // namespace mirell::encode
