#include "mirell/base/thread_name.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "mirell/testsupport/subprocess.h"

namespace {

// The name the system shows for the calling thread.
std::string ShownName() {
  const auto tid = static_cast<long>(syscall(SYS_gettid));
  std::string text = mirell::testsupport::ReadFileText("/proc/self/task/" + std::to_string(tid) + "/comm");
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

TEST(NameThisThread, TheSystemShowsTheNameOfThatThreadOnly) {
  const std::string before = ShownName();
  std::string inside;
  std::thread([&] {
    mirell::NameThisThread("peer-sender");
    inside = ShownName();
  }).join();
  EXPECT_EQ(inside, "peer-sender");
  EXPECT_EQ(ShownName(), before);
}

TEST(NameThisThread, ALongNameKeepsItsFirstFifteenCharacters) {
  std::string inside;
  std::thread([&] {
    mirell::NameThisThread("holding-card-builder");
    inside = ShownName();
  }).join();
  EXPECT_EQ(inside, "holding-card-bu");
}

}  // namespace
