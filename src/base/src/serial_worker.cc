#include "mirell/base/serial_worker.h"

#include <exception>
#include <utility>

#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"

namespace mirell {

SerialWorker::SerialWorker(std::string name, std::size_t max_queued)
    : name_(std::move(name)), max_queued_(max_queued), thread_([this] { Run(); }) {}

SerialWorker::~SerialWorker() { Stop(); }

bool SerialWorker::Post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || tasks_.size() >= max_queued_) return false;
    tasks_.push_back(std::move(task));
  }
  changed_.notify_one();
  return true;
}

void SerialWorker::Stop() {
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    dropped.swap(tasks_);
  }
  changed_.notify_all();
  // Destroyed outside the lock (a task may hold what a destructor closes), and before the wait
  // for the running one, which may be long.
  dropped.clear();
  if (thread_.joinable()) thread_.join();
}

std::size_t SerialWorker::ran() const {
  std::lock_guard lock(mutex_);
  return ran_;
}

void SerialWorker::Run() {
  NameThisThread(name_);
  while (true) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      if (stopping_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    try {
      task();
    } catch (const std::exception& error) {
      LOG_WARN("{}: a task failed: {}", name_, error.what());
    }
    std::lock_guard lock(mutex_);
    ++ran_;
  }
}

}  // namespace mirell
