// A private X server for tests that need real windows: Xvfb on a display number of its own.
#pragma once

#include <memory>
#include <string>

#include "mirell/testsupport/subprocess.h"

namespace mirell::testsupport {

class XvfbDisplay {
 public:
  // Starts Xvfb on the first free display from :90 and waits until it accepts clients. Check
  // available() before use: false when Xvfb is missing or did not come up.
  XvfbDisplay();
  ~XvfbDisplay();
  XvfbDisplay(const XvfbDisplay&) = delete;
  XvfbDisplay& operator=(const XvfbDisplay&) = delete;

  bool available() const { return server_ != nullptr; }
  // ":N", for DISPLAY.
  const std::string& name() const { return name_; }

 private:
  std::unique_ptr<ChildProcess> server_;
  std::string name_;
};

}  // namespace mirell::testsupport
