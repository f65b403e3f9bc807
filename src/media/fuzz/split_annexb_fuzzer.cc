#include <cstdlib>

#include "mirell/media/nal.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const mirell::media::ByteSpan stream(data, size);
  for (const auto nal : mirell::media::SplitAnnexB(stream)) {
    // Never empty, never ending in a zero byte, always inside the input.
    if (nal.empty() || nal.back() == 0 || nal.data() < data || nal.data() + nal.size() > data + size) std::abort();
  }
  (void)mirell::media::ContainsIdrNal(stream);
  (void)mirell::media::FirstNalIs(stream, 7);
  (void)mirell::media::StripEmulationPrevention(stream);
  return 0;
}
