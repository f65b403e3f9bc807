// The stub's configuration file, "mirell-stub.cfg" beside it: "#" comment lines, either line
// ending, the keys "pipe", "original" and "log". Plain C++ with no platform in it, so that it is
// tested on the build machine as well.
#pragma once

#include <string>
#include <string_view>

namespace mirell::stub {

struct StubConfig {
  std::string pipe = "127.0.0.1:8555";  // "host:port" for TCP, "\\.\pipe\name" for a pipe.
  std::string original = "yt-dlp-mirell-orig.exe";
  bool log = false;
};

// The values in `text` over the compiled-in defaults; unknown keys and malformed lines are
// skipped.
StubConfig ParseStubConfig(std::string_view text);

// True when the endpoint names a Windows named pipe rather than host:port.
bool IsNamedPipe(std::string_view endpoint);

}  // namespace mirell::stub
