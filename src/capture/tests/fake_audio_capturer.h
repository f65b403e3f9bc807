// An audio capturer that the test drives: Deliver hands a buffer to the callback on the caller's
// thread, and Stop waits for a delivery in progress, as a real capturer does.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "mirell/capture/audio_capturer.h"

namespace mirell::capture {

class FakeAudioCapturer final : public IAudioCapturer {
 public:
  explicit FakeAudioCapturer(AudioFormat format = {}, bool process_scoped = true);
  ~FakeAudioCapturer() override;

  void Start(AudioCallback on_audio) override;
  void Stop() override;
  const AudioFormat& format() const override { return format_; }
  bool process_scoped() const override { return process_scoped_; }
  const std::string& name() const override { return name_; }

  // Returns false when the capturer is not running.
  bool Deliver(const std::vector<float>& interleaved, std::int64_t timestamp_100ns, bool silent = false);
  int stop_calls() const { return stop_calls_; }

 private:
  const AudioFormat format_;
  const bool process_scoped_;
  const std::string name_ = "fake audio";
  std::mutex mutex_;
  AudioCallback on_audio_;
  std::atomic<bool> running_{false};
  std::atomic<int> stop_calls_{0};
};

}  // namespace mirell::capture
