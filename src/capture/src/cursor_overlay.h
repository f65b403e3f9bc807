// Draws a cursor image into a captured picture: premultiplied ARGB (as X11's XFixes gives it)
// over BGRX, clipped to the picture. Platform-free.
#pragma once

#include <cstdint>
#include <span>

namespace mirell::capture {

struct CursorImage {
  std::span<const std::uint32_t> argb;  // width x height pixels, premultiplied, row by row.
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::int32_t left = 0;  // Top-left corner in the picture's pixels; may lie outside it.
  std::int32_t top = 0;
};

void OverlayCursor(std::uint8_t* pixels, std::size_t stride, std::uint32_t width, std::uint32_t height,
                   const CursorImage& cursor);

}  // namespace mirell::capture
