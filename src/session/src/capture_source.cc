#include "mirell/session/capture_source.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "mirell/base/clock.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/base/thread_name.h"

namespace mirell::session {

namespace {
std::uint32_t CheckedFps(std::uint32_t target_fps) {
  MIRELL_CHECK(target_fps > 0, "target frame rate must be positive");
  return target_fps;
}
}  // namespace

CaptureSource::CaptureSource(std::unique_ptr<capture::ICapturer> capturer, encode::H264Encoder& encoder,
                             std::unique_ptr<encode::VideoProcessor> processor, streams::FrameBus& bus,
                             std::uint32_t target_fps)
    : capturer_(std::move(capturer)),
      encoder_(encoder),
      processor_(std::move(processor)),
      bus_(bus),
      frame_interval_(kTicksPerSecond / CheckedFps(target_fps)),
      target_fps_(target_fps) {
  MIRELL_CHECK(capturer_ != nullptr && processor_ != nullptr, "a capture source needs a capturer and a processor");
  const auto width = processor_->width();
  const auto height = processor_->height();
  incoming_ = encode::Nv12Frame::Allocate(width, height);
  encoding_ = encode::Nv12Frame::Allocate(width, height);
  slot_ = encode::Nv12Frame::Allocate(width, height);
}

CaptureSource::~CaptureSource() { Stop(); }

void CaptureSource::SetKeyframeCallback(std::function<void()> on_keyframe) { on_keyframe_ = std::move(on_keyframe); }
void CaptureSource::SetTimingCallback(std::function<void(const FrameTiming&)> on_timing) {
  on_timing_ = std::move(on_timing);
}
void CaptureSource::SetEpoch(std::atomic<std::int64_t>* epoch) { epoch_ = epoch; }
void CaptureSource::SetResumeFrame(std::uint64_t frame) {
  resume_frame_ = frame;
  next_frame_ = frame;
}

void CaptureSource::Start() {
  if (running_.exchange(true)) return;
  thread_ = std::thread([this] {
    NameThisThread("video-encode");
    EncodeLoop();
  });
  capturer_->Start([this](const capture::CapturedFrame& frame) { OnFrame(frame); });
  LOG_INFO("{} -> {}x{} {}", capturer_->name(), processor_->width(), processor_->height(),
           encoder_.gpu_input() ? "GPU path" : "system memory");
}

void CaptureSource::Stop() {
  if (!running_.exchange(false)) return;
  capturer_->Stop();
  {
    std::lock_guard lock(mutex_);
    slot_ready_.notify_all();
  }
  if (thread_.joinable()) {
    MIRELL_CHECK(thread_.get_id() != std::this_thread::get_id(), "a capture source cannot stop itself");
    thread_.join();
  }
  const Counters c = counters();
  LOG_INFO("captured={} encoded={} repeated={} dropped={}", c.captured, c.encoded, c.repeated, c.dropped);
}

CaptureSource::Counters CaptureSource::counters() const {
  return {captured_.load(), encoded_.load(), dropped_.load(), repeated_.load()};
}

void CaptureSource::OnFrame(const capture::CapturedFrame& frame) {
  if (!running_) return;
  ++captured_;
  if (first_timestamp_ == 0) first_timestamp_ = frame.timestamp;
  const std::int64_t t = frame.timestamp - first_timestamp_;
  if (next_due_ == 0) next_due_ = t;
  const std::int64_t due = next_due_;
  // Earlier than half an interval before it is due: not wanted. A late frame moves the next due
  // time to itself, so lateness never turns into a burst and a fast capture is thinned evenly.
  if (t + frame_interval_ / 2 < due) {
    ++dropped_;
    return;
  }
  next_due_ = std::max(due + frame_interval_, t);

  const encode::Nv12Frame& converted = processor_->ToNv12(frame.picture);
  std::memcpy(incoming_.bytes().data(), converted.bytes().data(), incoming_.bytes().size());
  {
    std::lock_guard lock(mutex_);
    std::swap(incoming_, slot_);
    slot_captured_ns_ = frame.timestamp * 100;
    slot_filled_ = true;
    ++slot_generation_;
  }
  slot_ready_.notify_one();
}

void CaptureSource::EncodeLoop() {
  PreciseSleeper sleeper;
  {
    std::unique_lock lock(mutex_);
    slot_ready_.wait(lock, [this] { return slot_filled_ || !running_; });
  }
  if (!running_) return;

  const std::int64_t start = SteadyNowNs();
  const auto fps = static_cast<std::int64_t>(target_fps_);
  const std::int64_t resume_pts = static_cast<std::int64_t>(resume_frame_) * kTicksPerSecond / fps;
  // The steady-clock instant of frame time zero: the sound derives its times from it.
  if (epoch_ != nullptr) epoch_->store(SteadyNowNs() / 100 - resume_pts);
  // The capturer reads a change just before each tick rather than as it happens, so that the
  // picture a tick takes has not waited most of an interval in the slot.
  capturer_->SetTickSchedule(start, target_fps_);

  auto frame_index = static_cast<std::int64_t>(resume_frame_);
  std::int64_t ticks = 0;
  std::uint64_t last_generation = 0;
  std::vector<encode::EncodedFrame> out;
  FrameTiming timing;
  // How long a tick without a new picture waits for one: a read meant for this tick that ends
  // just after it is encoded a little late rather than a whole interval late.
  const auto late_picture_wait = std::chrono::nanoseconds(kTicksPerSecond / fps * 100 / 4);
  while (running_) {
    {
      std::unique_lock lock(mutex_);
      if (ticks > 0 && slot_generation_ == last_generation) {
        slot_ready_.wait_for(lock, late_picture_wait,
                             [&] { return slot_generation_ != last_generation || !running_; });
      }
      timing.repeated = slot_generation_ == last_generation;
      if (timing.repeated) {
        ++repeated_;
      } else {
        std::swap(slot_, encoding_);
        last_generation = slot_generation_;
        timing.captured_ns = slot_captured_ns_;
      }
    }
    out.clear();
    timing.encode_start_ns = SteadyNowNs();
    try {
      encoder_.EncodeTexture(encoding_, frame_index * kTicksPerSecond / fps, out);
    } catch (const std::exception& error) {
      LOG_WARN("Encode failed: {}", error.what());
    }
    timing.encode_end_ns = SteadyNowNs();
    for (auto& unit : out) {
      ++encoded_;
      if (unit.keyframe && on_keyframe_) on_keyframe_();
      bus_.Publish(std::make_shared<const encode::EncodedFrame>(std::move(unit)));
    }
    if (on_timing_) on_timing_(timing);
    ++frame_index;
    ++ticks;
    next_frame_ = static_cast<std::uint64_t>(frame_index);
    sleeper.SleepUntil(start + (ticks * kTicksPerSecond / fps) * 100);
  }
}

}  // namespace mirell::session
