// What a share sends: size, frame rate, the two bit rates and mono. Stored with QSettings under
// "quality/..." and not trusted when read back: anything out of range is replaced on load.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mirell/encode/share_quality.h"

namespace mirell::settings {

struct SizePreset {
  std::uint32_t width;
  std::uint32_t height;
  std::string text;
};

// The choices the dialog offers, in order.
const std::vector<SizePreset>& SizePresets();
const std::vector<std::uint32_t>& FpsPresets();
const std::vector<std::uint32_t>& VideoKbpsPresets();
const std::vector<std::uint32_t>& AudioKbpsPresets();

// Out-of-range values replaced by the defaults (not the nearest bound), each with a warn line;
// the sound rate snapped to the nearest preset (the lower on a tie); width and height even.
encode::ShareQuality Sanitise(encode::ShareQuality quality);

// Through a default QSettings (the application's organisation and name decide the file).
encode::ShareQuality LoadQualitySettings();
// Written as given, not sanitised.
void SaveQualitySettings(const encode::ShareQuality& quality);

}  // namespace mirell::settings
