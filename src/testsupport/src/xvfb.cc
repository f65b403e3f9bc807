#include "mirell/testsupport/xvfb.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace mirell::testsupport {

XvfbDisplay::XvfbDisplay() {
  if (!HaveProgram("Xvfb")) return;
  for (int number = 90; number < 190; ++number) {
    const std::filesystem::path lock = "/tmp/.X" + std::to_string(number) + "-lock";
    const std::filesystem::path socket = "/tmp/.X11-unix/X" + std::to_string(number);
    if (std::filesystem::exists(lock) || std::filesystem::exists(socket)) continue;
    name_ = ":" + std::to_string(number);
    server_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "Xvfb", name_, "-screen", "0", "1280x720x24", "-nolisten", "tcp"});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline && server_->Running()) {
      if (std::filesystem::exists(socket)) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // It lost a race for this number or failed; try the next one.
    server_.reset();
  }
  name_.clear();
}

XvfbDisplay::~XvfbDisplay() {
  if (server_) {
    server_->Signal(SIGTERM);
    server_->Wait(std::chrono::seconds(5));
  }
}

}  // namespace mirell::testsupport
