// The picture that flows from capture to encoder: NV12 (a full-size Y plane, then interleaved
// half-size U/V), tightly packed, in reference-counted memory. Copies share the pixels, so a
// frame can be handed to an encoder without a copy; another kind of storage (a GPU buffer) can
// stand behind the same class later.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace mirell::encode {

class Nv12Frame {
 public:
  Nv12Frame() = default;
  // A new frame of the given size, uninitialised. Both sides must be even and non-zero.
  static Nv12Frame Allocate(std::uint32_t width, std::uint32_t height);

  std::uint32_t width() const { return width_; }
  std::uint32_t height() const { return height_; }
  bool empty() const { return storage_ == nullptr; }
  // width x height x 3 / 2 bytes: the Y plane (stride width), then the UV plane (stride width).
  std::span<std::uint8_t> bytes() { return {storage_.get(), size_}; }
  std::span<const std::uint8_t> bytes() const { return {storage_.get(), size_}; }
  // Keeps the pixels alive for as long as the returned pointer lives.
  std::shared_ptr<const std::uint8_t[]> storage() const { return storage_; }

 private:
  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::size_t size_ = 0;
  std::shared_ptr<std::uint8_t[]> storage_;
};

}  // namespace mirell::encode
