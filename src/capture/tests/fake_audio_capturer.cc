#include "fake_audio_capturer.h"

#include "mirell/base/error.h"

namespace mirell::capture {

FakeAudioCapturer::FakeAudioCapturer(AudioFormat format, bool process_scoped)
    : format_(format), process_scoped_(process_scoped) {}

FakeAudioCapturer::~FakeAudioCapturer() { Stop(); }

void FakeAudioCapturer::Start(AudioCallback on_audio) {
  MIRELL_CHECK(on_audio != nullptr, "an audio capturer needs somewhere to send audio");
  if (running_.exchange(true)) return;
  std::lock_guard lock(mutex_);
  on_audio_ = std::move(on_audio);
}

void FakeAudioCapturer::Stop() {
  ++stop_calls_;
  if (!running_.exchange(false)) return;
  std::lock_guard lock(mutex_);
  on_audio_ = nullptr;
}

bool FakeAudioCapturer::Deliver(const std::vector<float>& interleaved, std::int64_t timestamp_100ns, bool silent) {
  std::lock_guard lock(mutex_);
  if (!running_ || !on_audio_) return false;
  on_audio_(AudioBuffer{interleaved.data(), interleaved.size() / format_.channels, timestamp_100ns, silent});
  return true;
}

}  // namespace mirell::capture
