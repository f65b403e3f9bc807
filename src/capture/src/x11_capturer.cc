// Capture on X11: one display connection and one thread per capturer. DAMAGE says when the
// picture changed, so a still window costs nothing; a window is read from its composite pixmap
// (a covered window still shows its own content); the pointer is drawn in from XFixes. A
// missing extension costs a feature and a log line, never the capture.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <xcb/damage.h>
#include <xcb/xfixes.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "cursor_overlay.h"
#include "grab_pacer.h"
#include "mirell/base/clock.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/capture/capture_targets.h"
#include "mirell/capture/capturer.h"
#include "x11_connection.h"
#include "x11_grabber.h"

namespace mirell::capture {
namespace {

// At most one grab every 4 ms: a window that repaints without pause costs no more than 250 reads
// a second, and the capture source thins further to its own rate.
constexpr std::int64_t kMinimumGrabSpacingNs = 4'000'000;
// How often the pointer's position is looked at while nothing else happens, so that a moving
// pointer over a still picture still gives frames.
constexpr int kPointerPollMs = 33;
constexpr int kIdleWaitMs = 250;
// A window that has not repainted by then is read as it is.
constexpr std::int64_t kFirstDamageWaitNs = 500'000'000;

timespec NsToTimespec(std::int64_t ns) {
  return {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
}

bool QueryExtensionVersion(X11Connection& x, const char* name, bool (*query)(X11Connection&)) {
  return x.HasExtension(name) && query(x);
}

bool QueryDamage(X11Connection& x) {
  auto reply = TakeReply(xcb_damage_query_version_reply(x.get(), xcb_damage_query_version(x.get(), 1, 1), nullptr));
  return reply != nullptr;
}

bool QueryXfixes(X11Connection& x) {
  auto reply = TakeReply(xcb_xfixes_query_version_reply(x.get(), xcb_xfixes_query_version(x.get(), 4, 0), nullptr));
  return reply != nullptr;
}

class X11Capturer final : public ICapturer {
 public:
  explicit X11Capturer(const CaptureTarget& target) : target_(target), grabber_(x_) {
    MIRELL_CHECK(x_.ok(), "no X display to capture from (is DISPLAY set?)");
    damage_ = QueryExtensionVersion(x_, "DAMAGE", QueryDamage);
    if (!damage_) LOG_INFO("X server does not support DAMAGE; reading the picture 30 times a second");
    cursor_ = target_.show_cursor && QueryExtensionVersion(x_, "XFIXES", QueryXfixes);
    if (target_.show_cursor && !cursor_) LOG_INFO("X server does not support XFixes; the pointer is not drawn");
    if (target_.kind == CaptureKind::kWindow) {
      OpenWindow();
    } else {
      OpenMonitor();
    }
    MIRELL_CHECK(width_ > 0 && height_ > 0, "the capture target reported a zero size");
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    MIRELL_CHECK(wake_ >= 0, "could not make the capture thread's wake-up ({})", errno);
  }

  ~X11Capturer() override {
    Stop();
    close(wake_);
  }

  void Start(FrameCallback on_frame) override {
    MIRELL_CHECK(on_frame != nullptr, "a capturer needs somewhere to send frames");
    if (running_.exchange(true)) return;
    {
      std::lock_guard lock(mutex_);
      on_frame_ = std::move(on_frame);
    }
    thread_ = std::thread([this] {
      NameThisThread("x11-capture");
      Run();
    });
    LOG_INFO("{} at {}x{}", name_, width_.load(), height_.load());
  }

  void Stop() override {
    if (!running_.exchange(false)) return;
    const std::uint64_t one = 1;
    if (write(wake_, &one, sizeof one) < 0) LOG_WARN("could not wake the capture thread ({})", errno);
    if (thread_.joinable()) thread_.join();
    if (pacer_.reads() > 0) {
      LOG_INFO("{}: reads paced={} late={} lead={:.1f}ms", name_, pacer_.reads(), pacer_.late_reads(),
               static_cast<double>(pacer_.lead_ns()) / 1e6);
    }
    std::lock_guard lock(mutex_);
    on_frame_ = nullptr;
  }

  std::uint32_t width() const override { return width_; }
  std::uint32_t height() const override { return height_; }
  const std::string& name() const override { return name_; }
  bool alive() const override { return alive_; }
  void SetTickSchedule(std::int64_t first_tick_ns, std::uint32_t ticks_per_second) override {
    pacer_.SetSchedule(first_tick_ns, ticks_per_second);
    // The thread may be asleep until a read time of the old schedule.
    const std::uint64_t one = 1;
    if (write(wake_, &one, sizeof one) < 0) LOG_WARN("could not wake the capture thread ({})", errno);
  }

 private:
  void OpenWindow() {
    MIRELL_CHECK(target_.window != 0, "no window to capture");
    const WindowGeometry geometry = grabber_.GeometryOf(target_.window);
    MIRELL_CHECK(geometry.status != GrabStatus::kGone && geometry.status != GrabStatus::kFailed,
                 "that window no longer exists");
    name_ = WindowTitleOf(target_.window);
    width_ = geometry.width;
    height_ = geometry.height;
    composite_ = x_.HasExtension("Composite") && grabber_.RedirectWindow(target_.window);
    if (!composite_) {
      LOG_INFO("X server does not support Composite; covered parts of \"{}\" show what covers them", name_);
    }
    // Destruction of the window comes to us as an event.
    const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(x_.get(), target_.window, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(x_.get());
  }

  void OpenMonitor() {
    const auto monitors = EnumerateMonitors();
    MIRELL_CHECK(target_.monitor < monitors.size(), "no monitor {} (there are {})", target_.monitor, monitors.size());
    const auto& monitor = monitors[target_.monitor];
    name_ = "monitor";
    monitor_x_ = monitor.x;
    monitor_y_ = monitor.y;
    width_ = monitor.width;
    height_ = monitor.height;
  }

  std::string WindowTitleOf(xcb_window_t window) {
    auto title = x_.PropertyText(window, x_.Atom("_NET_WM_NAME"), x_.Atom("UTF8_STRING"));
    if (!title || title->empty()) title = x_.PropertyText(window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING);
    return title && !title->empty() ? *title : "window " + std::to_string(window);
  }

  xcb_drawable_t Drawable() const {
    return target_.kind == CaptureKind::kWindow ? target_.window : x_.root();
  }

  void Run() {
    xcb_damage_damage_t damage = 0;
    std::uint8_t damage_event = 0;
    if (damage_) {
      damage = xcb_generate_id(x_.get());
      xcb_damage_create(x_.get(), damage, Drawable(), XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
      damage_event = xcb_get_extension_data(x_.get(), &xcb_damage_id)->first_event + XCB_DAMAGE_NOTIFY;
    }
    xcb_flush(x_.get());

    const std::int64_t started = SteadyNowNs();
    // A screen has its picture now; a window just redirected is black until it repaints.
    bool pending = target_.kind != CaptureKind::kWindow || !composite_ || !damage_;
    bool delivered_any = false;
    std::int64_t last_grab = 0;
    std::int64_t planned = 0;  // When a pending change was meant to be read; 0: as soon as seen.
    const int fd = xcb_get_file_descriptor(x_.get());
    while (running_) {
      const std::int64_t now = SteadyNowNs();
      std::int64_t timeout_ns = static_cast<std::int64_t>(cursor_ ? kPointerPollMs : kIdleWaitMs) * 1'000'000;
      if (!damage_) timeout_ns = std::int64_t{kPointerPollMs} * 1'000'000;
      if (pending) timeout_ns = std::max<std::int64_t>(0, ReadAt(last_grab, now) - now);
      pollfd fds[2] = {{fd, POLLIN, 0}, {wake_, POLLIN, 0}};
      const timespec timeout = NsToTimespec(timeout_ns);
      ppoll(fds, 2, &timeout, nullptr);
      if (!running_) break;
      if ((fds[1].revents & POLLIN) != 0) {
        std::uint64_t count = 0;
        if (read(wake_, &count, sizeof count) < 0) LOG_DEBUG("capture wake-up already taken ({})", errno);
      }

      while (xcb_generic_event_t* event = xcb_poll_for_event(x_.get())) {
        const std::uint8_t type = event->response_type & 0x7F;
        if (damage_ && type == damage_event) {
          pending = true;
        } else if (type == XCB_DESTROY_NOTIFY &&
                   reinterpret_cast<xcb_destroy_notify_event_t*>(event)->window == target_.window) {
          MarkGone();
        }
        std::free(event);
      }
      if (xcb_connection_has_error(x_.get()) != 0) {
        LOG_WARN("{}: the X display went away; capture ended", name_);
        alive_ = false;
        break;
      }
      if (!alive_) continue;  // The frames stop; Stop ends the thread.
      if (!damage_) pending = true;
      if (!pending && !delivered_any && SteadyNowNs() - started > kFirstDamageWaitNs) pending = true;
      if (!pending && cursor_ && PointerMoved()) pending = true;
      const std::int64_t grab_start = SteadyNowNs();
      if (!pending) {
        planned = 0;
        continue;
      }
      const std::int64_t read_at = ReadAt(last_grab, grab_start);
      if (grab_start < read_at) {
        planned = read_at;
        continue;
      }

      if (damage_) xcb_damage_subtract(x_.get(), damage, XCB_NONE, XCB_NONE);
      last_grab = grab_start;
      pending = false;
      // From the planned start, so that a late wake-up counts as the read's cost and moves the
      // next read earlier.
      const std::int64_t read_start = planned != 0 ? std::min(planned, grab_start) : grab_start;
      planned = 0;
      switch (GrabAndDeliver()) {
        case Outcome::kDelivered:
          delivered_any = true;
          pacer_.Read(read_start, SteadyNowNs());
          break;
        case Outcome::kTryAgain: pending = true; break;
        case Outcome::kNothing: break;
      }
    }
    if (damage_ && xcb_connection_has_error(x_.get()) == 0) {
      xcb_damage_destroy(x_.get(), damage);
      xcb_flush(x_.get());
    }
  }

  // When a pending change may be read: the spacing after the last read, and the consumer's
  // tick schedule where it gave one.
  std::int64_t ReadAt(std::int64_t last_grab, std::int64_t now) {
    return std::max(last_grab + kMinimumGrabSpacingNs, pacer_.NextReadAt(now));
  }

  enum class Outcome { kDelivered, kTryAgain, kNothing };

  Outcome GrabAndDeliver() {
    Grab grab;
    std::int32_t origin_x = monitor_x_;
    std::int32_t origin_y = monitor_y_;
    if (target_.kind == CaptureKind::kWindow) {
      const WindowGeometry geometry = grabber_.GeometryOf(target_.window);
      if (geometry.status == GrabStatus::kGone) {
        MarkGone();
        return Outcome::kNothing;
      }
      if (geometry.status != GrabStatus::kOk || geometry.width == 0 || geometry.height == 0) return Outcome::kNothing;
      if (geometry.width != width_ || geometry.height != height_) {
        // This frame is not delivered: the next comes at the new size.
        LOG_INFO("{} resized {}x{} -> {}x{}", name_, width_.load(), height_.load(), geometry.width, geometry.height);
        width_ = geometry.width;
        height_ = geometry.height;
        return Outcome::kTryAgain;
      }
      origin_x = geometry.root_x;
      origin_y = geometry.root_y;
      grab = composite_ ? grabber_.GrabWindow(target_.window, geometry.width, geometry.height)
                        : grabber_.GrabScreen(geometry.root_x, geometry.root_y, geometry.width, geometry.height);
    } else {
      grab = grabber_.GrabScreen(monitor_x_, monitor_y_, width_, height_);
    }
    if (grab.status == GrabStatus::kGone) MarkGone();
    if (grab.status != GrabStatus::kOk) return Outcome::kNothing;
    const std::int64_t timestamp = SteadyNowNs() / 100;
    if (cursor_) DrawPointer(grab, origin_x, origin_y);

    std::lock_guard lock(mutex_);
    if (!on_frame_) return Outcome::kNothing;
    try {
      on_frame_(CapturedFrame{grab.view(), timestamp});
    } catch (const std::exception& error) {
      LOG_DEBUG("{}: a frame was lost: {}", name_, error.what());
    }
    return Outcome::kDelivered;
  }

  void DrawPointer(Grab& grab, std::int32_t origin_x, std::int32_t origin_y) {
    auto image = TakeReply(xcb_xfixes_get_cursor_image_reply(x_.get(), xcb_xfixes_get_cursor_image(x_.get()), nullptr));
    if (!image) return;
    pointer_x_ = image->x;
    pointer_y_ = image->y;
    const auto length = static_cast<std::size_t>(xcb_xfixes_get_cursor_image_cursor_image_length(image.get()));
    CursorImage cursor{{xcb_xfixes_get_cursor_image_cursor_image(image.get()), length},
                       image->width,
                       image->height,
                       image->x - image->xhot - origin_x,
                       image->y - image->yhot - origin_y};
    OverlayCursor(grab.pixels, grab.stride(), grab.width, grab.height, cursor);
  }

  bool PointerMoved() {
    auto pointer = TakeReply(xcb_query_pointer_reply(x_.get(), xcb_query_pointer(x_.get(), x_.root()), nullptr));
    if (!pointer) return false;
    const bool moved = pointer->root_x != pointer_x_ || pointer->root_y != pointer_y_;
    pointer_x_ = pointer->root_x;
    pointer_y_ = pointer->root_y;
    return moved;
  }

  void MarkGone() {
    if (alive_.exchange(false)) LOG_INFO("{} closed", name_);
  }

  const CaptureTarget target_;
  X11Connection x_;
  X11Grabber grabber_;
  std::string name_;
  bool damage_ = false;
  bool cursor_ = false;
  bool composite_ = false;
  std::int32_t monitor_x_ = 0;
  std::int32_t monitor_y_ = 0;
  std::int32_t pointer_x_ = -1;  // The capture thread's last look at the pointer.
  std::int32_t pointer_y_ = -1;
  std::atomic<std::uint32_t> width_{0};
  std::atomic<std::uint32_t> height_{0};
  std::atomic<bool> running_{false};
  std::atomic<bool> alive_{true};
  int wake_ = -1;  // An eventfd: Stop and a new tick schedule wake the thread.
  GrabPacer pacer_;
  std::mutex mutex_;  // Held around each callback, so that Stop waits for one in progress.
  FrameCallback on_frame_;
  std::thread thread_;
};

}  // namespace

bool IsCaptureSupported() {
  if (IsWaylandOnlySession()) return false;
  X11Connection x;
  return x.ok() && x.HasExtension("Composite") && x.HasExtension("DAMAGE") && x.HasExtension("XFIXES");
}

std::string CaptureUnsupportedReason() {
  if (IsWaylandOnlySession()) {
    return "window and screen capture need an X11 session or XWayland for now; this is a Wayland "
           "session without an X display";
  }
  return "capture needs an X11 display with the Composite, DAMAGE and XFIXES extensions";
}

std::unique_ptr<ICapturer> CreateCapturer(const CaptureTarget& target) {
  MIRELL_CHECK(IsCaptureSupported(), "{}", CaptureUnsupportedReason());
  return std::make_unique<X11Capturer>(target);
}

}  // namespace mirell::capture
