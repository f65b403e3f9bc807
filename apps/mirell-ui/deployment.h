// The deployment's addresses. One host serves share links under "/s/" and the signal server
// under "/signal"; until a real deployment exists it is a reserved example name.
#pragma once

#include <string_view>

namespace mirell::ui {

inline constexpr std::string_view kDefaultSharePrefix = "mirell.example/s/";
inline constexpr std::string_view kDefaultSignalUrl = "wss://mirell.example/signal";

}  // namespace mirell::ui
