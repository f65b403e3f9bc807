#include "mirell/resolve/winsock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace mirell::resolve {
namespace {

TEST(WinsockRuntime, WriteToAClosedSocketIsAnErrorWhileItLivesAndTheOldActionReturns) {
  struct sigaction before {};
  sigaction(SIGPIPE, nullptr, &before);
  {
    WinsockRuntime runtime;
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[1]);
    // Plain write, no MSG_NOSIGNAL: without the runtime this would end the test process.
    const char byte = 'x';
    EXPECT_EQ(write(pair[0], &byte, 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(pair[0]);
  }
  struct sigaction after {};
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
}

}  // namespace
}  // namespace mirell::resolve
