// Several clients of the signal hub saying anything, opening, closing and waiting in any order:
// the hub must never crash, and what it holds must stay within its limits.
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "mirell/signal/signal_hub.h"

namespace {

using namespace mirell::signal;

class CountingRouter final : public Router {
 public:
  void Deliver(ConnectionId to, std::string text) override {
    if (open.count(to) == 0) std::abort();  // Only to connections that are there.
    bytes += text.size();
  }
  void Disconnect(ConnectionId) override {}
  std::set<ConnectionId> open;
  std::size_t bytes = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CountingRouter router;
  HubLimits limits;
  limits.max_viewers_per_token = 3;
  limits.max_tokens_per_connection = 2;
  SignalHub hub(router, limits);
  Clock::time_point now{};
  std::size_t at = 0;
  // Each step: one byte of action and connection, one byte of length, then that many bytes.
  while (at + 2 <= size) {
    const std::uint8_t action = data[at] >> 4;
    const ConnectionId id = (data[at] & 0x0F) + 1;
    const std::size_t length = std::min<std::size_t>(data[at + 1], size - at - 2);
    const std::string text(reinterpret_cast<const char*>(data + at + 2), length);
    at += 2 + length;
    switch (action % 5) {
      case 0:
        if (router.open.insert(id).second) hub.Opened(id, now);
        break;
      case 1:
        if (router.open.erase(id) != 0) hub.Closed(id);
        break;
      case 2:
        now += std::chrono::milliseconds(length * 100);
        hub.Sweep(now);
        break;
      case 3:
        if (router.open.count(id) != 0) hub.ReceivedBinary(id);
        break;
      default:
        if (router.open.count(id) != 0) hub.Received(id, text, now);
        break;
    }
    const auto statistics = hub.statistics();
    if (statistics.connections > router.open.size()) std::abort();
    if (statistics.viewers > statistics.tokens * limits.max_viewers_per_token) std::abort();
  }
  return 0;
}
