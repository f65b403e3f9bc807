// Media time: signed 64-bit counts of 100 nanoseconds on a stream's timeline.
#pragma once

#include <cstdint>

namespace mirell {

inline constexpr std::int64_t kTicksPerSecond = 10'000'000;

}  // namespace mirell
