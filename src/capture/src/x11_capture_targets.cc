// The capture targets of an X11 session: monitors from RandR 1.5, windows from the window
// manager's stacking list (EWMH), filtered to what a person would want to share.
#include <unistd.h>
#include <xcb/randr.h>
#include <xcb/res.h>

#include <algorithm>
#include <filesystem>

#include "mirell/base/logging.h"
#include "mirell/capture/capture_targets.h"
#include "x11_connection.h"

namespace mirell::capture {
namespace {

constexpr std::uint32_t kMinimumSide = 32;
constexpr std::uint32_t kAllDesktops = 0xFFFFFFFF;

std::string AtomName(X11Connection& x, xcb_atom_t atom) {
  auto reply = TakeReply(xcb_get_atom_name_reply(x.get(), xcb_get_atom_name(x.get(), atom), nullptr));
  if (!reply) return {};
  return std::string(xcb_get_atom_name_name(reply.get()),
                     static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get())));
}

std::string OutputEdidName(X11Connection& x, xcb_randr_output_t output) {
  const xcb_atom_t edid = x.Atom("EDID");
  if (edid == XCB_ATOM_NONE) return {};
  auto reply = TakeReply(xcb_randr_get_output_property_reply(
      x.get(), xcb_randr_get_output_property(x.get(), output, edid, XCB_ATOM_INTEGER, 0, 256, 0, 0), nullptr));
  if (!reply || reply->format != 8) return {};
  const auto* data = xcb_randr_get_output_property_data(reply.get());
  const auto length = static_cast<std::size_t>(xcb_randr_get_output_property_data_length(reply.get()));
  return EdidMonitorName(std::span<const std::uint8_t>(data, length));
}

bool HasRandrMonitors(X11Connection& x) {
  if (!x.HasExtension("RANDR")) return false;
  auto version = TakeReply(xcb_randr_query_version_reply(x.get(), xcb_randr_query_version(x.get(), 1, 5), nullptr));
  return version && (version->major_version > 1 || version->minor_version >= 5);
}

// The process behind a window: _NET_WM_PID where the client set it, else the X-Resource
// extension's answer, which the server knows for every local client.
std::uint32_t WindowPid(X11Connection& x, xcb_window_t window) {
  const auto pid = x.Property32(window, x.Atom("_NET_WM_PID"), XCB_ATOM_CARDINAL);
  if (!pid.empty() && pid[0] != 0) return pid[0];
  if (!x.HasExtension("X-Resource")) return 0;
  xcb_res_client_id_spec_t spec{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
  auto reply = TakeReply(xcb_res_query_client_ids_reply(x.get(), xcb_res_query_client_ids(x.get(), 1, &spec), nullptr));
  if (!reply) return 0;
  for (auto ids = xcb_res_query_client_ids_ids_iterator(reply.get()); ids.rem > 0; xcb_res_client_id_value_next(&ids)) {
    if ((ids.data->spec.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) != 0 &&
        xcb_res_client_id_value_value_length(ids.data) >= 1) {
      return *xcb_res_client_id_value_value(ids.data);
    }
  }
  return 0;
}

std::string ProcessName(std::uint32_t pid) {
  if (pid == 0) return {};
  std::error_code error;
  const auto exe = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error);
  return error ? std::string() : exe.filename().string();
}

// Helper windows that nobody means to share; a window without a type is a normal one.
bool IsHelperWindowType(X11Connection& x, xcb_window_t window) {
  static const char* const kHelperTypes[] = {
      "_NET_WM_WINDOW_TYPE_DESKTOP", "_NET_WM_WINDOW_TYPE_DOCK",          "_NET_WM_WINDOW_TYPE_TOOLBAR",
      "_NET_WM_WINDOW_TYPE_MENU",    "_NET_WM_WINDOW_TYPE_UTILITY",       "_NET_WM_WINDOW_TYPE_SPLASH",
      "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU", "_NET_WM_WINDOW_TYPE_POPUP_MENU", "_NET_WM_WINDOW_TYPE_TOOLTIP",
      "_NET_WM_WINDOW_TYPE_NOTIFICATION",  "_NET_WM_WINDOW_TYPE_COMBO",      "_NET_WM_WINDOW_TYPE_DND"};
  for (const xcb_atom_t type : x.Property32(window, x.Atom("_NET_WM_WINDOW_TYPE"), XCB_ATOM_ATOM)) {
    for (const char* helper : kHelperTypes) {
      if (type == x.Atom(helper)) return true;
    }
  }
  return false;
}

std::string WindowTitle(X11Connection& x, xcb_window_t window) {
  if (auto title = x.PropertyText(window, x.Atom("_NET_WM_NAME"), x.Atom("UTF8_STRING")); title && !title->empty()) {
    return *title;
  }
  return x.PropertyText(window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING).value_or(std::string());
}

// The filter, in the order of the checks; fills the window's record when it passes.
bool ReadCapturableWindow(X11Connection& x, xcb_window_t window, std::uint32_t current_desktop,
                          CapturableWindow& out) {
  auto attributes = TakeReply(xcb_get_window_attributes_reply(x.get(), xcb_get_window_attributes(x.get(), window), nullptr));
  if (!attributes || attributes->map_state != XCB_MAP_STATE_VIEWABLE) return false;
  const xcb_atom_t hidden = x.Atom("_NET_WM_STATE_HIDDEN");
  for (const xcb_atom_t state : x.Property32(window, x.Atom("_NET_WM_STATE"), XCB_ATOM_ATOM)) {
    if (state == hidden) return false;
  }
  if (attributes->override_redirect != 0) return false;
  if (IsHelperWindowType(x, window)) return false;
  const auto desktop = x.Property32(window, x.Atom("_NET_WM_DESKTOP"), XCB_ATOM_CARDINAL);
  if (!desktop.empty() && desktop[0] != kAllDesktops && desktop[0] != current_desktop) return false;
  std::string title = WindowTitle(x, window);
  if (title.empty()) return false;
  auto geometry = TakeReply(xcb_get_geometry_reply(x.get(), xcb_get_geometry(x.get(), window), nullptr));
  if (!geometry || geometry->width < kMinimumSide || geometry->height < kMinimumSide) return false;
  const std::uint32_t pid = WindowPid(x, window);
  if (pid != 0 && pid == static_cast<std::uint32_t>(::getpid())) return false;
  out = {window, std::move(title), ProcessName(pid), pid, geometry->width, geometry->height};
  return true;
}

}  // namespace

std::vector<CapturableMonitor> EnumerateMonitors() {
  std::vector<CapturableMonitor> monitors;
  X11Connection x;
  if (!x.ok()) return monitors;
  if (!HasRandrMonitors(x)) {
    LOG_INFO("the X server has no RandR 1.5 monitors; offering the whole screen");
    monitors.push_back({0, "screen", "screen", 0, 0, x.screen()->width_in_pixels, x.screen()->height_in_pixels, true});
    return monitors;
  }
  auto reply = TakeReply(xcb_randr_get_monitors_reply(x.get(), xcb_randr_get_monitors(x.get(), x.root(), 1), nullptr));
  if (!reply) {
    LOG_WARN("could not enumerate monitors");
    return monitors;
  }
  for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0; xcb_randr_monitor_info_next(&it)) {
    const xcb_randr_monitor_info_t* info = it.data;
    if (info->width == 0 || info->height == 0) continue;
    CapturableMonitor monitor;
    monitor.device = AtomName(x, info->name);
    const auto* outputs = xcb_randr_monitor_info_outputs(info);
    if (xcb_randr_monitor_info_outputs_length(info) > 0) monitor.name = OutputEdidName(x, outputs[0]);
    if (monitor.name.empty()) monitor.name = monitor.device;
    monitor.x = info->x;
    monitor.y = info->y;
    monitor.width = info->width;
    monitor.height = info->height;
    monitor.primary = info->primary != 0;
    monitors.push_back(std::move(monitor));
  }
  std::stable_partition(monitors.begin(), monitors.end(), [](const auto& m) { return m.primary; });
  for (std::size_t i = 0; i < monitors.size(); ++i) monitors[i].monitor = static_cast<std::uint32_t>(i);
  return monitors;
}

std::vector<CapturableWindow> EnumerateWindows() {
  std::vector<CapturableWindow> windows;
  X11Connection x;
  if (!x.ok()) return windows;
  // Bottom to top as the window manager keeps it; we list topmost first.
  auto stacking = x.Property32(x.root(), x.Atom("_NET_CLIENT_LIST_STACKING"), XCB_ATOM_WINDOW);
  if (stacking.empty()) stacking = x.Property32(x.root(), x.Atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW);
  const auto current = x.Property32(x.root(), x.Atom("_NET_CURRENT_DESKTOP"), XCB_ATOM_CARDINAL);
  const std::uint32_t current_desktop = current.empty() ? 0 : current[0];
  for (auto it = stacking.rbegin(); it != stacking.rend(); ++it) {
    CapturableWindow window;
    if (ReadCapturableWindow(x, *it, current_desktop, window)) windows.push_back(std::move(window));
  }
  return windows;
}

}  // namespace mirell::capture
