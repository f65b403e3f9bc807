#include "restore_mode.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "executable_path.h"
#include "mirell/base/logging.h"
#include "mirell/vrchat/stub_installer.h"
#include "mirell/vrchat/vrchat_paths.h"

namespace mirell::ui {
namespace {

namespace fs = std::filesystem;

fs::path TemporaryDirectory() {
  const char* tmpdir = std::getenv("TMPDIR");
  return tmpdir != nullptr && tmpdir[0] != '\0' ? fs::path(tmpdir) : fs::path("/tmp");
}

// Removes what the installer itself leaves behind. The preserved original goes only when the
// live resolver is real: otherwise it may be the only copy.
void TidyUp(const fs::path& tools_directory) {
  std::error_code ignored;
  if (!fs::is_directory(tools_directory, ignored)) return;
  const auto live = tools_directory / vrchat::kLiveResolverName;
  std::error_code size_error;
  bool live_is_real = false;
  if (fs::exists(live, ignored)) {
    const auto size = fs::file_size(live, size_error);
    live_is_real = size_error || size > vrchat::kMaxStubBytes;
  }
  for (const char* name : {vrchat::kStubConfigName, vrchat::kStubLogName, vrchat::kMarkerName}) {
    fs::remove(tools_directory / name, ignored);
  }
  if (live_is_real) {
    fs::remove(tools_directory / vrchat::kPreservedResolverName, ignored);
  } else {
    LOG_WARN("keeping the preserved original, the live resolver is still ours");
  }
}

}  // namespace

int RunRestoreMode(const std::optional<std::string>& tools_dir) {
  std::optional<fs::path> tools_directory;
  if (tools_dir) tools_directory = *tools_dir;
  SetLogFile(TemporaryDirectory() / "mirell-restore.log");
  try {
    if (!tools_directory) tools_directory = vrchat::DefaultToolsDirectory();
    vrchat::StubInstallerConfig config;
    config.tools_directory = *tools_directory;
    config.stub_source = ExecutableDirectory() / vrchat::kStubFileName;
    config.watchdog_interval = std::chrono::milliseconds(1000);
    config.stub_logging = true;
    vrchat::StubInstaller installer(config);
    installer.Restore();
    installer.RecoverFromPreviousRun();
    TidyUp(installer.tools_directory());
    LOG_INFO("VRChat's resolver is back in place");
  } catch (const std::exception& error) {
    LOG_ERROR("{}", error.what());
    std::fprintf(stderr, "mirell-ui: could not restore VRChat's resolver: %s\n", error.what());
    return 1;
  }
  return 0;
}

}  // namespace mirell::ui
