// When a capturer that knows its consumer's tick schedule should read a pending change. The
// consumer takes one picture per tick; a change read as soon as it happens may wait most of an
// interval for the tick, and is often replaced by a newer one before it is used. So a change is
// read once per tick, a lead before it. A read that ends after its tick costs a whole interval
// (the tick repeats the older picture), a read that starts early only the time it is early: so
// the lead is the slowest of the last reads (about a second of them) plus a margin.
// Platform-free; one thread (the capturer's) uses it, apart from SetSchedule.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

namespace mirell::capture {

class GrabPacer {
 public:
  // Bounds of the lead: never less than the margin, never more than half an interval, so that a
  // picture is never older than half an interval at its tick.
  static constexpr std::int64_t kMarginNs = 2'000'000;
  static constexpr std::int64_t kInitialCostNs = 3'000'000;
  static constexpr std::size_t kRememberedReads = 32;

  // Ticks at first_tick_ns + k * 1e9 / ticks_per_second on the steady clock; a rate of 0 ends
  // pacing (every change may be read at once). Any thread.
  void SetSchedule(std::int64_t first_tick_ns, std::uint32_t ticks_per_second);

  // The earliest steady-clock instant, at or after now_ns, at which a pending change may be
  // read: now when unpaced, or when the next tick's reading window is open and that tick has no
  // read yet; otherwise the opening of the next unused tick's window.
  std::int64_t NextReadAt(std::int64_t now_ns);

  // A read meant to begin at started_ns (the opening of its window, where the reading thread
  // slept until then, so that waking late counts) that had handed its picture over at
  // finished_ns: the tick it was meant for is used, and the lead learns the cost.
  void Read(std::int64_t started_ns, std::int64_t finished_ns);

  // The current lead, for tests and log lines.
  std::int64_t lead_ns();
  // Paced reads so far, and those that ended after the tick they were meant for.
  std::uint64_t reads() const { return reads_; }
  std::uint64_t late_reads() const { return late_reads_; }

 private:
  struct Schedule {
    std::int64_t first_tick_ns = 0;
    std::uint32_t rate = 0;  // 0: unpaced.
  };
  Schedule schedule();
  // The first tick strictly after now_ns.
  static std::int64_t NextTick(const Schedule& s, std::int64_t now_ns);
  std::int64_t Lead(const Schedule& s) const;

  std::mutex mutex_;  // Guards schedule_ only: SetSchedule comes from the consumer's thread.
  Schedule schedule_;
  // The reading thread only from here on.
  std::array<std::int64_t, kRememberedReads> costs_ns_{};  // A ring of the last reads' costs.
  std::size_t next_cost_ = 0;
  std::int64_t cost_ns_ = kInitialCostNs;  // The largest in the ring.
  std::int64_t used_tick_ns_ = 0;          // The tick the last read was meant for; 0: none.
  std::uint64_t reads_ = 0;
  std::uint64_t late_reads_ = 0;
};

}  // namespace mirell::capture
