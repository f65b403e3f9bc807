#include "test_window.h"

#include <cstdio>

#include "mirell/testsupport/eventually.h"

namespace mirell::capture {

TestWindow::TestWindow(const std::string& display, const std::vector<std::string>& arguments) {
  const auto ready = dir_->path() / "ready";
  std::vector<std::string> argv{MIRELL_TEST_WINDOW, "--ready-file", ready.string()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  testsupport::ProcessOptions options;
  options.environment["DISPLAY"] = display;
  process_ = std::make_unique<testsupport::ChildProcess>(argv, options);
  if (testsupport::Eventually([&] { return std::filesystem::exists(ready); }, std::chrono::seconds(30))) {
    id_ = static_cast<std::uint32_t>(std::stoul(testsupport::ReadFileText(ready)));
  }
}

std::string HexColour(std::uint32_t rgb) {
  char text[8];
  std::snprintf(text, sizeof text, "%06X", rgb & 0xFFFFFF);
  return text;
}

}  // namespace mirell::capture
