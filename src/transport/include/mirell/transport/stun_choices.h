// The public STUN servers a user can pick from, and what each one learns. Choosing one is choosing
// who hears of this computer's connections, so the notes say it in the user's words.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mirell/transport/peer_config.h"

namespace mirell::transport {

struct StunChoice {
  std::string id;      // Stored in the settings.
  std::string label;   // Shown in the list.
  std::string server;  // "stun:host:port", or empty for none.
  std::string note;    // Shown under the list.
};

// In the order the list shows them; the first is the default.
const std::vector<StunChoice>& StunChoices();
std::optional<StunChoice> FindStunChoice(const std::string& id);
// One server without user or credential; empty for an unknown id or a choice of no server.
std::vector<IceServer> IceServersForChoice(const std::string& id);

}  // namespace mirell::transport
