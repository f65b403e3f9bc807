#include "join_gate.h"

#include <algorithm>

namespace mirell::relay {

JoinGate::JoinGate(JoinGateLimits limits) : limits_(limits), allowance_(limits.join_burst) {}

bool JoinGate::MayJoin(const std::string& token, Clock::time_point now) {
  const auto refused = refused_.find(token);
  if (refused != refused_.end()) {
    if (now - refused->second < limits_.refused_for) return false;
    refused_.erase(refused);
  }
  if (!started_) {
    started_ = true;
    refilled_ = now;
  }
  const double seconds = std::chrono::duration<double>(now - refilled_).count();
  refilled_ = now;
  allowance_ = std::min(limits_.join_burst, allowance_ + seconds * limits_.joins_per_second);
  if (allowance_ < 1) return false;
  allowance_ -= 1;
  return true;
}

void JoinGate::Refused(const std::string& token, Clock::time_point now) {
  if (refused_.size() >= limits_.max_remembered) Forget(now);
  // Still full of fresh refusals: one more is not remembered, and costs a join when asked again,
  // which the rate still bounds.
  if (refused_.size() >= limits_.max_remembered) return;
  refused_[token] = now;
}

void JoinGate::Forget(Clock::time_point now) {
  for (auto it = refused_.begin(); it != refused_.end();) {
    it = now - it->second >= limits_.refused_for ? refused_.erase(it) : std::next(it);
  }
}

}  // namespace mirell::relay
