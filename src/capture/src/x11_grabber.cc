#include "x11_grabber.h"

#include <sys/mman.h>
#include <unistd.h>
#include <xcb/composite.h>

#include <cstring>

#include "mirell/base/logging.h"

namespace mirell::capture {

X11Grabber::X11Grabber(X11Connection& x) : x_(x) {
  if (!x_.ok()) return;
  if (x_.HasExtension("MIT-SHM")) {
    auto version = TakeReply(xcb_shm_query_version_reply(x_.get(), xcb_shm_query_version(x_.get()), nullptr));
    // Passing a file descriptor needs MIT-SHM 1.2.
    shm_ = version && (version->major_version > 1 || version->minor_version >= 2);
  }
  if (!shm_) LOG_INFO("X server has no MIT-SHM 1.2; reading pixels through GetImage (slower)");
  if (x_.HasExtension("Composite")) {
    auto version = TakeReply(xcb_composite_query_version_reply(x_.get(), xcb_composite_query_version(x_.get(), 0, 4), nullptr));
    (void)version;  // The server needs to hear our version before it takes Composite requests.
  }
}

X11Grabber::~X11Grabber() { ReleaseSegment(); }

bool X11Grabber::RedirectWindow(xcb_window_t window) {
  auto error = TakeReply(xcb_request_check(
      x_.get(), xcb_composite_redirect_window_checked(x_.get(), window, XCB_COMPOSITE_REDIRECT_AUTOMATIC)));
  return error == nullptr;
}

WindowGeometry X11Grabber::GeometryOf(xcb_window_t window) {
  WindowGeometry result;
  auto attributes_cookie = xcb_get_window_attributes(x_.get(), window);
  auto geometry_cookie = xcb_get_geometry(x_.get(), window);
  auto origin_cookie = xcb_translate_coordinates(x_.get(), window, x_.root(), 0, 0);
  xcb_generic_error_t* raw_error = nullptr;
  auto attributes = TakeReply(xcb_get_window_attributes_reply(x_.get(), attributes_cookie, &raw_error));
  auto error = TakeReply(raw_error);
  auto geometry = TakeReply(xcb_get_geometry_reply(x_.get(), geometry_cookie, nullptr));
  auto origin = TakeReply(xcb_translate_coordinates_reply(x_.get(), origin_cookie, nullptr));
  if (!attributes || !geometry) {
    result.status = error && error->error_code == XCB_WINDOW ? GrabStatus::kGone : GrabStatus::kFailed;
    return result;
  }
  result.width = geometry->width;
  result.height = geometry->height;
  if (origin) {
    result.root_x = origin->dst_x;
    result.root_y = origin->dst_y;
  }
  result.status = attributes->map_state == XCB_MAP_STATE_VIEWABLE ? GrabStatus::kOk : GrabStatus::kNotShown;
  return result;
}

Grab X11Grabber::GrabWindow(xcb_window_t window, std::uint32_t width, std::uint32_t height) {
  // A fresh name for the pixmap on every grab: the server gives a window a new pixmap when it
  // is resized or mapped again, and an old name would show a stale picture.
  const xcb_pixmap_t pixmap = xcb_generate_id(x_.get());
  auto error = TakeReply(xcb_request_check(x_.get(), xcb_composite_name_window_pixmap_checked(x_.get(), window, pixmap)));
  if (error) {
    // An unmapped window has no pixmap (BadMatch); a destroyed one is BadWindow.
    return {error->error_code == XCB_WINDOW ? GrabStatus::kGone
            : error->error_code == XCB_MATCH ? GrabStatus::kNotShown
                                             : GrabStatus::kFailed};
  }
  Grab grab = GrabDrawable(pixmap, 0, 0, width, height);
  xcb_free_pixmap(x_.get(), pixmap);
  return grab;
}

Grab X11Grabber::GrabScreen(std::int32_t x, std::int32_t y, std::uint32_t width, std::uint32_t height) {
  return GrabDrawable(x_.root(), static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), width, height);
}

Grab X11Grabber::GrabDrawable(xcb_drawable_t drawable, std::int16_t x, std::int16_t y, std::uint32_t width,
                              std::uint32_t height) {
  const std::size_t bytes = static_cast<std::size_t>(width) * height * 4;
  if (width == 0 || height == 0 || width > 0x7FFF || height > 0x7FFF) return {};
  const auto w = static_cast<std::uint16_t>(width);
  const auto h = static_cast<std::uint16_t>(height);
  if (shm_ && EnsureSegment(bytes)) {
    auto reply = TakeReply(xcb_shm_get_image_reply(
        x_.get(), xcb_shm_get_image(x_.get(), drawable, x, y, w, h, ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, 0),
        nullptr));
    // 24- and 32-bit visuals both come as four bytes a pixel; anything else we cannot read.
    if (!reply || reply->size != bytes) return {};
    return {GrabStatus::kOk, memory_, width, height};
  }
  auto reply = TakeReply(xcb_get_image_reply(
      x_.get(), xcb_get_image(x_.get(), XCB_IMAGE_FORMAT_Z_PIXMAP, drawable, x, y, w, h, ~0u), nullptr));
  if (!reply || static_cast<std::size_t>(xcb_get_image_data_length(reply.get())) != bytes) return {};
  fallback_.assign(xcb_get_image_data(reply.get()), xcb_get_image_data(reply.get()) + bytes);
  return {GrabStatus::kOk, fallback_.data(), width, height};
}

bool X11Grabber::EnsureSegment(std::size_t bytes) {
  if (memory_ != nullptr && memory_size_ >= bytes) return true;
  ReleaseSegment();
  const int fd = memfd_create("mirell-capture", MFD_CLOEXEC);
  if (fd < 0) return false;
  if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
    close(fd);
    return false;
  }
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) {
    close(fd);
    return false;
  }
  segment_ = xcb_generate_id(x_.get());
  // xcb sends the descriptor and closes it; our mapping stays.
  auto error = TakeReply(xcb_request_check(x_.get(), xcb_shm_attach_fd_checked(x_.get(), segment_, fd, 0)));
  if (error) {
    munmap(memory, bytes);
    segment_ = 0;
    shm_ = false;
    LOG_INFO("X server refused a shared-memory segment (error {}); reading pixels through GetImage (slower)",
             int{error->error_code});
    return false;
  }
  memory_ = static_cast<std::uint8_t*>(memory);
  memory_size_ = bytes;
  return true;
}

void X11Grabber::ReleaseSegment() {
  if (memory_ == nullptr) return;
  xcb_shm_detach(x_.get(), segment_);
  xcb_flush(x_.get());
  munmap(memory_, memory_size_);
  memory_ = nullptr;
  memory_size_ = 0;
  segment_ = 0;
}

}  // namespace mirell::capture
