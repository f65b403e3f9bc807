// Thumbnails on X11: one connection kept for the picker's life, windows redirected on first use
// and kept so (a covered window then shows its own content), one grab a call.
#include <set>

#include "mirell/capture/capture_targets.h"
#include "mirell/capture/thumbnails.h"
#include "x11_connection.h"
#include "x11_grabber.h"

namespace mirell::capture {
namespace {

class X11ThumbnailSource final : public ThumbnailSource {
 public:
  X11ThumbnailSource() : grabber_(x_) { composite_ = x_.ok() && x_.HasExtension("Composite"); }

  std::optional<Thumbnail> Take(const CaptureTarget& target, std::uint32_t max_width,
                                std::uint32_t max_height) override {
    if (!x_.ok() || xcb_connection_has_error(x_.get()) != 0) return std::nullopt;
    Grab grab;
    if (target.kind == CaptureKind::kWindow) {
      if (target.window == 0) return std::nullopt;
      const WindowGeometry geometry = grabber_.GeometryOf(target.window);
      if (geometry.status != GrabStatus::kOk) {
        if (geometry.status == GrabStatus::kGone) redirected_.erase(target.window);
        return std::nullopt;
      }
      if (composite_ && redirected_.count(target.window) == 0 && grabber_.RedirectWindow(target.window)) {
        redirected_.insert(target.window);
      }
      grab = redirected_.count(target.window) != 0
                 ? grabber_.GrabWindow(target.window, geometry.width, geometry.height)
                 : grabber_.GrabScreen(geometry.root_x, geometry.root_y, geometry.width, geometry.height);
    } else {
      const auto monitors = EnumerateMonitors();
      if (target.monitor >= monitors.size()) return std::nullopt;
      const auto& monitor = monitors[target.monitor];
      grab = grabber_.GrabScreen(monitor.x, monitor.y, monitor.width, monitor.height);
    }
    if (grab.status != GrabStatus::kOk) return std::nullopt;
    return ScaleToFit(grab.view(), max_width, max_height);
  }

 private:
  X11Connection x_;
  X11Grabber grabber_;
  bool composite_ = false;
  std::set<xcb_window_t> redirected_;
};

}  // namespace

std::unique_ptr<ThumbnailSource> CreateThumbnailSource() { return std::make_unique<X11ThumbnailSource>(); }

}  // namespace mirell::capture
