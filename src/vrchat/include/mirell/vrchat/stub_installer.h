// Puts the stub in the place of VRChat's resolver (yt-dlp.exe in its Tools directory), keeps it
// there while VRChat replaces it, and puts VRChat's own file back at the end. The order of the
// file operations is the whole design: whatever moment the process dies in, a real resolver
// exists as yt-dlp.exe or as the preserved original, and a marker tells the next start to clean
// up. The two kinds of yt-dlp.exe are told apart by size.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>

namespace mirell::vrchat {

// At most this size: the stub. Also the restore mode's line between stub and resolver.
inline constexpr std::uintmax_t kMaxStubBytes = 0x100000;
// At least this size: a real resolver.
inline constexpr std::uintmax_t kMinResolverBytes = 0x500000;

inline constexpr const char* kLiveResolverName = "yt-dlp.exe";
inline constexpr const char* kPreservedResolverName = "yt-dlp-mirell-orig.exe";
inline constexpr const char* kMarkerName = "mirell-stub.state";
inline constexpr const char* kStubConfigName = "mirell-stub.cfg";
inline constexpr const char* kStubLogName = "mirell-stub.log";
inline constexpr const char* kStubFileName = "mirell-stub.exe";

// 1 <= size <= 1 MiB; a file whose size cannot be read counts as 0.
bool LooksLikeStub(const std::filesystem::path& path);
// size >= 5 MiB.
bool LooksLikeResolver(const std::filesystem::path& path);

struct StubInstallerConfig {
  std::filesystem::path tools_directory;  // Empty: DefaultToolsDirectory().
  std::filesystem::path stub_source;      // The stub beside this program.
  std::chrono::milliseconds watchdog_interval{1000};
  std::string pipe_name;  // The resolve endpoint the stub asks.
  bool stub_logging = true;
};

class StubInstaller {
 public:
  // Fails a check when no Tools directory is given or found.
  explicit StubInstaller(StubInstallerConfig config);
  // Stops the watchdog and restores if this object installed the stub. Never throws: a restore
  // that fails is logged at error and its marker stays for the next start.
  ~StubInstaller();
  StubInstaller(const StubInstaller&) = delete;
  StubInstaller& operator=(const StubInstaller&) = delete;

  // Restores when a marker shows that an earlier run did not clean up; true if it did.
  bool RecoverFromPreviousRun();
  // Preserves the real resolver, writes marker and configuration, then copies the stub in.
  // Every refusal is an Error raised before yt-dlp.exe is touched.
  void Install();
  // Puts the stub back whenever VRChat replaces it. Needs Install first.
  void StartWatchdog();
  // Joins the watchdog; may take up to one interval.
  void StopWatchdog();
  // Puts the preserved resolver back (or removes a stub with no usable original), then removes
  // the marker and the configuration. Every step may be repeated after a crash.
  void Restore();

  const std::filesystem::path& tools_directory() const { return config_.tools_directory; }
  bool installed() const { return installed_; }
  std::uint32_t reapplied() const { return reapplied_.load(); }

 private:
  void WriteStubConfig();
  void Watch();

  StubInstallerConfig config_;
  std::filesystem::path live_;
  std::filesystem::path backup_;
  std::filesystem::path state_;
  bool installed_ = false;
  std::atomic<bool> watching_{false};
  std::atomic<std::uint32_t> reapplied_{0};
  std::thread watchdog_;
};

}  // namespace mirell::vrchat
