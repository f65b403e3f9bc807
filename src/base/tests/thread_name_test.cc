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

// The name the system shows for a thread that named itself `name`.
std::string ShownInsideAThreadNamed(const char* name) {
  std::string inside;
  std::thread([&] {
    mirell::NameThisThread(name);
    inside = ShownName();
  }).join();
  return inside;
}

TEST(NameThisThread, TheSystemShowsTheNameOfThatThreadOnly) {
  const std::string before = ShownName();
  EXPECT_EQ(ShownInsideAThreadNamed("peer-sender"), "peer-sender");
  EXPECT_EQ(ShownName(), before);
}

TEST(NameThisThread, ALongNameKeepsItsFirstFifteenCharacters) {
  EXPECT_EQ(ShownInsideAThreadNamed("holding-card-builder"), "holding-card-bu");
}

}  // namespace
