// A time stamp that survives a trip through capture, H.264 and a decoder: the steady clock, in
// units of 100 microseconds modulo 2^32, painted as a strip of black and white cells across the
// top of a picture (32 bits of value, then 8 check bits), and read back from a decoded picture
// of any size with the same proportions. Latency is then the reader's clock minus the painted
// one, both on this machine.
#pragma once

#include <cstdint>
#include <optional>

namespace mirell::timecode {

inline constexpr int kCells = 40;

// The steady clock in 100 us units, modulo 2^32.
std::uint32_t Now();

// The 40 cells, first cell in bit 39: the value, then its check byte.
std::uint64_t Cells(std::uint32_t value);

// The strip's cell width (and height) in a picture `width` pixels wide.
double CellSize(int width);

// Reads the strip from an 8-bit grey picture; nullopt when the check byte does not match (a
// picture without the strip, or one torn or smeared by the encoder).
std::optional<std::uint32_t> Read(const std::uint8_t* grey, int width, int height, int stride);

// How long ago `painted` was at `now`, in milliseconds; correct across the wrap of the counter.
double ElapsedMs(std::uint32_t painted, std::uint32_t now);

}  // namespace mirell::timecode
