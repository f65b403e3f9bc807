// Mirell's one process: the tray application is the daemon. Start-up and shutdown run in a fixed
// order; see docs/ARCHITECTURE.md.
#include <QApplication>
#include <QGuiApplication>
#include <QLatin1String>
#include <QMessageBox>
#include <QObject>
#include <QString>
#include <QMetaObject>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "command_line_share.h"
#include "daemon_host.h"
#include "instance_key.h"
#include "instance_request.h"
#include "log_location.h"
#include "main_window.h"
#include "meeting_place.h"
#include "meeting_place_dialog.h"
#include "mirell/base/logging.h"
#include "mirell/base/process_memory.h"
#include "mirell/base/version.h"
#include "mirell/encode/media_runtime.h"
#include "mirell/resolve/winsock.h"
#include "mirell/settings/allowlist.h"
#include "mirell/settings/identity_key_store.h"
#include "mirell/settings/network_settings.h"
#include "mirell/settings/quality.h"
#include "mirell/transport/https_get.h"
#include "options.h"
#include "quality_dialog.h"
#include "quit_on_signal.h"
#include "restore_mode.h"
#include "session_allowlist.h"
#include "single_instance.h"
#include "update_prompt.h"

namespace {

mirell::ui::Arguments ArgumentsOf(int argc, char** argv) {
  return {argv + 1, static_cast<std::size_t>(argc > 0 ? argc - 1 : 0)};
}

// Qt's platforms that draw to no screen: a message box there waits for a person who cannot see it.
bool HasScreenForMessages() {
  const QString platform = QGuiApplication::platformName();
  return platform != QLatin1String("offscreen") && platform != QLatin1String("minimal");
}

bool IsSet(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

// This run's request to the instance already running with its key, and that instance's answer
// as this run's: the link or what was done on stdout and 0, else the reason on stderr and 1. A
// show request is posted without waiting for the answer, as before.
int AskTheRunningInstance(const mirell::ui::CommandLine& line) {
  using namespace mirell::ui;
  const InstanceRequest request = RequestOf(line);
  if (request.kind == InstanceRequest::Kind::kShow) {
    AskRunningInstance(EncodeRequest(request), std::chrono::milliseconds(500));
    return 0;
  }
  if (!line.share.allow.empty()) {
    std::fprintf(stderr, "mirell-ui: --allow goes with a share this run starts; the running mirell-ui "
                         "asks about its viewers itself (--admit and --deny decide)\n");
    return 2;
  }
  // A share starts its capture and encoder before it answers.
  const std::optional<std::string> answer = AskRunningInstance(EncodeRequest(request), std::chrono::seconds(30));
  const std::optional<InstanceReply> reply = answer ? DecodeReply(*answer) : std::nullopt;
  if (!reply) {
    std::fprintf(stderr, "mirell-ui: the mirell-ui already running with this RTSP port and resolve endpoint "
                         "did not answer\n");
    return 1;
  }
  if (!reply->ok) {
    std::fprintf(stderr, "mirell-ui: %s\n", reply->text.c_str());
    return 1;
  }
  std::printf("%s\n", reply->text.c_str());
  return 0;
}

// With no display at all (a server, a container) Qt would abort looking for one; the program
// still serves resolves and command-line shares there, without a window.
bool RunWithoutDisplay() {
  if (IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY") || IsSet("QT_QPA_PLATFORM")) return false;
  qputenv("QT_QPA_PLATFORM", "offscreen");
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace mirell;
  using namespace mirell::ui;
  // Before the libraries make their large buffers; a refusal only costs memory.
  KeepToSmallPages();

  // Read once, before anything else; a line that cannot be followed starts nothing.
  const CommandLine line = ParseCommandLine(ArgumentsOf(argc, argv), DaemonConfig{});
  switch (line.info) {
    case InfoRequest::kHelp:
      std::fputs(UsageText().c_str(), stdout);
      return 0;
    case InfoRequest::kVersion:
      std::printf("mirell-ui %.*s\n", static_cast<int>(kVersion.size()), kVersion.data());
      return 0;
    case InfoRequest::kNone:
      break;
  }
  if (!line.error.empty()) {
    std::fprintf(stderr, "mirell-ui: %s (mirell-ui --help lists the options)\n", line.error.c_str());
    return 2;
  }

  // A restore run needs nothing else: no Qt, no lock, no settings.
  if (line.restore_vrchat) return RunRestoreMode(line.tools_dir);
  // The update check's thread may still be inside TLS when the process ends.
  transport::KeepTlsThroughExit();

  // The instance identity must be known before anything is built.
  const StartOptions& start = line.start;
  if (start.debug_log) SetLogLevel(LogLevel::kDebug);
  const std::string key = InstanceKey(start.rtsp_port, start.pipe_name);
  const std::string default_key =
      InstanceKey(DaemonConfig{}.rtsp_port, DaemonConfig{}.pipe_name);
  const ShareOptions& share = line.share;
  // Another instance with this key runs: it is asked to show itself, or to do what this command
  // line asks (a share, a decision about a viewer), and its answer is this run's.
  if (!AcquireSingleInstance(key)) return AskTheRunningInstance(line);
  if (line.admit || line.deny) {
    std::fprintf(stderr,
                 "mirell-ui: no mirell-ui is running with this RTSP port and resolve endpoint: --admit "
                 "and --deny decide about a viewer waiting for a running share (give them its "
                 "--rtsp-port and --pipe, if it has others)\n");
    return 2;
  }

  const bool without_display = RunWithoutDisplay();
  QApplication application(argc, argv);
  QApplication::setApplicationName("Mirell");
  QApplication::setOrganizationName("Mirell");
  QApplication::setQuitOnLastWindowClosed(false);

  // Without a writable directory the process just runs without a log file.
  const std::filesystem::path log_file =
      line.log_file ? std::filesystem::path(*line.log_file) : DefaultLogDirectory() / LogFileName(key, default_key);
  if (PrepareLogFile(log_file)) SetLogFile(log_file);
  LOG_INFO("mirell-ui {} starting, instance {}", kVersion, key);
  if (without_display) LOG_INFO("no display: running without a window");

  resolve::WinsockRuntime winsock;
  encode::MediaRuntime media;

  // Locals are destroyed in reverse order of construction, which is the shutdown order: the host,
  // the update URL and the configuration, the media runtime, the socket runtime, Qt.
  DaemonConfig config;
  config.quality = settings::LoadQualitySettings();
  const encode::ShareQuality& quality = config.quality;
  LOG_INFO("quality {}x{}@{} v={}kbps a={}kbps/{}", quality.width, quality.height, quality.fps,
           quality.video_kbps, quality.audio_kbps, quality.mono ? "mono" : "stereo");
  // The command line beats the stored settings.
  ApplyServiceOptions(line, config);
  settings::NetworkSettings network = settings::LoadNetworkSettings();
  if (!line.signal_url) {
    std::string place = network.meeting;
    if (!place.empty() && !MeetingPlaceError(place).empty()) {
      LOG_WARN("the stored meeting place \"{}\" is not usable; it is asked for again", place);
      place.clear();
    }
    // The first start asks, once, before the window.
    if (place.empty() && HasScreenForMessages()) {
      place = AskMeetingPlace();
      if (!place.empty()) {
        network.meeting = place;
        settings::SaveNetworkSettings(network);
      }
    }
    if (!place.empty()) ApplyMeetingPlace(config, place);
  }
  if (config.signal_url.empty()) {
    LOG_WARN("no meeting place is chosen: shares reach nobody until one is (Network..., or "
             "--signal URL / --signal local); links of any Mirell server still play");
    if (share.wants_share()) {
      std::fprintf(stderr, "mirell-ui: could not share: no meeting place is chosen; give --signal "
                           "URL (a signal server) or --signal local (this computer)\n");
      return 2;
    }
  } else {
    LOG_INFO("meeting place {}", config.local_signal_port != 0 ? "this computer" : config.signal_url);
  }
  const std::string update_url = line.update_url ? *line.update_url : DeriveUpdateUrl(config.signal_url);
  LOG_DEBUG("update check {}", update_url.empty() ? "off" : update_url);
  config.ice_servers = settings::BuildIceServers(network);
  config.ice_policy = 0;
  LOG_INFO("STUN {}, relay {}", network.stun == "custom" ? network.custom_stun : network.stun,
           network.turn_url.empty() ? "none" : network.turn_url);
  config.allowlist = SessionAllowlistOf(settings::LoadAllowlist());
  // For this run only: nothing is stored, and nothing is proved: whoever names the id gets in.
  config.allow_by_claim = share.allow;
  for (const std::string& user_id : share.allow) {
    LOG_INFO("let in without asking, by claimed id only: {}", user_id);
  }
  config.identity_key = settings::LoadIdentityKey();
  LOG_INFO("identity key {}", transport::KeyFingerprint(config.identity_key->PublicText()));
  if (share.minutes) {
    config.share_lifetime_minutes = *share.minutes;
    LOG_INFO("share time limit from the command line: {}",
             *share.minutes == 0 ? std::string("none") : fmt::format("{} min", *share.minutes));
  }
  if (share.width) {
    config.quality.width = *share.width;
    config.quality.height = *share.height;
    config.quality.fps = *share.fps;
    LOG_INFO("quality from the command line {}x{}@{}", config.quality.width, config.quality.height,
             config.quality.fps);
  }

  // Before anything listens: a stop signal that comes during start-up is handled once the event
  // loop runs, and ends the program in order rather than killing it.
  QuitEventLoopOnSignals();

  DaemonHost host(config);
  try {
    host.Start();
  } catch (const std::exception& error) {
    LOG_ERROR("could not start: {}", error.what());
    if (HasScreenForMessages()) {
      QMessageBox::critical(nullptr, QObject::tr("Mirell couldn't start"),
                            QString::fromStdString(error.what()), QMessageBox::Ok);
    }
    return 1;
  }
  if (without_display) {
    // The one thing a person starting it on a server sees at the default log level.
    std::fprintf(stderr,
                 "mirell-ui: running without a window (no display): it plays share links for VRChat, "
                 "resolving on %s with its RTSP server on port %u; to share from here, start it with "
                 "%s--share-window TEXT or --share-monitor N\n",
                 host.resolve_endpoint().c_str(), static_cast<unsigned>(host.rtsp_port()),
                 config.signal_url.empty()
                     ? "--signal URL or --signal local (where friends meet you) and "
                     : "");
  }
  // The heartbeat that ends expired or orphaned shares and drops ended watches, with a window or
  // without one.
  QTimer heartbeat;
  QObject::connect(&heartbeat, &QTimer::timeout, [&host] { host.Poll(); });
  heartbeat.start(DaemonHost::kHeartbeat);
  std::unique_ptr<MainWindow> window;
  if (HasScreenForMessages()) {
    window = std::make_unique<MainWindow>(&host);
    window->show();
    MainWindow* prompt_target = window.get();
    // Called on a session thread: the prompt runs on the interface thread.
    host.OnViewerPending([prompt_target](session::PendingViewer viewer) {
      QMetaObject::invokeMethod(prompt_target, "PromptAdmission", Qt::QueuedConnection,
                                Q_ARG(QString, QString::fromStdString(viewer.connection_id)),
                                Q_ARG(QString, QString::fromStdString(viewer.identity)),
                                Q_ARG(QString, QString::fromStdString(viewer.display_name)),
                                Q_ARG(QString, QString::fromStdString(viewer.key_fingerprint)),
                                Q_ARG(bool, viewer.other_computer));
    });
    host.OnViewerPendingGone([prompt_target](std::string connection_id) {
      QMetaObject::invokeMethod(prompt_target, "WithdrawAdmissionPrompt", Qt::QueuedConnection,
                                Q_ARG(QString, QString::fromStdString(connection_id)));
    });
  } else {
    LogPendingViewers(host, InstanceOptions(start));
  }
  // Later starts' requests: the window shows itself; shares and decisions are the host's.
  MainWindow* shown = window.get();
  ServeInstanceRequests([&host, shown](const std::string& text) {
    const std::optional<InstanceRequest> request = DecodeRequest(text);
    if (!request) return EncodeReply({false, "the request was not understood"});
    if (request->kind == InstanceRequest::Kind::kShow && shown != nullptr) {
      shown->showNormal();
      shown->raise();
      shown->activateWindow();
      return EncodeReply({true, "shown"});
    }
    return EncodeReply(AnswerInstanceRequest(host, *request));
  });

  // Once the window shows; nothing waits for its answer.
  std::optional<UpdateCheck> update_check;
  update_check.emplace(window.get(),
                       QString::fromUtf8(kVersion.data(), static_cast<qsizetype>(kVersion.size())),
                       QString::fromStdString(update_url));

  // Without a window, a command-line share that nobody can join ends the run with the reason
  // (a script waits for the link, or for the program); with one, the window and tray say it.
  if (!window && share.wants_share()) {
    host.sharing().OnRefused([](const std::string& reason) {
      QMetaObject::invokeMethod(
          qApp,
          [reason] {
            LOG_ERROR("the signal server refused the share: {}", reason);
            std::fprintf(stderr, "mirell-ui: the signal server refused the share: %s\n", reason.c_str());
            QCoreApplication::exit(1);
          },
          Qt::QueuedConnection);
    });
  }
  // After the window: a viewer of a command-line share is asked about there from the start.
  try {
    StartCommandLineShare(host, share);
  } catch (const std::exception& error) {
    LOG_ERROR("could not share: {}", error.what());
    std::fprintf(stderr, "mirell-ui: could not share: %s\n", error.what());
    host.Stop();
    return 1;
  }

  const int result = QApplication::exec();
  host.Stop();
  update_check.reset();  // Before the window: a late answer must find no window to post to.
  window.reset();
  LOG_INFO("mirell-ui stopped ({})", result);
  return result;
}
