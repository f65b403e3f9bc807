// POSIX: the interfaces from getifaddrs.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstdint>

#include "lan_address.h"

namespace mirell::ui {
namespace {

bool IsPrivate(std::uint32_t address) {
  return (address >> 24) == 10 || (address >> 20) == ((172u << 4) | 1u) ||
         (address >> 16) == ((192u << 8) | 168u);
}

}  // namespace

std::string LanAddress() {
  ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return "127.0.0.1";
  std::string found;
  bool found_private = false;
  for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    if ((entry->ifa_flags & IFF_UP) == 0 || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
    const in_addr address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr;
    const bool is_private = IsPrivate(ntohl(address.s_addr));
    if (!found.empty() && (found_private || !is_private)) continue;
    char text[INET_ADDRSTRLEN] = {};
    if (inet_ntop(AF_INET, &address, text, sizeof text) == nullptr) continue;
    found = text;
    found_private = is_private;
  }
  freeifaddrs(interfaces);
  return found.empty() ? "127.0.0.1" : found;
}

}  // namespace mirell::ui
