// The command line, read by separate scans on purpose: the first runs before anything is built
// (the instance identity depends on it), the second after the settings are loaded, so that the
// command line beats stored settings. Each scan knows only its own options; unknown arguments
// and a value option with nothing behind it are ignored, and the last repeat wins.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "daemon_config.h"

namespace mirell::ui {

// The arguments after the program name.
using Arguments = std::span<const char* const>;

struct StartOptions {
  std::uint16_t rtsp_port = 0;
  std::string pipe_name;
  bool debug_log = false;
};

// What a person asks of the program itself rather than of a run: "--help" (or "-h") and
// "--version". Scanned before anything else; help wins when both are given.
enum class InfoRequest { kNone, kHelp, kVersion };
InfoRequest ScanInfoOptions(Arguments arguments);

// First scan: "--rtsp-port", "--debug-log", "--pipe", over the defaults of `defaults`.
StartOptions ScanStartOptions(Arguments arguments, const DaemonConfig& defaults);

// Second scan: "--update-url", "--no-stub", "--rtsp-port", "--pipe", "--signal", written into
// `config`; "--signal" also moves the share prefix to the signal server's host (see
// DeriveSharePrefix). Returns the update URL when "--update-url" was given at all, even empty.
std::optional<std::string> ScanServiceOptions(Arguments arguments, DaemonConfig& config);

// Why the signal server's URL cannot be used ("--signal" given something other than a ws:// or
// wss:// URL), for the person who typed it; empty when it can.
std::string SignalUrlError(const std::string& signal_url);

// A share started from the command line, for headless use and scripts, with its admission rule.
struct ShareOptions {
  std::string window_title;              // "--share-window": part of a window's title.
  std::optional<std::uint32_t> monitor;  // "--share-monitor": an index of the monitor list.
  std::vector<std::string> allow;        // "--allow", repeatable: VRChat user ids let in at once.
  bool admit_everyone = false;           // "--admit-everyone".
  // "--quality WIDTHxHEIGHT@FPS": the size and rate a share is encoded at.
  std::optional<std::uint32_t> width, height, fps;
  // "--share-minutes N": the share's time limit for this run, 0 for none (the default is 360).
  std::optional<std::uint32_t> minutes;
  std::string error;                     // Set for a command line that cannot be followed.

  bool wants_share() const { return !window_title.empty() || monitor.has_value(); }
};

// Third scan, of the share options only. Unlike the other scans it rejects what it cannot follow
// (a monitor that is not a number, an empty title, both kinds of target, a quality outside even
// sizes of 160x90 to 3840x2160 at 1 to 60 frames a second) in `error`: a share asked for by a
// script must not quietly become another.
ShareOptions ScanShareOptions(Arguments arguments);

// The update endpoint of a signal server: "https://" + host + "/latest" for a "wss://" URL with
// a path behind its host; empty (no update check) for anything else.
std::string DeriveUpdateUrl(const std::string& signal_url);

// The share links of the deployment a signal server belongs to: "ws[s]://host[:port]/..." gives
// "host[:port]/s/". Empty for a URL of another form (the built-in prefix then stays).
std::string DeriveSharePrefix(const std::string& signal_url);

// "--rtsp-port"'s value: atoi, kept in 16 bits, so 70000 is 4464 and text is 0.
std::uint16_t ParsePortOption(const char* text);

}  // namespace mirell::ui
