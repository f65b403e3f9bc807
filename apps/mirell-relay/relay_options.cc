#include "relay_options.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>
#include <string_view>

#include "mirell/base/option_values.h"

namespace mirell::relay {
namespace {

template <typename... Arguments>
void Require(bool condition, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  if (!condition) throw std::invalid_argument(fmt::format(format, std::forward<Arguments>(arguments)...));
}

constexpr std::string_view kValueOptions[] = {
    "--signal",      "--listen",     "--public-url",       "--relay-secret-file",
    "--max-players", "--max-players-per-address", "--max-shares", "--joins-per-second",
    "--grace-seconds"};

bool IsValueOption(std::string_view option) {
  for (const std::string_view known : kValueOptions) {
    if (option == known) return true;
  }
  return false;
}

}  // namespace

RelayOptions ParseRelayOptions(std::span<const char* const> arguments) {
  RelayOptions options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view option = arguments[i];
    if (option == "--help" || option == "-h") {
      options.help = true;
      continue;
    }
    Require(option.starts_with("--"), "unexpected argument '{}' (see --help)", option);
    Require(IsValueOption(option), "unknown option '{}' (see --help)", option);
    Require(i + 1 < arguments.size(), "{} needs a value", option);
    const std::string_view value = arguments[++i];
    if (option == "--signal") {
      Require(value.starts_with("ws://") || value.starts_with("wss://"),
              "--signal wants the ws:// or wss:// URL of the signal server, not '{}'", value);
      options.signal_url = value;
    } else if (option == "--listen") {
      const auto colon = value.rfind(':');
      Require(IsAddressAndPort(value) && value.find(':') == colon,
              "--listen wants IPV4-ADDRESS:PORT with a port of 0 to 65535, not '{}'", value);
      options.listen_address = value.substr(0, colon);
      std::from_chars(value.data() + colon + 1, value.data() + value.size(), options.listen_port);
    } else if (option == "--public-url") {
      Require(IsRelayUrl(value), "--public-url wants rtspt://HOST[:PORT], not '{}'", value);
      options.public_url = value;
    } else if (option == "--relay-secret-file") {
      options.relay_secret = ReadSecretFileOption(option, value);
    } else if (option == "--max-players") {
      options.max_players = PositiveCountOption(option, value);
    } else if (option == "--max-players-per-address") {
      options.max_players_per_address = PositiveCountOption(option, value);
    } else if (option == "--max-shares") {
      options.max_shares = PositiveCountOption(option, value);
    } else if (option == "--joins-per-second") {
      options.joins_per_second = static_cast<double>(PositiveCountOption(option, value));
    } else if (option == "--grace-seconds") {
      const std::size_t seconds = PositiveCountOption(option, value);
      Require(seconds <= 86'400, "--grace-seconds is at most 86400 (a day), not {}", seconds);
      options.grace_seconds = static_cast<std::int64_t>(seconds);
    }
  }
  if (options.help) return options;
  Require(!options.signal_url.empty(), "--signal URL is needed: the signal server whose public shares it serves");
  Require(!options.relay_secret.empty(),
          "--relay-secret-file FILE is needed: the secret that the signal server knows its relays by");
  return options;
}

std::string RelayUsage() {
  return R"(mirell-relay: serves public Mirell shares to every VRChat player, over RTSP, with one
peer link per share whatever the number of players.

Usage: mirell-relay --signal URL --relay-secret-file FILE [options]

  --signal URL                 the signal server (ws:// or wss://) whose public shares it serves;
                               give that server --relay-url with this relay's public URL
  --relay-secret-file FILE     the secret (first line, 16 to 256 characters) that the signal
                               server was given with its own --relay-secret-file
  --listen ADDRESS:PORT        where players connect (default 0.0.0.0:8554, IPv4)
  --public-url rtspt://HOST[:PORT]
                               how players reach it from outside, for the log
  --max-players N              RTSP connections at once (default 256); more are closed at once
  --max-players-per-address N  the same from one address (default 32); loopback connections
                               (127.x.x.x, a proxy in front) are not counted
  --max-shares N               shares served at once (default 64)
  --joins-per-second N         new shares asked about per second (default 5, bursts of 2x); from
                               one address one every 2 s (bursts of 3), loopback not counted; a
                               token the server refused is answered 404 for 10 s without asking
  --grace-seconds N            a share keeps its peer link this long after its last player has
                               gone (default 30)
  --help                       this text

Players open rtsp://HOST:PORT/s/<token> (rtspt:// in VRChat). A token that is not a public share
of the signal server is answered 404. The log threshold comes from MIRELL_LOG (trace, debug,
info, warn, error). SIGINT and SIGTERM end it cleanly.
)";
}

}  // namespace mirell::relay
