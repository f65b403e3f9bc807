// The resolve protocol's request line as any local program may send it: the verb decides, and the
// URL is exactly the rest of the line.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mirell/daemon/resolve_service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const auto url = mirell::daemon::ParseResolveRequest(line);
  const bool has_verb = line.starts_with("RESOLVE ");
  if (url.has_value() != has_verb) std::abort();
  if (url && *url != line.substr(8)) std::abort();
  return 0;
}
