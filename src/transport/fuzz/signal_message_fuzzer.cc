// One text frame from a signal server, as the client reads it: it is understood, refused as
// unparseable, or refused with the JSON library's type error, and never anything worse.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "signal_messages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  using Kind = mirell::transport::ServerMessage::Kind;
  try {
    const auto message = mirell::transport::ParseServerMessage(text);
    if (message.identity.identity.empty() && !message.identity.display_name.empty()) std::abort();
    if (message.media && message.kind != Kind::kJoined) std::abort();
    if (message.kind == Kind::kError && message.reason.empty() &&
        text.find("\"reason\"") == std::string_view::npos) {
      std::abort();  // A missing reason reads as "unknown".
    }
  } catch (const nlohmann::json::exception&) {
    // A root that is no object or a field of another type: the socket logs it.
  }
  mirell::transport::ReadStreamMedia(text);
  return 0;
}
