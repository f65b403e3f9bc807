// Byte-level helpers for H.264 in Annex B form. Spans point into the caller's buffer.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace mirell::media {

using ByteSpan = std::span<const std::uint8_t>;
using Bytes = std::vector<std::uint8_t>;

// The index behind the next 3- or 4-byte start code at or after `from`, with the code's own
// first index in `start`; -1 in both when there is none.
std::int64_t FindStartCode(ByteSpan data, std::size_t from, std::int64_t& start);

// The NAL units of `data` in order, start codes and trailing zero bytes removed. Bytes before
// the first start code are ignored; an all-zero NAL yields no entry.
std::vector<ByteSpan> SplitAnnexB(ByteSpan data);

// True when the first NAL behind the first start code has this nal_unit_type.
bool FirstNalIs(ByteSpan data, std::uint8_t type);

// True when some NAL of `data` is an IDR slice (type 5).
bool ContainsIdrNal(ByteSpan data);

// The NAL with its emulation prevention bytes (00 00 03) removed.
Bytes StripEmulationPrevention(ByteSpan nal);

// Appends 00 00 00 01 and the NAL.
void AppendNal(Bytes& out, ByteSpan nal);

// A NAL a decoder can start from: IDR slice, SPS or PPS.
constexpr bool IsKeyNal(std::uint8_t first_byte) {
  const int type = first_byte & 0x1F;
  return type == 5 || type == 7 || type == 8;
}

}  // namespace mirell::media
