// The stub's configuration file as it may be found (written by us, edited by a person, or cut
// short): parsing never fails, and the endpoint test agrees with its own rule.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "stub_config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto config = mirell::stub::ParseStubConfig(text);
  // Every value came from the text or is a default, and values never keep a line ending.
  if (config.pipe.find('\n') != std::string::npos || config.original.find('\n') != std::string::npos) {
    std::abort();
  }
  if (mirell::stub::IsNamedPipe(config.pipe) != config.pipe.starts_with("\\\\.\\pipe\\")) std::abort();
  return 0;
}
