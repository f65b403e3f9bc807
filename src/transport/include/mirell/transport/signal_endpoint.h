// Asking a server whether it is a Mirell signal server before a link to it is followed: its
// endpoint answers a plain GET as mirell/protocol/signal_endpoint.h says.
#pragma once

#include <string>

#include "mirell/transport/https_get.h"

namespace mirell::transport {

// Whether `signal_url` ("ws://" or "wss://", TLS verified as for the signal client) answers a
// plain GET as a Mirell signal endpoint does. False for any failure, any other answer, or a
// phase past its limit; blocks the calling thread for at most four phases plus the name lookup.
bool AnswersAsSignalEndpoint(const std::string& signal_url, const HttpsGetLimits& limits);

}  // namespace mirell::transport
