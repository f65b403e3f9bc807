// The command line, read once, against one table of options (options.cc) from which "--help"
// is written too, so that what is read and what is described cannot drift apart. Every mistake
// (an unknown option, a value missing or not of its kind, a value that is itself an option,
// options that exclude each other) is one sentence in `error`, and the run ends with exit code 2.
// Options are matched exactly and case-sensitively; a repeat replaces the earlier value, except
// "--allow", which adds.
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

// What decides which instance this is: read before anything is built.
struct StartOptions {
  std::uint16_t rtsp_port = 0;
  std::string pipe_name;
  bool debug_log = false;
};

// What a person asks of the program itself rather than of a run: "--help" (or "-h") and
// "--version"; help wins when both are given, and over any mistake on the same line.
enum class InfoRequest { kNone, kHelp, kVersion };

// A share started from the command line, for headless use and scripts, with its admission rule.
struct ShareOptions {
  std::string window_title;              // "--share-window": part of a window's title.
  std::optional<std::uint32_t> monitor;  // "--share-monitor": an index of the monitor list.
  std::vector<std::string> allow;        // "--allow", repeatable: VRChat user ids let in by claim.
  bool admit_everyone = false;           // "--admit-everyone".
  bool is_public = false;                // "--public": anyone with the link can watch.
  // "--quality WIDTHxHEIGHT@FPS": the size and rate a share is encoded at.
  std::optional<std::uint32_t> width, height, fps;
  // "--share-minutes N": the share's time limit for this run, 0 for none (the default is 360).
  std::optional<std::uint32_t> minutes;

  bool wants_share() const { return !window_title.empty() || monitor.has_value(); }
};

struct CommandLine {
  InfoRequest info = InfoRequest::kNone;
  StartOptions start;
  // Applied over the stored settings by ApplyServiceOptions.
  std::optional<std::string> signal_url;
  std::optional<std::string> update_url;  // Given at all, even empty.
  bool no_stub = false;
  std::optional<std::string> log_file;  // "--log-file PATH": the log there instead.
  ShareOptions share;
  // "--admit PEER" / "--deny PEER": a decision about a viewer waiting for the running instance.
  std::optional<std::string> admit;
  std::optional<std::string> deny;
  // "--restore-vrchat" with its "--tools-dir".
  bool restore_vrchat = false;
  std::optional<std::string> tools_dir;
  std::string error;  // The first mistake; empty when the line can be followed.
};

// Reads every option over the defaults of `defaults` (its port and resolve endpoint).
CommandLine ParseCommandLine(Arguments arguments, const DaemonConfig& defaults);

// "--signal" (ApplyMeetingPlace), "--rtsp-port", "--pipe" and "--no-stub" into `config`.
void ApplyServiceOptions(const CommandLine& line, DaemonConfig& config);

// What "mirell-ui --help" prints: every option of the table, grouped as a person looks for them,
// with the exit codes.
std::string UsageText();
// The options' names, in the table's order (for the tests that keep README beside the table).
std::vector<std::string> OptionNames();

// The update endpoint of a signal server: "https://" + host + "/latest" for a "wss://" URL with
// a path behind its host; empty (no update check) for anything else.
std::string DeriveUpdateUrl(const std::string& signal_url);

}  // namespace mirell::ui
