// mirell-relay: serves a signal server's public shares to every player. Runs until SIGINT or
// SIGTERM.
#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>

#include "mirell/base/logging.h"
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

  // Each player holds a descriptor (and a thread): allow as many as the system lets this user have.
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0 && descriptors.rlim_cur < descriptors.rlim_max) {
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
  }

  // The stop signals are taken by sigwait below, on this thread, and by no other: blocked before
  // any thread starts, so that every thread inherits the mask.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  transport::InitialiseTransportLogging();
  relay::Relay relay(options);
  try {
    relay.Start();
  } catch (const std::exception& error) {
    LOG_ERROR("could not start: {}", error.what());
    return 1;
  }
  LOG_INFO("listening on {}:{}", options.listen_address, relay.port());
  int received = 0;
  sigwait(&stop_signals, &received);
  LOG_INFO("stopping on signal {}", received);
  relay.Stop();
  LOG_INFO("stopped");
  return 0;
}
