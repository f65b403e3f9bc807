// Pieces the video and audio buses share. Callers hold the bus's lock.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace mirell::daemon::detail {

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

}  // namespace mirell::daemon::detail
