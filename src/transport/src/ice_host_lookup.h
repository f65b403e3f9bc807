// The numeric address of an ICE server's host. The ICE agent looks a STUN server's name up by
// itself, but when the name does not resolve (offline, a broken resolver) it never finishes
// gathering, and a link that sends its description only once gathering is complete never
// connects: the link looks the name up first and leaves out a server whose name fails.
#pragma once

#include <optional>
#include <string>

namespace mirell::transport {

// An IPv4 or IPv6 address as text (without brackets): the host itself when it is one already,
// else the first address its name resolves to, IPv4 preferred. nullopt when it does not
// resolve. Answers are kept for a while, so that only the first link after a while waits for
// the resolver. Blocks for as long as the resolver takes; safe from any thread.
std::optional<std::string> NumericIceHost(const std::string& host);

}  // namespace mirell::transport
