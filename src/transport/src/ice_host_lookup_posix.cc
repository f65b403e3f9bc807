#include "ice_host_lookup.h"

#include <netdb.h>
#include <sys/socket.h>
#include <arpa/inet.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"

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

// One lookup on a thread of its own, which the callers wait for within the bound and which
// finishes (and fills the cache) even when nobody waits any more.
struct Lookup {
  std::mutex mutex;
  std::condition_variable done_changed;
  bool done = false;
  std::optional<std::string> address;
};

// Never destroyed: a lookup thread may outlive main's return.
struct Cache {
  std::mutex lock;
  std::map<std::string, Known> known;
  std::map<std::string, std::shared_ptr<Lookup>> running;
  std::function<std::optional<std::string>(const std::string&)> resolver;  // Tests only.
};

Cache& TheCache() {
  static Cache* cache = new Cache;
  return *cache;
}

}  // namespace

std::optional<std::string> NumericIceHost(const std::string& host, std::chrono::milliseconds limit) {
  if (auto literal = Resolve(host, true)) return literal;

  Cache& cache = TheCache();
  std::shared_ptr<Lookup> lookup;
  {
    std::lock_guard hold(cache.lock);
    auto entry = cache.known.find(host);
    if (entry != cache.known.end() && entry->second.until > Clock::now()) return entry->second.address;
    auto& running = cache.running[host];
    if (!running) {
      running = std::make_shared<Lookup>();
      auto resolver = cache.resolver;
      std::thread([host, lookup = running, resolver] {
        NameThisThread("ice-lookup");
        std::optional<std::string> address = resolver ? resolver(host) : Resolve(host, false);
        Cache& shared = TheCache();
        {
          std::lock_guard done(shared.lock);
          shared.known[host] = Known{address, Clock::now() + (address ? kKeepAnswer : kKeepFailure)};
          shared.running.erase(host);
        }
        {
          std::lock_guard done(lookup->mutex);
          lookup->address = std::move(address);
          lookup->done = true;
        }
        lookup->done_changed.notify_all();
      }).detach();
    }
    lookup = running;
  }
  std::unique_lock wait(lookup->mutex);
  if (!lookup->done_changed.wait_for(wait, limit, [&] { return lookup->done; })) {
    LOG_WARN("the name {} did not resolve within {} ms", host, limit.count());
    return std::nullopt;
  }
  return lookup->address;
}

void SetIceHostResolverForTesting(std::function<std::optional<std::string>(const std::string&)> resolver) {
  Cache& cache = TheCache();
  std::lock_guard hold(cache.lock);
  cache.resolver = std::move(resolver);
  cache.known.clear();
}

}  // namespace mirell::transport
