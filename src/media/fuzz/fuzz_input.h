// Cuts a fuzzer's input into packets: each is a 2-byte big-endian length and that many bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace mirell::media::fuzzing {

inline std::vector<std::span<const std::uint8_t>> Packets(const std::uint8_t* data, std::size_t size) {
  std::vector<std::span<const std::uint8_t>> packets;
  std::size_t at = 0;
  while (at + 2 <= size) {
    const std::size_t length = std::min<std::size_t>(static_cast<std::size_t>(data[at] << 8 | data[at + 1]), size - at - 2);
    packets.emplace_back(data + at + 2, length);
    at += 2 + length;
  }
  return packets;
}

}  // namespace mirell::media::fuzzing
