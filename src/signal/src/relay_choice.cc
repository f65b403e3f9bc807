#include "mirell/signal/relay_choice.h"

namespace mirell::signal {

std::uint64_t StableHash(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3ull;
  }
  return hash;
}

std::string RelayStreamUrl(std::string_view token, const std::vector<std::string>& relay_urls) {
  if (relay_urls.empty()) return {};
  std::string url = relay_urls[StableHash(token) % relay_urls.size()];
  while (!url.empty() && url.back() == '/') url.pop_back();
  url += "/s/";
  url += token;
  return url;
}

}  // namespace mirell::signal
