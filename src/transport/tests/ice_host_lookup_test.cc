#include "ice_host_lookup.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "mirell/testsupport/eventually.h"

namespace mirell::transport {
namespace {

using namespace std::chrono_literals;

class IceHostLookupTest : public ::testing::Test {
 protected:
  void TearDown() override { SetIceHostResolverForTesting({}); }
};

TEST_F(IceHostLookupTest, ANumericHostIsItselfWithoutAsking) {
  std::atomic<int> asked{0};
  SetIceHostResolverForTesting([&](const std::string&) {
    ++asked;
    return std::optional<std::string>("192.0.2.1");
  });
  EXPECT_EQ(NumericIceHost("198.51.100.4"), "198.51.100.4");
  EXPECT_EQ(NumericIceHost("2001:db8::1"), "2001:db8::1");
  EXPECT_EQ(asked.load(), 0);
}

// The system's resolver has no deadline: a name server that never answers must cost a link no
// more than the bound, and the answer that comes later serves the next link.
TEST_F(IceHostLookupTest, AResolverThatHangsCostsNoMoreThanTheBoundAndItsLateAnswerIsKept) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<int> asked{0};
  SetIceHostResolverForTesting([&, released](const std::string&) {
    ++asked;
    released.wait();
    return std::optional<std::string>("192.0.2.7");
  });
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(NumericIceHost("stun.example.org", 200ms), std::nullopt);
  const auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, 200ms);
  // A second link asking meanwhile waits for the same lookup, not a new one.
  EXPECT_EQ(NumericIceHost("stun.example.org", 50ms), std::nullopt);
  EXPECT_EQ(asked.load(), 1);

  release.set_value();
  EXPECT_TRUE(testsupport::Eventually([] { return NumericIceHost("stun.example.org", 0ms) == "192.0.2.7"; }));
  EXPECT_EQ(asked.load(), 1) << "the late answer was kept";
}

TEST_F(IceHostLookupTest, AFailureIsKeptAsOneToo) {
  std::atomic<int> asked{0};
  SetIceHostResolverForTesting([&](const std::string&) {
    ++asked;
    return std::optional<std::string>();
  });
  EXPECT_EQ(NumericIceHost("nowhere.invalid", 5s), std::nullopt);
  EXPECT_EQ(NumericIceHost("nowhere.invalid", 5s), std::nullopt);
  EXPECT_EQ(asked.load(), 1);
}

}  // namespace
}  // namespace mirell::transport
