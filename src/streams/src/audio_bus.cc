#include "mirell/streams/audio_bus.h"

#include <algorithm>

#include "bus_history.h"

namespace mirell::streams {

namespace {
// Room a primed audio reader keeps beyond its backlog.
constexpr std::uint64_t kPrimedHeadroom = 16;
}  // namespace

AudioBus::Subscription::Subscription(std::uint64_t max_queue) : limit_(max_queue) {}

void AudioBus::Subscription::Offer(const FramePtr& unit) {
  std::lock_guard lock(mutex_);
  if (closed_) return;
  while (!queue_.empty() && queue_.size() >= limit_) {
    queue_.pop_front();
    ++dropped_;
  }
  queue_.push_back(unit);
  if (wake_) wake_();
}

void AudioBus::Subscription::Prime(const std::vector<FramePtr>& units) {
  std::lock_guard lock(mutex_);
  if (closed_) return;
  queue_.insert(queue_.end(), units.begin(), units.end());
  primed_ = units.size();
  limit_ = std::max<std::uint64_t>(limit_, units.size() + kPrimedHeadroom);
}

AudioBus::FramePtr AudioBus::Subscription::TryPop() {
  std::lock_guard lock(mutex_);
  if (queue_.empty()) return nullptr;
  FramePtr unit = std::move(queue_.front());
  queue_.pop_front();
  return unit;
}

void AudioBus::Subscription::Close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  queue_.clear();
  if (wake_) wake_();
}

void AudioBus::Subscription::SetWake(std::function<void()> wake) {
  std::lock_guard lock(mutex_);
  wake_ = std::move(wake);
}

std::uint64_t AudioBus::Subscription::Dropped() const {
  std::lock_guard lock(mutex_);
  return dropped_;
}

std::uint64_t AudioBus::Subscription::Primed() const {
  std::lock_guard lock(mutex_);
  return primed_;
}

bool AudioBus::Subscription::Closed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

void AudioBus::Publish(const FramePtr& unit) {
  if (!unit) return;
  std::lock_guard lock(mutex_);
  if (closed_) return;
  detail::RecordHistory(history_, history_limit_, unit);
  // Under the bus's lock: an audio offer is cheap and never waits.
  for (const auto& reader : subscribers_) reader->Offer(unit);
}

std::shared_ptr<AudioBus::Subscription> AudioBus::Subscribe(std::uint64_t max_queue,
                                                            std::int64_t from_timestamp) {
  auto subscription = std::make_shared<Subscription>(max_queue);
  std::lock_guard lock(mutex_);
  if (closed_) {
    subscription->Close();
    return subscription;
  }
  if (from_timestamp >= 0 && !history_.empty()) {
    std::vector<FramePtr> backlog;
    std::copy_if(history_.begin(), history_.end(), std::back_inserter(backlog),
                 [&](const FramePtr& unit) { return unit->pts_100ns >= from_timestamp; });
    if (!backlog.empty()) subscription->Prime(backlog);
  }
  subscribers_.push_back(subscription);
  return subscription;
}

void AudioBus::Unsubscribe(const std::shared_ptr<Subscription>& subscription) {
  if (!subscription) return;
  subscription->Close();
  std::lock_guard lock(mutex_);
  detail::EraseSubscriber(subscribers_, subscription);
}

void AudioBus::SetHistory(std::uint64_t limit) {
  std::lock_guard lock(mutex_);
  history_limit_ = limit;
  detail::TrimHistory(history_, limit);
}

void AudioBus::Close() {
  std::vector<std::shared_ptr<Subscription>> readers;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    readers.swap(subscribers_);
    history_.clear();
  }
  for (const auto& reader : readers) reader->Close();
}

void AudioBus::EndReaders() { detail::CloseSubscribers(mutex_, subscribers_); }

std::size_t AudioBus::SubscriberCount() const {
  std::lock_guard lock(mutex_);
  return subscribers_.size();
}

std::size_t AudioBus::HistorySize() const {
  std::lock_guard lock(mutex_);
  return history_.size();
}

}  // namespace mirell::streams
