#include "fake_capturer.h"

#include "mirell/base/error.h"

namespace mirell::capture {

FakeCapturer::FakeCapturer(std::uint32_t width, std::uint32_t height, std::string name)
    : width_(width), height_(height), name_(std::move(name)) {}

FakeCapturer::~FakeCapturer() { Stop(); }

void FakeCapturer::Start(FrameCallback on_frame) {
  MIRELL_CHECK(on_frame != nullptr, "a capturer needs somewhere to send frames");
  if (running_.exchange(true)) return;
  std::lock_guard lock(mutex_);
  on_frame_ = std::move(on_frame);
}

void FakeCapturer::Stop() {
  ++stop_calls_;
  if (!running_.exchange(false)) return;
  std::lock_guard lock(mutex_);
  on_frame_ = nullptr;
}

bool FakeCapturer::Deliver(const media::BgraView& picture, std::int64_t timestamp_100ns) {
  std::lock_guard lock(mutex_);
  if (!running_ || !on_frame_) return false;
  on_frame_(CapturedFrame{picture, timestamp_100ns});
  return true;
}

void FakeCapturer::SetTickSchedule(std::int64_t first_tick_ns, std::uint32_t ticks_per_second) {
  std::lock_guard lock(schedule_mutex_);
  schedule_.first_tick_ns = first_tick_ns;
  schedule_.ticks_per_second = ticks_per_second;
  ++schedule_.calls;
}

FakeCapturer::TickSchedule FakeCapturer::tick_schedule() {
  std::lock_guard lock(schedule_mutex_);
  return schedule_;
}

}  // namespace mirell::capture
