#include "mirell/base/ascii.h"
#include "mirell/capture/capture_targets.h"

namespace mirell::capture {

std::uint32_t FindWindowByTitleIn(std::span<const CapturableWindow> windows, const std::string& text) {
  if (text.empty()) return 0;
  const std::string wanted = AsciiLower(text);
  for (const auto& window : windows) {
    if (AsciiLower(window.title).find(wanted) != std::string::npos) return window.window;
  }
  return 0;
}

std::uint32_t FindWindowByTitle(const std::string& text) {
  if (text.empty()) return 0;
  return FindWindowByTitleIn(EnumerateWindows(), text);
}

std::string EdidMonitorName(std::span<const std::uint8_t> edid) {
  // Four 18-byte descriptors from byte 54; a display descriptor starts 00 00 00 <tag> 00, and
  // the name's text (up to 13 bytes) ends at a line feed.
  constexpr std::size_t kFirstDescriptor = 54;
  constexpr std::size_t kDescriptorSize = 18;
  if (edid.size() < 128) return {};
  for (std::size_t at = kFirstDescriptor; at + kDescriptorSize <= 126; at += kDescriptorSize) {
    const auto d = edid.subspan(at, kDescriptorSize);
    if (d[0] != 0 || d[1] != 0 || d[2] != 0 || d[3] != 0xFC) continue;
    std::string name;
    for (std::size_t i = 5; i < kDescriptorSize && d[i] != '\n'; ++i) name += static_cast<char>(d[i]);
    while (!name.empty() && name.back() == ' ') name.pop_back();
    return name;
  }
  return {};
}

}  // namespace mirell::capture
