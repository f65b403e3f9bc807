// A capturer that the test drives: Deliver hands a picture to the callback on the caller's
// thread, under the same rule as a real capturer (Stop waits for a delivery in progress and
// none happens after it).
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "mirell/capture/capturer.h"

namespace mirell::capture {

class FakeCapturer final : public ICapturer {
 public:
  FakeCapturer(std::uint32_t width, std::uint32_t height, std::string name = "fake window");
  ~FakeCapturer() override;

  void Start(FrameCallback on_frame) override;
  void Stop() override;
  std::uint32_t width() const override { return width_; }
  std::uint32_t height() const override { return height_; }
  const std::string& name() const override { return name_; }
  bool alive() const override { return alive_; }
  void SetTickSchedule(std::int64_t first_tick_ns, std::uint32_t ticks_per_second) override;

  // Returns false when the capturer is not running, as a real one would deliver nothing.
  bool Deliver(const media::BgraView& picture, std::int64_t timestamp_100ns);
  void SetAlive(bool alive) { alive_ = alive; }
  int stop_calls() const { return stop_calls_; }
  struct TickSchedule {
    std::int64_t first_tick_ns = 0;
    std::uint32_t ticks_per_second = 0;
    int calls = 0;
  };
  TickSchedule tick_schedule();

 private:
  const std::uint32_t width_;
  const std::uint32_t height_;
  const std::string name_;
  std::mutex mutex_;
  FrameCallback on_frame_;
  std::atomic<bool> running_{false};
  std::atomic<bool> alive_{true};
  std::atomic<int> stop_calls_{0};
  std::mutex schedule_mutex_;  // Apart from mutex_: the consumer sets it while a test delivers.
  TickSchedule schedule_;
};

}  // namespace mirell::capture
