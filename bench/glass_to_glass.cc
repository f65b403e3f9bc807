// Glass to glass: how long after the demo window paints a picture a player shows it. The window
// paints the steady-clock time as a time code 144 times a second; a player decodes the stream and
// hands each picture to mirell-glass-meter, which reads the code the moment the picture arrives
// (same machine, same clock). 1280x720@30, 30 s per figure, with two players: ffmpeg
// (low_delay, one decoder thread) and GStreamer (rtspsrc latency=0).
//
// Ours is measured twice: from the host's own RTSP server (capture, encoding and RTSP delivery,
// no peer link) and through a viewer (the peer link, the viewer's receiver and its RTSP server
// added), and the share being public, through the relay as a player without Mirell reads it (the
// peer link and the relay's RTSP server). The reference is GStreamer's RTSP server capturing the
// same window with ximagesrc and encoding with x264 at our encoder's settings. Each side runs
// alone while it is measured.
#include <fmt/format.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/testsupport/xvfb.h"
#include "pulse_server.h"

namespace {

using namespace std::chrono_literals;
using mirell::testsupport::ChildProcess;
using mirell::testsupport::Eventually;

constexpr int kSeconds = 30;
constexpr int kSkipSeconds = 3;

struct Figures {
  double median = 0, p95 = 0, p99 = 0;
  int samples = 0;
  bool ok = false;
};

// Each player hands over every picture as it is decoded: no frame-rate conversion, no output
// buffering (a picture's last bytes would otherwise wait for the next one).
std::string PlayerCommand(const std::string& player, const std::string& url, bool has_audio) {
  if (player == "ffmpeg") {
    return fmt::format(
        "ffmpeg -nostdin -loglevel error -rtsp_transport tcp -fflags nobuffer -flags low_delay -threads 1 "
        "-i '{}' -an -fps_mode passthrough -f rawvideo -pix_fmt gray -flush_packets 1 pipe:1",
        url);
  }
  return fmt::format(
      "gst-launch-1.0 -q rtspsrc location='{}' latency=0 protocols=tcp name=src src. ! application/x-rtp,media=video "
      "! rtph264depay ! avdec_h264 max-threads=1 ! videoconvert ! video/x-raw,format=GRAY8 ! fdsink fd=1 sync=false{}",
      url, has_audio ? " src. ! application/x-rtp,media=audio ! fakesink" : "");
}

Figures Measure(const std::string& label, const std::string& player, const std::string& url, bool has_audio) {
  const std::string command =
      fmt::format("{} 2>/dev/null | '{}' --size 1280x720 --seconds {} --skip-seconds {} --label '{}'",
                  PlayerCommand(player, url, has_audio), MIRELL_GLASS_METER, kSeconds, kSkipSeconds, label);
  mirell::testsupport::ProcessOptions options;
  options.timeout = std::chrono::seconds(kSeconds + kSkipSeconds + 60);
  const auto result = mirell::testsupport::RunProcess({"sh", "-c", command}, options);
  std::printf("%s", result.out.c_str());
  std::fflush(stdout);
  static const std::regex kLine(R"(median=([0-9.]+) ms p95=([0-9.]+) ms p99=([0-9.]+) ms \(samples=(\d+)\))");
  std::smatch match;
  Figures figures;
  if (std::regex_search(result.out, match, kLine)) {
    figures = {std::stod(match[1]), std::stod(match[2]), std::stod(match[3]), std::stoi(match[4]), true};
  }
  if (!figures.ok || figures.samples == 0) std::printf("%s: no time code read\n%s\n", label.c_str(), result.err.c_str());
  return figures;
}

// One mirell-ui, headless, with its stdout in a file.
std::unique_ptr<ChildProcess> StartUi(const std::filesystem::path& dir, const std::string& name,
                                      std::vector<std::string> arguments) {
  std::filesystem::create_directories(dir / (name + "-home"));
  std::vector<std::string> argv{"sh", "-c", "exec \"$0\" \"$@\" > \"" + (dir / (name + ".out")).string() + "\" 2>\"" +
                                                (dir / (name + ".err")).string() + "\"",
                                MIRELL_UI_BINARY, "--no-stub"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  mirell::testsupport::ProcessOptions options;
  options.environment["QT_QPA_PLATFORM"] = "offscreen";
  options.environment["HOME"] = (dir / (name + "-home")).string();
  return std::make_unique<ChildProcess>(argv, options);
}

std::string FirstLine(const std::filesystem::path& file) {
  std::istringstream text(mirell::testsupport::ReadFileText(file));
  std::string line;
  std::getline(text, line);
  return line;
}

void Row(const char* what, const Figures& ours, const Figures& reference) {
  if (ours.samples == 0 || reference.samples == 0) {
    std::printf("  %-28s not measured (see above)\n", what);
    return;
  }
  std::printf("  %-28s ours p50 %6.1f p95 %6.1f p99 %6.1f | reference p50 %6.1f p95 %6.1f p99 %6.1f | "
              "p50 %+6.1f ms (target <= +15), p95 %+6.1f ms (target <= +25)\n",
              what, ours.median, ours.p95, ours.p99, reference.median, reference.p95, reference.p99,
              ours.median - reference.median, ours.p95 - reference.p95);
}

}  // namespace

int main() {
  for (const char* program : {"ffmpeg", "gst-launch-1.0", "Xvfb", "openbox"}) {
    if (!mirell::testsupport::HaveProgram(program)) {
      std::printf("glass to glass: skipped, %s is missing\n", program);
      return 0;
    }
  }
  // Room around the 1280x720 window: ximagesrc reads only what is on screen, title bar aside.
  mirell::testsupport::XvfbOptions display_options;
  display_options.width = 1920;
  display_options.height = 1080;
  display_options.window_manager = true;
  mirell::testsupport::XvfbDisplay display(display_options);
  mirell::capture::PulseServer pulse;
  if (!display.available() || !pulse.available()) {
    std::printf("glass to glass: skipped, no Xvfb with openbox or no PulseAudio server\n");
    return 0;
  }
  setenv("DISPLAY", display.name().c_str(), 1);
  mirell::testsupport::TempDir dir;
  const auto ready = dir.path() / "window-ready";
  ChildProcess window({MIRELL_DEMO_WINDOW, "--title", "Glass Demo", "--ready-file", ready.string()});
  if (!Eventually([&] { return std::filesystem::exists(ready); }, 30s)) {
    std::printf("glass to glass: the demo window did not come up\n");
    return 1;
  }
  const std::string xid = FirstLine(ready);

  Figures ours_ffmpeg, ours_gst, local_ffmpeg, local_gst, relay_ffmpeg, relay_gst;
  {
    const std::uint16_t signal_port = mirell::testsupport::FreeLoopbackPort();
    const std::uint16_t relay_port = mirell::testsupport::FreeLoopbackPort();
    const auto secret = dir.path() / "relay-secret";
    std::ofstream(secret) << "relay-secret-for-the-bench-0123\n";
    ChildProcess signal({MIRELL_SIGNAL_BINARY, "--listen", fmt::format("127.0.0.1:{}", signal_port),
                         "--relay-secret-file", secret.string()});
    Eventually([&] { return mirell::testsupport::LoopbackPortAccepts(signal_port); });
    const std::string signal_url = fmt::format("ws://127.0.0.1:{}/signal", signal_port);
    ChildProcess relay({MIRELL_RELAY_BINARY, "--signal", signal_url, "--relay-secret-file", secret.string(),
                        "--listen", fmt::format("127.0.0.1:{}", relay_port)});
    const std::uint16_t host_rtsp = mirell::testsupport::FreeLoopbackPort();
    // Public: every viewer is let in at once, the relay too.
    auto host = StartUi(dir.path(), "host",
                        {"--signal", signal_url, "--rtsp-port", std::to_string(host_rtsp), "--pipe",
                         fmt::format("127.0.0.1:{}", mirell::testsupport::FreeLoopbackPort()), "--share-window",
                         "Glass Demo", "--public"});
    const std::uint16_t viewer_rtsp = mirell::testsupport::FreeLoopbackPort();
    const std::uint16_t viewer_pipe = mirell::testsupport::FreeLoopbackPort();
    auto viewer = StartUi(dir.path(), "viewer",
                          {"--signal", signal_url, "--rtsp-port", std::to_string(viewer_rtsp), "--pipe",
                           fmt::format("127.0.0.1:{}", viewer_pipe)});
    std::string link;
    Eventually([&] { return !(link = FirstLine(dir.path() / "host.out")).empty(); }, 60s);
    if (link.empty() || !Eventually([&] { return mirell::testsupport::LoopbackPortAccepts(viewer_pipe); }, 60s)) {
      std::printf("glass to glass: mirell-ui did not start\n%s\n",
                  mirell::testsupport::ReadFileText(dir.path() / "host.err").c_str());
      return 1;
    }
    const std::string token = link.substr(link.rfind('/') + 1);
    // The card is built at the viewer's start; a link resolved before it is ready plays no card,
    // which does not matter here.
    const std::string answer = mirell::testsupport::ExchangeOnce(viewer_pipe, "RESOLVE " + link + "\n");
    const std::string viewer_url = fmt::format("rtsp://127.0.0.1:{}/s/{}", viewer_rtsp, token);
    const std::string local_url = fmt::format("rtsp://127.0.0.1:{}/s/{}", host_rtsp, token);
    std::printf("ours: %s resolved to %s", link.c_str(), answer.c_str());
    std::this_thread::sleep_for(3s);  // Admitted and connected.
    ours_ffmpeg = Measure("ours via a viewer, ffmpeg", "ffmpeg", viewer_url, true);
    ours_gst = Measure("ours via a viewer, gstreamer", "gst", viewer_url, true);
    local_ffmpeg = Measure("ours from the host RTSP server, ffmpeg", "ffmpeg", local_url, true);
    local_gst = Measure("ours from the host RTSP server, gstreamer", "gst", local_url, true);
    const std::string relay_url = fmt::format("rtsp://127.0.0.1:{}/s/{}", relay_port, token);
    relay_ffmpeg = Measure("ours through the relay, ffmpeg", "ffmpeg", relay_url, true);
    relay_gst = Measure("ours through the relay, gstreamer", "gst", relay_url, true);
    relay.Signal(SIGTERM);
    relay.Wait(20s);
    viewer->Signal(SIGTERM);
    viewer->Wait(20s);
    host->Signal(SIGTERM);
    host->Wait(20s);
  }

  Figures reference_ffmpeg, reference_gst;
  {
    const std::uint16_t port = mirell::testsupport::FreeLoopbackPort();
    // Debian's interpreter, where GStreamer's Python bindings are installed.
    ChildProcess reference({"/usr/bin/python3", std::string(MIRELL_BENCH_SOURCE_DIR) + "/reference_rtsp_server.py",
                            std::to_string(port), "--x11-window", xid, "1280", "720", "30", "6000"});
    if (!Eventually([&] { return mirell::testsupport::LoopbackPortAccepts(port); }, 30s)) {
      std::printf("glass to glass: the reference server did not start\n");
      return 1;
    }
    const std::string url = fmt::format("rtsp://127.0.0.1:{}/s/ref", port);
    reference_ffmpeg = Measure("reference, ffmpeg", "ffmpeg", url, false);
    reference_gst = Measure("reference, gstreamer", "gst", url, false);
  }

  std::printf("\nglass to glass, 1280x720@30, %d s each, milliseconds:\n", kSeconds);
  Row("ffmpeg, through a viewer", ours_ffmpeg, reference_ffmpeg);
  Row("gstreamer, through a viewer", ours_gst, reference_gst);
  Row("ffmpeg, host's own RTSP", local_ffmpeg, reference_ffmpeg);
  Row("gstreamer, host's own RTSP", local_gst, reference_gst);
  Row("ffmpeg, through the relay", relay_ffmpeg, reference_ffmpeg);
  Row("gstreamer, through the relay", relay_gst, reference_gst);
  std::printf("  the peer link and the viewer's side add (p50): %+.1f ms (ffmpeg), %+.1f ms (gstreamer)\n",
              ours_ffmpeg.median - local_ffmpeg.median, ours_gst.median - local_gst.median);
  std::printf("  the relay against a direct viewer (p50): %+.1f ms (ffmpeg), %+.1f ms (gstreamer); target <= +10\n",
              relay_ffmpeg.median - ours_ffmpeg.median, relay_gst.median - ours_gst.median);
  return 0;
}
