#include "join_gate.h"

#include <algorithm>

namespace mirell::relay {

bool JoinGate::Allowance::Has(Clock::time_point now, double rate, double burst) {
  const double seconds = std::chrono::duration<double>(now - refilled).count();
  refilled = now;
  left = std::min(burst, left + std::max(0.0, seconds) * rate);
  return left >= 1;
}

JoinGate::JoinGate(JoinGateLimits limits) : limits_(limits) {
  allowance_.left = limits.join_burst;
  allowance_.refilled = Clock::time_point::min();
}

JoinGate::Allowance* JoinGate::AddressAllowance(std::uint32_t address, Clock::time_point now) {
  const auto found = by_address_.find(address);
  if (found != by_address_.end()) return &found->second;
  if (by_address_.size() >= limits_.max_remembered) {
    // Addresses whose allowance has grown full again are as good as new: forgotten.
    const double full_after = limits_.address_burst / limits_.joins_per_address_per_second;
    std::erase_if(by_address_, [&](const auto& entry) {
      return std::chrono::duration<double>(now - entry.second.refilled).count() >= full_after;
    });
    // Still full of busy addresses: a new one waits until some have calmed down.
    if (by_address_.size() >= limits_.max_remembered) return nullptr;
  }
  Allowance& fresh = by_address_[address];
  fresh.left = limits_.address_burst;
  fresh.refilled = now;
  return &fresh;
}

bool JoinGate::MayJoin(const std::string& token, std::uint32_t address, Clock::time_point now) {
  const auto refused = refused_.find(token);
  if (refused != refused_.end()) {
    if (now - refused->second < limits_.refused_for) return false;
    refused_.erase(refused);
  }
  if (allowance_.refilled == Clock::time_point::min()) allowance_.refilled = now;
  Allowance* from_address = address == 0 ? nullptr : AddressAllowance(address, now);
  if (address != 0 &&
      (from_address == nullptr ||
       !from_address->Has(now, limits_.joins_per_address_per_second, limits_.address_burst))) {
    return false;
  }
  if (!allowance_.Has(now, limits_.joins_per_second, limits_.join_burst)) return false;
  allowance_.left -= 1;
  if (from_address != nullptr) from_address->left -= 1;
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
