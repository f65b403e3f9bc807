// One thread that runs posted tasks in the order they came, for work that may wait on something
// another program controls (a pipeline, a resolver) and so must not run on the interface thread
// or under a caller's lock.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace mirell {

class SerialWorker {
 public:
  // `name` names the thread (15 characters at most show); at most `max_queued` tasks wait.
  SerialWorker(std::string name, std::size_t max_queued);
  // Stops.
  ~SerialWorker();
  SerialWorker(const SerialWorker&) = delete;
  SerialWorker& operator=(const SerialWorker&) = delete;

  // Queues a task; false (and the task is dropped, not run) when the queue is full or the worker
  // has stopped. Any thread, never blocks on a task. A task's exception is logged and dropped.
  bool Post(std::function<void()> task);
  // Lets the task in progress finish, drops those that wait (they are destroyed, not run) and
  // joins the thread; a second call does nothing. Not from a task.
  void Stop();
  // Tasks run so far; for tests.
  std::size_t ran() const;

 private:
  void Run();

  const std::string name_;
  const std::size_t max_queued_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_;
  bool stopping_ = false;
  std::size_t ran_ = 0;
  std::thread thread_;
};

}  // namespace mirell
