// What a share costs its host: the CPU of a mirell-ui sharing the demo window at 1280x720@30 to
// 1 viewer and then to 10 (one encoder serves them all, so the ratio should stay near 1), and its
// resident memory sharing 1920x1080@30 to one viewer. The viewers are peer links answered in this
// process through our signal server; they count what arrives and decode nothing.
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/testsupport/xvfb.h"
#include "mirell/transport/peer_link.h"
#include "mirell/transport/signal_client.h"
#include "pulse_server.h"

namespace {

using namespace std::chrono_literals;
using mirell::testsupport::ChildProcess;
using mirell::testsupport::Eventually;

constexpr auto kSettle = 5s;
constexpr auto kWindow = 20s;

// One viewer: a signal client that joins the token and a link that answers the host's offer.
class Viewer {
 public:
  Viewer(const std::string& url, const std::string& token, int index) {
    mirell::transport::SignalConfig config;
    config.url = url;
    config.token = token;
    config.identity = fmt::format("usr_bench_{}", index);
    link_ = mirell::transport::CreateAnswerer({{}, 1});
    signal_ = mirell::transport::CreateViewerSignalClient(config);
    link_->OnVideo([this](mirell::transport::PeerLink::ByteSpan) { ++packets_; });
    link_->OnAudio([this](mirell::transport::PeerLink::ByteSpan) { ++packets_; });
    link_->OnLocalDescription([this](const std::string& sdp) { signal_->SendAnswer(sdp); });
    signal_->OnOffer([this](const std::string& sdp) { link_->SetRemoteDescription(sdp); });
    signal_->Start();
  }
  ~Viewer() {
    signal_->Stop();
    link_->Close();
  }
  bool receiving() const { return packets_.load() > 100; }

 private:
  std::atomic<std::uint64_t> packets_{0};
  std::unique_ptr<mirell::transport::PeerLink> link_;
  std::unique_ptr<mirell::transport::SignalClient> signal_;
};

// User and system CPU of a process, in seconds.
double CpuSeconds(int pid) {
  const std::string text = mirell::testsupport::ReadFileText(fmt::format("/proc/{}/stat", pid));
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; fields >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::stod(field);
    if (i == 15) break;
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// "VmRSS" or "VmHWM" of a process, in MB.
double MemoryMb(int pid, const std::string& key) {
  std::ifstream status(fmt::format("/proc/{}/status", pid));
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(key + ":", 0) == 0) return std::stod(line.substr(key.size() + 1)) / 1024.0;
  }
  return 0;
}

// Cores in use by the process over kWindow.
double CoresUsed(int pid) {
  const double before = CpuSeconds(pid);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(kWindow);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return (CpuSeconds(pid) - before) / seconds;
}

struct Host {
  std::unique_ptr<ChildProcess> process;
  std::string token;
};

Host StartHost(const std::filesystem::path& dir, const std::string& signal_url, const std::string& quality) {
  std::filesystem::create_directories(dir / "home");
  const auto out = dir / "host.out";
  std::filesystem::remove(out);
  mirell::testsupport::ProcessOptions options;
  options.environment["QT_QPA_PLATFORM"] = "offscreen";
  options.environment["HOME"] = (dir / "home").string();
  Host host;
  host.process = std::make_unique<ChildProcess>(
      std::vector<std::string>{"sh", "-c", "exec \"$0\" \"$@\" > \"" + out.string() + "\" 2>/dev/null",
                               MIRELL_UI_BINARY, "--no-stub", "--signal", signal_url, "--rtsp-port", "0", "--pipe",
                               fmt::format("127.0.0.1:{}", mirell::testsupport::FreeLoopbackPort()),
                               "--share-window", "Cost Demo", "--admit-everyone", "--quality", quality},
      options);
  Eventually([&] {
    const std::string text = mirell::testsupport::ReadFileText(out);
    if (text.find('\n') == std::string::npos) return false;
    const std::string link = text.substr(0, text.find('\n'));
    host.token = link.substr(link.rfind('/') + 1);
    return true;
  }, 60s);
  return host;
}

bool AllReceiving(const std::vector<std::unique_ptr<Viewer>>& viewers) {
  for (const auto& viewer : viewers) {
    if (!viewer->receiving()) return false;
  }
  return true;
}

}  // namespace

int main() {
  for (const char* program : {"Xvfb", "openbox"}) {
    if (!mirell::testsupport::HaveProgram(program)) {
      std::printf("sharing cost: skipped, %s is missing\n", program);
      return 0;
    }
  }
  mirell::testsupport::XvfbOptions display_options;
  display_options.width = 1920;
  display_options.height = 1080;
  display_options.window_manager = true;
  mirell::testsupport::XvfbDisplay display(display_options);
  mirell::capture::PulseServer pulse;
  if (!display.available() || !pulse.available()) {
    std::printf("sharing cost: skipped, no Xvfb with openbox or no PulseAudio server\n");
    return 0;
  }
  setenv("DISPLAY", display.name().c_str(), 1);
  mirell::transport::InitialiseTransportLogging();
  mirell::testsupport::TempDir dir;
  const auto ready = dir.path() / "window-ready";
  ChildProcess window({MIRELL_DEMO_WINDOW, "--title", "Cost Demo", "--size", "1920x1080", "--fps", "60",
                       "--ready-file", ready.string()});
  const std::uint16_t signal_port = mirell::testsupport::FreeLoopbackPort();
  ChildProcess signal({MIRELL_SIGNAL_BINARY, "--listen", fmt::format("127.0.0.1:{}", signal_port)});
  if (!Eventually([&] { return std::filesystem::exists(ready) && mirell::testsupport::LoopbackPortAccepts(signal_port); }, 30s)) {
    std::printf("sharing cost: the demo window or the signal server did not come up\n");
    return 1;
  }
  const std::string signal_url = fmt::format("ws://127.0.0.1:{}/signal", signal_port);

  double one = 0, ten = 0;
  {
    Host host = StartHost(dir.path(), signal_url, "1280x720@30");
    if (host.token.empty()) {
      std::printf("sharing cost: the host did not start\n");
      return 1;
    }
    const int pid = host.process->pid();
    std::vector<std::unique_ptr<Viewer>> viewers;
    viewers.push_back(std::make_unique<Viewer>(signal_url, host.token, 0));
    if (!Eventually([&] { return AllReceiving(viewers); }, 30s)) std::printf("the first viewer receives nothing\n");
    std::this_thread::sleep_for(kSettle);
    one = CoresUsed(pid);
    for (int i = 1; i < 10; ++i) viewers.push_back(std::make_unique<Viewer>(signal_url, host.token, i));
    if (!Eventually([&] { return AllReceiving(viewers); }, 60s)) std::printf("not every viewer receives\n");
    std::this_thread::sleep_for(kSettle);
    ten = CoresUsed(pid);
    viewers.clear();
    host.process->Signal(SIGTERM);
    host.process->Wait(20s);
  }
  std::printf("host CPU at 1280x720@30: 1 viewer %.3f cores, 10 viewers %.3f cores, ratio %.2f (target <= 1.3)\n",
              one, ten, one > 0 ? ten / one : 0.0);

  {
    Host host = StartHost(dir.path(), signal_url, "1920x1080@30");
    if (host.token.empty()) {
      std::printf("sharing cost: the host did not start at 1920x1080\n");
      return 1;
    }
    std::vector<std::unique_ptr<Viewer>> viewers;
    viewers.push_back(std::make_unique<Viewer>(signal_url, host.token, 0));
    if (!Eventually([&] { return AllReceiving(viewers); }, 30s)) std::printf("the viewer receives nothing\n");
    std::this_thread::sleep_for(kWindow);
    const int pid = host.process->pid();
    std::printf("host memory at 1920x1080@30, 1 viewer: RSS %.1f MB, peak %.1f MB (target <= 150)\n",
                MemoryMb(pid, "VmRSS"), MemoryMb(pid, "VmHWM"));
    viewers.clear();
    host.process->Signal(SIGTERM);
    host.process->Wait(20s);
  }
  return 0;
}
