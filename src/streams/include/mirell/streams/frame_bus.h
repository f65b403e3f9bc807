// The video bus: encoded access units from one producer to any number of readers, each at its
// own pace. A slow reader never slows the producer or another reader: it loses its queue and
// resumes at a later keyframe. A short history lets a late reader start primed with a keyframe
// that is already behind us.
//
// Lock order: the bus's lock before a subscription's, taken together only to prime a new reader;
// frames are offered outside the bus's lock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "mirell/encode/encoded_frame.h"

namespace mirell::streams {

class FrameBus {
 public:
  using FramePtr = encode::EncodedFramePtr;

  // One reader's queue. Held by the bus and by its reader; any thread may call it, but only one
  // reader should Pop.
  class Subscription {
   public:
    explicit Subscription(std::uint64_t max_queue);

    // Called by the bus only: the drop and resync rule.
    void Offer(const FramePtr& frame);
    // Called by the bus only: queues a backlog from the history and widens the capacity to it plus
    // the usual allowance, until the backlog has drained.
    void Prime(const std::vector<FramePtr>& frames);

    // Blocks until a frame is there, the subscription is closed, or `timeout_ms` have passed;
    // returns the oldest frame or null.
    FramePtr Pop(int timeout_ms);
    // Never blocks: the oldest frame, or null.
    FramePtr TryPop();
    // For readers that wait on an event loop rather than in Pop: `wake` is called whenever a
    // frame is queued or the subscription closed (a primed backlog is there before it can be
    // set: the reader takes it at once), on the thread that does it
    // and under the subscription's lock, so that it is never called once SetWake(nullptr) has
    // returned. It must be quick and must not call the subscription or the bus (post, don't
    // work).
    void SetWake(std::function<void()> wake);
    // Final: empties the queue and wakes every waiter.
    void Close();

    std::uint64_t Dropped() const;
    std::uint64_t Primed() const;
    bool Closed() const;
    // Time stamp of the oldest queued frame, or -1 when the queue is empty.
    std::int64_t FrontTimestamp() const;

   private:
    FramePtr TakeFront();  // Under the lock, with a frame queued.

    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<FramePtr> queue_;
    std::uint64_t limit_;
    std::uint64_t nominal_limit_;
    std::uint64_t primed_ = 0;
    bool resyncing_ = true;
    bool closed_ = false;
    std::uint64_t dropped_ = 0;
    std::function<void()> wake_;
  };

  FrameBus() = default;
  FrameBus(const FrameBus&) = delete;
  FrameBus& operator=(const FrameBus&) = delete;

  // Producer thread. Never waits for a reader. A null frame is ignored; after Close nothing is
  // stored or delivered.
  void Publish(const FramePtr& frame);
  // A new reader with `max_queue` capacity, primed with at least `prime_frames` frames from the
  // newest keyframe that allows it (0: no priming, start at the next keyframe). On a closed bus
  // the subscription comes back closed.
  std::shared_ptr<Subscription> Subscribe(std::uint64_t max_queue, std::uint64_t prime_frames);
  // Closes the subscription and forgets it. Null does nothing.
  void Unsubscribe(const std::shared_ptr<Subscription>& subscription);
  // Keeps at most `limit` frames of history; 0 keeps none.
  void SetHistory(std::uint64_t limit);
  // Final: closes every subscriber and clears the history (the audio bus's rule too).
  void Close();
  // Closes every present subscriber but stays open: later readers subscribe as usual. For a
  // stream that goes on under a new name while the readers of the old one must end.
  void EndReaders();
  std::size_t SubscriberCount() const;
  // Frames held for priming; for statistics and tests.
  std::size_t HistorySize() const;

  // The newest frame published and when (steady clock, ns): "now" in the stream's media time
  // is its time plus what has passed since. pts_100ns is -1 before the first frame.
  struct LiveEdge {
    std::int64_t pts_100ns = -1;
    std::int64_t published_ns = 0;
  };
  LiveEdge live_edge() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<Subscription>> subscribers_;
  std::deque<FramePtr> history_;
  std::uint64_t history_limit_ = 0;
  bool closed_ = false;
  LiveEdge live_edge_;
};

}  // namespace mirell::streams
