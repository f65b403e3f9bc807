// The cost of FrameBus::Publish with 1, 10 and 100 subscribers: it should grow only by one lock
// and one pointer push per reader. The per-subscriber counter makes that visible.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "mirell/streams/frame_bus.h"

namespace {

void BM_FrameBusPublish(benchmark::State& state) {
  const auto readers = static_cast<std::size_t>(state.range(0));
  constexpr std::uint64_t kDrainEvery = 4096;
  mirell::streams::FrameBus bus;
  std::vector<std::shared_ptr<mirell::streams::FrameBus::Subscription>> subscriptions;
  for (std::size_t i = 0; i < readers; ++i) subscriptions.push_back(bus.Subscribe(kDrainEvery + 1, 0));
  auto frame = std::make_shared<mirell::encode::EncodedFrame>();
  frame->keyframe = true;  // Every frame is accepted: the measured path is the push.
  const mirell::encode::EncodedFramePtr shared = frame;
  std::uint64_t published = 0;
  for (auto _ : state) {
    bus.Publish(shared);
    if (++published % kDrainEvery == 0) {
      state.PauseTiming();
      for (auto& s : subscriptions) {
        while (s->Pop(0)) {
        }
      }
      state.ResumeTiming();
    }
  }
  state.counters["ns_per_subscriber"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(readers),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_FrameBusPublish)->Arg(1)->Arg(10)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
