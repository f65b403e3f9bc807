// mirell-relay's command line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace mirell::relay {

struct RelayOptions {
  std::string signal_url;                   // "--signal": ws:// or wss:// URL of its server.
  std::string listen_address = "0.0.0.0";   // "--listen ADDRESS:PORT", an IPv4 address.
  std::uint16_t listen_port = 8554;
  std::string public_url;                   // "--public-url": how players reach it.
  std::string relay_secret;                 // Read from "--relay-secret-file".
  std::size_t max_players = 256;            // RTSP connections at once.
  std::size_t max_players_per_address = 32; // The same from one address (not loopback).
  std::size_t max_shares = 64;              // Shares held (peer links) at once.
  double joins_per_second = 5;              // New shares asked about.
  std::int64_t grace_seconds = 30;          // A share without players is kept this long.
  bool help = false;
};

// Reads the arguments after the program name. Throws std::invalid_argument naming the first
// mistake; --signal and --relay-secret-file are required unless --help is given.
RelayOptions ParseRelayOptions(std::span<const char* const> arguments);

// The text of --help.
std::string RelayUsage();

}  // namespace mirell::relay
