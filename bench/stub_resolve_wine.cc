// One resolve through the stub under Wine, started by a Windows parent that pipes its stdout (as
// VRChat does), against a resolve service in this process; beside the same parent starting a
// trivial Windows program that only prints one line, in the same run. Usage: bench_stub_wine [runs]
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include "mirell/base/logging.h"
#include "mirell/resolve/resolve_service.h"
#include "mirell/testsupport/subprocess.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string WindowsPath(const fs::path& path) {
  std::string text = "Z:" + path.string();
  std::replace(text.begin(), text.end(), '/', '\\');
  return text;
}

struct Figures {
  double median_ms, p95_ms;
};

Figures Measure(const mirell::testsupport::ProcessOptions& options, const fs::path& program, int runs,
                const std::string& expected) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    const auto result = mirell::testsupport::RunProcess(
        {"wine", (fs::path(MIRELL_TEST_PE_DIR) / "vrchat_parent.exe").string(), WindowsPath(program),
         "-f", "mp4/best", "--get-url", "https://mirell.example/s/ABCDEFGHJKMN"},
        options);
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    if (result.out != expected) fmt::print("unexpected output: {}\n", result.out);
  }
  std::sort(times.begin(), times.end());
  return {times[times.size() / 2], times[std::min(times.size() - 1, times.size() * 95 / 100)]};
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 30;
  mirell::SetLogLevel(mirell::LogLevel::kError);
  mirell::testsupport::TempDir dir;
  mirell::testsupport::ProcessOptions options;
  options.environment["WINEPREFIX"] = (dir.path() / "prefix").string();
  options.environment["WINEDLLOVERRIDES"] = "mscoree,mshtml=";
  options.environment["WINEDEBUG"] = "-all";
  options.environment["DISPLAY"] = std::nullopt;
  options.timeout = std::chrono::seconds(120);
  mirell::testsupport::RunProcess({"wineboot", "-i"}, options);
  // Keep the Wine server up between runs, as it is while VRChat runs.
  mirell::testsupport::ChildProcess keeper({"wineserver", "-f", "-p"}, options);

  const auto tools = dir.path() / "Tools";
  fs::create_directories(tools);
  fs::copy_file(MIRELL_STUB_EXE, tools / "yt-dlp.exe");
  mirell::resolve::ResolveService service("127.0.0.1:0", [](const std::string&) {
    return mirell::resolve::ResolveResult{mirell::resolve::ResolveStatus::kResolved,
                                         "rtspt://127.0.0.1:8554/s/ABCDEFGHJKMN", ""};
  });
  service.Start();
  std::ofstream(tools / "mirell-stub.cfg") << "pipe=" << service.endpoint() << "\nlog=0\n";

  const std::string expected = "exit=0\nrtspt://127.0.0.1:8554/s/ABCDEFGHJKMN\r\n";
  Measure(options, tools / "yt-dlp.exe", 3, expected);  // Warm the prefix.
  const Figures reference = Measure(options, fs::path(MIRELL_TEST_PE_DIR) / "print_line.exe", runs, expected);
  const Figures stub = Measure(options, tools / "yt-dlp.exe", runs, expected);
  mirell::testsupport::RunProcess({"wineserver", "-k"}, options);

  fmt::print("resolve through the stub under Wine, Windows parent with piped stdout, {} runs each\n", runs);
  fmt::print("{:<40} {:>10} {:>10}\n", "", "median ms", "p95 ms");
  fmt::print("{:<40} {:>10.0f} {:>10.0f}\n", "trivial program printing one line", reference.median_ms, reference.p95_ms);
  fmt::print("{:<40} {:>10.0f} {:>10.0f}\n", "stub, one RESOLVE answered OK", stub.median_ms, stub.p95_ms);
  fmt::print("stub minus reference (median): {:.0f} ms; resolver calls: {}\n", stub.median_ms - reference.median_ms,
             service.requests());
  return 0;
}
