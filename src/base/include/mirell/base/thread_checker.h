// "Call only from the thread that made me": the rule of classes driven by the interface thread
// (the sharing side, the process's host of services), checked in debug builds, where a call from
// another thread logs where it came from and aborts. Release builds check nothing.
#pragma once

#include <thread>

namespace mirell {

class ThreadChecker {
 public:
  ThreadChecker() : owner_(std::this_thread::get_id()) {}
  bool CalledOnOwner() const { return std::this_thread::get_id() == owner_; }

 private:
  const std::thread::id owner_;
};

// Logs `operation` at error and aborts; what MIRELL_DCHECK_OWNER_THREAD calls on a wrong thread.
[[noreturn]] void FailOwnerThreadCheck(const char* operation);

}  // namespace mirell

#ifdef NDEBUG
#define MIRELL_DCHECK_OWNER_THREAD(checker) static_cast<void>(sizeof(checker))
#else
#define MIRELL_DCHECK_OWNER_THREAD(checker)                                              \
  do {                                                                                   \
    if (!(checker).CalledOnOwner()) ::mirell::FailOwnerThreadCheck(__PRETTY_FUNCTION__); \
  } while (false)
#endif
