// Pictures of one window or one monitor, delivered as they change. The platform's capture
// stands behind ICapturer; frames are BGRA in system memory, valid during the callback only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mirell/media/bgra_view.h"

namespace mirell::capture {

enum class CaptureKind : std::uint32_t {
  kWindow = 0,
  kMonitor = 1,  // Also any value other than 0.
};

// What to capture. On X11 a window is its window id and a monitor its index in the monitor list.
struct CaptureTarget {
  CaptureKind kind = CaptureKind::kWindow;
  std::uint32_t window = 0;
  std::uint32_t monitor = 0;
  bool show_border = true;  // X11 draws no capture border; kept for the platforms that do.
  bool show_cursor = true;  // The pointer is drawn into the frames.
};

struct CapturedFrame {
  media::BgraView picture;     // Valid during the callback only.
  std::int64_t timestamp = 0;  // Capture time: the steady clock, in 100 ns units.
};

class ICapturer {
 public:
  using FrameCallback = std::function<void(const CapturedFrame&)>;

  // Stops first; no callback runs once the destructor has begun.
  virtual ~ICapturer() = default;
  // Begins delivery on the capturer's own thread. A second Start keeps the first callback.
  // Throws Error for an empty callback.
  virtual void Start(FrameCallback on_frame) = 0;
  // Waits for a callback in progress, so a callback must never call Stop. Idempotent; Stop
  // before Start does nothing.
  virtual void Stop() = 0;
  // The current size of the target; any thread.
  virtual std::uint32_t width() const = 0;
  virtual std::uint32_t height() const = 0;
  // The target's description for log lines: a window's title, or "monitor".
  virtual const std::string& name() const = 0;
  // False once the target is gone (a closed window); frames stop then. Any thread.
  virtual bool alive() const = 0;
  // The consumer's clock: it takes one picture at each steady-clock instant first_tick_ns +
  // k * 1e9 / ticks_per_second. A capturer that can time its reads then reads a change shortly
  // before the next tick, once per tick, instead of as soon as it happens, so the picture taken
  // at a tick is as fresh as a read allows and no read is spent on a picture replaced before
  // it is used. A rate of 0 goes back to reading every change. Any thread, before or after
  // Start; a capturer that cannot time its reads ignores it.
  virtual void SetTickSchedule(std::int64_t first_tick_ns, std::uint32_t ticks_per_second) {
    (void)first_tick_ns;
    (void)ticks_per_second;
  }
};

// Whether this session can capture: on Linux, an X display with the Composite, DAMAGE and XFIXES
// extensions (a Wayland session without XWayland cannot, for now). Any thread.
bool IsCaptureSupported();
// Why capture is not supported here, as a sentence for a person; meaningful only when
// IsCaptureSupported() is false.
std::string CaptureUnsupportedReason();

// Opens the target; no frame flows before Start. Throws Error when capture is not supported,
// for a window that is 0 or no longer exists, a monitor index that is not listed, or a target
// of zero size.
std::unique_ptr<ICapturer> CreateCapturer(const CaptureTarget& target);

}  // namespace mirell::capture
