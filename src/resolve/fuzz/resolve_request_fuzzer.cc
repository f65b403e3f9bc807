// The resolve protocol's request line as any local program may send it: the verb decides, and the
// URL is the rest of the line, less one CR at its end.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mirell/resolve/resolve_service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view received(reinterpret_cast<const char*>(data), size);
  const auto url = mirell::resolve::ParseResolveRequest(received);
  std::string_view line = received;
  if (line.ends_with('\r')) line.remove_suffix(1);
  const bool has_verb = line.starts_with("RESOLVE ");
  if (url.has_value() != has_verb) std::abort();
  if (url && *url != line.substr(8)) std::abort();
  return 0;
}
