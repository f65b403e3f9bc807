// Crash safety by fault injection: a worker runs install, watchdog and restore cycles and is
// killed (SIGKILL) at random moments. After every kill a real resolver exists as yt-dlp.exe or as
// the preserved original; after the recovery a new start makes, yt-dlp.exe is the real resolver.
// MIRELL_STUB_CRASH_CYCLES sets the number of kills (default 50; scripts/stub-crash-test runs
// 1000).
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include "mirell/testsupport/subprocess.h"
#include "mirell/vrchat/stub_installer.h"

namespace mirell::vrchat {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kResolverBytes = 12 << 20;

// A resolver whose every byte is known, so a partial or mixed copy is caught, not only its size.
void WriteResolver(const fs::path& path, char tag) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  const std::string block(1 << 20, tag);
  for (std::uintmax_t written = 0; written < kResolverBytes; written += block.size()) file << block;
}

// A complete resolver of either generation: the right size and one tag throughout.
bool IsRealResolver(const fs::path& path) {
  std::error_code error;
  if (fs::file_size(path, error) != kResolverBytes || error) return false;
  std::ifstream file(path, std::ios::binary);
  const char tag = static_cast<char>(file.peek());
  if (tag != 'R' && tag != 'F') return false;
  std::string block(1 << 20, '\0');
  while (file.read(block.data(), static_cast<std::streamsize>(block.size()))) {
    if (block.find_first_not_of(tag) != std::string::npos) return false;
  }
  return true;
}

int Cycles() {
  const char* text = std::getenv("MIRELL_STUB_CRASH_CYCLES");
  return text != nullptr ? std::max(1, std::atoi(text)) : 50;
}

TEST(StubCrashSafety, EveryKillLeavesARealResolverAndRecoveryPutsItBack) {
  testsupport::TempDir dir;
  const auto tools = dir.path() / "Tools";
  fs::create_directories(tools);
  const auto stub = dir.path() / "mirell-stub.exe";
  {
    std::ofstream file(stub, std::ios::binary);
    file << std::string(200'000, 'S');
  }
  WriteResolver(tools / kLiveResolverName, 'R');
  WriteResolver(tools / "fresh-resolver.bin", 'F');

  const int cycles = Cycles();
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> life_us(0, 60'000);
  int violations = 0;
  int recovery_failures = 0;
  for (int cycle = 0; cycle < cycles; ++cycle) {
    {
      testsupport::ChildProcess worker({MIRELL_STUB_CRASH_WORKER, "cycle", tools.string(), stub.string()});
      std::this_thread::sleep_for(std::chrono::microseconds(life_us(random)));
      worker.Signal(SIGKILL);
      worker.Wait(std::chrono::seconds(10));
    }
    if (!IsRealResolver(tools / kLiveResolverName) && !IsRealResolver(tools / kPreservedResolverName)) {
      ++violations;
      ADD_FAILURE() << "no real resolver after kill " << cycle;
    }
    const auto recovered = testsupport::RunProcess({MIRELL_STUB_CRASH_WORKER, "recover", tools.string(), stub.string()});
    if (recovered.exit_code != 0 || !IsRealResolver(tools / kLiveResolverName)) {
      ++recovery_failures;
      ADD_FAILURE() << "after recovery " << cycle << " yt-dlp.exe is not the real resolver (" << recovered.err << ")";
    }
  }
  std::printf("stub crash safety: %d cycles, %d violations, %d failed recoveries\n", cycles, violations,
              recovery_failures);
  EXPECT_EQ(violations, 0);
  EXPECT_EQ(recovery_failures, 0);
}

}  // namespace
}  // namespace mirell::vrchat
