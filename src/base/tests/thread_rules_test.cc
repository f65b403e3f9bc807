// The annotated mutex and the owner-thread check.
#include <gtest/gtest.h>

#include <thread>

#include "mirell/base/mutex.h"
#include "mirell/base/thread_checker.h"

namespace mirell {
namespace {

TEST(ThreadChecker, TheThreadThatMadeItIsTheOwnerAndNoOtherIs) {
  const ThreadChecker checker;
  EXPECT_TRUE(checker.CalledOnOwner());
  bool elsewhere = true;
  std::thread([&] { elsewhere = checker.CalledOnOwner(); }).join();
  EXPECT_FALSE(elsewhere);
}

#ifndef NDEBUG
TEST(ThreadCheckerDeathTest, ADebugBuildAbortsOnACallFromAnotherThread) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const ThreadChecker checker;
  MIRELL_DCHECK_OWNER_THREAD(checker);  // The owner passes.
  EXPECT_DEATH(std::thread([&] { MIRELL_DCHECK_OWNER_THREAD(checker); }).join(),
               "called from a thread other than the one its object belongs to");
}
#endif

TEST(MutexLock, HoldsUntilItEndsOrUnlocks) {
  Mutex mutex;
  const auto free_elsewhere = [&] {
    bool taken = false;
    std::thread([&] {
      taken = mutex.try_lock();
      if (taken) mutex.unlock();
    }).join();
    return taken;
  };
  {
    MutexLock lock(mutex);
    EXPECT_FALSE(free_elsewhere());
    lock.Unlock();
    EXPECT_TRUE(free_elsewhere());
  }
  EXPECT_TRUE(free_elsewhere()) << "the destructor does not unlock twice";
  {
    MutexLock lock(mutex);
  }
  EXPECT_TRUE(free_elsewhere());
}

}  // namespace
}  // namespace mirell
