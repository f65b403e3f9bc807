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

void LogPendingViewers(DaemonHost& host, const std::string& instance_options) {
  host.OnViewerPending([instance_options](session::PendingViewer viewer) {
    const std::string& peer = viewer.connection_id;
    LOG_WARN("viewer {} waits to be let in; says it is {} ({}), {}. Let them in with: mirell-ui "
             "--admit {}{}; send them away with: mirell-ui --deny {}{}",
             peer, viewer.identity.empty() ? "nobody" : viewer.identity,
             viewer.display_name.empty() ? "no name" : viewer.display_name,
             viewer.key_fingerprint.empty() ? "proved no key" : "proved key " + viewer.key_fingerprint,
             peer, instance_options, peer, instance_options);
  });
  host.OnViewerPendingGone(
      [](std::string connection_id) { LOG_INFO("viewer {} left while waiting", connection_id); });
}

std::string InstanceOptions(const StartOptions& start) {
  const DaemonConfig defaults;
  std::string options;
  if (start.rtsp_port != defaults.rtsp_port) options += fmt::format(" --rtsp-port {}", start.rtsp_port);
  if (start.pipe_name != defaults.pipe_name) options += fmt::format(" --pipe {}", start.pipe_name);
  return options;
}

InstanceReply AnswerInstanceRequest(DaemonHost& host, const InstanceRequest& request) {
  session::Sharing& sharing = host.sharing();
  switch (request.kind) {
    case InstanceRequest::Kind::kShow:
      return {false, "nothing to show: this mirell-ui runs without a window"};
    case InstanceRequest::Kind::kShare:
      if (host.config().signal_url.empty()) {
        return {false, "no meeting place is chosen in the running mirell-ui; start it with --signal URL or "
                       "--signal local"};
      }
      try {
        if (request.share.admit_everyone) sharing.SetAdmissionRequired(false);
        sharing.SetPublic(request.share.is_public);
        const auto windows = capture::EnumerateWindows();
        const auto monitors = capture::EnumerateMonitors();
        sharing.Start(ResolveShareTarget(request.share, windows, monitors));
      } catch (const std::exception& error) {
        LOG_WARN("a later start's share failed: {}", error.what());
        return {false, error.what()};
      }
      LOG_INFO("share link {} (asked by a later start)", sharing.link());
      return {true, sharing.link()};
    case InstanceRequest::Kind::kAdmit:
    case InstanceRequest::Kind::kDeny: {
      bool waiting = false;
      for (const session::PendingViewer& viewer : sharing.pending_viewers()) {
        waiting = waiting || viewer.connection_id == request.peer;
      }
      if (!waiting) return {false, fmt::format("no viewer {} is waiting to be let in", request.peer)};
      if (request.kind == InstanceRequest::Kind::kAdmit) {
        sharing.Admit(request.peer);
        LOG_INFO("viewer {} let in (asked by a later start)", request.peer);
        return {true, fmt::format("viewer {} is let in", request.peer)};
      }
      sharing.Deny(request.peer);
      LOG_INFO("viewer {} sent away (asked by a later start)", request.peer);
      return {true, fmt::format("viewer {} is sent away", request.peer)};
    }
  }
  return {false, "the request was not understood"};
}

void StartCommandLineShare(DaemonHost& host, const ShareOptions& options) {
  session::Sharing& sharing = host.sharing();
  if (options.admit_everyone) sharing.SetAdmissionRequired(false);
  if (!options.wants_share()) return;
  sharing.SetPublic(options.is_public);

  const auto windows = capture::EnumerateWindows();
  const auto monitors = capture::EnumerateMonitors();
  sharing.Start(ResolveShareTarget(options, windows, monitors));
  if (options.admit_everyone) LOG_WARN("every viewer is let in without asking (--admit-everyone)");
  if (options.is_public) LOG_WARN("anyone with the link can watch, without Mirell too (--public)");
  const std::string link = sharing.link();
  LOG_INFO("share link {}", link);
  std::printf("%s\n", link.c_str());
  std::fflush(stdout);
}

}  // namespace mirell::ui
