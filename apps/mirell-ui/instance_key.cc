#include "instance_key.h"

#include <fmt/format.h>

namespace mirell::ui {
namespace {

constexpr std::uint32_t kFnvOffsetBasis = 0x811C9DC5;
constexpr std::uint32_t kFnvPrime = 16777619;

void HashBytes(std::uint32_t& hash, std::string_view bytes) {
  for (const char byte : bytes) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= kFnvPrime;
  }
}

}  // namespace

std::string InstanceKey(std::uint16_t port, std::string_view pipe_name) {
  std::uint32_t hash = kFnvOffsetBasis;
  HashBytes(hash, std::to_string(port));
  HashBytes(hash, "|");
  HashBytes(hash, pipe_name);
  return fmt::format("{:08x}", hash);
}

std::string LogFileName(const std::string& key, const std::string& default_key) {
  return key == default_key ? "mirell-ui.log" : "mirell-ui-" + key + ".log";
}

}  // namespace mirell::ui
