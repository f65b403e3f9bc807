// Which tokens the relay may ask its signal server about now. A stranger can name any token on
// the relay's port; each costs the relay a signal connection and a peer link, so the names the
// server refused are not asked about again for a while, and new joins are rationed per second.
// Platform-free, with time passed in, so that the rules are tested without waiting.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>

namespace mirell::relay {

struct JoinGateLimits {
  std::chrono::milliseconds refused_for{10'000};  // A refused token is answered 404 this long.
  double joins_per_second = 5;                    // Sustained ...
  double join_burst = 10;                         // ... with this many at once.
  std::size_t max_remembered = 4096;              // Refused tokens kept at most.
};

class JoinGate {
 public:
  using Clock = std::chrono::steady_clock;

  explicit JoinGate(JoinGateLimits limits);

  // Whether a join of `token` may go out now; takes one from the allowance when it may.
  bool MayJoin(const std::string& token, Clock::time_point now);
  // The server refused the token: no join for it until `refused_for` has passed.
  void Refused(const std::string& token, Clock::time_point now);

  std::size_t remembered() const { return refused_.size(); }

 private:
  void Forget(Clock::time_point now);

  const JoinGateLimits limits_;
  double allowance_;
  Clock::time_point refilled_{};
  bool started_ = false;
  std::unordered_map<std::string, Clock::time_point> refused_;  // Token to when it was refused.
};

}  // namespace mirell::relay
