// Which tokens the relay may ask its signal server about now. A stranger can name any token on
// the relay's port; each costs the relay a signal connection and a peer link, so the names the
// server refused are not asked about again for a while, and new joins are rationed per second,
// in all and per address (so that one stranger's made-up tokens cannot spend everybody's
// allowance). Platform-free, with time passed in, so that the rules are tested without waiting.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace mirell::relay {

struct JoinGateLimits {
  std::chrono::milliseconds refused_for{10'000};  // A refused token is answered 404 this long.
  double joins_per_second = 5;                    // Sustained ...
  double join_burst = 10;                         // ... with this many at once.
  double joins_per_address_per_second = 0.5;      // From one address, sustained ...
  double address_burst = 3;                       // ... with this many at once.
  std::size_t max_remembered = 4096;              // Refused tokens, and addresses, kept at most.
};

class JoinGate {
 public:
  using Clock = std::chrono::steady_clock;

  explicit JoinGate(JoinGateLimits limits);

  // Whether a join of `token`, asked for from `address` (IPv4, host order; 0: this machine,
  // which has no allowance of its own), may go out now; takes one from the allowances when it
  // may.
  bool MayJoin(const std::string& token, std::uint32_t address, Clock::time_point now);
  // The server refused the token: no join for it until `refused_for` has passed.
  void Refused(const std::string& token, Clock::time_point now);

  std::size_t remembered() const { return refused_.size(); }
  std::size_t addresses() const { return by_address_.size(); }

 private:
  // A token bucket: `rate` a second, at most `burst`.
  struct Allowance {
    double left = 0;
    Clock::time_point refilled{};
    // Refills to `now` and says whether one is there (without taking it).
    bool Has(Clock::time_point now, double rate, double burst);
  };
  void Forget(Clock::time_point now);
  Allowance* AddressAllowance(std::uint32_t address, Clock::time_point now);

  const JoinGateLimits limits_;
  Allowance allowance_;
  std::unordered_map<std::string, Clock::time_point> refused_;  // Token to when it was refused.
  std::unordered_map<std::uint32_t, Allowance> by_address_;
};

}  // namespace mirell::relay
