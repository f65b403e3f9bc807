#include "mirell/transport/stun_choices.h"

namespace mirell::transport {

const std::vector<StunChoice>& StunChoices() {
  static const std::vector<StunChoice> choices{
      {"cloudflare", "Cloudflare", "stun:stun.cloudflare.com:3478",
       "The default. Tells Cloudflare when you start a connection, and nothing else."},
      {"google", "Google", "stun:stun.l.google.com:19302",
       "Reachable from almost anywhere. Tells Google when you start a connection."},
      {"none", "None", "", "Contacts nothing. Works on a LAN, won't connect between two homes."},
  };
  return choices;
}

std::optional<StunChoice> FindStunChoice(const std::string& id) {
  for (const StunChoice& choice : StunChoices()) {
    if (choice.id == id) return choice;
  }
  return std::nullopt;
}

std::vector<IceServer> IceServersForChoice(const std::string& id) {
  const std::optional<StunChoice> choice = FindStunChoice(id);
  if (!choice || choice->server.empty()) return {};
  return {IceServer{choice->server, "", ""}};
}

}  // namespace mirell::transport
