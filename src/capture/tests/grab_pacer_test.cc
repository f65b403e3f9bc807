// When a capturer reads a pending change, given its consumer's ticks: once per tick, a lead before
// it, the lead following the reads' cost within its bounds.
#include "grab_pacer.h"

#include <gtest/gtest.h>

namespace mirell::capture {
namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kSecond = 1'000 * kMs;
constexpr std::int64_t kFirst = kSecond;  // The first tick, 1 s into the steady clock.

TEST(GrabPacerTest, WithoutAScheduleAChangeIsReadAtOnce) {
  GrabPacer pacer;
  EXPECT_EQ(pacer.NextReadAt(5 * kMs), 5 * kMs);
  pacer.Read(5 * kMs, 7 * kMs);
  EXPECT_EQ(pacer.NextReadAt(8 * kMs), 8 * kMs) << "unpaced, every change is read";
  EXPECT_EQ(pacer.lead_ns(), 0);
}

TEST(GrabPacerTest, AChangeWaitsForTheWindowJustBeforeTheNextTick) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 30);
  const std::int64_t lead = pacer.lead_ns();
  EXPECT_EQ(lead, GrabPacer::kInitialCostNs + GrabPacer::kMarginNs);
  const std::int64_t tick1 = kFirst + kSecond / 30;
  // Just after tick 0: wait until the lead before tick 1.
  EXPECT_EQ(pacer.NextReadAt(kFirst + 1 * kMs), tick1 - lead);
  // Inside tick 1's window: at once.
  EXPECT_EQ(pacer.NextReadAt(tick1 - lead + 1), tick1 - lead + 1);
  EXPECT_EQ(pacer.NextReadAt(tick1 - 1), tick1 - 1);
}

TEST(GrabPacerTest, OneReadPerTick) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 30);
  const std::int64_t tick1 = kFirst + kSecond / 30;
  const std::int64_t tick2 = kFirst + 2 * kSecond / 30;
  const std::int64_t start = tick1 - 4 * kMs;
  ASSERT_EQ(pacer.NextReadAt(start), start);
  pacer.Read(start, start + 1 * kMs);
  // A change right after that read waits for tick 2's window, though tick 1's is still open.
  const std::int64_t after = start + 2 * kMs;
  EXPECT_EQ(pacer.NextReadAt(after), tick2 - pacer.lead_ns());
  // A read that ran past its tick used that tick, so the next tick's window is open as usual.
  const std::int64_t tick3 = kFirst + 3 * kSecond / 30;
  pacer.Read(tick2 - 2 * kMs, tick2 + 3 * kMs);
  EXPECT_EQ(pacer.NextReadAt(tick2 + 4 * kMs), tick3 - pacer.lead_ns());
}

TEST(GrabPacerTest, TheLeadIsTheSlowestOfTheLastReadsPlusAMargin) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 30);
  pacer.Read(kFirst + 30 * kMs, kFirst + 38 * kMs);  // 8 ms.
  EXPECT_EQ(pacer.lead_ns(), 8 * kMs + GrabPacer::kMarginNs) << "one slow read moves the next earlier at once";
  for (std::size_t i = 1; i < GrabPacer::kRememberedReads; ++i) pacer.Read(kFirst, kFirst + 1 * kMs);
  EXPECT_EQ(pacer.lead_ns(), 8 * kMs + GrabPacer::kMarginNs) << "and is remembered for the last 32 reads";
  pacer.Read(kFirst, kFirst + 1 * kMs);
  EXPECT_EQ(pacer.lead_ns(), 1 * kMs + GrabPacer::kMarginNs) << "then forgotten";
}

TEST(GrabPacerTest, ReadsEndingAfterTheirTickAreCounted) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 30);
  const std::int64_t tick1 = kFirst + kSecond / 30;
  pacer.Read(tick1 - 5 * kMs, tick1 - 1 * kMs);
  pacer.Read(tick1 + 30 * kMs, tick1 + 35 * kMs);  // Meant for tick 2, ended after it.
  EXPECT_EQ(pacer.reads(), 2u);
  EXPECT_EQ(pacer.late_reads(), 1u);
}

TEST(GrabPacerTest, TheLeadIsAtMostHalfAnInterval) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 60);
  pacer.Read(kFirst, kFirst + 40 * kMs);  // Slower than a whole interval.
  EXPECT_EQ(pacer.lead_ns(), kSecond / 60 / 2);
}

TEST(GrabPacerTest, BeforeTheFirstTickTheFirstTicksWindowCounts) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 30);
  EXPECT_EQ(pacer.NextReadAt(kFirst - 100 * kMs), kFirst - pacer.lead_ns());
}

TEST(GrabPacerTest, TicksStayExactOverHoursAtARateThatDoesNotDivideASecond) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 30);
  // Six hours later, tick 648000 lies exactly 21600 s after the first.
  const std::int64_t tick = kFirst + 21'600 * kSecond;
  EXPECT_EQ(pacer.NextReadAt(tick - 20 * kMs), tick - pacer.lead_ns());
}

TEST(GrabPacerTest, ARateOfZeroEndsPacing) {
  GrabPacer pacer;
  pacer.SetSchedule(kFirst, 30);
  pacer.SetSchedule(0, 0);
  EXPECT_EQ(pacer.NextReadAt(kFirst + 1 * kMs), kFirst + 1 * kMs);
}

}  // namespace
}  // namespace mirell::capture
