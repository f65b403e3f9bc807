// A sine tone played to the default sound output from a thread of this process, so that a share
// of the window that owns the process carries it.
#pragma once

#include <atomic>
#include <thread>

namespace mirell::demo {

class Tone {
 public:
  // Starts playing; a process without a sound server just stays silent (and says so on stderr).
  explicit Tone(int hertz);
  ~Tone();
  Tone(const Tone&) = delete;
  Tone& operator=(const Tone&) = delete;

 private:
  void Play(int hertz);

  std::atomic<bool> running_{true};
  std::thread thread_;
};

}  // namespace mirell::demo
