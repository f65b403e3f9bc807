#include "usage.h"

namespace mirell::ui {

std::string UsageText() {
  return R"(mirell-ui: shows a screen or a window, with its sound, to friends inside VRChat, and plays
their share links for VRChat. Without options it starts in the tray and waits.

Usage: mirell-ui [options]

Sharing from the command line:
  --share-window TEXT    share the first window whose title contains TEXT
  --share-monitor N      share monitor N (0 is the first)
  --quality WxH@FPS      size and frame rate of the share for this run (e.g. 1920x1080@30)
  --share-minutes N      end the share after N minutes (default 360, 0 for no limit)
  --allow USER_ID        let this VRChat user in at once (repeatable)
  --admit-everyone       let every viewer in without asking (for a LAN demo or a test)
  The share link is printed on stdout.

Service:
  --signal URL           the signal server (ws:// or wss://); share links use its host
  --rtsp-port N          port of the loopback RTSP server (default 8554, 0 picks a free one)
  --pipe 127.0.0.1:PORT  the resolve endpoint VRChat's resolver asks (default 127.0.0.1:8555)
  --no-stub              leave VRChat's Tools folder alone
  --update-url URL       where to ask for a newer version (HTTPS; "" turns the question off)
  --debug-log            log at debug level (MIRELL_LOG=trace|debug|info|warn|error sets it too;
                         the default is warn)

Undoing the change to VRChat's Tools folder, without starting the program:
  --restore-vrchat       put VRChat's own resolver back
  --tools-dir DIR        the Tools folder to restore (found by itself otherwise)

  -h, --help             this text
  --version              the version

The log is mirell-ui.log beside this program (mirell-ui-<key>.log for another port or endpoint).
SIGINT and SIGTERM end it cleanly.
)";
}

}  // namespace mirell::ui
