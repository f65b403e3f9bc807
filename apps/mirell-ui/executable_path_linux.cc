// Linux: the executable from /proc/self/exe.
#include <system_error>

#include "executable_path.h"

namespace mirell::ui {

std::filesystem::path ExecutableDirectory() {
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : executable.parent_path();
}

}  // namespace mirell::ui
