#include "options.h"

#include "meeting_place.h"

#include <cstdio>
#include <algorithm>
#include <functional>
#include <string_view>

#include "mirell/transport/web_socket.h"
#include "mirell/vrchat/vrchat_identity.h"
#include "lan_address.h"
#include "meeting_place.h"

namespace mirell::ui {
namespace {

enum class Section { kShare, kService, kRestore, kInfo };

// One option: its name (and a short alias), the value it takes as "--help" shows it (empty for a
// flag), its help text (a new line continues it under the first), and what it does with its
// value; the text that comes back is the mistake, empty when there is none.
struct Option {
  std::string_view name;
  std::string_view alias;
  std::string_view value;
  Section section;
  std::string_view help;
  std::function<std::string(CommandLine&, const std::string& value)> apply;
};

bool IsNumber(const std::string& text, std::size_t max_digits) {
  return !text.empty() && text.size() <= max_digits && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

const std::vector<Option>& Table() {
  static const std::vector<Option> table = {
      {"--share-window", "", "TEXT", Section::kShare, "share the first window whose title contains TEXT",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (value.empty()) return "--share-window needs part of a window's title";
         line.share.window_title = value;
         return {};
       }},
      {"--share-monitor", "", "N", Section::kShare, "share monitor N (0 is the first)",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (!IsNumber(value, 3)) return "--share-monitor takes a monitor number (0 is the first), not " + Quoted(value);
         line.share.monitor = static_cast<std::uint32_t>(std::stoul(value));
         return {};
       }},
      {"--quality", "", "WxH@FPS", Section::kShare, "size and frame rate of the share for this run (e.g. 1920x1080@30)",
       [](CommandLine& line, const std::string& value) -> std::string {
         unsigned width = 0, height = 0, fps = 0;
         char end = 0;
         if (std::sscanf(value.c_str(), "%ux%u@%u%c", &width, &height, &fps, &end) != 3 || width < 160 ||
             width > 3840 || height < 90 || height > 2160 || width % 2 != 0 || height % 2 != 0 || fps < 1 ||
             fps > 60) {
           return "--quality takes WIDTHxHEIGHT@FPS with even sizes from 160x90 to 3840x2160 and 1 to 60 "
                  "frames a second, not " + Quoted(value);
         }
         line.share.width = width;
         line.share.height = height;
         line.share.fps = fps;
         return {};
       }},
      {"--share-minutes", "", "N", Section::kShare, "end the share after N minutes (default 360, 0 for no limit)",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (!IsNumber(value, 4) || std::stoul(value) > 1440) {
           return "--share-minutes takes a number of minutes from 0 (no limit) to 1440, not " + Quoted(value);
         }
         line.share.minutes = static_cast<std::uint32_t>(std::stoul(value));
         return {};
       }},
      {"--allow", "", "USER_ID", Section::kShare,
       "let whoever names this VRChat user id in at once, by the claimed id\nonly (repeatable)",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (!vrchat::IsVRChatUserId(value)) {
           return "--allow takes a VRChat user id (\"usr_\" and 36 more characters, or an older id of 6 to 20 "
                  "letters and digits), not " + Quoted(value);
         }
         line.share.allow.push_back(value);
         return {};
       }},
      {"--admit-everyone", "", "", Section::kShare, "let every viewer in without asking (for a LAN demo or a test)",
       [](CommandLine& line, const std::string&) -> std::string {
         line.share.admit_everyone = true;
         return {};
       }},
      {"--public", "", "", Section::kShare,
       "anyone with the link can watch: nobody is asked about, and where the meeting place runs\n"
       "a relay, it serves the share to VRChat players without Mirell",
       [](CommandLine& line, const std::string&) -> std::string {
         line.share.is_public = true;
         return {};
       }},
      {"--admit", "", "PEER", Section::kShare,
       "let the viewer PEER in, who waits for the share of the mirell-ui already running (give\n"
       "it that run's --rtsp-port and --pipe, if it has others)",
       [](CommandLine& line, const std::string& value) -> std::string {
         line.admit = value;
         return {};
       }},
      {"--deny", "", "PEER", Section::kShare, "send the waiting viewer PEER away, as --admit finds them",
       [](CommandLine& line, const std::string& value) -> std::string {
         line.deny = value;
         return {};
       }},
      {"--signal", "", "URL", Section::kService,
       "where shares meet their viewers: a signal server (ws:// or wss://), whose host share links "
       "use, or \"local\" (\"local:PORT\") for this computer itself, on port 8443 by default",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (std::string error = MeetingPlaceError(value); !error.empty()) return error;
         line.signal_url = value;
         return {};
       }},
      {"--rtsp-port", "", "N", Section::kService, "port of the loopback RTSP server (default 8554, 0 picks a free one)",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (!IsNumber(value, 5) || std::stoul(value) > 65535) {
           return "--rtsp-port takes a port number from 0 to 65535, not " + Quoted(value);
         }
         line.start.rtsp_port = static_cast<std::uint16_t>(std::stoul(value));
         return {};
       }},
      {"--pipe", "", "127.0.0.1:PORT", Section::kService,
       "the resolve endpoint VRChat's resolver asks (default 127.0.0.1:8555)",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (value.empty()) return "--pipe takes the resolve endpoint, such as 127.0.0.1:8555";
         line.start.pipe_name = value;
         return {};
       }},
      {"--no-stub", "", "", Section::kService, "leave VRChat's Tools folder alone",
       [](CommandLine& line, const std::string&) -> std::string {
         line.no_stub = true;
         return {};
       }},
      {"--update-url", "", "URL", Section::kService,
       "where to ask for a newer version (HTTPS; \"\" turns the question off)",
       [](CommandLine& line, const std::string& value) -> std::string {
         line.update_url = value;
         return {};
       }},
      {"--log-file", "", "PATH", Section::kService,
       "write the log there (default ~/.local/state/mirell/mirell-ui.log;\nthe run before is kept as .1)",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (value.empty()) return "--log-file needs a file's path";
         line.log_file = value;
         return {};
       }},
      {"--debug-log", "", "", Section::kService,
       "log at debug level (MIRELL_LOG=trace|debug|info|warn|error sets it too;\nthe default is warn)",
       [](CommandLine& line, const std::string&) -> std::string {
         line.start.debug_log = true;
         return {};
       }},
      {"--restore-vrchat", "", "", Section::kRestore, "put VRChat's own resolver back",
       [](CommandLine& line, const std::string&) -> std::string {
         line.restore_vrchat = true;
         return {};
       }},
      {"--tools-dir", "", "DIR", Section::kRestore, "the Tools folder to restore (found by itself otherwise)",
       [](CommandLine& line, const std::string& value) -> std::string {
         if (value.empty()) return "--tools-dir needs a folder";
         line.tools_dir = value;
         return {};
       }},
      {"--help", "-h", "", Section::kInfo, "this text",
       [](CommandLine& line, const std::string&) -> std::string {
         line.info = InfoRequest::kHelp;
         return {};
       }},
      {"--version", "", "", Section::kInfo, "the version",
       [](CommandLine& line, const std::string&) -> std::string {
         if (line.info == InfoRequest::kNone) line.info = InfoRequest::kVersion;
         return {};
       }},
  };
  return table;
}

const Option* Find(std::string_view argument) {
  for (const Option& option : Table()) {
    if (option.name == argument || (!option.alias.empty() && option.alias == argument)) return &option;
  }
  return nullptr;
}

// The mistake of one argument that is no option of the table.
std::string Unknown(const std::string& argument) {
  if (argument.starts_with("-")) return "unknown option " + Quoted(argument);
  return "unexpected " + Quoted(argument) + ": mirell-ui takes options only (a value belongs behind its option)";
}

}  // namespace

CommandLine ParseCommandLine(Arguments arguments, const DaemonConfig& defaults) {
  CommandLine line;
  line.start = {defaults.rtsp_port, defaults.pipe_name, false};
  const auto fail = [&](std::string error) {
    if (line.error.empty()) line.error = std::move(error);
  };
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string argument = arguments[i];
    const Option* option = Find(argument);
    if (option == nullptr) {
      fail(Unknown(argument));
      continue;
    }
    std::string value;
    if (!option->value.empty()) {
      const std::string what = std::string(option->name) + " needs a value (" + std::string(option->value) + ")";
      if (i + 1 >= arguments.size()) {
        fail(what);
        continue;
      }
      value = arguments[i + 1];
      // "--share-window --no-stub" is a forgotten title, not a window called "--no-stub".
      if (value.starts_with("--")) {
        fail(what + ", not the option " + Quoted(value));
        continue;
      }
      ++i;
    }
    fail(option->apply(line, value));
  }
  if (!line.share.window_title.empty() && line.share.monitor) {
    fail("--share-window and --share-monitor cannot both be given: a share has one target");
  }
  if (line.tools_dir && !line.restore_vrchat) fail("--tools-dir goes with --restore-vrchat");
  if (line.admit && line.deny) fail("--admit and --deny cannot both be given: one decision at a time");
  if ((line.admit || line.deny) && line.share.wants_share()) {
    fail("--admit and --deny decide about a viewer of the running share; they start no share");
  }
  if ((line.admit && line.admit->empty()) || (line.deny && line.deny->empty())) {
    fail("--admit and --deny need the waiting viewer's id, as the log names it");
  }
  return line;
}

void ApplyServiceOptions(const CommandLine& line, DaemonConfig& config) {
  config.rtsp_port = line.start.rtsp_port;
  config.pipe_name = line.start.pipe_name;
  if (line.no_stub) config.install_stub = false;
  if (line.signal_url) ApplyMeetingPlace(config, *line.signal_url);
}

std::vector<std::string> OptionNames() {
  std::vector<std::string> names;
  for (const Option& option : Table()) names.emplace_back(option.name);
  return names;
}

std::string UsageText() {
  constexpr std::size_t kColumn = 25;
  std::string text =
      "mirell-ui: shows a screen or a window, with its sound, to friends inside VRChat, and plays\n"
      "their share links for VRChat. Without options it starts in the tray and waits.\n\n"
      "Usage: mirell-ui [options]\n";
  const std::pair<Section, const char*> sections[] = {
      {Section::kShare, "\nSharing from the command line:\n"},
      {Section::kService, "\nService:\n"},
      {Section::kRestore, "\nUndoing the change to VRChat's Tools folder, without starting the program:\n"},
      {Section::kInfo, "\n"}};
  for (const auto& [section, heading] : sections) {
    text += heading;
    for (const Option& option : Table()) {
      if (option.section != section) continue;
      std::string left = "  ";
      if (!option.alias.empty()) left += std::string(option.alias) + ", ";
      left += option.name;
      if (!option.value.empty()) left += " " + std::string(option.value);
      left.resize(std::max(left.size() + 1, kColumn), ' ');
      std::string help(option.help);
      for (std::size_t at = help.find('\n'); at != std::string::npos; at = help.find('\n', at + 1)) {
        help.insert(at + 1, std::string(kColumn, ' '));
      }
      text += left + help + "\n";
    }
    if (section == Section::kShare) text += "  The share link is printed on stdout.\n";
  }
  text +=
      "\nExit codes: 0 when it ends as asked, 1 when something it was asked to do failed (the\n"
      "reason is on stderr), 2 for a command line it cannot follow.\n"
      "The log is mirell-ui.log in $XDG_STATE_HOME/mirell (~/.local/state/mirell), mirell-ui-<key>.log\n"
      "for another port or endpoint; the run before is kept beside it with \".1\" added.\n"
      "SIGINT and SIGTERM end it cleanly.\n";
  return text;
}

std::string DeriveUpdateUrl(const std::string& signal_url) {
  const auto slashes = signal_url.find("//");
  if (slashes == std::string::npos) return {};
  const auto path = signal_url.find('/', slashes + 2);
  if (path == std::string::npos) return {};
  constexpr std::string_view kSecureSocket = "wss://";
  const std::string origin = signal_url.substr(0, path);
  if (!origin.starts_with(kSecureSocket)) return {};
  return "https://" + origin.substr(kSecureSocket.size()) + "/latest";
}

}  // namespace mirell::ui
