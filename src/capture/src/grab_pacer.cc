#include "grab_pacer.h"

#include <algorithm>

namespace mirell::capture {

namespace {
constexpr std::int64_t kNsPerSecond = 1'000'000'000;

// The time of tick k: exact for any rate, with no drift over hours.
std::int64_t TickTime(std::int64_t first_tick_ns, std::uint32_t rate, std::int64_t k) {
  return first_tick_ns + k * kNsPerSecond / rate;
}
}  // namespace

void GrabPacer::SetSchedule(std::int64_t first_tick_ns, std::uint32_t ticks_per_second) {
  std::lock_guard lock(mutex_);
  schedule_ = {first_tick_ns, ticks_per_second};
}

GrabPacer::Schedule GrabPacer::schedule() {
  std::lock_guard lock(mutex_);
  return schedule_;
}

std::int64_t GrabPacer::NextTick(const Schedule& s, std::int64_t now_ns) {
  if (now_ns < s.first_tick_ns) return s.first_tick_ns;
  // Tick times are rounded down, so the index from the division may be one short.
  std::int64_t k = (now_ns - s.first_tick_ns) * s.rate / kNsPerSecond;
  while (TickTime(s.first_tick_ns, s.rate, k) <= now_ns) ++k;
  return TickTime(s.first_tick_ns, s.rate, k);
}

std::int64_t GrabPacer::Lead(const Schedule& s) const {
  const std::int64_t half_interval = kNsPerSecond / s.rate / 2;
  return std::clamp(cost_ns_ + kMarginNs, std::min(kMarginNs, half_interval), half_interval);
}

std::int64_t GrabPacer::NextReadAt(std::int64_t now_ns) {
  const Schedule s = schedule();
  if (s.rate == 0) return now_ns;
  const std::int64_t lead = Lead(s);
  // The window of a tick opens a lead before it; a tick already read for waits for the next.
  std::int64_t tick = NextTick(s, now_ns);
  if (tick == used_tick_ns_) tick = NextTick(s, tick);
  return std::max(now_ns, tick - lead);
}

void GrabPacer::Read(std::int64_t started_ns, std::int64_t finished_ns) {
  const Schedule s = schedule();
  costs_ns_[next_cost_] = std::max<std::int64_t>(0, finished_ns - started_ns);
  next_cost_ = (next_cost_ + 1) % costs_ns_.size();
  cost_ns_ = *std::max_element(costs_ns_.begin(), costs_ns_.end());
  if (s.rate == 0) return;
  used_tick_ns_ = NextTick(s, started_ns);
  ++reads_;
  if (finished_ns > used_tick_ns_) ++late_reads_;
}

std::int64_t GrabPacer::lead_ns() {
  const Schedule s = schedule();
  return s.rate == 0 ? 0 : Lead(s);
}

}  // namespace mirell::capture
