// How long the holding clip takes to build at 1280x720@30 (4 s, 120 frames), and what drawing one
// card costs, beside encoding the same pictures alone. Usage: bench_holding_clip [builds]
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <vector>

#include "mirell/base/logging.h"
#include "mirell/encode/h264_encoder.h"
#include "mirell/session/holding_card.h"
#include "mirell/session/holding_source.h"

namespace {

using Clock = std::chrono::steady_clock;

double Ms(Clock::time_point since) {
  return std::chrono::duration<double, std::milli>(Clock::now() - since).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int builds = argc > 1 ? std::atoi(argv[1]) : 3;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  std::vector<double> build_ms;
  for (int i = 0; i < builds; ++i) {
    const auto start = Clock::now();
    mirell::session::HoldingClip clip(mirell::session::HoldingClipConfig{});
    clip.WaitReady(600'000);
    build_ms.push_back(Ms(start));
  }
  std::sort(build_ms.begin(), build_ms.end());

  mirell::session::HoldingCard card(1280, 720, "Waiting to be let in");
  std::vector<std::vector<std::uint8_t>> pictures;
  const auto draw_start = Clock::now();
  for (int i = 0; i < 120; ++i) {
    const auto picture = card.Render(i / 120.0);
    pictures.emplace_back(picture.begin(), picture.end());
  }
  const double draw_ms = Ms(draw_start) / 120;

  mirell::encode::H264EncoderConfig config;
  config.width = 1280;
  config.height = 720;
  config.bitrate_bps = 1'000'000;
  auto encoder = mirell::encode::CreateH264Encoder(config);
  std::vector<mirell::encode::EncodedFrame> out;
  const auto encode_start = Clock::now();
  for (int i = 0; i < 120; ++i) encoder->Encode(pictures[static_cast<std::size_t>(i)], i * 333'333, out);
  const double encode_ms = Ms(encode_start) / 120;

  fmt::print("holding clip 1280x720@30, 4 s (120 frames) + 1 s of silence, {} builds\n", builds);
  fmt::print("build, median: {:.0f} ms (min {:.0f}, max {:.0f})\n", build_ms[build_ms.size() / 2],
             build_ms.front(), build_ms.back());
  fmt::print("per frame: draw {:.2f} ms, encode alone {:.2f} ms (reference: the same pictures "
             "through the encoder only)\n",
             draw_ms, encode_ms);
  return 0;
}
