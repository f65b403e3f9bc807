// The process's socket runtime, held by the process entry for its whole life. On Windows it is
// the Winsock start-up; on Linux it makes a write to a closed socket fail with EPIPE instead of
// killing the process with SIGPIPE.
#pragma once

namespace mirell::resolve {

class WinsockRuntime {
 public:
  WinsockRuntime();
  ~WinsockRuntime();
  WinsockRuntime(const WinsockRuntime&) = delete;
  WinsockRuntime& operator=(const WinsockRuntime&) = delete;
};

}  // namespace mirell::resolve
