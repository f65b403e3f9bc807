// Who owns the other end of a loopback TCP connection. The resolve endpoint serves only its own
// user and the system, as a pipe with an owner-only access list would.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <optional>
#include <string_view>

namespace mirell::resolve {

// The uid that owns the socket bound to `client` and connected to `server` (both as seen by the
// server: `client` is the accepted connection's peer). Asks the kernel's socket diagnostics over
// netlink and falls back to /proc/net/tcp; nullopt when neither knows the socket.
std::optional<uid_t> LoopbackPeerUid(const sockaddr_in& client, const sockaddr_in& server);

// The /proc/net/tcp half of LoopbackPeerUid, over the text of that file.
std::optional<uid_t> PeerUidFromProcNetTcp(std::string_view table, const sockaddr_in& client,
                                           const sockaddr_in& server);

// The diagnostics half; nullopt when netlink is unavailable or has no such socket.
std::optional<uid_t> PeerUidFromSocketDiag(const sockaddr_in& client, const sockaddr_in& server);

}  // namespace mirell::resolve
