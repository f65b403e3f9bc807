#include "mirell/media/nal.h"

namespace mirell::media {

std::int64_t FindStartCode(ByteSpan data, std::size_t from, std::int64_t& start) {
  const std::size_t size = data.size();
  start = -1;
  for (std::size_t i = from; i + 3 <= size; ++i) {
    if (data[i] != 0 || data[i + 1] != 0) continue;
    if (data[i + 2] == 1) {
      start = static_cast<std::int64_t>(i);
      return static_cast<std::int64_t>(i + 3);
    }
    if (data[i + 2] == 0 && i + 4 <= size && data[i + 3] == 1) {
      start = static_cast<std::int64_t>(i);
      return static_cast<std::int64_t>(i + 4);
    }
  }
  return -1;
}

std::vector<ByteSpan> SplitAnnexB(ByteSpan data) {
  std::vector<ByteSpan> nals;
  std::int64_t start = -1;
  std::int64_t begin = FindStartCode(data, 0, start);
  while (begin >= 0) {
    std::int64_t next_start = -1;
    const std::int64_t next = FindStartCode(data, static_cast<std::size_t>(begin), next_start);
    std::int64_t end = next >= 0 ? next_start : static_cast<std::int64_t>(data.size());
    while (end > begin && data[static_cast<std::size_t>(end - 1)] == 0) --end;
    if (end > begin) {
      nals.push_back(data.subspan(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin)));
    }
    begin = next;
  }
  return nals;
}

bool FirstNalIs(ByteSpan data, std::uint8_t type) {
  std::int64_t start = -1;
  const std::int64_t begin = FindStartCode(data, 0, start);
  if (begin < 0 || static_cast<std::size_t>(begin) >= data.size()) return false;
  return (data[static_cast<std::size_t>(begin)] & 0x1F) == type;
}

bool ContainsIdrNal(ByteSpan data) {
  for (const ByteSpan nal : SplitAnnexB(data)) {
    if (!nal.empty() && (nal[0] & 0x1F) == 5) return true;
  }
  return false;
}

Bytes StripEmulationPrevention(ByteSpan nal) {
  Bytes out;
  out.reserve(nal.size());
  int zeros = 0;
  for (const std::uint8_t byte : nal) {
    if (byte == 3 && zeros >= 2) {
      zeros = 0;
      continue;
    }
    out.push_back(byte);
    zeros = byte == 0 ? zeros + 1 : 0;
  }
  return out;
}

void AppendNal(Bytes& out, ByteSpan nal) {
  static constexpr std::uint8_t kStartCode[] = {0, 0, 0, 1};
  out.insert(out.end(), std::begin(kStartCode), std::end(kStartCode));
  out.insert(out.end(), nal.begin(), nal.end());
}

}  // namespace mirell::media
