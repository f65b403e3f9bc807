// The few blocking socket operations the RTSP server needs, over POSIX descriptors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace mirell::daemon {

// Sends everything in chunks of at most 64 KiB; false as soon as a send fails. Never raises
// SIGPIPE. Blocks while the peer does not read.
bool SendAll(int socket, std::span<const std::uint8_t> data);

// True when the socket has something to read (or has been closed) within `timeout_ms`; 0 asks
// without waiting.
bool WaitReadable(int socket, int timeout_ms);

// One receive; the count, 0 when the peer has gone, -1 on failure.
std::ptrdiff_t ReceiveSome(int socket, std::span<char> buffer);

void SetNoDelay(int socket);
// A send that cannot go on for this long fails (the player stopped reading).
void SetSendTimeout(int socket, int timeout_ms);
// Makes blocked sends and receives on the socket fail at once, from any thread.
void ShutdownSocket(int socket);
void CloseSocket(int socket);

}  // namespace mirell::daemon
