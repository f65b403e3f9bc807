// What the computer plays, as interleaved 32-bit float PCM with a capture time per buffer: the
// sound of one application (and its child processes) where the platform allows, or the whole
// output. The platform's sound capture stands behind IAudioCapturer.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace mirell::capture {

struct AudioFormat {
  std::uint32_t sample_rate = 48000;
  std::uint32_t channels = 2;
};

struct AudioBuffer {
  const float* samples = nullptr;  // frames x channels values, interleaved; valid during the call only.
  std::uint64_t frames = 0;        // Never 0 in a delivered buffer.
  std::int64_t timestamp = 0;      // When the buffer was taken: the steady clock, in 100 ns units.
  bool silent = false;             // The platform marked it as silence; `samples` are zeros.
};

class IAudioCapturer {
 public:
  using AudioCallback = std::function<void(const AudioBuffer&)>;

  // Stops first.
  virtual ~IAudioCapturer() = default;
  // Starts delivery on the capturer's own thread, which also runs the callback (and so the
  // encoding behind it): a callback that blocks loses sound. A second Start does nothing.
  // Throws Error for an empty callback.
  virtual void Start(AudioCallback on_audio) = 0;
  // Returns within one wait of the capture thread; no callback runs once it has returned. Must
  // not be called from the callback. Idempotent.
  virtual void Stop() = 0;
  // What the buffers carry; the whole-device route may differ from what was asked for, so the
  // encoder is built from this.
  virtual const AudioFormat& format() const = 0;
  // True when only one application's sound is captured.
  virtual bool process_scoped() const = 0;
  virtual const std::string& name() const = 0;
};

// The factories ask for 48000 Hz stereo and read format() back. Each throws Error when it
// cannot capture (no sound server); none waits more than 2 s.
//
// The sound of process `pid` and its descendants, the streams they open later too, and silence
// (buffers marked silent) while they play nothing. Never the rest of the output: a window's
// share must not carry voice chat, or the viewer's own game back to them.
std::unique_ptr<IAudioCapturer> CreateProcessLoopbackCapturer(std::uint32_t pid, const AudioFormat& format);
// Everything the default output device plays.
std::unique_ptr<IAudioCapturer> CreateDeviceLoopbackCapturer(const AudioFormat& format);

}  // namespace mirell::capture
