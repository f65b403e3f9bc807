// Reads pixels of a window or a screen rectangle from the X server: through a shared-memory
// segment (MIT-SHM over a memfd, which works without a shared IPC namespace) where the server
// offers it, else through plain GetImage (about forty times slower, logged once). A window is read
// from its composite pixmap, so a covered window still gives its own content. One thread.
#pragma once

#include <xcb/xcb.h>
#include <xcb/shm.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "mirell/media/bgra_view.h"
#include "x11_connection.h"

namespace mirell::capture {

enum class GrabStatus {
  kOk,
  kNotShown,  // Unmapped or minimised: nothing to read now; it may come back.
  kGone,      // The window no longer exists.
  kFailed,    // Any other refusal; the next try may work.
};

// Valid until the next grab; ours to draw on (the cursor goes in). Fourth byte undefined.
struct Grab {
  GrabStatus status = GrabStatus::kFailed;
  std::uint8_t* pixels = nullptr;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::size_t stride() const { return static_cast<std::size_t>(width) * 4; }
  media::BgraView view() const { return {pixels, stride(), width, height}; }
};

struct WindowGeometry {
  GrabStatus status = GrabStatus::kFailed;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::int32_t root_x = 0;  // The window's origin on the screen.
  std::int32_t root_y = 0;
};

class X11Grabber {
 public:
  // Uses `x`, which must outlive the grabber; with a failed connection it must not be used.
  explicit X11Grabber(X11Connection& x);
  ~X11Grabber();
  X11Grabber(const X11Grabber&) = delete;
  X11Grabber& operator=(const X11Grabber&) = delete;

  // Size, position and state of a window, in one place so the capturer and the snapshot agree.
  WindowGeometry GeometryOf(xcb_window_t window);
  // The window's content at `width` x `height`, which the caller has just read with GeometryOf.
  // The window must be redirected (XComposite); RedirectWindow does that.
  Grab GrabWindow(xcb_window_t window, std::uint32_t width, std::uint32_t height);
  // A rectangle of the root window: a monitor.
  Grab GrabScreen(std::int32_t x, std::int32_t y, std::uint32_t width, std::uint32_t height);
  // Keeps the window's content in an off-screen pixmap; the server undoes it when our
  // connection closes.
  bool RedirectWindow(xcb_window_t window);

 private:
  Grab GrabDrawable(xcb_drawable_t drawable, std::int16_t x, std::int16_t y, std::uint32_t width,
                    std::uint32_t height);
  bool EnsureSegment(std::size_t bytes);
  void ReleaseSegment();

  X11Connection& x_;
  bool shm_ = false;
  xcb_shm_seg_t segment_ = 0;
  std::uint8_t* memory_ = nullptr;
  std::size_t memory_size_ = 0;
  std::vector<std::uint8_t> fallback_;
};

}  // namespace mirell::capture
