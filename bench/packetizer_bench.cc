// Packetize and depacketize throughput for a 1080p keyframe-sized unit and a typical P-frame,
// beside a plain copy of the same bytes measured in the same run (the reference).
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "mirell/media/h264_rtp.h"

namespace {

using mirell::media::Bytes;

constexpr std::size_t kKeyframeBytes = 250'000;  // An IDR of 1080p at 6 Mbit/s, roughly.
constexpr std::size_t kPFrameBytes = 25'000;

// SPS, PPS and one slice of `size` bytes with no zero bytes, so no start code hides inside.
Bytes AccessUnit(std::size_t size, bool keyframe) {
  Bytes unit;
  if (keyframe) {
    mirell::media::AppendNal(unit, Bytes{0x67, 0x64, 0x00, 0x28, 0xAC});
    mirell::media::AppendNal(unit, Bytes{0x68, 0xEE, 0x3C, 0x80});
  }
  Bytes slice;
  slice.reserve(size);
  slice.push_back(keyframe ? 0x65 : 0x41);
  for (std::size_t i = 1; i < size; ++i) slice.push_back(static_cast<std::uint8_t>(1 + (i * 131) % 255));
  mirell::media::AppendNal(unit, slice);
  return unit;
}

void BM_CopyReference(benchmark::State& state) {
  const Bytes unit = AccessUnit(static_cast<std::size_t>(state.range(0)), true);
  Bytes copy(unit.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), unit.data(), unit.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(unit.size()));
}

void BM_Packetize(benchmark::State& state) {
  const Bytes unit = AccessUnit(static_cast<std::size_t>(state.range(0)), state.range(1) != 0);
  mirell::media::H264RtpPacketizer packetizer({96, 1, 1200, 1});
  std::vector<Bytes> packets;
  for (auto _ : state) {
    packets.clear();
    packetizer.Packetize(unit, 0, packets);
    benchmark::DoNotOptimize(packets.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(unit.size()));
}

void BM_Depacketize(benchmark::State& state) {
  const Bytes unit = AccessUnit(static_cast<std::size_t>(state.range(0)), state.range(1) != 0);
  mirell::media::H264RtpPacketizer packetizer({96, 1, 1200, 1});
  // Enough units in sequence that the benchmark never runs out of fresh sequence numbers.
  std::vector<std::vector<Bytes>> units(64);
  for (std::size_t i = 0; i < units.size(); ++i) packetizer.Packetize(unit, static_cast<std::uint32_t>(i * 3000), units[i]);
  mirell::media::H264RtpDepacketizer depacketizer;
  mirell::media::H264AccessUnit out;
  std::size_t next = 0;
  std::int64_t delivered = 0;
  for (auto _ : state) {
    if (next == units.size()) {
      state.PauseTiming();
      // Renumber so that the next round is in sequence again.
      for (auto& packets : units) {
        packets.clear();
      }
      for (std::size_t i = 0; i < units.size(); ++i) packetizer.Packetize(unit, static_cast<std::uint32_t>(i * 3000), units[i]);
      next = 0;
      state.ResumeTiming();
    }
    for (const auto& packet : units[next]) delivered += depacketizer.Push(packet, out) ? 1 : 0;
    benchmark::DoNotOptimize(out.annex_b.data());
    ++next;
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(unit.size()));
  // 1.0 when every access unit came back whole: the figure is only worth something then.
  state.counters["delivered"] = static_cast<double>(delivered) / static_cast<double>(state.iterations());
}

BENCHMARK(BM_CopyReference)->Arg(kKeyframeBytes)->Arg(kPFrameBytes);
BENCHMARK(BM_Packetize)->Args({kKeyframeBytes, 1})->Args({kPFrameBytes, 0});
BENCHMARK(BM_Depacketize)->Args({kKeyframeBytes, 1})->Args({kPFrameBytes, 0});

}  // namespace

BENCHMARK_MAIN();
