// Where the signal server's WebSocket endpoint is, and how it answers plain HTTP there: a GET
// without an upgrade gets 426 and a body holding the marker line, so that a viewer can tell a
// Mirell signal server from any other web server before it follows a link to it.
#pragma once

#include <string_view>

namespace mirell::protocol {

inline constexpr std::string_view kSignalPath = "/signal";
inline constexpr unsigned kSignalEndpointStatus = 426;  // Upgrade Required
inline constexpr std::string_view kSignalEndpointMarker = "mirell-signal-endpoint 1";

}  // namespace mirell::protocol
