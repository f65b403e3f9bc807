#include "window_texts.h"

#include <QCoreApplication>

namespace mirell::ui {
namespace {

QString Tr(const char* text) {
  return QCoreApplication::translate("mirell::ui::MainWindow", text);
}

QString Q(const std::string& text) { return QString::fromStdString(text); }

}  // namespace

QString DurationText(std::int64_t seconds) {
  if (seconds < 60) return Tr("%1s").arg(seconds);
  if (seconds < 3600) return Tr("%1m %2s").arg(seconds / 60).arg(seconds % 60);
  return Tr("%1h %2m").arg(seconds / 3600).arg((seconds % 3600) / 60, 2, 10, QLatin1Char('0'));
}

QString RateText(std::uint32_t kbps) {
  if (kbps == 0) return QStringLiteral("-");
  if (kbps < 1000) return Tr("%1 kbps").arg(kbps);
  return Tr("%1 Mbps").arg(kbps / 1000.0, 0, 'f', 1);
}

QString PeerStateText(transport::PeerState state) {
  switch (state) {
    case transport::PeerState::kConnecting:
      return Tr("connecting");
    case transport::PeerState::kConnected:
      return Tr("watching");
    case transport::PeerState::kFailed:
      return Tr("failed");
    case transport::PeerState::kClosed:
      return Tr("closed");
  }
  return Tr("unknown");
}

QString ServerName(const std::string& signal_url) {
  const auto scheme_end = signal_url.find("://");
  if (scheme_end == std::string::npos) return Q(signal_url);
  const std::string rest = signal_url.substr(scheme_end + 3);
  return Q(rest.substr(0, rest.find('/')));
}

QString MeetingPlaceName(const std::string& signal_url, std::uint16_t local_port,
                         const std::string& share_prefix) {
  if (signal_url.empty()) return {};
  if (local_port == 0) return ServerName(signal_url);
  return Tr("this computer (%1)").arg(Q(share_prefix.substr(0, share_prefix.find('/'))));
}

QString IdleMeetingText(const QString& place) {
  if (place.isEmpty()) {
    return Tr("No meeting place is chosen, so nobody can join a share: choose one in "
              "Network... (it applies from the next start).");
  }
  return Tr("Shares meet at %1.").arg(place);
}

QString SignalStateText(session::SignalState state, const QString& server, const std::string& reason) {
  switch (state) {
    case session::SignalState::kOff:
      return Tr("No signal server is set: the share plays on this computer only.");
    case session::SignalState::kConnecting:
      return Tr("Reaching %1...").arg(server);
    case session::SignalState::kConnected:
      return Tr("Meeting at %1.").arg(server);
    case session::SignalState::kLost:
      return Tr("Can't reach %1 - retrying. Nobody new can join until it answers.").arg(server);
    case session::SignalState::kRefused:
      return Tr("%1 refused this share: %2. Nobody can join it; share again for a new link.")
          .arg(server, Q(reason));
  }
  return {};
}

QString PasteHintText(bool is_public) {
  return is_public ? Tr("Anyone with the link can watch, with or without Mirell: nobody is asked.")
                   : Tr("Paste this into a video player in VRChat. Anyone without Mirell gets a "
                        "page explaining what it is.");
}

ViewerCell ViewerCellFor(const session::ViewerInfo& viewer) {
  const QString id = Q(viewer.connection_id);
  if (viewer.relay) {
    return {Tr("Relay for players without Mirell"),
            Tr("The meeting place's relay: it plays your public share to everyone in VRChat who "
               "doesn't have Mirell, however many they are, over this one connection.\n"
               "Connection id: %1").arg(id)};
  }
  if (viewer.identity.empty()) {
    return {id, Tr("They didn't say who they are. This is the id the signal server gave them.")};
  }
  const bool checked = !viewer.key_fingerprint.empty();
  // The claimed user id, not the name, goes into the sentence: it is what the list matches.
  const QString who = viewer.display_name.empty() ? Q(viewer.identity) : Q(viewer.display_name);
  QString tip = checked ? Tr("Says they're %1 in VRChat, from a computer that proved its key (%2).")
                              .arg(Q(viewer.identity), Q(viewer.key_fingerprint))
                        : Tr("Says they're %1 in VRChat. Mirell can't check that: their computer "
                             "proved no key.")
                              .arg(Q(viewer.identity));
  tip += Tr("\nConnection id: %1").arg(id);
  if (viewer.allowlisted) {
    tip += checked ? Tr("\nOn your list with this computer, so let in automatically.")
                   : Tr("\nOn the list for this run by claimed id only, so let in without a check.");
  }
  return {checked ? Tr("%1 (checked)").arg(who) : Tr("%1 (not checked)").arg(who), tip};
}

}  // namespace mirell::ui
