// This computer's address on its local network, which a share link served by this computer
// itself names so that friends on the same network can reach it.
#pragma once

#include <string>

namespace mirell::ui {

// The IPv4 address of an interface that is up and not loopback, a private one (10/8,
// 172.16/12, 192.168/16) before any other; "127.0.0.1" when there is none.
std::string LanAddress();

}  // namespace mirell::ui
