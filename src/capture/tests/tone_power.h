// How strong one frequency is in a run of samples (the Goertzel algorithm), normalised by their
// count: enough to tell a 440 Hz tone from an 880 Hz one in a sound test.
#pragma once

#include <cmath>
#include <vector>

namespace mirell::capture {

inline double PowerAt(const std::vector<float>& samples, double hertz, double rate = 48000) {
  if (samples.empty()) return 0;
  const double coefficient = 2 * std::cos(2 * 3.141592653589793 * hertz / rate);
  double previous = 0, before = 0;
  for (const float sample : samples) {
    const double current = sample + coefficient * previous - before;
    before = previous;
    previous = current;
  }
  const double power = previous * previous + before * before - coefficient * previous * before;
  return power / static_cast<double>(samples.size() * samples.size());
}

}  // namespace mirell::capture
