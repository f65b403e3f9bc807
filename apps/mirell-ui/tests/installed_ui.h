// The real mirell-ui executable for process tests: a copy of its own with a log folder of its own,
// and the environment of a headless run. Test code only.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "instance_key.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::ui {

// A meeting place for process tests that need one but no server behind it: its links resolve as
// this deployment's, and their watches play the holding card.
inline constexpr const char* kNobodysSignalUrl = "wss://mirell.example/signal";

// A copy of the executable in a temporary directory. The programs this test starts write their
// logs under its state folder: XDG_STATE_HOME is set in this process, which they inherit (a test
// environment may still give another).
class InstalledUi {
 public:
  InstalledUi() {
    binary_ = dir_.path() / "mirell-ui";
    std::filesystem::copy_file(MIRELL_UI_BINARY, binary_);
    setenv("XDG_STATE_HOME", (dir_.path() / "state").c_str(), 1);
  }
  const std::filesystem::path& binary() const { return binary_; }
  // Where the programs started by this test log.
  std::filesystem::path LogDirectory() const { return dir_.path() / "state" / "mirell"; }
  std::string Log(std::uint16_t rtsp_port, const std::string& pipe) const {
    return testsupport::ReadFileText(LogDirectory() / LogFileName(InstanceKey(rtsp_port, pipe), "unused"));
  }
  // Removes the log of an earlier run, so that WaitForLog sees only the next one's lines.
  void ForgetLog(std::uint16_t rtsp_port, const std::string& pipe) const {
    std::filesystem::remove(LogDirectory() / LogFileName(InstanceKey(rtsp_port, pipe), "unused"));
  }
  // Waits until the log holds `text`.
  bool WaitForLog(std::uint16_t rtsp_port, const std::string& pipe, const std::string& text,
                  std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (Log(rtsp_port, pipe).find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

 private:
  testsupport::TempDir dir_;
  std::filesystem::path binary_;
};

// Headless, with a home of its own, so that no real VRChat installation or stored setting is
// ever touched, and a runtime directory of its own, so that the instance lock is the test's alone.
inline testsupport::ProcessOptions Headless(const std::filesystem::path& home) {
  testsupport::ProcessOptions options;
  options.environment["QT_QPA_PLATFORM"] = "offscreen";
  options.environment["MIRELL_LOG"] = "debug";
  options.environment["HOME"] = home.string();
  const std::filesystem::path runtime = home / ".run";
  std::filesystem::create_directories(runtime);
  std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
  options.environment["XDG_RUNTIME_DIR"] = runtime.string();
  options.environment["XDG_CONFIG_HOME"] = (home / ".config").string();  // The stored settings.
  // Neither the user's keyring nor, unless a test stores otherwise, a STUN server on the internet;
  // and no session bus that libdbus would start by itself where it can.
  options.environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nonexistent";
  const std::filesystem::path settings = home / ".config/Mirell/Mirell.conf";
  if (!std::filesystem::exists(settings)) {
    std::filesystem::create_directories(settings.parent_path());
    std::ofstream(settings) << "[network]\nstun=none\n";
  }
  return options;
}

}  // namespace mirell::ui
