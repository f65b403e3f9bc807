#include "mirell/streams/frame_bus.h"

#include <chrono>

#include "bus_history.h"
#include "mirell/base/clock.h"
#include "mirell/base/logging.h"

namespace mirell::streams {

FrameBus::Subscription::Subscription(std::uint64_t max_queue)
    : limit_(max_queue), nominal_limit_(max_queue) {}

void FrameBus::Subscription::Offer(const FramePtr& frame) {
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    if (resyncing_) {
      if (!frame->keyframe) return;
      resyncing_ = false;
    }
    if (queue_.size() >= limit_) {
      // Too slow: everything queued is lost, and so is this frame, even a keyframe, so the
      // reader resumes at the following keyframe.
      dropped_ += queue_.size();
      queue_.clear();
      resyncing_ = true;
      return;
    }
    queue_.push_back(frame);
    if (wake_) wake_();
  }
  ready_.notify_one();
}

void FrameBus::Subscription::Prime(const std::vector<FramePtr>& frames) {
  if (frames.empty()) return;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    queue_.insert(queue_.end(), frames.begin(), frames.end());
    // The backlog plus the reader's usual allowance: a capacity of exactly the backlog drops
    // all of it if one frame is published before the reader's first pop, and the player then
    // waits a whole group of pictures for the next keyframe.
    limit_ = std::max<std::uint64_t>(limit_, queue_.size() + nominal_limit_);
    primed_ = frames.size();
    resyncing_ = false;
  }
  ready_.notify_all();
}

FrameBus::FramePtr FrameBus::Subscription::Pop(int timeout_ms) {
  std::unique_lock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (queue_.empty() && !closed_) {
    if (ready_.wait_until(lock, deadline) == std::cv_status::timeout) break;
  }
  if (queue_.empty()) return nullptr;
  return TakeFront();
}

FrameBus::FramePtr FrameBus::Subscription::TryPop() {
  std::lock_guard lock(mutex_);
  if (queue_.empty()) return nullptr;
  return TakeFront();
}

FrameBus::FramePtr FrameBus::Subscription::TakeFront() {
  FramePtr frame = std::move(queue_.front());
  queue_.pop_front();
  // A primed reader keeps its widened capacity just until the backlog has drained.
  if (limit_ > nominal_limit_ && queue_.size() <= nominal_limit_) limit_ = nominal_limit_;
  return frame;
}

void FrameBus::Subscription::SetWake(std::function<void()> wake) {
  std::lock_guard lock(mutex_);
  wake_ = std::move(wake);
}

void FrameBus::Subscription::Close() {
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    queue_.clear();
    if (wake_) wake_();
  }
  ready_.notify_all();
}

std::uint64_t FrameBus::Subscription::Dropped() const {
  std::lock_guard lock(mutex_);
  return dropped_;
}

std::uint64_t FrameBus::Subscription::Primed() const {
  std::lock_guard lock(mutex_);
  return primed_;
}

bool FrameBus::Subscription::Closed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

std::int64_t FrameBus::Subscription::FrontTimestamp() const {
  std::lock_guard lock(mutex_);
  return queue_.empty() ? -1 : queue_.front()->pts_100ns;
}

void FrameBus::Publish(const FramePtr& frame) {
  if (!frame) return;
  std::vector<std::shared_ptr<Subscription>> readers;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    readers = subscribers_;
    detail::RecordHistory(history_, history_limit_, frame);
    live_edge_ = {frame->pts_100ns, SteadyNowNs()};
  }
  // Outside the bus's lock, so that a reader's lock never nests inside it. A reader that
  // unsubscribes meanwhile sees at most one more offer, which its closed flag rejects.
  for (const auto& reader : readers) reader->Offer(frame);
}

FrameBus::LiveEdge FrameBus::live_edge() const {
  std::lock_guard lock(mutex_);
  return live_edge_;
}

namespace {

// The start of a new reader's backlog: the newest keyframe that leaves at least `wanted` frames
// behind it, else the oldest keyframe, else none (history.size()).
std::size_t BacklogStart(const std::deque<FrameBus::FramePtr>& history, std::uint64_t wanted) {
  const std::size_t n = history.size();
  std::size_t first_key = n;
  std::size_t best = n;
  for (std::size_t i = 0; i < n; ++i) {
    if (!history[i]->keyframe) continue;
    if (first_key == n) first_key = i;
    if (n - i >= wanted) best = i;
  }
  return best != n ? best : first_key;
}

}  // namespace

std::shared_ptr<FrameBus::Subscription> FrameBus::Subscribe(std::uint64_t max_queue,
                                                            std::uint64_t prime_frames) {
  auto subscription = std::make_shared<Subscription>(max_queue);
  bool primed = false;
  {
    std::lock_guard lock(mutex_);
    if (closed_) {
      subscription->Close();
      return subscription;
    }
    if (prime_frames != 0 && !history_.empty()) {
      const auto start = history_.begin() + static_cast<std::ptrdiff_t>(BacklogStart(history_, prime_frames));
      const std::vector<FramePtr> backlog(start, history_.end());
      primed = !backlog.empty();
      // Primed under the bus's lock, so that no frame published meanwhile can be queued ahead of
      // the backlog and make a new reader's time go backward.
      subscription->Prime(backlog);
    }
    subscribers_.push_back(subscription);
  }
  if (prime_frames != 0 && !primed) {
    LOG_WARN("could not prime a new subscriber - no keyframe in {} frames of history. It will "
             "start unbuffered.",
             prime_frames);
  }
  return subscription;
}

void FrameBus::Unsubscribe(const std::shared_ptr<Subscription>& subscription) {
  if (!subscription) return;
  subscription->Close();
  std::lock_guard lock(mutex_);
  detail::EraseSubscriber(subscribers_, subscription);
}

void FrameBus::SetHistory(std::uint64_t limit) {
  std::lock_guard lock(mutex_);
  history_limit_ = limit;
  detail::TrimHistory(history_, limit);
}

void FrameBus::Close() {
  std::vector<std::shared_ptr<Subscription>> readers;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    readers.swap(subscribers_);
    history_.clear();
  }
  for (const auto& reader : readers) reader->Close();
}

void FrameBus::EndReaders() { detail::CloseSubscribers(mutex_, subscribers_); }

std::size_t FrameBus::SubscriberCount() const {
  std::lock_guard lock(mutex_);
  return subscribers_.size();
}

std::size_t FrameBus::HistorySize() const {
  std::lock_guard lock(mutex_);
  return history_.size();
}

}  // namespace mirell::streams
