// Small pictures of capture targets for the picker: one grab of the target, scaled down, with no
// capture session and no thread. The picker asks three times a second for every item, so a
// thumbnail costs a few milliseconds at most.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "mirell/capture/capturer.h"

namespace mirell::capture {

struct Thumbnail {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint8_t> bgra;  // width x height pixels, rows of width x 4 bytes, alpha 255.
};

// Keeps what makes thumbnails cheap between calls (a display connection, a shared-memory
// buffer, windows kept redirected so that a covered window shows its own content). The first
// thumbnail of a window may be black until the window repaints; callers treat a blank picture
// as "not yet". One thread at a time.
class ThumbnailSource {
 public:
  virtual ~ThumbnailSource() = default;
  // The target scaled to fit within max_width x max_height, proportions kept, never enlarged;
  // nullopt when the target cannot be read now (gone, minimised, no display).
  virtual std::optional<Thumbnail> Take(const CaptureTarget& target, std::uint32_t max_width,
                                        std::uint32_t max_height) = 0;
};

// Never throws: without a display every Take answers nullopt.
std::unique_ptr<ThumbnailSource> CreateThumbnailSource();

// The platform-free part: `source` scaled down to fit (an average of up to 4x4 samples a
// pixel), alpha set to 255.
Thumbnail ScaleToFit(const media::BgraView& source, std::uint32_t max_width, std::uint32_t max_height);

}  // namespace mirell::capture
