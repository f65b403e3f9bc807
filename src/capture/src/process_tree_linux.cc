#include <fstream>
#include <string>

#include "process_tree.h"

namespace mirell::capture {
namespace {

// The parent from /proc/<pid>/stat: the fourth field, after the name in parentheses (which may
// itself hold spaces and parentheses, hence the last ')').
std::uint32_t ParentOf(std::uint32_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  const auto end_of_name = text.rfind(')');
  if (end_of_name == std::string::npos || end_of_name + 4 >= text.size()) return 0;
  try {
    return static_cast<std::uint32_t>(std::stoul(text.substr(end_of_name + 4)));
  } catch (const std::exception&) {
    return 0;
  }
}

}  // namespace

bool IsSameOrDescendant(std::uint32_t pid, std::uint32_t ancestor) {
  // A chain longer than this is a loop in what we read, not a real process tree.
  for (int depth = 0; pid > 1 && depth < 256; ++depth) {
    if (pid == ancestor) return true;
    pid = ParentOf(pid);
  }
  return pid != 0 && pid == ancestor;
}

}  // namespace mirell::capture
