// A monitor's EDID block comes from the display and its hardware: any bytes at all.
#include <cstdlib>
#include <span>

#include "mirell/capture/capture_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string name = mirell::capture::EdidMonitorName(std::span<const std::uint8_t>(data, size));
  // A name is the text of one 13-byte descriptor, up to its line feed.
  if (name.size() > 13 || name.find('\n') != std::string::npos) std::abort();
  if (size < 128 && !name.empty()) std::abort();
  return 0;
}
