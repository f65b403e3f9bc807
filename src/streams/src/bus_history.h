// Pieces the video and audio buses share. Callers hold the bus's lock, except where a piece
// says it takes it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace mirell::streams::detail {

template <typename T>
void TrimHistory(std::deque<T>& history, std::uint64_t limit) {
  while (history.size() > limit) history.pop_front();
}

// Appends unless history is off (limit 0), then keeps at most `limit` entries.
template <typename T>
void RecordHistory(std::deque<T>& history, std::uint64_t limit, const T& item) {
  if (limit == 0) return;
  history.push_back(item);
  TrimHistory(history, limit);
}

template <typename S>
void EraseSubscriber(std::vector<std::shared_ptr<S>>& subscribers, const std::shared_ptr<S>& one) {
  subscribers.erase(std::remove(subscribers.begin(), subscribers.end(), one), subscribers.end());
}

// Takes every subscriber out under the bus's `mutex` and closes each outside it (a subscription's
// lock comes after the bus's, and no lock is held across a close).
template <typename S>
void CloseSubscribers(std::mutex& mutex, std::vector<std::shared_ptr<S>>& subscribers) {
  std::vector<std::shared_ptr<S>> readers;
  {
    std::lock_guard lock(mutex);
    readers.swap(subscribers);
  }
  for (const auto& reader : readers) reader->Close();
}

}  // namespace mirell::streams::detail
