#include "mirell/vrchat/stub_installer.h"

#include <fstream>
#include <system_error>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/vrchat/vrchat_paths.h"

namespace mirell::vrchat {
namespace {

std::uintmax_t SizeOf(const std::filesystem::path& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return error ? 0 : size;
}

// Copies `from` over `to` so that `to` is never seen half written: the bytes go to a temporary
// file beside it, which then takes its name in one rename. A process killed in the middle leaves
// `to` as it was (and at most the temporary file).
void CopyOver(const std::filesystem::path& from, const std::filesystem::path& to) {
  auto temporary = to;
  temporary += ".mirell-tmp";
  std::filesystem::copy_file(from, temporary, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::rename(temporary, to);
}

bool CopyOver(const std::filesystem::path& from, const std::filesystem::path& to, std::error_code& error) {
  try {
    CopyOver(from, to);
    return true;
  } catch (const std::filesystem::filesystem_error& failure) {
    error = failure.code();
    return false;
  }
}

}  // namespace

bool LooksLikeStub(const std::filesystem::path& path) {
  const auto size = SizeOf(path);
  return size >= 1 && size <= kMaxStubBytes;
}

bool LooksLikeResolver(const std::filesystem::path& path) { return SizeOf(path) >= kMinResolverBytes; }

StubInstaller::StubInstaller(StubInstallerConfig config) : config_(std::move(config)) {
  if (config_.tools_directory.empty()) config_.tools_directory = DefaultToolsDirectory();
  MIRELL_CHECK(!config_.tools_directory.empty(), "could not determine VRChat's Tools directory");
  live_ = config_.tools_directory / kLiveResolverName;
  backup_ = config_.tools_directory / kPreservedResolverName;
  state_ = config_.tools_directory / kMarkerName;
}

StubInstaller::~StubInstaller() {
  StopWatchdog();
  if (!installed_) return;
  // A failed copy (disk full, file locked) must not leave a destructor: the marker stays, and the
  // next start, or --restore-vrchat, puts the resolver back.
  try {
    Restore();
  } catch (const std::exception& error) {
    LOG_ERROR("could not put VRChat's resolver back: {}; the next start will try again",
              error.what());
  }
}

bool StubInstaller::RecoverFromPreviousRun() {
  std::error_code ignored;
  if (!std::filesystem::exists(state_, ignored)) return false;
  LOG_WARN("a previous run left the stub installed - it did not shut down cleanly. Restoring "
           "VRChat's resolver before doing anything else.");
  Restore();
  return true;
}

void StubInstaller::Install() {
  std::error_code ignored;
  MIRELL_CHECK(std::filesystem::is_directory(config_.tools_directory, ignored),
               "VRChat's Tools directory does not exist at {}", config_.tools_directory.string());
  MIRELL_CHECK(std::filesystem::exists(config_.stub_source, ignored),
               "the stub binary was not found at {}", config_.stub_source.string());
  MIRELL_CHECK(std::filesystem::exists(live_, ignored),
               "yt-dlp.exe is not present in {} - launch VRChat once so it downloads the resolver",
               config_.tools_directory.string());

  if (LooksLikeResolver(live_)) {
    // A newer resolver that VRChat downloaded always replaces an older preserved one.
    CopyOver(live_, backup_);
    LOG_INFO("preserved VRChat's resolver ({} MB)", SizeOf(backup_) >> 20);
  } else if (!LooksLikeStub(live_)) {
    ThrowError(fmt::format("yt-dlp.exe is {} bytes, which is neither a stub nor a plausible "
                           "resolver. Refusing to guess.",
                           SizeOf(live_)),
               std::source_location::current());
  } else {
    MIRELL_CHECK(std::filesystem::exists(backup_, ignored),
                 "yt-dlp.exe looks like our stub but there is no preserved original beside it. "
                 "Delete it and let VRChat download a fresh resolver.");
    LOG_DEBUG("stub already in place; keeping the existing preserved original");
  }
  MIRELL_CHECK(LooksLikeResolver(backup_), "the preserved original is {} bytes, which is not a real resolver",
               SizeOf(backup_));

  // The marker goes down before yt-dlp.exe is touched, so a crash from here on leaves a trace.
  {
    std::ofstream marker(state_, std::ios::trunc);
    marker << "mirell-stub-installed\n" << backup_.string() << "\n";
  }
  // The configuration goes down before the stub can run, so a stub started next finds its pipe.
  WriteStubConfig();
  CopyOver(config_.stub_source, live_);
  MIRELL_CHECK(LooksLikeStub(live_), "the stub does not appear to be in place after installing: {} is {} bytes",
               live_.string(), SizeOf(live_));
  installed_ = true;
  LOG_INFO("installed the stub into {}", config_.tools_directory.string());
}

void StubInstaller::Restore() {
  std::error_code ignored;
  if (std::filesystem::exists(live_, ignored) && LooksLikeStub(live_)) {
    if (std::filesystem::exists(backup_, ignored) && LooksLikeResolver(backup_)) {
      CopyOver(backup_, live_);
      LOG_INFO("restored VRChat's resolver");
    } else {
      std::filesystem::remove(live_, ignored);
      LOG_WARN("removed the stub but found no usable original; VRChat will download a fresh "
               "resolver on next launch");
    }
  } else if (std::filesystem::exists(live_, ignored)) {
    LOG_DEBUG("yt-dlp.exe is not our stub; VRChat has already replaced it");
  }
  // The marker goes only after yt-dlp.exe is right: a crash before this restores again.
  std::filesystem::remove(state_, ignored);
  std::filesystem::remove(config_.tools_directory / kStubConfigName, ignored);
  // What a copy cut short by a crash may have left.
  for (const auto& target : {live_, backup_}) {
    auto temporary = target;
    temporary += ".mirell-tmp";
    std::filesystem::remove(temporary, ignored);
  }
  installed_ = false;
}

void StubInstaller::WriteStubConfig() {
  const auto path = config_.tools_directory / kStubConfigName;
  std::ofstream file(path, std::ios::trunc);
  if (!file) {
    LOG_WARN("could not write {}; the stub will run on its compiled-in defaults with logging off, "
             "which makes any failure invisible",
             path.string());
    return;
  }
  // The stub accepts both line endings; Linux writes bare newlines.
  file << "# Written by the mirell daemon. Removed when it shuts down.\n";
  if (!config_.pipe_name.empty()) file << "pipe=" << config_.pipe_name << "\n";
  file << "original=" << kPreservedResolverName << "\n";
  file << "log=" << (config_.stub_logging ? "1" : "0") << "\n";
}

void StubInstaller::StartWatchdog() {
  MIRELL_CHECK(installed_, "the watchdog has nothing to watch until the stub is installed");
  if (watching_.exchange(true)) return;
  watchdog_ = std::thread([this] {
    NameThisThread("stub-watchdog");
    Watch();
  });
}

void StubInstaller::StopWatchdog() {
  if (watching_.exchange(false) && watchdog_.joinable()) watchdog_.join();
}

void StubInstaller::Watch() {
  LOG_DEBUG("watching {}", live_.string());
  for (;;) {
    if (!watching_.load()) return;
    std::this_thread::sleep_for(config_.watchdog_interval);
    if (!watching_.load()) return;
    std::error_code ignored;
    const bool exists = std::filesystem::exists(live_, ignored);
    if (exists && LooksLikeStub(live_)) continue;
    // VRChat fetched a resolver again: that version is the one to preserve. A file of another
    // size, such as a download in progress, is not.
    if (exists && LooksLikeResolver(live_)) CopyOver(live_, backup_, ignored);
    WriteStubConfig();
    std::error_code error;
    if (CopyOver(config_.stub_source, live_, error)) {
      LOG_INFO("VRChat replaced the stub; re-applied (#{})", reapplied_.fetch_add(1) + 1);
    } else {
      LOG_WARN("could not re-apply the stub: {}", error.message());
    }
  }
}

}  // namespace mirell::vrchat
