#include "command_line_share.h"

#include <fmt/format.h>

#include <cstdio>
#include <stdexcept>

#include "mirell/base/logging.h"

namespace mirell::ui {

namespace {

std::string QuotedTitles(std::span<const capture::CapturableWindow> windows) {
  std::string titles;
  for (const auto& window : windows) titles += fmt::format("{}\"{}\"", titles.empty() ? "" : ", ", window.title);
  return titles.empty() ? "none" : titles;
}

}  // namespace

session::ShareTarget ResolveShareTarget(const ShareOptions& options,
                                        std::span<const capture::CapturableWindow> windows,
                                        std::span<const capture::CapturableMonitor> monitors) {
  session::ShareTarget target;
  if (options.monitor) {
    const std::uint32_t index = *options.monitor;
    if (index >= monitors.size()) {
      throw std::invalid_argument(
          fmt::format("there is no monitor {}: this display has {} (0 is the first)", index, monitors.size()));
    }
    const capture::CapturableMonitor& monitor = monitors[index];
    target.capture.kind = capture::CaptureKind::kMonitor;
    target.capture.monitor = monitor.monitor;
    target.label = fmt::format("Monitor {} ({})", index + 1, monitor.name);
    target.whole_mix = true;
    return target;
  }
  const std::uint32_t window = capture::FindWindowByTitleIn(windows, options.window_title);
  if (window == 0) {
    throw std::invalid_argument(fmt::format("no window's title contains \"{}\"; the windows that can be shared: {}",
                                            options.window_title, QuotedTitles(windows)));
  }
  for (const auto& candidate : windows) {
    if (candidate.window != window) continue;
    target.capture.kind = capture::CaptureKind::kWindow;
    target.capture.window = candidate.window;
    target.label = candidate.title;
    target.process_id = candidate.pid;
  }
  return target;
}

void LogPendingViewers(DaemonHost& host) {
  host.OnViewerPending([](session::PendingViewer viewer) {
    LOG_INFO("viewer {} waits to be let in; says it is {} ({}), {}", viewer.connection_id,
             viewer.identity.empty() ? "nobody" : viewer.identity,
             viewer.display_name.empty() ? "no name" : viewer.display_name,
             viewer.key_fingerprint.empty() ? "proved no key" : "proved key " + viewer.key_fingerprint);
  });
  host.OnViewerPendingGone(
      [](std::string connection_id) { LOG_INFO("viewer {} left while waiting", connection_id); });
}

void StartCommandLineShare(DaemonHost& host, const ShareOptions& options) {
  session::Sharing& sharing = host.sharing();
  if (options.admit_everyone) sharing.SetAdmissionRequired(false);
  if (!options.wants_share()) return;

  const auto windows = capture::EnumerateWindows();
  const auto monitors = capture::EnumerateMonitors();
  sharing.Start(ResolveShareTarget(options, windows, monitors));
  if (options.admit_everyone) LOG_WARN("every viewer is let in without asking (--admit-everyone)");
  const std::string link = sharing.link();
  LOG_INFO("share link {}", link);
  std::printf("%s\n", link.c_str());
  std::fflush(stdout);
}

}  // namespace mirell::ui
