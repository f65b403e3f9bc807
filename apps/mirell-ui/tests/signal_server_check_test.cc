#include "signal_server_check.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "mirell/testsupport/eventually.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;
using Clock = SignalServerCheck::Clock;

// A clock the test moves.
struct TestClock {
  std::atomic<Clock::rep> ticks{0};
  Clock::time_point operator()() const { return Clock::time_point(Clock::duration(ticks.load())); }
  void Advance(Clock::duration by) { ticks += by.count(); }
};

// A probe that answers only once the test lets it.
struct HeldProbe {
  std::mutex mutex;
  std::condition_variable released;
  bool open = false;
  bool answer = true;
  std::atomic<int> calls{0};

  bool operator()(const std::string&) {
    ++calls;
    std::unique_lock lock(mutex);
    released.wait(lock, [&] { return open; });
    return answer;
  }
  void Release() {
    std::lock_guard lock(mutex);
    open = true;
    released.notify_all();
  }
};

double SecondsOf(const std::function<void()>& step) {
  const auto start = std::chrono::steady_clock::now();
  step();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(SignalServerCheck, AnAnswerHoldsTenMinutesThenTheServerIsAskedAgain) {
  TestClock clock;
  int asked = 0;
  bool answer = true;
  SignalServerCheck check([&](const std::string&) { return ++asked, answer; }, {},
                          [&] { return clock(); });
  EXPECT_TRUE(check.IsSignalServer("wss://a.example/signal"));
  answer = false;
  clock.Advance(9min + 59s);
  EXPECT_TRUE(check.IsSignalServer("wss://a.example/signal"));
  EXPECT_EQ(asked, 1);
  EXPECT_FALSE(check.IsSignalServer("wss://b.example/signal")) << "each server has its own";
  EXPECT_EQ(asked, 2);
  clock.Advance(1s);
  EXPECT_FALSE(check.IsSignalServer("wss://a.example/signal"));
  EXPECT_EQ(asked, 3);
  EXPECT_EQ(check.probes(), 3u);
}

TEST(SignalServerCheck, ASlowServerIsNotOneAtTheBoundUntilItsAnswerComes) {
  HeldProbe probe;
  SignalServerCheck::Limits limits;
  limits.bound = 300ms;
  SignalServerCheck check([&](const std::string& url) { return probe(url); }, limits);
  bool answer = true;
  const double waited = SecondsOf([&] { answer = check.IsSignalServer("wss://slow.example/signal"); });
  EXPECT_FALSE(answer);
  EXPECT_GE(waited, 0.29);
  EXPECT_LT(waited, 1.0);
  EXPECT_LT(SecondsOf([&] { answer = check.IsSignalServer("wss://slow.example/signal"); }), 0.1)
      << "the silence is kept while the question is out";
  EXPECT_FALSE(answer);
  probe.Release();
  EXPECT_TRUE(testsupport::Eventually([&] { return check.IsSignalServer("wss://slow.example/signal"); }));
  EXPECT_EQ(probe.calls.load(), 1);
}

TEST(SignalServerCheck, QuestionsOutAtOnceAreBoundedAndTheNextGetsNoWithoutAsking) {
  HeldProbe probe;
  SignalServerCheck::Limits limits;
  limits.bound = 20ms;
  limits.max_running = 2;
  SignalServerCheck check([&](const std::string& url) { return probe(url); }, limits);
  EXPECT_FALSE(check.IsSignalServer("wss://one.example/signal"));
  EXPECT_FALSE(check.IsSignalServer("wss://two.example/signal"));
  EXPECT_FALSE(check.IsSignalServer("wss://three.example/signal"));
  EXPECT_EQ(check.probes(), 2u);
  probe.Release();
  EXPECT_TRUE(testsupport::Eventually([&] { return check.IsSignalServer("wss://three.example/signal"); }))
      << "asked once there was room";
  EXPECT_EQ(check.probes(), 3u);
}

TEST(SignalServerCheck, EndingWaitsForTheQuestionsStillOut) {
  HeldProbe probe;
  SignalServerCheck::Limits limits;
  limits.bound = 10ms;
  auto check = std::make_unique<SignalServerCheck>(
      [&](const std::string& url) { return probe(url); }, limits);
  EXPECT_FALSE(check->IsSignalServer("wss://slow.example/signal"));
  std::thread release([&] {
    std::this_thread::sleep_for(100ms);
    probe.Release();
  });
  check.reset();  // Returns once the probe has; it must not run on into a destroyed object.
  EXPECT_EQ(probe.calls.load(), 1);
  release.join();
}

}  // namespace
}  // namespace mirell::ui
