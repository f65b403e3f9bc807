// mirell-relay: serves a signal server's public shares to every player. Runs until SIGINT or
// SIGTERM.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>

#include "mirell/base/logging.h"
#include "mirell/base/server_process.h"
#include "mirell/transport/peer_link.h"
#include "relay.h"
#include "relay_options.h"

int main(int argc, char** argv) {
  using namespace mirell;
  // A server's log is for its operator: its address and shares show at info by default.
  if (std::getenv("MIRELL_LOG") == nullptr) SetLogLevel(LogLevel::kInfo);

  relay::RelayOptions options;
  try {
    options = relay::ParseRelayOptions(
        std::span<const char* const>(argv + 1, static_cast<std::size_t>(argc > 0 ? argc - 1 : 0)));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mirell-relay: %s\n", error.what());
    return 2;
  }
  if (options.help) {
    std::fputs(relay::RelayUsage().c_str(), stdout);
    return 0;
  }

  RaiseDescriptorLimit();  // A descriptor per connection.
  ReserveStopSignals();

  transport::InitialiseTransportLogging();
  relay::Relay relay(options);
  try {
    relay.Start();
  } catch (const std::exception& error) {
    LOG_ERROR("could not start: {}", error.what());
    return 1;
  }
  LOG_INFO("listening on {}:{}", options.listen_address, relay.port());
  const int stop_signal = WaitForStopSignal();  // Not inside LOG_INFO: a quiet log skips it.
  LOG_INFO("stopping on signal {}", stop_signal);
  relay.Stop();
  LOG_INFO("stopped");
  return 0;
}
