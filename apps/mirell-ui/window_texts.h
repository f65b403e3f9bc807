// The main window's texts that depend on a value: durations, rates, a peer's state and what a
// viewer's row says about them. Translated in the main window's context, with the English
// literals as keys.
#pragma once

#include <QString>
#include <cstdint>

#include <string>

#include "mirell/session/share_session.h"
#include "mirell/session/sharing.h"
#include "mirell/transport/peer_link.h"

namespace mirell::ui {

// "59s", "59m 59s", "1h 00m".
QString DurationText(std::int64_t seconds);
// "-", "999 kbps", "1.0 Mbps".
QString RateText(std::uint32_t kbps);
QString PeerStateText(transport::PeerState state);

// The host (and port) of a "ws://" or "wss://" URL, as a person knows the server; the URL itself
// when it has no such form.
QString ServerName(const std::string& signal_url);
// The meeting place as a person knows it: "this computer (192.168.1.20:8443)" when this program
// is the meeting place, else ServerName of its signal server; empty when none is chosen.
QString MeetingPlaceName(const std::string& signal_url, std::uint16_t local_port,
                         const std::string& share_prefix);
// Where shares meet while nothing is shared: "Shares meet at ...", or how to choose a place.
QString IdleMeetingText(const QString& place);
// Where a share stands with its signal server: "Meeting at ...", "Can't reach ... - retrying",
// "... refused this share: <reason>".
QString SignalStateText(session::SignalState state, const QString& server, const std::string& reason);

// What the share link is for, under it: who gets in, and who can play it.
QString PasteHintText(bool is_public);

// The first cell of a viewer's row: who they say they are, and what that means.
struct ViewerCell {
  QString text;
  QString tool_tip;
};
ViewerCell ViewerCellFor(const session::ViewerInfo& viewer);

}  // namespace mirell::ui
