// The media libraries' process-wide set-up, held by the process entry for its whole life. On
// Linux that is FFmpeg: its log lines are routed into ours at debug while this object lives.
#pragma once

namespace mirell::encode {

class MediaRuntime {
 public:
  MediaRuntime();
  ~MediaRuntime();
  MediaRuntime(const MediaRuntime&) = delete;
  MediaRuntime& operator=(const MediaRuntime&) = delete;
};

}  // namespace mirell::encode
