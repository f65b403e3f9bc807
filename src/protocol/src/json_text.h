// The protocol's JSON, written one way by every maker of its messages.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

namespace mirell::protocol {

using Json = nlohmann::json;

// Compact, keys in order; text that is not valid UTF-8 is replaced rather than refused.
inline std::string Dump(const Json& message) {
  return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// A string field, "" when absent; throws the JSON library's type error for another type.
inline std::string StringField(const Json& message, const char* key) {
  return message.value(key, std::string());
}

// One text frame read into a Message by `read_fields(root, message)`, which returns false (or
// throws the JSON library's type error) for a field of another type. No JSON, a root that is no
// object or such a field: a default Message (its kind kMalformed) that keeps only the type.
template <typename Message, typename ReadFields>
Message ReadMessage(std::string_view text, ReadFields read_fields) {
  Message message;
  const Json root = Json::parse(text, nullptr, false);
  if (root.is_discarded() || !root.is_object()) return message;
  bool well_formed = false;
  try {
    well_formed = read_fields(root, message);
  } catch (const Json::exception&) {
  }
  if (well_formed) return message;
  Message malformed;
  malformed.type = std::move(message.type);
  return malformed;
}

}  // namespace mirell::protocol
