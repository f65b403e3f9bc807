#include "gathered_write.h"

#include <algorithm>

namespace mirell::rtsp {

void GatheredWrite::AppendOwn(std::span<const std::uint8_t> bytes) {
  std::uint8_t* space = AppendOwnSpace(bytes.size());
  std::copy(bytes.begin(), bytes.end(), space);
}

std::uint8_t* GatheredWrite::AppendOwnSpace(std::size_t size) {
  const std::size_t offset = own_.size();
  own_.resize(offset + size);
  // Own bytes that follow own bytes make one part: fewer parts, fewer system calls.
  if (parts_.size() > section_ && parts_.back().shared == nullptr &&
      parts_.back().offset + parts_.back().size == offset) {
    parts_.back().size += size;
  } else {
    parts_.push_back({nullptr, offset, size});
  }
  size_ += size;
  return own_.data() + offset;
}

void GatheredWrite::AppendShared(std::span<const std::uint8_t> bytes,
                                 const std::shared_ptr<const void>& owner) {
  if (bytes.empty()) return;
  parts_.push_back({bytes.data(), 0, bytes.size()});
  if (owners_.empty() || owners_.back() != owner) owners_.push_back(owner);
  size_ += bytes.size();
}

std::size_t GatheredWrite::StartSection() {
  section_ = parts_.size();
  return section_;
}

void GatheredWrite::MoveToFront(std::size_t first, std::size_t middle) {
  std::rotate(parts_.begin() + static_cast<std::ptrdiff_t>(first),
              parts_.begin() + static_cast<std::ptrdiff_t>(middle), parts_.end());
}

void GatheredWrite::Clear() {
  own_.clear();
  parts_.clear();
  owners_.clear();
  size_ = 0;
  section_ = 0;
}

std::vector<boost::asio::const_buffer> GatheredWrite::Buffers() const {
  std::vector<boost::asio::const_buffer> buffers;
  buffers.reserve(parts_.size());
  for (const Part& part : parts_) {
    const std::uint8_t* data = part.shared != nullptr ? part.shared : own_.data() + part.offset;
    buffers.emplace_back(data, part.size);
  }
  return buffers;
}

}  // namespace mirell::rtsp
