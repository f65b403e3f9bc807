// FFmpeg: library log lines go to our log at debug, so the console stays ours.
extern "C" {
#include <libavutil/log.h>
}

#include <array>
#include <cstdarg>
#include <string_view>

#include "mirell/base/logging.h"
#include "mirell/encode/media_runtime.h"

namespace mirell::encode {
namespace {

void RouteFfmpegLine(void* context, int level, const char* format_text, va_list arguments) {
  // FFmpeg's verbose levels stay out even at debug: they are per packet.
  if (level > AV_LOG_INFO || !detail::LogEnabled(LogLevel::kDebug)) return;
  std::array<char, 1024> line{};
  int print_prefix = 1;
  const int length = av_log_format_line2(context, level, format_text, arguments, line.data(),
                                         static_cast<int>(line.size()), &print_prefix);
  if (length <= 0) return;
  std::string_view text(line.data());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  if (!text.empty()) LOG_DEBUG("ffmpeg: {}", text);
}

}  // namespace

MediaRuntime::MediaRuntime() { av_log_set_callback(RouteFfmpegLine); }

MediaRuntime::~MediaRuntime() { av_log_set_callback(av_log_default_callback); }

}  // namespace mirell::encode
