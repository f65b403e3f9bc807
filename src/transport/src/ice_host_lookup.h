// The numeric address of an ICE server's host. The ICE agent looks a STUN server's name up by
// itself, but when the name does not resolve (offline, a broken resolver) it never finishes
// gathering, and a link that sends its description only once gathering is complete never
// connects: the link looks the name up first and leaves out a server whose name fails.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace mirell::transport {

// An IPv4 or IPv6 address as text (without brackets): the host itself when it is one already,
// else the first address its name resolves to, IPv4 preferred. nullopt when it does not
// resolve, or not within `limit`: the system's resolver has no deadline of its own, so it runs
// on a thread of its own, which finishes by itself and keeps its answer for the next caller.
// Answers are kept for a while, so that only the first link after a while waits for the
// resolver. Safe from any thread.
std::optional<std::string> NumericIceHost(const std::string& host,
                                          std::chrono::milliseconds limit = std::chrono::seconds(2));

// Tests: names are looked up with `resolver` (empty: the system's), and what was kept is
// forgotten.
void SetIceHostResolverForTesting(std::function<std::optional<std::string>(const std::string&)> resolver);

}  // namespace mirell::transport
