// One producer at 240 frames per second, twenty readers of every pace. The producer must never
// wait for a reader, slow readers must resume at keyframes and count what they lost, and every
// frame must be freed at the end.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "mirell/streams/frame_bus.h"

namespace mirell::streams {
namespace {

constexpr int kFrames = 480;          // 2 s at 240 frames per second.
constexpr int kKeyframeInterval = 24; // A keyframe every 0.1 s.
constexpr auto kFramePeriod = std::chrono::microseconds(1'000'000 / 240);

std::atomic<int> frames_alive{0};

FrameBus::FramePtr CountedFrame(int index) {
  frames_alive.fetch_add(1);
  auto* frame = new encode::EncodedFrame{{0, 0, 0, 1, 0x65}, index, 41666, index % kKeyframeInterval == 0};
  return FrameBus::FramePtr(frame, [](const encode::EncodedFrame* f) {
    delete f;
    frames_alive.fetch_sub(1);
  });
}

enum class Pace { kFast, kSlow, kStalled };

struct ReaderReport {
  Pace pace = Pace::kFast;
  std::vector<std::int64_t> received;
  std::vector<bool> keyframe;
  std::uint64_t dropped = 0;
};

// Every run of consecutive frames must begin with a keyframe: that is how a reader resyncs.
void ExpectResyncsAtKeyframes(const ReaderReport& report, int reader) {
  for (std::size_t i = 0; i < report.received.size(); ++i) {
    if (i > 0) {
      ASSERT_GT(report.received[i], report.received[i - 1]) << "reader " << reader;
    }
    const bool gap = i == 0 || report.received[i] != report.received[i - 1] + 1;
    if (gap) {
      EXPECT_TRUE(report.keyframe[i]) << "reader " << reader << " resumed at frame "
                                      << report.received[i] << " which is no keyframe";
    }
  }
}

TEST(BusStress, ProducerNeverWaitsAndSlowReadersResyncAtKeyframes) {
  ASSERT_EQ(frames_alive.load(), 0);
  {
    FrameBus bus;
    bus.SetHistory(48);
    std::atomic<bool> producing{true};
    std::vector<ReaderReport> reports(20);
    std::vector<std::shared_ptr<FrameBus::Subscription>> subscriptions;
    for (int i = 0; i < 20; ++i) {
      reports[static_cast<std::size_t>(i)].pace = i < 12 ? Pace::kFast : i < 17 ? Pace::kSlow : Pace::kStalled;
      const std::uint64_t queue = i < 12 ? 240 : 8;
      subscriptions.push_back(bus.Subscribe(queue, 0));
    }

    std::vector<std::thread> readers;
    for (int i = 0; i < 20; ++i) {
      readers.emplace_back([&, i] {
        auto& report = reports[static_cast<std::size_t>(i)];
        auto& subscription = *subscriptions[static_cast<std::size_t>(i)];
        if (report.pace == Pace::kStalled) {
          // Never reads while the producer runs.
          while (producing.load()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        while (auto frame = subscription.Pop(200)) {
          report.received.push_back(frame->pts_100ns);
          report.keyframe.push_back(frame->keyframe);
          if (report.pace == Pace::kSlow) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        report.dropped = subscription.Dropped();
      });
    }

    // Readers that come and go while the producer runs, primed from the history.
    std::atomic<int> churn_violations{0};
    std::atomic<int> churn_cycles{0};
    std::thread churner([&] {
      while (producing.load()) {
        auto subscription = bus.Subscribe(8, 12);
        if (auto first = subscription->Pop(50); first && !first->keyframe) churn_violations.fetch_add(1);
        bus.Unsubscribe(subscription);
        churn_cycles.fetch_add(1);
      }
    });

    auto next = std::chrono::steady_clock::now();
    for (int i = 0; i < kFrames; ++i) {
      bus.Publish(CountedFrame(i));
      next += kFramePeriod;
      std::this_thread::sleep_until(next);
    }
    producing.store(false);
    churner.join();
    // Let the readers drain what is queued, then end them.
    const auto drain_deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (const auto& subscription : subscriptions) {
      while (subscription->FrontTimestamp() != -1 && std::chrono::steady_clock::now() < drain_deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
    bus.Close();
    for (auto& reader : readers) reader.join();

    EXPECT_EQ(churn_violations.load(), 0);
    EXPECT_GT(churn_cycles.load(), 0);
    EXPECT_EQ(bus.SubscriberCount(), 0u);
    for (int i = 0; i < 20; ++i) {
      const auto& report = reports[static_cast<std::size_t>(i)];
      ExpectResyncsAtKeyframes(report, i);
      switch (report.pace) {
        case Pace::kFast:
          EXPECT_EQ(report.dropped, 0u) << "reader " << i;
          ASSERT_FALSE(report.received.empty());
          EXPECT_EQ(report.received.front(), 0);
          EXPECT_EQ(report.received.size(), static_cast<std::size_t>(kFrames)) << "reader " << i;
          break;
        case Pace::kSlow:
          EXPECT_GT(report.dropped, 0u) << "reader " << i;
          EXPECT_GT(report.received.size(), 0u) << "reader " << i;
          break;
        case Pace::kStalled:
          EXPECT_GT(report.dropped, 0u) << "reader " << i;
          EXPECT_LE(report.received.size(), 8u) << "reader " << i;
          break;
      }
    }
  }
  EXPECT_EQ(frames_alive.load(), 0) << "frames leaked";
}

// A keyframe published while a reader subscribes must queue behind the reader's primed backlog,
// never ahead of it: a player's time stamps must not go backward.
TEST(BusStress, ReadersPrimedWhileKeyframesPourInSeeTimeOnlyRise) {
  FrameBus bus;
  bus.SetHistory(8);
  std::atomic<bool> producing{true};
  std::thread producer([&] {
    std::int64_t pts = 0;
    while (producing.load()) {
      bus.Publish(std::make_shared<encode::EncodedFrame>(
          encode::EncodedFrame{{0, 0, 0, 1, 0x65}, pts++, 1, true}));
    }
  });
  int backward = 0;
  int subscriptions = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < until || subscriptions < 2000) {
    auto reader = bus.Subscribe(64, 4);
    ++subscriptions;
    std::int64_t last = -1;
    for (int i = 0; i < 8; ++i) {
      const auto frame = reader->Pop(100);
      if (!frame) break;
      if (frame->pts_100ns <= last) ++backward;
      last = frame->pts_100ns;
    }
    bus.Unsubscribe(reader);
  }
  producing.store(false);
  producer.join();
  EXPECT_EQ(backward, 0) << "in " << subscriptions << " subscriptions";
}

}  // namespace
}  // namespace mirell::streams
