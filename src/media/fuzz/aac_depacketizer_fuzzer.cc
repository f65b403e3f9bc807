#include <cstdlib>

#include "fuzz_input.h"
#include "mirell/media/aac_rtp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  mirell::media::AacRtpDepacketizer depacketizer;
  for (const auto packet : mirell::media::fuzzing::Packets(data, size)) {
    mirell::media::AacAccessUnit unit;
    if (depacketizer.Push(packet, unit) && (unit.bytes.empty() || unit.bytes.size() > mirell::media::kMaxAuSize)) {
      std::abort();
    }
  }
  return 0;
}
