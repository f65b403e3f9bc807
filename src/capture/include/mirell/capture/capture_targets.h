// What could be shared right now: the monitors and the top-level windows worth capturing. Lists
// are read anew on every call (the picker refreshes them), hold no state, and never throw for a
// platform failure: a monitor or window that cannot be read is left out, and an empty list is a
// valid answer. Any thread; each call opens its own display connection.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace mirell::capture {

struct CapturableMonitor {
  std::uint32_t monitor = 0;  // Its index in EnumerateMonitors' list: the CaptureTarget's monitor.
  std::string name;           // The monitor's own name where the display reports one, else `device`.
  std::string device;         // The system's name for it: the output or monitor name ("DP-1").
  std::int32_t x = 0;         // Position on the screen, in pixels.
  std::int32_t y = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool primary = false;
};

struct CapturableWindow {
  std::uint32_t window = 0;  // The X window id: the CaptureTarget's window.
  std::string title;         // UTF-8.
  std::string process;       // File name of its executable; empty when it could not be read.
  std::uint32_t pid = 0;     // 0 when unknown.
  std::uint32_t width = 0;
  std::uint32_t height = 0;
};

// Primary first; the others in the display's order.
std::vector<CapturableMonitor> EnumerateMonitors();
// Topmost first. Leaves out windows that are not shown (unmapped, minimised, on another
// desktop), tool, dock, desktop, menu and similar helper windows, untitled ones, those smaller
// than 32x32 pixels, and this process's own.
std::vector<CapturableWindow> EnumerateWindows();
// The first window of EnumerateWindows whose title contains `text`, ignoring the case of ASCII
// letters; 0 for an empty text or no match.
std::uint32_t FindWindowByTitle(const std::string& text);
// The same search over a given list: the platform-free part.
std::uint32_t FindWindowByTitleIn(std::span<const CapturableWindow> windows, const std::string& text);

// The monitor's own name from an EDID block (the text of the 0xFC display descriptor), or empty.
std::string EdidMonitorName(std::span<const std::uint8_t> edid);

}  // namespace mirell::capture
