// The video processor in software, on libswscale: one scale-and-convert per accepted frame,
// straight into the letterboxed rectangle of the output picture, whose black bars are painted
// once per picture and source size.
#include <array>
#include <cstring>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/encode/video_processor.h"

namespace mirell::encode {
namespace {

constexpr std::size_t kRingSize = 4;
// Black in BT.709 limited range.
constexpr std::uint8_t kBlackLuma = 16;
constexpr std::uint8_t kNeutralChroma = 128;

struct SwsContextDeleter {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;

// NV12 shares one chroma sample among 2x2 pixels, so the rectangle written into must start and
// end on even pixels; the fitted rectangle grows by at most one pixel on a side to get there.
PictureRectangle EvenRectangle(PictureRectangle rectangle, std::uint32_t width, std::uint32_t height) {
  rectangle.left &= ~1;
  rectangle.top &= ~1;
  rectangle.right = std::min(rectangle.right + (rectangle.right & 1), static_cast<std::int32_t>(width));
  rectangle.bottom = std::min(rectangle.bottom + (rectangle.bottom & 1), static_cast<std::int32_t>(height));
  return rectangle;
}

class SwscaleVideoProcessor final : public VideoProcessor {
 public:
  SwscaleVideoProcessor(std::uint32_t width, std::uint32_t height) : width_(width), height_(height) {
    MIRELL_CHECK(width_ % 2 == 0 && height_ % 2 == 0 && width_ > 0 && height_ > 0,
                 "NV12 needs even output dimensions, got {}x{}", width_, height_);
    for (auto& slot : ring_) slot.picture = Nv12Frame::Allocate(width_, height_);
  }

  const Nv12Frame& ToNv12(const media::BgraView& source) override {
    MIRELL_CHECK(source.pixels != nullptr, "no source picture to convert");
    MIRELL_CHECK(source.width > 0 && source.height > 0, "source picture has a zero dimension");
    MIRELL_CHECK(source.stride >= static_cast<std::size_t>(source.width) * 4,
                 "source rows of {} bytes are shorter than {} pixels", source.stride, source.width);
    EnsureConverterFor(source.width, source.height);

    RingSlot& slot = ring_[ring_index_];
    ring_index_ = (ring_index_ + 1) % kRingSize;
    if (slot.letterboxed_for != rectangle_) PaintBars(slot);

    std::uint8_t* const luma = slot.picture.bytes().data();
    std::uint8_t* const chroma = luma + static_cast<std::size_t>(width_) * height_;
    const auto left = static_cast<std::size_t>(rectangle_.left);
    const auto top = static_cast<std::size_t>(rectangle_.top);
    const std::array<std::uint8_t*, 4> destination{luma + top * width_ + left,
                                                   chroma + top / 2 * width_ + left, nullptr, nullptr};
    const std::array<int, 4> destination_strides{static_cast<int>(width_), static_cast<int>(width_), 0, 0};
    const std::array<const std::uint8_t*, 4> planes{source.pixels, nullptr, nullptr, nullptr};
    const std::array<int, 4> strides{static_cast<int>(source.stride), 0, 0, 0};
    const int rows = sws_scale(converter_.get(), planes.data(), strides.data(), 0,
                               static_cast<int>(source.height), destination.data(),
                               destination_strides.data());
    MIRELL_CHECK(rows > 0, "sws_scale converted nothing from {}x{}", source.width, source.height);
    return slot.picture;
  }

  std::uint32_t width() const override { return width_; }
  std::uint32_t height() const override { return height_; }

 private:
  struct RingSlot {
    Nv12Frame picture;
    PictureRectangle letterboxed_for{-1, -1, -1, -1};
  };

  void EnsureConverterFor(std::uint32_t source_width, std::uint32_t source_height) {
    if (converter_ && source_width == source_width_ && source_height == source_height_) return;
    if (converter_) LOG_INFO("source {}x{} -> {}x{}", source_width, source_height, width_, height_);
    source_width_ = source_width;
    source_height_ = source_height;
    converter_.reset();
    rectangle_ = EvenRectangle(FitRectangle(source_width, source_height, width_, height_), width_, height_);
    const int scaled_width = rectangle_.right - rectangle_.left;
    const int scaled_height = rectangle_.bottom - rectangle_.top;
    // Bilinear: the speed of the fast variant with no visible cost at these ratios. BGR0 reads
    // the fourth byte as padding, so a capture's undefined alpha changes nothing.
    converter_.reset(sws_getContext(static_cast<int>(source_width), static_cast<int>(source_height),
                                    AV_PIX_FMT_BGR0, scaled_width, scaled_height, AV_PIX_FMT_NV12,
                                    SWS_BILINEAR, nullptr, nullptr, nullptr));
    MIRELL_CHECK(converter_ != nullptr, "libswscale cannot convert {}x{} to {}x{}", source_width,
                 source_height, scaled_width, scaled_height);
    // Full-range RGB in, BT.709 limited range out: what every decoder of our stream assumes.
    const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
    const int result = sws_setColorspaceDetails(converter_.get(), bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
    MIRELL_CHECK(result >= 0, "libswscale refused the BT.709 colour details ({})", result);
  }

  void PaintBars(RingSlot& slot) const {
    auto bytes = slot.picture.bytes();
    const std::size_t luma_size = static_cast<std::size_t>(width_) * height_;
    std::memset(bytes.data(), kBlackLuma, luma_size);
    std::memset(bytes.data() + luma_size, kNeutralChroma, bytes.size() - luma_size);
    slot.letterboxed_for = rectangle_;
  }

  const std::uint32_t width_;
  const std::uint32_t height_;
  std::array<RingSlot, kRingSize> ring_;
  std::size_t ring_index_ = 0;
  SwsContextPtr converter_;
  std::uint32_t source_width_ = 0;
  std::uint32_t source_height_ = 0;
  PictureRectangle rectangle_;
};

}  // namespace

std::unique_ptr<VideoProcessor> CreateVideoProcessor(std::uint32_t width, std::uint32_t height) {
  return std::make_unique<SwscaleVideoProcessor>(width, height);
}

}  // namespace mirell::encode
