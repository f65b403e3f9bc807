// Between a capturer that delivers frames whenever the picture changes and an encoder that wants
// a steady rate. The capturer's thread thins the frames by capture time, converts the kept ones
// to the output size and hands them over in the slot; a metronome thread encodes whatever the
// slot holds on every tick, new or not, and publishes the units on the stream's video bus. So a
// still window yields repeats and a fast one yields drops, and frame times come from the frame
// index, never from the capture clock. The capturer is told the tick times, so that it can read
// a change just before the tick that takes it; a tick with no new picture waits up to a quarter
// interval for one, so that a read that ends just after its tick costs a little, not a whole
// interval.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "mirell/capture/capturer.h"
#include "mirell/encode/h264_encoder.h"
#include "mirell/encode/video_processor.h"
#include "mirell/streams/frame_bus.h"

namespace mirell::session {

class CaptureSource {
 public:
  struct Counters {
    std::uint64_t captured = 0;  // Frames the capturer delivered while running.
    std::uint64_t encoded = 0;   // Units published.
    std::uint64_t dropped = 0;   // Frames thinned away: they came too early.
    std::uint64_t repeated = 0;  // Ticks that encoded the previous picture again.
  };

  // One tick's times, for figures: when the encoded picture was captured, and when its encoding
  // began and ended, all on the steady clock in nanoseconds.
  struct FrameTiming {
    std::int64_t captured_ns = 0;
    std::int64_t encode_start_ns = 0;
    std::int64_t encode_end_ns = 0;
    bool repeated = false;  // The picture had been encoded before.
  };

  // Throws Error for a target_fps of 0. The encoder is not owned: it outlives a source, so that
  // it survives a change of target; the bus likewise.
  CaptureSource(std::unique_ptr<capture::ICapturer> capturer, encode::H264Encoder& encoder,
                std::unique_ptr<encode::VideoProcessor> processor, streams::FrameBus& bus,
                std::uint32_t target_fps);
  // Stops.
  ~CaptureSource();
  CaptureSource(const CaptureSource&) = delete;
  CaptureSource& operator=(const CaptureSource&) = delete;

  // Settings made before Start, on the thread that starts the source.
  // Called on the encode thread for each keyframe.
  void SetKeyframeCallback(std::function<void()> on_keyframe);
  // Written once by the encode thread as it starts: the steady-clock instant (100 ns units) of
  // frame time zero, from which the sound derives its times. Must outlive the source.
  void SetEpoch(std::atomic<std::int64_t>* epoch);
  // The index of this source's first frame: a replacing source goes on where the old one ended.
  void SetResumeFrame(std::uint64_t frame);
  // Called on the encode thread after every tick; for benchmarks and diagnostics.
  void SetTimingCallback(std::function<void(const FrameTiming&)> on_timing);

  // Starts the encode thread, then the capturer. Once only; a second call does nothing.
  void Start();
  // Stops the capturer, then the encode thread, and logs the counters. Units still inside the
  // encoder stay there. Idempotent; must not be called from the encode thread or a callback.
  void Stop();

  // Started, not stopped, and the target still there (a closed window ends it); any thread.
  bool capturing() const { return running_.load() && capturer_->alive(); }
  // The index of the next frame to encode; any thread.
  std::uint64_t next_frame() const { return next_frame_; }
  Counters counters() const;
  const encode::VideoProcessor& processor() const { return *processor_; }

 private:
  void OnFrame(const capture::CapturedFrame& frame);
  void EncodeLoop();

  std::unique_ptr<capture::ICapturer> capturer_;
  encode::H264Encoder& encoder_;
  std::function<void()> on_keyframe_;
  std::function<void(const FrameTiming&)> on_timing_;
  std::atomic<std::int64_t>* epoch_ = nullptr;
  std::unique_ptr<encode::VideoProcessor> processor_;
  streams::FrameBus& bus_;

  // The hand-over, three pictures of the output size. The capturer's thread writes `incoming_`
  // and swaps it with `slot_`; the encode thread swaps `slot_` with `encoding_` when a new one is
  // there and encodes `encoding_` outside the lock. Neither thread ever touches a picture that
  // the other may be reading, so no picture is torn.
  encode::Nv12Frame incoming_;
  encode::Nv12Frame encoding_;
  std::mutex mutex_;  // Guards slot_, slot_filled_ and slot_generation_.
  std::condition_variable slot_ready_;
  encode::Nv12Frame slot_;
  bool slot_filled_ = false;  // Never goes back to false.
  std::uint64_t slot_generation_ = 0;
  std::int64_t slot_captured_ns_ = 0;  // Capture time of the picture in the slot.

  // The capturer's thread only.
  std::int64_t first_timestamp_ = 0;  // 0: none seen yet.
  std::int64_t next_due_ = 0;         // Capture-relative time from which a frame is wanted.

  const std::int64_t frame_interval_;  // 100 ns.
  const std::uint32_t target_fps_;
  std::atomic<bool> running_{false};
  std::uint64_t resume_frame_ = 0;
  std::atomic<std::uint64_t> next_frame_{0};
  std::atomic<std::uint64_t> captured_{0};
  std::atomic<std::uint64_t> encoded_{0};
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<std::uint64_t> repeated_{0};
  std::thread thread_;
};

}  // namespace mirell::session
