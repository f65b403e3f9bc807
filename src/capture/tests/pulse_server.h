// A private PulseAudio server for tests: a null sink of 48 kHz float stereo as the default
// output, the native protocol on a socket in a temporary directory, no D-Bus, no autospawn.
// While it lives, PULSE_SERVER points this process (and children that inherit it) at it.
// With MIRELL_TEST_PULSE_SERVER set (for example to PipeWire's "unix:.../pulse/native"), that
// server is used instead and none is started.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "mirell/testsupport/subprocess.h"

namespace mirell::capture {

class PulseServer {
 public:
  PulseServer();
  ~PulseServer();
  PulseServer(const PulseServer&) = delete;
  PulseServer& operator=(const PulseServer&) = delete;

  // False when pulseaudio is missing or did not come up.
  bool available() const { return server_ != nullptr || external_; }
  // "unix:<socket>", for PULSE_SERVER.
  const std::string& address() const { return address_; }
  const std::filesystem::path& directory() const { return dir_.path(); }

 private:
  testsupport::TempDir dir_;
  std::unique_ptr<testsupport::ChildProcess> server_;
  bool external_ = false;
  std::string address_;
};

// A process playing a sine tone of `hertz` into the server for `seconds`, through paplay.
class TonePlayer {
 public:
  TonePlayer(const PulseServer& server, int hertz, int seconds = 30);
  int pid() const { return process_->pid(); }

 private:
  std::unique_ptr<testsupport::ChildProcess> process_;
};

// Waits until the process `pid` (or one of its children) plays into the server: before that its
// sound is silence, which tests of one application's sound must not mistake for a fault. False
// when nothing played within `bound`.
bool WaitUntilPlaying(int pid, std::chrono::milliseconds bound = std::chrono::seconds(10));

}  // namespace mirell::capture
