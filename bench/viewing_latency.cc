// How fast a share link plays on a viewer's machine, across real processes on loopback: our
// signal server, a test host, mirell-ui as the viewer and ffmpeg as VRChat's player. Two figures,
// median and p90 over the runs: from the resolve request to the card's first picture in ffmpeg
// (beside ffmpeg's own start-up on a local file, which it cannot beat), and from the host's
// admission to the host's first picture in the same ffmpeg, once with the approval sent as soon as
// the viewer is pending and once a second later, as a person answering the prompt would.
// Usage: bench_viewing [runs]
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mirell/protocol/share_token.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/transport/signal_client.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using mirell::testsupport::ChildProcess;
using mirell::testsupport::TempDir;

double MsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A child whose stderr is read line by line as it comes.
class LiveProcess {
 public:
  explicit LiveProcess(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], 2);
      const int null = open("/dev/null", O_RDWR);
      dup2(null, 0);
      dup2(null, 1);
      close(fds[0]);
      std::vector<char*> args;
      for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
      args.push_back(nullptr);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(fds[1]);
    fd_ = fds[0];
  }
  ~LiveProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(fd_);
  }
  LiveProcess(const LiveProcess&) = delete;
  LiveProcess& operator=(const LiveProcess&) = delete;

  // The next line, or nothing at the end of the output or the deadline.
  std::optional<std::string> NextLine(Clock::time_point deadline) {
    for (;;) {
      const auto end = buffer_.find_first_of("\r\n");
      if (end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd wait{fd_, POLLIN, 0};
      if (poll(&wait, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
      char chunk[4096];
      const ssize_t got = read(fd_, chunk, sizeof chunk);
      if (got <= 0) return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(got));
    }
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string buffer_;
};

std::vector<std::string> Player(const std::string& input, bool rtsp) {
  std::vector<std::string> argv{"ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "info"};
  if (rtsp) argv.insert(argv.end(), {"-rtsp_transport", "tcp"});
  argv.insert(argv.end(), {"-fpsprobesize", "0", "-i", input, "-vf", "showinfo", "-f", "null", "-"});
  return argv;
}

// Waits for the first picture whose line holds `text`; the milliseconds since `start`, or -1.
double FirstPicture(LiveProcess& player, const std::string& text, Clock::time_point start) {
  const auto deadline = Clock::now() + 20s;
  while (const auto line = player.NextLine(deadline)) {
    if (line->find("Parsed_showinfo") != std::string::npos && line->find(" n:") != std::string::npos &&
        line->find(text) != std::string::npos) {
      return MsSince(start);
    }
  }
  return -1;
}

bool PortOpen(std::uint16_t port) {
  try {
    mirell::testsupport::TcpClient probe(port);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

struct Figures {
  double median = -1, p90 = -1;
  int failures = 0;
};

Figures Summarise(std::vector<double> values, int failures) {
  Figures figures;
  figures.failures = failures;
  if (values.empty()) return figures;
  std::sort(values.begin(), values.end());
  figures.median = values[values.size() / 2];
  figures.p90 = values[std::min(values.size() - 1, values.size() * 9 / 10)];
  return figures;
}

void Print(const char* name, const Figures& figures) {
  fmt::print("{:<48} {:>8.0f} {:>8.0f} {:>6}\n", name, figures.median, figures.p90, figures.failures);
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 10;
  TempDir dir;
  const std::uint16_t signal_port = mirell::testsupport::FreeLoopbackPort();
  const std::uint16_t pipe_port = mirell::testsupport::FreeLoopbackPort();
  const std::uint16_t rtsp_port = mirell::testsupport::FreeLoopbackPort();
  const std::string signal_url = fmt::format("ws://127.0.0.1:{}/signal", signal_port);
  mirell::testsupport::ProcessOptions quiet;
  quiet.environment["MIRELL_LOG"] = "error";
  ChildProcess signal({MIRELL_SIGNAL_BINARY, "--listen", fmt::format("127.0.0.1:{}", signal_port)}, quiet);
  mirell::testsupport::ProcessOptions viewer_options = quiet;
  viewer_options.environment["QT_QPA_PLATFORM"] = "offscreen";
  viewer_options.environment["HOME"] = dir.path().string();
  std::filesystem::copy_file(MIRELL_UI_BINARY, dir.path() / "mirell-ui");
  ChildProcess viewer({(dir.path() / "mirell-ui").string(), "--signal", signal_url, "--pipe",
                       fmt::format("127.0.0.1:{}", pipe_port), "--rtsp-port", std::to_string(rtsp_port),
                       "--no-stub"},
                      viewer_options);
  if (!mirell::testsupport::Eventually([&] { return PortOpen(signal_port) && PortOpen(pipe_port); }, 20s)) {
    fmt::print(stderr, "the signal server or mirell-ui did not start\n");
    return 1;
  }
  std::this_thread::sleep_for(4s);  // The card is built in the background at start-up.

  // ffmpeg's own start-up: the first picture of a local file.
  std::vector<double> local;
  const auto clip = dir.path() / "local.h264";
  mirell::testsupport::RunProcess({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                                   "testsrc2=size=1280x720:rate=30", "-frames:v", "30", "-c:v",
                                   "libx264", "-preset", "veryfast", clip.string()});
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    LiveProcess player(Player(clip.string(), false));
    local.push_back(FirstPicture(player, "n:", start));
  }

  std::vector<double> card, host_frame, host_frame_read;
  int card_failures = 0, host_failures = 0, host_read_failures = 0;
  for (int i = 0; i < 2 * runs; ++i) {
    // Odd runs: the prompt is read for a second before the answer.
    const bool read_first = i % 2 == 1;
    const auto credentials = mirell::protocol::GenerateShareCredentials();
    TempDir host_dir;
    ChildProcess host({MIRELL_TEST_HOST_BINARY, "--signal", signal_url, "--token", credentials.token,
                       "--secret", credentials.secret, "--dir", host_dir.path().string()},
                      quiet);
    const auto events = [&] { return mirell::testsupport::ReadFileText(host_dir.path() / "events"); };
    if (!mirell::testsupport::Eventually([&] { return events().find("hosting") != std::string::npos; }, 30s)) {
      ++card_failures;
      ++(read_first ? host_read_failures : host_failures);
      continue;
    }
    const auto start = Clock::now();
    const std::string answer = mirell::testsupport::ExchangeOnce(
        pipe_port, fmt::format("RESOLVE https://127.0.0.1:{}/s/{}\n", signal_port, credentials.token));
    const std::string url = fmt::format("rtsp://127.0.0.1:{}/s/{}", rtsp_port, credentials.token);
    LiveProcess player(Player(url, true));
    const double card_ms = answer.rfind("OK ", 0) == 0 ? FirstPicture(player, "s:1280x720", start) : -1;
    if (card_ms < 0) {
      ++card_failures;
      ++(read_first ? host_read_failures : host_failures);
      continue;
    }
    card.push_back(card_ms);
    std::string peer;
    mirell::testsupport::Eventually([&] {
      const std::string text = events();
      const auto at = text.find("pending ");
      if (at == std::string::npos) return false;
      peer = text.substr(at + 8, text.find(' ', at + 8) - at - 8);
      return true;
    }, 10s);
    if (read_first) std::this_thread::sleep_for(1s);
    const auto admitted = Clock::now();
    std::ofstream(host_dir.path() / "commands", std::ios::app) << "approve " << peer << '\n';
    const double host_ms = FirstPicture(player, "s:640x360", admitted);
    if (host_ms < 0) {
      ++(read_first ? host_read_failures : host_failures);
    } else {
      (read_first ? host_frame_read : host_frame).push_back(host_ms);
    }
  }

  fmt::print("a share link played by ffmpeg through mirell-ui, {} runs, loopback\n", runs);
  fmt::print("{:<48} {:>8} {:>8} {:>6}\n", "", "median", "p90", "fails");
  const Figures local_figures = Summarise(local, 0);
  const Figures card_figures = Summarise(card, card_failures);
  Print("ffmpeg start-up, first picture of a local file", local_figures);
  Print("resolve to the card's first picture", card_figures);
  Print("admission to the host's first picture", Summarise(host_frame, host_failures));
  Print("the same, admitted 1 s after the prompt", Summarise(host_frame_read, host_read_failures));
  fmt::print("(ms) the card's first picture beyond ffmpeg's own start-up: {:.0f} ms median "
             "(target 150), ratio {:.2f}\n",
             card_figures.median - local_figures.median,
             local_figures.median > 0 ? card_figures.median / local_figures.median : 0.0);
  return 0;
}
