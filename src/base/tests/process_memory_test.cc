#include "mirell/base/process_memory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "mirell/testsupport/subprocess.h"

namespace {

constexpr std::size_t kHugePage = 2u << 20;

// Kilobytes of transparent huge pages backing the mapping that starts at `start`.
long HugeKilobytesAt(const void* start) {
  std::ifstream smaps("/proc/self/smaps");
  char prefix[32];
  std::snprintf(prefix, sizeof prefix, "%lx-", reinterpret_cast<unsigned long>(start));
  std::string line;
  bool inside = false;
  while (std::getline(smaps, line)) {
    if (line.find('-') != std::string::npos && line.find(' ') > line.find('-') &&
        std::isxdigit(static_cast<unsigned char>(line[0]))) {
      inside = line.rfind(prefix, 0) == 0;
    } else if (inside && line.rfind("AnonHugePages:", 0) == 0) {
      return std::stol(line.substr(14));
    }
  }
  return -1;
}

// Huge kilobytes behind a buffer that asks for huge pages and touches one byte of each 2 MB, in a
// child process so the setting stays out of the other tests. Negative when the child failed.
long HugeKilobytesOfAdvisedBuffer(bool small_pages_only) {
  int pipe_ends[2];
  if (pipe(pipe_ends) != 0) return -2;
  const pid_t child = fork();
  if (child == 0) {
    close(pipe_ends[0]);
    long result = -3;
    if (!small_pages_only || mirell::KeepToSmallPages()) {
      // Aligned to a huge page within a larger mapping, then the rest unmapped, so that the
      // buffer is a mapping of its own.
      const std::size_t size = 4 * kHugePage;
      auto* raw = static_cast<char*>(
          mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
      if (raw != MAP_FAILED) {
        const auto at = (reinterpret_cast<std::uintptr_t>(raw) + kHugePage - 1) & ~(kHugePage - 1);
        char* buffer = reinterpret_cast<char*>(at);
        if (buffer != raw) munmap(raw, static_cast<std::size_t>(buffer - raw));
        const std::size_t tail = static_cast<std::size_t>(raw + size + kHugePage - (buffer + size));
        if (tail > 0) munmap(buffer + size, tail);
        madvise(buffer, size, MADV_HUGEPAGE);
        for (std::size_t offset = 0; offset < size; offset += kHugePage) buffer[offset] = 1;
        result = HugeKilobytesAt(buffer);
      }
    }
    if (write(pipe_ends[1], &result, sizeof result) != sizeof result) _exit(1);
    _exit(0);
  }
  close(pipe_ends[1]);
  long result = -4;
  if (read(pipe_ends[0], &result, sizeof result) != sizeof result) result = -5;
  close(pipe_ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return result;
}

bool SystemOffersHugePages() {
  const std::string text =
      mirell::testsupport::ReadFileText("/sys/kernel/mm/transparent_hugepage/enabled");
  return text.find("[always]") != std::string::npos || text.find("[madvise]") != std::string::npos;
}

TEST(KeepToSmallPages, AnAdvisedBufferGetsNoHugePageAfterIt) {
  EXPECT_EQ(HugeKilobytesOfAdvisedBuffer(true), 0);
}

TEST(KeepToSmallPages, WithoutItTheSameBufferGetsHugePagesWhereTheSystemOffersThem) {
  // Shows that the buffer above would have had them, so that its 0 means something.
  if (!SystemOffersHugePages()) GTEST_SKIP() << "transparent huge pages are off on this system";
  EXPECT_GT(HugeKilobytesOfAdvisedBuffer(false), 0);
}

}  // namespace
