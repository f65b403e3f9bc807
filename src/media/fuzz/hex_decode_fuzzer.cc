#include <cctype>
#include <cstdlib>
#include <string>

#include "mirell/media/aac_rtp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const mirell::media::Bytes bytes = mirell::media::HexDecode(text);
  if (!bytes.empty()) {
    // What decodes encodes back to the same digits, in lower case.
    std::string lower = text;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (mirell::media::HexEncode(bytes) != lower) std::abort();
  } else if (!text.empty() && text.size() % 2 == 0) {
    bool all_hex = true;
    for (const char c : text) all_hex = all_hex && std::isxdigit(static_cast<unsigned char>(c));
    if (all_hex) std::abort();
  }
  return 0;
}
