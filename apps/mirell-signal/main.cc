// mirell-signal: the signal server, self-hostable. Runs until SIGINT or SIGTERM.
#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>

#include "mirell/base/logging.h"
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

  // Each connection holds a descriptor: allow as many as the system lets this user have.
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0 && descriptors.rlim_cur < descriptors.rlim_max) {
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
  }

  // The stop signals are taken by sigwait below, on this thread, and by no other.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  signal::SignalServer server(options.config);
  try {
    server.Start();
  } catch (const std::exception& error) {
    LOG_ERROR("could not start: {}", error.what());
    return 1;
  }
  int received = 0;
  sigwait(&stop_signals, &received);
  LOG_INFO("stopping on signal {}", received);
  server.Stop();
  LOG_INFO("stopped");
  return 0;
}
