#include "mirell/streams/audio_bus.h"

#include <gtest/gtest.h>

#include "test_frames.h"

namespace mirell::streams {
namespace {

using testing::Unit;

std::vector<std::int64_t> Drain(AudioBus::Subscription& subscription) {
  std::vector<std::int64_t> pts;
  while (auto unit = subscription.TryPop()) pts.push_back(unit->pts_100ns);
  return pts;
}

TEST(AudioBus, OverflowDropsTheOldestUnits) {
  AudioBus bus;
  auto reader = bus.Subscribe(4, -1);
  for (int i = 0; i < 7; ++i) bus.Publish(Unit(i));
  EXPECT_EQ(reader->Dropped(), 3u);
  EXPECT_EQ(Drain(*reader), (std::vector<std::int64_t>{3, 4, 5, 6}));
}

TEST(AudioBus, NegativeFromTimestampStartsEmptyWithNominalCapacity) {
  AudioBus bus;
  bus.SetHistory(100);
  for (int i = 0; i < 50; ++i) bus.Publish(Unit(i));
  auto reader = bus.Subscribe(32, -1);
  EXPECT_EQ(reader->Primed(), 0u);
  EXPECT_EQ(reader->TryPop(), nullptr);
  // Capacity is still 32: 33 units lose exactly one.
  for (int i = 50; i < 83; ++i) bus.Publish(Unit(i));
  EXPECT_EQ(reader->Dropped(), 1u);
}

TEST(AudioBus, PrimingTakesUnitsAtOrAfterTheTimestampAndWidensForGood) {
  AudioBus bus;
  bus.SetHistory(100);
  for (int i = 0; i < 60; ++i) bus.Publish(Unit(i * 10));
  auto reader = bus.Subscribe(32, 100);  // Units 10..59: 50 of them.
  EXPECT_EQ(reader->Primed(), 50u);
  ASSERT_EQ(reader->TryPop()->pts_100ns, 100);
  // Capacity is 50 + 16 = 66 and stays: 49 queued + 17 more fit, the 18th drops one.
  for (int i = 0; i < 17; ++i) bus.Publish(Unit(1000 + i));
  EXPECT_EQ(reader->Dropped(), 0u);
  bus.Publish(Unit(2000));
  EXPECT_EQ(reader->Dropped(), 1u);
  Drain(*reader);
  for (int i = 0; i < 66; ++i) bus.Publish(Unit(3000 + i));
  EXPECT_EQ(reader->Dropped(), 1u) << "the widened capacity is not reduced";
}

TEST(AudioBus, PrimingBelowNominalKeepsNominalCapacity) {
  AudioBus bus;
  bus.SetHistory(10);
  for (int i = 0; i < 5; ++i) bus.Publish(Unit(i));
  auto reader = bus.Subscribe(32, 0);
  EXPECT_EQ(reader->Primed(), 5u);
  for (int i = 0; i < 27; ++i) bus.Publish(Unit(100 + i));
  EXPECT_EQ(reader->Dropped(), 0u);
  bus.Publish(Unit(200));
  EXPECT_EQ(reader->Dropped(), 1u);
}

TEST(AudioBus, ClosedBusStoresNothingAndClosesReaders) {
  AudioBus bus;
  bus.SetHistory(10);
  bus.Publish(Unit(0));
  auto reader = bus.Subscribe(8, -1);
  bus.Close();
  EXPECT_TRUE(reader->Closed());
  EXPECT_EQ(bus.HistorySize(), 0u) << "closing clears the history";
  bus.Publish(Unit(1));
  EXPECT_EQ(bus.HistorySize(), 0u);
  EXPECT_EQ(reader->TryPop(), nullptr);
  auto late = bus.Subscribe(8, 0);
  EXPECT_TRUE(late->Closed());
  EXPECT_EQ(bus.SubscriberCount(), 0u);
}

TEST(AudioBus, UnsubscribeClosesAndForgets) {
  AudioBus bus;
  auto reader = bus.Subscribe(8, -1);
  bus.Publish(Unit(0));
  bus.Unsubscribe(reader);
  EXPECT_TRUE(reader->Closed());
  EXPECT_EQ(reader->TryPop(), nullptr);
  EXPECT_EQ(bus.SubscriberCount(), 0u);
  bus.Unsubscribe(nullptr);
}

TEST(AudioBus, SetHistoryZeroEmptiesAndStopsStoring) {
  AudioBus bus;
  bus.SetHistory(3);
  for (int i = 0; i < 5; ++i) bus.Publish(Unit(i));
  EXPECT_EQ(bus.HistorySize(), 3u);
  bus.SetHistory(0);
  EXPECT_EQ(bus.HistorySize(), 0u);
  bus.Publish(Unit(9));
  EXPECT_EQ(bus.HistorySize(), 0u);
}

TEST(AudioBus, NullUnitIsIgnored) {
  AudioBus bus;
  auto reader = bus.Subscribe(8, -1);
  bus.Publish(nullptr);
  EXPECT_EQ(reader->TryPop(), nullptr);
}


TEST(AudioBus, AWakeIsCalledForEachQueuedUnitAndAtCloseAndNeverAfterItIsCleared) {
  AudioBus bus;
  bus.SetHistory(4);
  auto reader = bus.Subscribe(4, -1);
  int wakes = 0;
  reader->SetWake([&] { ++wakes; });
  bus.Publish(Unit(0));
  bus.Publish(Unit(1));
  EXPECT_EQ(wakes, 2);
  EXPECT_EQ(Drain(*reader), (std::vector<std::int64_t>{0, 1}));
  reader->SetWake(nullptr);
  bus.Publish(Unit(2));
  EXPECT_EQ(wakes, 2);
  reader->SetWake([&] { ++wakes; });
  bus.Close();
  EXPECT_EQ(wakes, 3);
  EXPECT_TRUE(reader->Closed());
}

}  // namespace
}  // namespace mirell::streams
