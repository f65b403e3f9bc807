#include <cstdlib>

#include "mirell/media/rtp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const mirell::media::ByteSpan packet(data, size);
  mirell::media::RtpPacketView view;
  if (mirell::media::ParseRtpPacket(packet, view)) {
    // The payload lies inside the packet, behind the fixed header.
    if (view.payload.data() < data + mirell::media::kRtpHeaderSize ||
        view.payload.data() + view.payload.size() > data + size) {
      std::abort();
    }
  }
  return 0;
}
