// One text frame from a signal server, as the client reads it: understood or malformed, never
// anything worse, and what is read keeps the protocol's rules.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mirell/protocol/server_messages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  using Kind = mirell::protocol::ServerMessage::Kind;
  const auto message = mirell::protocol::ParseServerMessage(text);
  if (message.identity.identity.empty() && !message.identity.display_name.empty()) std::abort();
  if (message.media && message.kind != Kind::kJoined) std::abort();
  if (message.kind == Kind::kError && message.reason.empty() &&
      text.find("\"reason\"") == std::string_view::npos) {
    std::abort();  // A missing reason reads as "unknown".
  }
  const auto media = mirell::protocol::ReadStreamMedia(text);
  if (media.channels > 2 || media.width > 8192 || media.audio_config.size() > 32) std::abort();
  return 0;
}
