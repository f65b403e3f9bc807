// The signal server's WebSocket endpoint as seen from plain HTTP. A GET of it without an upgrade
// is answered with 426 and a body holding the marker line, so that a viewer can tell a Mirell
// signal server from any other web server before it follows a link to it.
#pragma once

#include <string>
#include <string_view>

#include "mirell/transport/https_get.h"

namespace mirell::transport {

inline constexpr std::string_view kSignalPath = "/signal";
inline constexpr unsigned kSignalEndpointStatus = 426;  // Upgrade Required
inline constexpr std::string_view kSignalEndpointMarker = "mirell-signal-endpoint 1";

// Whether `signal_url` ("ws://" or "wss://", TLS verified as for the signal client) answers a
// plain GET as a Mirell signal endpoint does. False for any failure, any other answer, or a
// phase past its limit; blocks the calling thread for at most four phases plus the name lookup.
bool AnswersAsSignalEndpoint(const std::string& signal_url, const HttpsGetLimits& limits);

}  // namespace mirell::transport
