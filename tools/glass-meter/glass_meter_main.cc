// mirell-glass-meter: glass-to-glass latency as a player sees it. A player decodes a stream of the
// demo window and writes its pictures as raw 8-bit grey to this program's stdin; each picture's
// time code is read the moment the picture arrives and compared with the clock (same machine,
// same steady clock). Prints the figures when the input ends, or after --seconds.
//
//   ffmpeg ... -f rawvideo -pix_fmt gray pipe:1 | mirell-glass-meter --size 1280x720
//   mirell-glass-meter --size WxH [--seconds N] [--skip-seconds S] [--label TEXT]
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "latency_figures.h"
#include "timecode.h"

namespace {

struct Options {
  int width = 0, height = 0;
  double seconds = 0;       // 0: until the input ends.
  double skip_seconds = 0;  // Start-up pictures left out of the figures.
  std::string label = "glass-to-glass";
};

[[noreturn]] void Usage(const std::string& problem) {
  std::fprintf(stderr,
               "mirell-glass-meter: %s\nusage: mirell-glass-meter --size WxH [--seconds N] [--skip-seconds S] "
               "[--label TEXT]\n",
               problem.c_str());
  std::exit(2);
}

Options Parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (i + 1 >= argc) Usage(name + " needs a value");
    const std::string value = argv[++i];
    if (name == "--size") {
      if (std::sscanf(value.c_str(), "%dx%d", &o.width, &o.height) != 2 || o.width < 40 || o.height < 2) {
        Usage("--size takes WxH");
      }
    } else if (name == "--seconds") {
      o.seconds = std::atof(value.c_str());
    } else if (name == "--skip-seconds") {
      o.skip_seconds = std::atof(value.c_str());
    } else if (name == "--label") {
      o.label = value;
    } else {
      Usage("unknown option " + name);
    }
  }
  if (o.width == 0) Usage("--size is required");
  return o;
}

// Fills `buffer` from stdin; false at the end of the input.
bool ReadPicture(std::vector<std::uint8_t>& buffer) {
  std::size_t have = 0;
  while (have < buffer.size()) {
    const ssize_t got = read(STDIN_FILENO, buffer.data() + have, buffer.size() - have);
    if (got <= 0) return false;
    have += static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = Parse(argc, argv);
  std::vector<std::uint8_t> picture(static_cast<std::size_t>(o.width) * static_cast<std::size_t>(o.height));
  std::vector<double> samples;
  std::size_t pictures = 0;
  std::size_t implausible = 0;  // Codes that read as seconds old: garbled pictures.
  const auto start = std::chrono::steady_clock::now();
  while (ReadPicture(picture)) {
    const std::uint32_t now = mirell::timecode::Now();
    ++pictures;
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (o.seconds > 0 && elapsed > o.seconds + o.skip_seconds) break;
    if (elapsed < o.skip_seconds) continue;
    if (const auto painted = mirell::timecode::Read(picture.data(), o.width, o.height, o.width)) {
      const double elapsed_ms = mirell::timecode::ElapsedMs(*painted, now);
      if (mirell::meter::IsPlausibleLatency(elapsed_ms)) {
        samples.push_back(elapsed_ms);
      } else {
        ++implausible;
      }
    }
  }
  const auto figures = mirell::meter::Summarise(samples);
  std::printf("%s: %s, pictures=%zu implausible=%zu\n", o.label.c_str(), mirell::meter::Describe(figures).c_str(),
              pictures, implausible);
  return figures.samples > 0 ? 0 : 1;
}
