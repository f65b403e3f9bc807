#include "pulse_server.h"

#include <atomic>

#include <cstdlib>

#include "mirell/capture/audio_capturer.h"
#include "mirell/base/error.h"
#include "mirell/testsupport/eventually.h"

namespace mirell::capture {

PulseServer::PulseServer() {
  // A server of the caller's instead (PipeWire's pulse server, say): the same tests against it.
  if (const char* other = std::getenv("MIRELL_TEST_PULSE_SERVER"); other != nullptr && *other != '\0') {
    address_ = other;
    setenv("PULSE_SERVER", address_.c_str(), 1);
    external_ = true;
    return;
  }
  if (!testsupport::HaveProgram("pulseaudio")) return;
  const std::string socket = (dir_.path() / "native").string();
  testsupport::ProcessOptions options;
  options.environment["HOME"] = dir_.path().string();
  options.environment["PULSE_RUNTIME_PATH"] = dir_.path().string();
  options.environment["DBUS_SESSION_BUS_ADDRESS"] = std::nullopt;
  options.environment["DISPLAY"] = std::nullopt;
  server_ = std::make_unique<testsupport::ChildProcess>(
      std::vector<std::string>{"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                               "-L", "module-null-sink sink_name=mirell_test rate=48000 channels=2 format=float32le",
                               "-L", "module-native-protocol-unix auth-anonymous=1 socket=" + socket},
      options);
  if (!testsupport::Eventually([&] { return std::filesystem::exists(socket) || !server_->Running(); },
                               std::chrono::seconds(10)) ||
      !server_->Running()) {
    server_.reset();
    return;
  }
  address_ = "unix:" + socket;
  setenv("PULSE_SERVER", address_.c_str(), 1);
}

PulseServer::~PulseServer() {
  if (available()) unsetenv("PULSE_SERVER");
}

TonePlayer::TonePlayer(const PulseServer& server, int hertz, int seconds) {
  const auto file = server.directory() / ("tone-" + std::to_string(hertz) + ".wav");
  if (!std::filesystem::exists(file)) {
    testsupport::RunProcess({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", file.string(), "synth",
                             std::to_string(seconds), "sine", std::to_string(hertz), "vol", "0.5"});
  }
  testsupport::ProcessOptions options;
  options.environment["PULSE_SERVER"] = server.address();
  process_ = std::make_unique<testsupport::ChildProcess>(std::vector<std::string>{"paplay", file.string()}, options);
}

bool WaitUntilPlaying(int pid, std::chrono::milliseconds bound) {
  std::unique_ptr<IAudioCapturer> capturer;
  try {
    capturer = CreateProcessLoopbackCapturer(static_cast<std::uint32_t>(pid), {});
  } catch (const Error&) {
    return false;
  }
  std::atomic<bool> heard{false};
  capturer->Start([&heard](const AudioBuffer& buffer) {
    if (!buffer.silent) heard = true;
  });
  const bool playing = testsupport::Eventually([&] { return heard.load(); }, bound);
  capturer->Stop();
  return playing;
}

}  // namespace mirell::capture
