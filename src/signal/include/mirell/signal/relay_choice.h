// Which relay serves a public share's players: the same one for a token on every node and at
// every request, spread evenly over the relays given.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mirell::signal {

// 64-bit FNV-1a: stable across builds and machines, unlike std::hash.
std::uint64_t StableHash(std::string_view text);

// The relay URL (as given, without a trailing slash) + "/s/" + token; empty without relays.
std::string RelayStreamUrl(std::string_view token, const std::vector<std::string>& relay_urls);

}  // namespace mirell::signal
