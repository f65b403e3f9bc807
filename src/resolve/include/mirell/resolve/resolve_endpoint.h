// The transport under the resolve protocol: a local endpoint that accepts one client at a time
// and carries one request and one answer per connection. On Linux it is TCP on the loopback
// interface (the stub runs under Wine, which reaches loopback TCP but not Unix sockets); a Unix
// socket or a Windows named pipe can stand behind the same two classes.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace mirell::resolve {

// The resolve endpoint when "--pipe" is not given: the port beside the RTSP server's 8554.
inline constexpr std::string_view kDefaultResolveEndpoint = "127.0.0.1:8555";

// One accepted client. Destroying it ends the connection after the answer has been delivered.
// A connection never outlives the endpoint that accepted it.
class ResolveConnection {
 public:
  // What Read returns besides a count of bytes.
  static constexpr std::ptrdiff_t kEnded = 0;
  static constexpr std::ptrdiff_t kFailed = -1;  // A socket error, or the endpoint was woken.
  static constexpr std::ptrdiff_t kTimedOut = -2;

  virtual ~ResolveConnection() = default;
  // Blocks until bytes arrive, the client ends the connection, `deadline` passes or the
  // endpoint is woken, whichever comes first; so another program can never hold the caller.
  virtual std::ptrdiff_t Read(std::span<char> buffer,
                              std::chrono::steady_clock::time_point deadline) = 0;
  // Writes all of `bytes` if it can; a failure is not reported (the client has gone).
  virtual void Write(std::string_view bytes) = 0;
};

class ResolveEndpoint {
 public:
  virtual ~ResolveEndpoint() = default;
  // Waits for the next client. Returns nullptr when accepting failed, when Wake was called, or
  // when the client belongs to someone who may not ask (another user); the caller decides
  // whether to go on.
  virtual std::unique_ptr<ResolveConnection> Accept() = 0;
  // Makes a blocked Accept, and every later one, return nullptr at once, and a Read in progress
  // on any of its connections return kFailed. Safe from any thread.
  virtual void Wake() = 0;
  // The endpoint as bound, in the form OpenResolveEndpoint takes ("127.0.0.1:PORT" with the
  // real port when 0 was asked for).
  virtual std::string name() const = 0;
};

// Opens the endpoint that `name` describes and starts listening. Linux accepts "127.0.0.1:PORT"
// (PORT 0 picks a free one). Throws Error for a name of another form or an endpoint that cannot
// be bound.
std::unique_ptr<ResolveEndpoint> OpenResolveEndpoint(const std::string& name);

}  // namespace mirell::resolve
