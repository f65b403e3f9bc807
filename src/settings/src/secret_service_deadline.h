// Linux: a bound on one call into the Secret Service. A store that hangs (or waits on an unlock
// prompt nobody answers) must end in an empty result, never a frozen window.
#pragma once

#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "mirell/base/thread_name.h"

namespace mirell::settings {

// Cancels the store's call when it outlives `limit`.
class Deadline {
 public:
  explicit Deadline(std::chrono::seconds limit) : cancellable_(g_cancellable_new()) {
    watcher_ = std::thread([this, limit] {
      NameThisThread("secret-watch");
      std::unique_lock hold(mutex_);
      if (!done_condition_.wait_for(hold, limit, [this] { return done_; })) {
        g_cancellable_cancel(cancellable_);
      }
    });
  }
  ~Deadline() {
    {
      std::lock_guard hold(mutex_);
      done_ = true;
    }
    done_condition_.notify_one();
    watcher_.join();
    g_object_unref(cancellable_);
  }
  GCancellable* cancellable() const { return cancellable_; }

 private:
  GCancellable* cancellable_;
  std::mutex mutex_;
  std::condition_variable done_condition_;
  bool done_ = false;
  std::thread watcher_;
};

}  // namespace mirell::settings
