// mirell-signal's command line.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "mirell/signal/signal_server.h"

namespace mirell::signal {

struct ServerOptions {
  ServerConfig config;
  bool help = false;
};

// Reads the arguments after the program name. Throws std::invalid_argument naming the first that
// is unknown,
// lacks its value or has a value that is not a number where one is wanted.
ServerOptions ParseServerOptions(std::span<const char* const> arguments);

// The text of --help.
std::string ServerUsage();

}  // namespace mirell::signal
