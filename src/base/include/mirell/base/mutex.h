// A mutex and its scoped lock that clang's thread-safety analysis understands: members marked
// MIRELL_GUARDED_BY(mutex_) may only be touched with mutex_ held, and functions marked
// MIRELL_REQUIRES(mutex_) only be called so; a clang build refuses code that breaks that.
#pragma once

#include <mutex>

#include "mirell/base/thread_annotations.h"

namespace mirell {

class MIRELL_CAPABILITY("mutex") Mutex {
 public:
  void lock() MIRELL_ACQUIRE() { mutex_.lock(); }
  void unlock() MIRELL_RELEASE() { mutex_.unlock(); }
  bool try_lock() MIRELL_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  std::mutex mutex_;
};

// Holds the mutex from construction to destruction, or until Unlock.
class MIRELL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) MIRELL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() MIRELL_RELEASE() {
    if (held_) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Lets go early; the destructor then does nothing.
  void Unlock() MIRELL_RELEASE() {
    held_ = false;
    mutex_.unlock();
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

}  // namespace mirell
