// The audio bus: like the video bus, but an AAC access unit stands by itself, so a slow reader
// just loses its oldest units, and a reader only polls. Lock order: the bus's lock before a
// subscription's; offers happen under the bus's lock because they never wait.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "mirell/encode/encoded_frame.h"

namespace mirell::streams {

class AudioBus {
 public:
  using FramePtr = encode::EncodedAudioFramePtr;

  class Subscription {
   public:
    explicit Subscription(std::uint64_t max_queue);

    // Called by the bus only: appends, discarding (and counting) the oldest units when full.
    void Offer(const FramePtr& unit);
    // Called by the bus only: queues a backlog and widens the capacity to it + 16 for good.
    void Prime(const std::vector<FramePtr>& units);

    // Never blocks: the oldest unit, or null.
    FramePtr TryPop();
    // As FrameBus::Subscription::SetWake: called under the subscription's lock whenever a unit is
    // queued or the subscription closed.
    void SetWake(std::function<void()> wake);
    void Close();

    std::uint64_t Dropped() const;
    std::uint64_t Primed() const;
    bool Closed() const;

   private:
    mutable std::mutex mutex_;
    std::deque<FramePtr> queue_;
    std::uint64_t limit_;
    std::uint64_t primed_ = 0;
    bool closed_ = false;
    std::uint64_t dropped_ = 0;
    std::function<void()> wake_;
  };

  AudioBus() = default;
  AudioBus(const AudioBus&) = delete;
  AudioBus& operator=(const AudioBus&) = delete;

  // Producer thread. A null unit is ignored; after Close nothing is stored or delivered.
  void Publish(const FramePtr& unit);
  // A new reader primed with every unit of the history at or after `from_timestamp` (negative:
  // start empty). On a closed bus the subscription comes back closed.
  std::shared_ptr<Subscription> Subscribe(std::uint64_t max_queue, std::int64_t from_timestamp);
  void Unsubscribe(const std::shared_ptr<Subscription>& subscription);
  void SetHistory(std::uint64_t limit);
  // Final: closes every subscriber and clears the history (the video bus's rule too).
  void Close();
  // Closes every present subscriber but stays open, history kept (the video bus's rule too).
  void EndReaders();
  std::size_t SubscriberCount() const;
  // Frames held for priming; for statistics and tests.
  std::size_t HistorySize() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<Subscription>> subscribers_;
  std::deque<FramePtr> history_;
  std::uint64_t history_limit_ = 0;
  bool closed_ = false;
};

}  // namespace mirell::streams
