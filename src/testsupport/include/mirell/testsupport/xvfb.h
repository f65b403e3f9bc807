// A private X server for tests that need real windows: Xvfb on a display number of its own.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "mirell/testsupport/subprocess.h"

namespace mirell::testsupport {

struct XvfbOptions {
  int width = 1280;
  int height = 720;
  // Starts openbox on the display and waits until it manages windows (the EWMH lists that the
  // capture targets read exist only under a window manager).
  bool window_manager = false;
};

class XvfbDisplay {
 public:
  // Starts Xvfb on the first free display from :90 and waits until it accepts clients. Check
  // available() before use: false when Xvfb (or the window manager asked for) is missing or did
  // not come up.
  XvfbDisplay() : XvfbDisplay(XvfbOptions{}) {}
  explicit XvfbDisplay(const XvfbOptions& options);
  ~XvfbDisplay();
  XvfbDisplay(const XvfbDisplay&) = delete;
  XvfbDisplay& operator=(const XvfbDisplay&) = delete;

  bool available() const { return server_ != nullptr; }
  // ":N", for DISPLAY.
  const std::string& name() const { return name_; }
  // The X server's process, for benchmarks that count its CPU.
  int server_pid() const { return server_ ? server_->pid() : -1; }

 private:
  bool StartWindowManager();

  std::unique_ptr<ChildProcess> server_;
  TempDir window_manager_dir_;
  std::unique_ptr<ChildProcess> window_manager_;
  std::string name_;
};

struct ScreenPoint {
  int x = 0;
  int y = 0;
};

// The middle of the first icon in a running trayer's tray (started with "--align right" and
// "--widthtype request", so its window is as wide as its icons and the first icon ends it), read
// from the window's geometry with xdotool; none while trayer has no visible window. `options`
// names the display.
std::optional<ScreenPoint> TrayIconPoint(const ProcessOptions& options);

}  // namespace mirell::testsupport
