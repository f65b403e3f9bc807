// A picture in system memory, 4 bytes a pixel in memory order B, G, R, then alpha or padding:
// what capture delivers and what the video processor reads. It owns nothing; the memory
// belongs to whoever handed it out, and is valid for as long as they say.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirell::media {

struct BgraView {
  const std::uint8_t* pixels = nullptr;
  std::size_t stride = 0;  // Bytes from one row to the next, at least width * 4.
  std::uint32_t width = 0;
  std::uint32_t height = 0;
};

}  // namespace mirell::media
