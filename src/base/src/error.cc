#include "mirell/base/error.h"

#include <fmt/format.h>

#include <cstring>
#include <filesystem>
#include <string>

namespace mirell {

std::string ReducedSourcePath(const char* file) {
  if (file == nullptr || file[0] == '\0') return "<unknown>";
  std::string path(file);
  for (char& c : path) {
    if (c == '\\') c = '/';
  }
  const std::filesystem::path parsed(path);
  const std::string name = parsed.filename().string();
  const std::string parent = parsed.parent_path().filename().string();
  return parent.empty() ? name : parent + "/" + name;
}

std::string HrToString(std::int32_t hr) {
  const auto code = static_cast<std::uint32_t>(hr);
  // A negated errno value has the system's description; anything else (a library's tag) has none.
  const char* text = hr <= 0 && hr != INT32_MIN ? strerrordesc_np(-hr) : nullptr;
  if (text != nullptr && text[0] != '\0') return fmt::format("0x{:08X} ({})", code, text);
  return fmt::format("0x{:08X}", code);
}

Error::Error(SourceLocation location, std::string message)
    : location_(location),
      message_(fmt::format("{}:{} {}: {}", ReducedSourcePath(location.file_name()), location.line(),
                           location.function_name(), message)) {}

HrError::HrError(std::int32_t hr, std::string expression, SourceLocation location)
    : hr_(hr),
      expression_(std::move(expression)),
      location_(location),
      message_(fmt::format("{}:{} {}: `{}` failed with {}", ReducedSourcePath(location.file_name()),
                           location.line(), location.function_name(), expression_,
                           HrToString(hr))) {}

void ThrowError(std::string&& message, const SourceLocation& location) {
  throw Error(location, std::move(message));
}

void ThrowHr(std::int32_t hr, const char* expression, const SourceLocation& location) {
  throw HrError(hr, expression, location);
}

void WarnHr(std::int32_t hr, const char* expression, const SourceLocation& location) {
  LogWrite(LogLevel::kWarn,
           fmt::format("`{}` failed with {} (continuing)", expression, HrToString(hr)), location);
}

}  // namespace mirell
