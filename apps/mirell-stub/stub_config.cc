#include "stub_config.h"

namespace mirell::stub {
namespace {

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace

StubConfig ParseStubConfig(std::string_view text) {
  StubConfig config;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const auto line = Trim(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == '#') continue;
    const auto equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    const auto key = Trim(line.substr(0, equals));
    const auto value = Trim(line.substr(equals + 1));
    if (key == "pipe") {
      config.pipe = std::string(value);
    } else if (key == "original") {
      config.original = std::string(value);
    } else if (key == "log") {
      config.log = value == "1";
    }
  }
  return config;
}

bool IsNamedPipe(std::string_view endpoint) { return endpoint.starts_with("\\\\.\\pipe\\"); }

}  // namespace mirell::stub
