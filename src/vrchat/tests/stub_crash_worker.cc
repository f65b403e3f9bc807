// The installer's life on a loop, for the crash-safety harness, which kills this process at
// random moments. Usage:
//   stub_crash_worker cycle <tools> <stub>    recover, install, watch (VRChat replaces the stub
//                                             now and then), restore; again and again
//   stub_crash_worker recover <tools> <stub>  what the next start does, once
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/vrchat/stub_installer.h"

int main(int argc, char** argv) {
  using namespace mirell::vrchat;
  if (argc != 4) return 2;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  const std::string mode = argv[1];
  StubInstallerConfig config;
  config.tools_directory = argv[2];
  config.stub_source = argv[3];
  config.watchdog_interval = std::chrono::milliseconds(2);
  config.pipe_name = "127.0.0.1:8555";
  if (mode == "recover") {
    StubInstaller installer(config);
    installer.RecoverFromPreviousRun();
    return 0;
  }
  const auto fresh = config.tools_directory / "fresh-resolver.bin";
  for (unsigned turn = 0;; ++turn) {
    StubInstaller installer(config);
    installer.RecoverFromPreviousRun();
    installer.Install();
    installer.StartWatchdog();
    if (turn % 2 == 1 && std::filesystem::exists(fresh)) {
      // VRChat puts a complete new resolver in place, as a download finishing would.
      const auto staged = config.tools_directory / "vrchat-download.tmp";
      std::filesystem::copy_file(fresh, staged, std::filesystem::copy_options::overwrite_existing);
      std::filesystem::rename(staged, config.tools_directory / kLiveResolverName);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    installer.StopWatchdog();
    installer.Restore();
  }
}
