#include "ice_host_lookup.h"

#include <netdb.h>
#include <sys/socket.h>
#include <arpa/inet.h>

#include <chrono>
#include <cstring>
#include <map>
#include <mutex>

namespace mirell::transport {
namespace {

using Clock = std::chrono::steady_clock;
// A failure is kept for less time than an answer: the network may just be coming up.
constexpr auto kKeepAnswer = std::chrono::minutes(10);
constexpr auto kKeepFailure = std::chrono::seconds(30);

struct Known {
  std::optional<std::string> address;
  Clock::time_point until;
};

std::optional<std::string> Resolve(const std::string& host, bool numeric_only) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = numeric_only ? AI_NUMERICHOST : AI_ADDRCONFIG;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return std::nullopt;
  const addrinfo* chosen = found;
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET) {
      chosen = entry;
      break;
    }
  }
  // Copied out rather than cast: the generic address carries no alignment promise.
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  const void* address = nullptr;
  if (chosen->ai_family == AF_INET && chosen->ai_addrlen >= sizeof v4) {
    std::memcpy(&v4, chosen->ai_addr, sizeof v4);
    address = &v4.sin_addr;
  } else if (chosen->ai_family == AF_INET6 && chosen->ai_addrlen >= sizeof v6) {
    std::memcpy(&v6, chosen->ai_addr, sizeof v6);
    address = &v6.sin6_addr;
  }
  char text[INET6_ADDRSTRLEN] = {};
  std::optional<std::string> result;
  if (address != nullptr && ::inet_ntop(chosen->ai_family, address, text, sizeof text) != nullptr) {
    result = text;
  }
  ::freeaddrinfo(found);
  return result;
}

}  // namespace

std::optional<std::string> NumericIceHost(const std::string& host) {
  if (auto literal = Resolve(host, true)) return literal;

  static std::mutex lock;
  static std::map<std::string, Known> known;
  {
    std::lock_guard hold(lock);
    auto entry = known.find(host);
    if (entry != known.end() && entry->second.until > Clock::now()) return entry->second.address;
  }
  // Not under the lock: a slow resolver must not hold up links asking for other names.
  std::optional<std::string> address = Resolve(host, false);
  std::lock_guard hold(lock);
  known[host] = Known{address, Clock::now() + (address ? kKeepAnswer : kKeepFailure)};
  return address;
}

}  // namespace mirell::transport
