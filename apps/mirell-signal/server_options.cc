#include "server_options.h"

#include <string_view>

#include <fmt/format.h>

#include <stdexcept>

#include "mirell/base/option_values.h"

namespace mirell::signal {
namespace {

// A mistake on the command line: a sentence for the person who typed it.
template <typename... Arguments>
void Require(bool condition, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  if (!condition) throw std::invalid_argument(fmt::format(format, std::forward<Arguments>(arguments)...));
}

std::size_t Count(std::string_view option, std::string_view text) { return PositiveCountOption(option, text); }

constexpr std::string_view kValueOptions[] = {
    "--listen",         "--tls-cert",          "--tls-key",
    "--latest-version", "--latest-url",        "--max-connections", "--max-connections-per-address",
    "--max-message-bytes", "--max-viewers-per-token", "--max-tokens-per-connection",
    "--messages-per-second", "--idle-seconds", "--grace-seconds", "--max-tokens", "--reserve-hours",
    "--relay-url",      "--relay-secret-file"};

bool IsValueOption(std::string_view option) {
  for (const std::string_view known : kValueOptions) {
    if (option == known) return true;
  }
  return false;
}

}  // namespace

ServerOptions ParseServerOptions(std::span<const char* const> arguments) {
  ServerOptions options;
  ServerConfig& config = options.config;
  std::string latest_version;
  std::string latest_url;
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
    if (option == "--listen") {
      Require(IsAddressAndPort(value), "--listen wants ADDRESS:PORT with a port of 0 to 65535, not '{}'",
              value);
      config.listen = value;
    } else if (option == "--tls-cert") {
      config.tls_cert = value;
    } else if (option == "--tls-key") {
      config.tls_key = value;
    } else if (option == "--latest-version") {
      latest_version = value;
    } else if (option == "--latest-url") {
      latest_url = value;
    } else if (option == "--max-connections") {
      config.max_connections = Count(option, value);
    } else if (option == "--max-connections-per-address") {
      config.max_connections_per_address = Count(option, value);
    } else if (option == "--max-message-bytes") {
      config.max_message_bytes = Count(option, value);
    } else if (option == "--max-viewers-per-token") {
      config.hub.max_viewers_per_token = Count(option, value);
    } else if (option == "--max-tokens-per-connection") {
      config.hub.max_tokens_per_connection = Count(option, value);
    } else if (option == "--messages-per-second") {
      config.hub.messages_per_second = static_cast<double>(Count(option, value));
      config.hub.message_burst = 3 * config.hub.messages_per_second;
    } else if (option == "--idle-seconds") {
      config.idle = std::chrono::seconds(Count(option, value));
      config.hub.register_within = config.idle;
    } else if (option == "--grace-seconds") {
      // Bounded so that the time arithmetic cannot overflow into a negative wait.
      const std::size_t seconds = Count(option, value);
      Require(seconds <= 86'400, "--grace-seconds is at most 86400 (a day), not {}", seconds);
      config.hub.grace = std::chrono::seconds(seconds);
    } else if (option == "--max-tokens") {
      config.hub.max_tokens = Count(option, value);
    } else if (option == "--reserve-hours") {
      const std::size_t hours = Count(option, value);
      Require(hours <= 8'760, "--reserve-hours is at most 8760 (a year), not {}", hours);
      config.hub.reserve = std::chrono::hours(hours);
    } else if (option == "--relay-url") {
      Require(IsRelayUrl(value), "--relay-url wants rtspt://HOST[:PORT], not '{}'", value);
      config.relay_urls.emplace_back(value);
    } else if (option == "--relay-secret-file") {
      config.relay_secret = ReadSecretFileOption(option, value);
    } else {
      Require(false, "unknown option '{}' (see --help)", option);
    }
  }
  Require(latest_version.empty() == latest_url.empty(),
               "--latest-version and --latest-url go together");
  // A page that sends players to a relay the server would never let in plays for nobody.
  Require(config.relay_urls.empty() || !config.relay_secret.empty(),
          "--relay-url needs --relay-secret-file: the relay joins shares by that secret");
  if (!latest_version.empty()) config.latest = LatestRelease{latest_version, latest_url};
  return options;
}

std::string ServerUsage() {
  return R"(mirell-signal: the signal server that Mirell's sharers and viewers meet through.

Usage: mirell-signal [options]

  --listen ADDRESS:PORT        where to listen (default 127.0.0.1:8080; port 0 picks one)
  --tls-cert FILE --tls-key FILE
                               serve wss:// and https:// with this PEM certificate chain and
                               key; without them it serves plain ws:// and http://, for use
                               behind a reverse proxy that ends TLS
  --latest-version V --latest-url URL
                               what GET /latest answers (404 without them)
  --max-connections N          open connections at most (default 4096)
  --max-connections-per-address N
                               open connections from one address at most (default 64);
                               connections from this machine (a reverse proxy) are not counted
  --max-message-bytes N        largest WebSocket message (default 65536)
  --max-viewers-per-token N    viewers of one share at most (default 64)
  --max-tokens-per-connection N
                               shares one host connection may hold (default 4)
  --messages-per-second N      sustained messages per connection (default 20, bursts of 3x)
  --idle-seconds N             a connection that has not registered, or a silent one that
                               does not answer a ping, is ended after N s (default 10 / 60)
  --grace-seconds N            how long viewers wait for a host that went away (default 30,
                               at most 86400)
  --reserve-hours N            how long a share's link stays its host's while the host is
                               away, unless the host ends the share (default 24, at most 8760)
  --max-tokens N               shares held at once, live or kept for a host that is away
                               (default 65536); a new one beyond is refused "server full"
  --relay-secret-file FILE     let relays that name the secret in FILE (its first line, 16
                               to 256 characters) join public shares; without it no relay
                               gets in
  --relay-url rtspt://HOST[:PORT]
                               a relay that serves public shares to players without Mirell;
                               a public share's page names its stream there, so that VRChat
                               plays the link for everyone (repeatable; a share goes to one
                               relay, chosen by its token)
  --help                       this text

Paths: GET /signal (WebSocket), GET /s/<token> (a page for a person without Mirell),
GET /latest. The log threshold comes from MIRELL_LOG (trace, debug, info, warn, error).
SIGINT and SIGTERM end it cleanly.
)";
}

}  // namespace mirell::signal
