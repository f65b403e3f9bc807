#include <cstdlib>

#include "fuzz_input.h"
#include "mirell/media/h264_rtp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  mirell::media::H264RtpDepacketizer depacketizer;
  for (const auto packet : mirell::media::fuzzing::Packets(data, size)) {
    mirell::media::H264AccessUnit unit;
    if (depacketizer.Push(packet, unit)) {
      // A delivered unit is Annex B: it starts with a start code.
      if (unit.annex_b.size() < 5 || unit.annex_b[0] != 0 || unit.annex_b[3] != 1) std::abort();
    }
  }
  return 0;
}
