// What one connection sends next, gathered into one write: small parts of its own (interleaving
// and RTP headers, answers, reports) copied in, and payloads shared with other connections
// referred to, held until the write is done.
#pragma once

#include <boost/asio/buffer.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace mirell::rtsp {

class GatheredWrite {
 public:
  // Copies `bytes`.
  void AppendOwn(std::span<const std::uint8_t> bytes);
  // Room for `size` bytes of its own, to be filled through the pointer before the next append.
  std::uint8_t* AppendOwnSpace(std::size_t size);
  // Refers to `bytes`, which `owner` keeps alive.
  void AppendShared(std::span<const std::uint8_t> bytes, const std::shared_ptr<const void>& owner);

  // Starts a section: what follows is never merged into a part before it. Returns the index of
  // the section's first part, for MoveToFront.
  std::size_t StartSection();
  // Moves the parts from `middle` on to just before `first` (both from StartSection).
  void MoveToFront(std::size_t first, std::size_t middle);
  std::size_t parts() const { return parts_.size(); }
  std::size_t size() const { return size_; }
  bool empty() const { return parts_.empty(); }
  void Clear();

  // For one write; valid until the next change.
  std::vector<boost::asio::const_buffer> Buffers() const;

 private:
  struct Part {
    const std::uint8_t* shared;  // Null: `offset` into own_.
    std::size_t offset;
    std::size_t size;
  };
  std::vector<std::uint8_t> own_;
  std::vector<Part> parts_;
  std::vector<std::shared_ptr<const void>> owners_;
  std::size_t size_ = 0;
  std::size_t section_ = 0;  // Parts before it are closed to merging.
};

}  // namespace mirell::rtsp
