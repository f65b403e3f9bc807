// What a share is encoded with, as the person chooses it: stored by the settings, carried by the
// process's configuration, used by the sharing side. One record for all of them.
#pragma once

#include <cstdint>

namespace mirell::encode {

struct ShareQuality {
  std::uint32_t width = 1280;  // Encoded size, even.
  std::uint32_t height = 720;
  std::uint32_t fps = 30;
  std::uint32_t video_kbps = 6000;
  std::uint32_t audio_kbps = 128;
  bool mono = false;  // Fold the sound to mono.

  friend bool operator==(const ShareQuality&, const ShareQuality&) = default;
};

}  // namespace mirell::encode
