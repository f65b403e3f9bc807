#include "signal_server_check.h"

#include <algorithm>

#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"

namespace mirell::ui {

SignalServerCheck::SignalServerCheck(Probe probe, Limits limits,
                                     std::function<Clock::time_point()> now)
    : probe_(std::move(probe)), limits_(limits), now_(std::move(now)) {}

SignalServerCheck::~SignalServerCheck() {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(mutex_);
    threads = std::move(threads_);
  }
  for (std::thread& thread : threads) thread.join();
}

bool SignalServerCheck::IsSignalServer(const std::string& signal_url) {
  std::unique_lock lock(mutex_);
  Reap();
  const auto kept = answers_.find(signal_url);
  if (kept != answers_.end() && now_() - kept->second.at < limits_.keep) return kept->second.yes;

  std::shared_ptr<Running> running;
  if (const auto out = running_.find(signal_url); out != running_.end()) {
    running = out->second;  // Asked already by a caller that gave up on it: wait for the same.
  } else {
    if (running_.size() >= limits_.max_running) {
      LOG_WARN("{} not asked whether it is a signal server: {} questions are still out",
               signal_url, running_.size());
      return false;
    }
    running = std::make_shared<Running>();
    running_[signal_url] = running;
    ++probes_;
    threads_.emplace_back([this, signal_url, running] {
      NameThisThread("server-check");
      const bool yes = probe_(signal_url);
      std::lock_guard done_lock(mutex_);
      running->done = true;
      running->yes = yes;
      answers_[signal_url] = Answer{yes, now_()};
      running_.erase(signal_url);
      ended_.push_back(std::this_thread::get_id());
      answered_.notify_all();
    });
  }
  if (!answered_.wait_for(lock, limits_.bound, [&] { return running->done; })) {
    LOG_INFO("{} did not say within {} ms whether it is a signal server: taken as not", signal_url,
             limits_.bound.count());
    // Kept until the probe ends and says otherwise.
    answers_[signal_url] = Answer{false, now_()};
    return false;
  }
  LOG_INFO("{} {} a Mirell signal server", signal_url, running->yes ? "is" : "is not");
  return running->yes;
}

std::uint64_t SignalServerCheck::probes() const {
  std::lock_guard lock(mutex_);
  return probes_;
}

void SignalServerCheck::Reap() {
  for (const std::thread::id id : ended_) {
    const auto found = std::find_if(threads_.begin(), threads_.end(),
                                    [id](const std::thread& thread) { return thread.get_id() == id; });
    if (found == threads_.end()) continue;
    found->join();
    threads_.erase(found);
  }
  ended_.clear();
}

}  // namespace mirell::ui
