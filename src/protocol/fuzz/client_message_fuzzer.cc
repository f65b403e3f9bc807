// One text frame from a client, as the server reads it: understood or malformed, never anything
// worse; a host's media is cut down to the known fields, and what the server passes on from it
// reads back as a media object.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mirell/protocol/client_messages.h"
#include "mirell/protocol/server_messages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  using Kind = mirell::protocol::ClientMessage::Kind;
  const auto message = mirell::protocol::ParseClientMessage(text);
  if (message.kind != Kind::kHost && (!message.media.empty() || message.is_public)) std::abort();
  if (message.kind != Kind::kJoin && message.relay_secret) std::abort();
  if (!message.media.empty()) {
    // At most the eight known fields, each a short number or text.
    if (message.media.size() > 8 * 24 + 64 + 16) std::abort();
    const auto joined = mirell::protocol::ParseServerMessage(mirell::protocol::MakeJoinedMessage(message.media));
    if (!joined.media) std::abort();
  }
  return 0;
}
