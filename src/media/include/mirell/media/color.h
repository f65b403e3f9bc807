// BGRA to NV12 in integer arithmetic: BT.709, limited range, 8 bits, chroma from 2x2 box
// averages. For pictures drawn once in system memory (the holding card), not the live rate.
#pragma once

#include <cstdint>
#include <span>

namespace mirell::media {

// width * height * 3 / 2, in 64 bits, multiplied before the division.
constexpr std::uint64_t Nv12FrameSize(std::uint32_t width, std::uint32_t height) {
  return static_cast<std::uint64_t>(width) * height * 3 / 2;
}

// `bgra`: rows of `bgra_stride` bytes, 4 bytes a pixel in memory order B, G, R, A; alpha is
// ignored. `nv12` must be exactly Nv12FrameSize long: the Y plane, then interleaved U/V rows.
// Throws (a failed check) for odd dimensions, a short stride or a wrongly sized buffer; nothing
// is written then.
void BgraToNv12(std::span<const std::uint8_t> bgra, std::size_t bgra_stride, std::uint32_t width,
                std::uint32_t height, std::span<std::uint8_t> nv12);

}  // namespace mirell::media
