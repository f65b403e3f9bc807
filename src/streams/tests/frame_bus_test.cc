#include "mirell/streams/frame_bus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "test_frames.h"

namespace mirell::streams {
namespace {

using testing::Frame;

// Publishes frames 0..n-1 with keyframes at the given indices; pts = index.
void PublishRun(FrameBus& bus, int n, std::initializer_list<int> keys) {
  for (int i = 0; i < n; ++i) {
    bool key = false;
    for (int k : keys) key = key || k == i;
    bus.Publish(Frame(i, key));
  }
}

std::vector<std::int64_t> Drain(FrameBus::Subscription& subscription) {
  std::vector<std::int64_t> pts;
  while (auto frame = subscription.Pop(0)) pts.push_back(frame->pts_100ns);
  return pts;
}

TEST(FrameBus, FreshSubscriptionWithoutPrimingWaitsForAKeyframe) {
  FrameBus bus;
  bus.SetHistory(100);
  PublishRun(bus, 5, {0});
  auto reader = bus.Subscribe(8, 0);
  bus.Publish(Frame(10, false));
  bus.Publish(Frame(11, false));
  EXPECT_EQ(reader->FrontTimestamp(), -1);
  bus.Publish(Frame(12, true));
  bus.Publish(Frame(13, false));
  EXPECT_EQ(Drain(*reader), (std::vector<std::int64_t>{12, 13}));
  EXPECT_EQ(reader->Primed(), 0u);
}

TEST(FrameBus, BacklogStartsAtNewestKeyframeLeavingEnoughFrames) {
  FrameBus bus;
  bus.SetHistory(100);
  PublishRun(bus, 10, {0, 6});
  auto four = bus.Subscribe(8, 4);
  EXPECT_EQ(four->FrontTimestamp(), 6);
  EXPECT_EQ(four->Primed(), 4u);
  // Index 6 leaves only 4 frames, so 5 wanted frames start at index 0.
  auto five = bus.Subscribe(8, 5);
  EXPECT_EQ(five->FrontTimestamp(), 0);
  EXPECT_EQ(five->Primed(), 10u);
  EXPECT_EQ(Drain(*five).size(), 10u);
}

TEST(FrameBus, TooFewFramesAfterAnyKeyframeTakesTheOldestKeyframe) {
  FrameBus bus;
  bus.SetHistory(100);
  PublishRun(bus, 6, {2, 4});
  auto reader = bus.Subscribe(8, 30);
  EXPECT_EQ(reader->FrontTimestamp(), 2);
  EXPECT_EQ(reader->Primed(), 4u);
}

TEST(FrameBus, HistoryWithoutKeyframeWarnsAndStartsUnprimed) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  FrameBus bus;
  bus.SetHistory(100);
  PublishRun(bus, 7, {});
  auto reader = bus.Subscribe(8, 4);
  EXPECT_EQ(reader->Primed(), 0u);
  EXPECT_EQ(reader->FrontTimestamp(), -1);
  bus.Publish(Frame(7, false));
  EXPECT_EQ(reader->FrontTimestamp(), -1) << "still resyncing";
  bus.Publish(Frame(8, true));
  EXPECT_EQ(reader->FrontTimestamp(), 8);
  const std::string log = testsupport::ReadFileText(dir.path() / "log");
  EXPECT_NE(log.find("warn  mirell::streams::FrameBus::Subscribe@"), std::string::npos) << log;
  EXPECT_NE(log.find(": could not prime a new subscriber - no keyframe in 4 frames of history. It "
                     "will start unbuffered.\n"),
            std::string::npos)
      << log;
}

TEST(FrameBus, OverflowLosesQueueAndTheKeyframeInHand) {
  FrameBus bus;
  auto reader = bus.Subscribe(8, 0);
  bus.Publish(Frame(0, true));
  for (int i = 1; i < 8; ++i) bus.Publish(Frame(i, false));
  EXPECT_EQ(reader->FrontTimestamp(), 0);
  bus.Publish(Frame(8, true));  // The ninth: all nine are lost.
  EXPECT_EQ(reader->Dropped(), 8u);
  EXPECT_EQ(reader->FrontTimestamp(), -1);
  bus.Publish(Frame(9, false));
  EXPECT_EQ(reader->FrontTimestamp(), -1);
  bus.Publish(Frame(10, true));
  EXPECT_EQ(Drain(*reader), (std::vector<std::int64_t>{10}));
  EXPECT_EQ(reader->Dropped(), 8u);
}

TEST(FrameBus, PrimedReaderKeepsItsBacklogWhenFramesArriveBeforeItsFirstPop) {
  FrameBus bus;
  bus.SetHistory(100);
  PublishRun(bus, 30, {0});
  auto reader = bus.Subscribe(8, 30);
  ASSERT_EQ(reader->Primed(), 30u);
  // The reader's thread has not come round to its first pop yet; the producer goes on,
  // a keyframe among the new frames.
  for (int i = 30; i < 38; ++i) bus.Publish(Frame(i, i == 30));
  EXPECT_EQ(reader->Dropped(), 0u);
  EXPECT_EQ(reader->FrontTimestamp(), 0);
  // Past the backlog plus the usual allowance of 8 it is too slow, as any reader.
  bus.Publish(Frame(38, false));
  EXPECT_EQ(reader->Dropped(), 38u);
}

TEST(FrameBus, PrimedCapacityShrinksBackOnceTheBacklogHasDrained) {
  FrameBus bus;
  bus.SetHistory(100);
  PublishRun(bus, 30, {0});
  auto reader = bus.Subscribe(8, 30);
  ASSERT_EQ(reader->Primed(), 30u);
  for (int i = 0; i < 21; ++i) ASSERT_TRUE(reader->Pop(0));
  bus.Publish(Frame(30, false));  // Nine queued: still the widened capacity.
  EXPECT_EQ(reader->Dropped(), 0u);
  // Take until 8 remain: the limit falls back to 8, so a ninth frame overflows.
  ASSERT_TRUE(reader->Pop(0));
  ASSERT_TRUE(reader->Pop(0));
  bus.Publish(Frame(31, false));
  EXPECT_EQ(reader->Dropped(), 8u);
}

TEST(FrameBus, PopOnClosedSubscriptionReturnsAtOnce) {
  FrameBus bus;
  auto reader = bus.Subscribe(8, 0);
  bus.Unsubscribe(reader);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(reader->Pop(10'000), nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(reader->Closed());
  EXPECT_EQ(bus.SubscriberCount(), 0u);
}

TEST(FrameBus, PopTimesOutWithNothingQueued) {
  FrameBus bus;
  auto reader = bus.Subscribe(8, 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(reader->Pop(30), nullptr);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST(FrameBus, PopWakesForAFrameFromAnotherThread) {
  FrameBus bus;
  auto reader = bus.Subscribe(8, 0);
  std::thread producer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    bus.Publish(Frame(1, true));
  });
  const auto frame = reader->Pop(10'000);
  producer.join();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->pts_100ns, 1);
}

TEST(FrameBus, CloseWakesABlockedReader) {
  FrameBus bus;
  auto reader = bus.Subscribe(8, 0);
  std::thread closer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    bus.Close();
  });
  EXPECT_EQ(reader->Pop(10'000), nullptr);
  closer.join();
  EXPECT_TRUE(reader->Closed());
}

// The audio bus's rule (AudioBus.ClosedBusStoresNothingAndClosesReaders): a closed bus holds no
// history for readers that can never come, whatever its producer still publishes.
TEST(FrameBus, ClosedBusStoresNothingAndClosesReaders) {
  FrameBus bus;
  bus.SetHistory(10);
  bus.Publish(Frame(0, true));
  auto reader = bus.Subscribe(8, 0);
  bus.Close();
  EXPECT_TRUE(reader->Closed());
  EXPECT_EQ(bus.HistorySize(), 0u) << "closing clears the history";
  bus.Publish(Frame(1, true));
  EXPECT_EQ(bus.HistorySize(), 0u);
  EXPECT_EQ(reader->FrontTimestamp(), -1);
  EXPECT_EQ(bus.SubscriberCount(), 0u);
  auto late = bus.Subscribe(8, 1);
  EXPECT_TRUE(late->Closed());
  EXPECT_EQ(late->Primed(), 0u);
}

TEST(FrameBus, SetHistoryZeroEmptiesAndStopsStoring) {
  FrameBus bus;
  bus.SetHistory(10);
  PublishRun(bus, 5, {0});
  bus.SetHistory(0);
  EXPECT_EQ(bus.HistorySize(), 0u);
  PublishRun(bus, 5, {0});
  EXPECT_EQ(bus.HistorySize(), 0u);
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  auto reader = bus.Subscribe(8, 2);
  EXPECT_EQ(reader->Primed(), 0u);
  // An empty history has no keyframe either: the wish could not be met, and that is said.
  EXPECT_NE(testsupport::ReadFileText(dir.path() / "log").find("could not prime a new subscriber"),
            std::string::npos);
}

TEST(FrameBus, SetHistoryDiscardsTheOldest) {
  FrameBus bus;
  bus.SetHistory(10);
  PublishRun(bus, 10, {0, 5});
  bus.SetHistory(5);
  auto reader = bus.Subscribe(8, 1);
  EXPECT_EQ(reader->FrontTimestamp(), 5);
  EXPECT_EQ(reader->Primed(), 5u);
}

TEST(FrameBus, NullFrameIsIgnored) {
  FrameBus bus;
  bus.SetHistory(4);
  auto reader = bus.Subscribe(8, 0);
  bus.Publish(nullptr);
  EXPECT_EQ(reader->FrontTimestamp(), -1);
  bus.Unsubscribe(nullptr);
  EXPECT_EQ(bus.SubscriberCount(), 1u);
}

TEST(FrameBus, FramesAreSharedNotCopied) {
  FrameBus bus;
  auto a = bus.Subscribe(8, 0);
  auto b = bus.Subscribe(8, 0);
  const auto frame = Frame(0, true);
  bus.Publish(frame);
  EXPECT_EQ(a->Pop(0).get(), frame.get());
  EXPECT_EQ(b->Pop(0).get(), frame.get());
}

// A reader on an event loop is woken for what it can take, and never once it has said goodbye.
TEST(FrameBus, AWakeIsCalledForEachQueuedFrameAndAtCloseAndNeverAfterItIsCleared) {
  FrameBus bus;
  auto reader = bus.Subscribe(8, 0);
  int wakes = 0;
  reader->SetWake([&] { ++wakes; });
  bus.Publish(Frame(0, false));
  EXPECT_EQ(wakes, 0) << "a fresh reader waits for a keyframe: nothing was queued";
  bus.Publish(Frame(1, true));
  bus.Publish(Frame(2, false));
  EXPECT_EQ(wakes, 2);
  EXPECT_EQ(reader->TryPop()->pts_100ns, 1);
  EXPECT_EQ(reader->TryPop()->pts_100ns, 2);
  EXPECT_EQ(reader->TryPop(), nullptr);

  reader->SetWake(nullptr);
  bus.Publish(Frame(3, false));
  EXPECT_EQ(wakes, 2) << "cleared: not called";
  EXPECT_EQ(reader->TryPop()->pts_100ns, 3) << "the frame is queued all the same";

  reader->SetWake([&] { ++wakes; });
  bus.Close();
  EXPECT_EQ(wakes, 3) << "the close wakes the reader, which finds it closed";
  EXPECT_TRUE(reader->Closed());
}

}  // namespace
}  // namespace mirell::streams
