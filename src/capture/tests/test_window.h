// A window of known colours in a process of its own (mirell_test_window) on a given X display:
// the capture targets leave out the test's own windows, so tests paint with this one.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "mirell/testsupport/subprocess.h"

namespace mirell::capture {

class TestWindow {
 public:
  // Starts the window with mirell_test_window's options and waits up to 30 s until it has
  // painted (the first window manager on a fresh machine may build its font cache first);
  // id() is 0 when it never did.
  TestWindow(const std::string& display, const std::vector<std::string>& arguments);

  std::uint32_t id() const { return id_; }
  int pid() const { return process_->pid(); }
  testsupport::ChildProcess& process() { return *process_; }

 private:
  std::unique_ptr<testsupport::TempDir> dir_ = std::make_unique<testsupport::TempDir>();
  std::unique_ptr<testsupport::ChildProcess> process_;
  std::uint32_t id_ = 0;
};

// 0xRRGGBB as the window's --color takes it.
std::string HexColour(std::uint32_t rgb);

}  // namespace mirell::capture
