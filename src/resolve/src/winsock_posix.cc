// POSIX: the socket runtime ignores SIGPIPE for the process while it lives.
#include <signal.h>

#include <cerrno>

#include "mirell/base/error.h"
#include "mirell/resolve/winsock.h"

namespace mirell::resolve {
namespace {

struct sigaction previous_sigpipe_action {};

}  // namespace

WinsockRuntime::WinsockRuntime() {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  const int result = sigaction(SIGPIPE, &ignore, &previous_sigpipe_action) == 0 ? 0 : errno;
  MIRELL_CHECK(result == 0, "sigaction(SIGPIPE) failed with {}", result);
}

WinsockRuntime::~WinsockRuntime() { sigaction(SIGPIPE, &previous_sigpipe_action, nullptr); }

}  // namespace mirell::resolve
