// The step between capture and encoder: a captured picture of any size becomes an NV12 picture
// of the encoder's fixed size. The picture is scaled to fit with its proportions kept, and the
// rest of the output is black (BT.709 limited range, like everything we encode). A window that
// changes size mid-share is absorbed here, so the encoder never sees a size change.
#pragma once

#include <cstdint>
#include <memory>

#include "mirell/encode/nv12_frame.h"
#include "mirell/media/bgra_view.h"

namespace mirell::encode {

// Where the scaled picture lands inside the output, in output pixels; right and bottom are
// exclusive.
struct PictureRectangle {
  std::int32_t left = 0;
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
  bool operator==(const PictureRectangle&) const = default;
};

// The largest rectangle of the source's proportions that fits the output, centred: bars above
// and below a wider source, left and right of a narrower one, none for the same proportions.
// Computed in double precision and truncated, so that the arithmetic matches on every platform.
PictureRectangle FitRectangle(std::uint32_t source_width, std::uint32_t source_height,
                              std::uint32_t output_width, std::uint32_t output_height);

class VideoProcessor {
 public:
  virtual ~VideoProcessor() = default;
  // Converts `source` (BGRA, alpha ignored, full range) into the next picture of a ring of four
  // owned by the processor, and returns it. The picture stays unchanged until four more calls
  // have been made. A new source size rebuilds the converter and logs one info line.
  // Throws Error for an empty source. One thread at a time.
  virtual const Nv12Frame& ToNv12(const media::BgraView& source) = 0;
  virtual std::uint32_t width() const = 0;
  virtual std::uint32_t height() const = 0;
};

// Throws Error when a side is odd or zero (NV12 needs even sizes).
std::unique_ptr<VideoProcessor> CreateVideoProcessor(std::uint32_t width, std::uint32_t height);

}  // namespace mirell::encode
