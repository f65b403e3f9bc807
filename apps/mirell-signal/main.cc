// mirell-signal: the signal server, self-hostable. Runs until SIGINT or SIGTERM.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>

#include "mirell/base/logging.h"
#include "mirell/base/server_process.h"
#include "server_options.h"
#include "mirell/signal/signal_server.h"

int main(int argc, char** argv) {
  using namespace mirell;
  // A server's log is for its operator: its address and connections show at info by default.
  if (std::getenv("MIRELL_LOG") == nullptr) SetLogLevel(LogLevel::kInfo);

  signal::ServerOptions options;
  try {
    options = signal::ParseServerOptions(
        std::span<const char* const>(argv + 1, static_cast<std::size_t>(argc > 0 ? argc - 1 : 0)));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mirell-signal: %s\n", error.what());
    return 2;
  }
  if (options.help) {
    std::fputs(signal::ServerUsage().c_str(), stdout);
    return 0;
  }

  RaiseDescriptorLimit();  // A descriptor per connection.
  ReserveStopSignals();

  signal::SignalServer server(options.config);
  try {
    server.Start();
  } catch (const std::exception& error) {
    LOG_ERROR("could not start: {}", error.what());
    return 1;
  }
  const int stop_signal = WaitForStopSignal();  // Not inside LOG_INFO: a quiet log skips it.
  LOG_INFO("stopping on signal {}", stop_signal);
  server.Stop();
  LOG_INFO("stopped");
  return 0;
}
