#include "mirell/base/serial_worker.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

#include "mirell/testsupport/eventually.h"

namespace mirell {
namespace {

TEST(SerialWorker, TasksRunInTheOrderTheyCame) {
  SerialWorker worker("test-worker", 16);
  std::vector<int> seen;
  std::promise<void> done;
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(worker.Post([&seen, i] { seen.push_back(i); }));
  EXPECT_TRUE(worker.Post([&done] { done.set_value(); }));
  done.get_future().wait();
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(SerialWorker, AFullQueueRefusesAndStopDropsWhatWaitsWithoutRunningIt) {
  SerialWorker worker("test-worker", 2);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> started;
  EXPECT_TRUE(worker.Post([&started, released] {
    started.set_value();
    released.wait();
  }));
  started.get_future().wait();  // The first task holds the thread; the queue is empty again.
  auto kept = std::make_shared<int>(0);
  int ran = 0;
  EXPECT_TRUE(worker.Post([kept, &ran] { ++ran; }));
  EXPECT_TRUE(worker.Post([kept, &ran] { ++ran; }));
  EXPECT_FALSE(worker.Post([&ran] { ++ran; })) << "the queue holds two";
  EXPECT_EQ(kept.use_count(), 3);
  // Stop drops the two that wait at once, then waits for the running task.
  std::thread stopper([&worker] { worker.Stop(); });
  EXPECT_TRUE(testsupport::Eventually([&] { return kept.use_count() == 1; }));
  release.set_value();
  stopper.join();
  EXPECT_FALSE(worker.Post([&ran] { ++ran; })) << "nothing is taken after Stop";
  EXPECT_EQ(ran, 0) << "waiting tasks are dropped, not run";
  EXPECT_EQ(worker.ran(), 1u);
  worker.Stop();
}

TEST(SerialWorker, AFailingTaskDoesNotEndTheWorker) {
  SerialWorker worker("test-worker", 4);
  std::promise<void> done;
  EXPECT_TRUE(worker.Post([] { throw std::runtime_error("broken"); }));
  EXPECT_TRUE(worker.Post([&done] { done.set_value(); }));
  done.get_future().wait();
  EXPECT_TRUE(testsupport::Eventually([&] { return worker.ran() == 2u; }));
}

}  // namespace
}  // namespace mirell
