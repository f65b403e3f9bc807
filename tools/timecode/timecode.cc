#include "timecode.h"

#include <chrono>

namespace mirell::timecode {

namespace {

// Not 0, so that an all-black picture never reads as time 0.
constexpr std::uint32_t kCheckSeed = 0xA5;

std::uint32_t CheckByte(std::uint32_t value) {
  return (kCheckSeed ^ (value >> 24) ^ (value >> 16) ^ (value >> 8) ^ value) & 0xFF;
}

// The mean of a 3x3 neighbourhood, so that one noisy pixel does not flip a cell.
int Sample(const std::uint8_t* grey, int width, int height, int stride, int x, int y) {
  int sum = 0, count = 0;
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      const int px = x + dx, py = y + dy;
      if (px < 0 || py < 0 || px >= width || py >= height) continue;
      sum += grey[py * stride + px];
      ++count;
    }
  }
  return count > 0 ? sum / count : 0;
}

}  // namespace

std::uint32_t Now() {
  const auto since = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(since).count() / 100);
}

std::uint64_t Cells(std::uint32_t value) { return (std::uint64_t{value} << 8) | CheckByte(value); }

double CellSize(int width) { return static_cast<double>(width) / kCells; }

std::optional<std::uint32_t> Read(const std::uint8_t* grey, int width, int height, int stride) {
  if (grey == nullptr || width < kCells || height < 2) return std::nullopt;
  const double cell = CellSize(width);
  const int y = static_cast<int>(cell / 2);
  std::uint64_t cells = 0;
  for (int i = 0; i < kCells; ++i) {
    const int x = static_cast<int>((i + 0.5) * cell);
    cells = (cells << 1) | (Sample(grey, width, height, stride, x, y) >= 128 ? 1u : 0u);
  }
  const auto value = static_cast<std::uint32_t>(cells >> 8);
  if ((cells & 0xFF) != CheckByte(value)) return std::nullopt;
  return value;
}

double ElapsedMs(std::uint32_t painted, std::uint32_t now) {
  return static_cast<double>(static_cast<std::uint32_t>(now - painted)) / 10.0;
}

}  // namespace mirell::timecode
