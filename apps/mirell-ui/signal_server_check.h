// Whether a server a share link names is a Mirell signal server, asked before a watch connects
// to it: a link pasted in VRChat may name any web server in the world, and one that is not ours
// goes to the real resolver. The question is bounded (VRChat waits for the resolve) and its
// answer kept a while, so a world full of one link costs one question.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace mirell::ui {

struct SignalServerCheckLimits {
  std::chrono::milliseconds bound{1500};  // The longest a caller waits.
  std::chrono::minutes keep{10};          // How long an answer holds.
  std::size_t max_running = 4;            // Questions still out at once; more get "no".
};

class SignalServerCheck {
 public:
  using Clock = std::chrono::steady_clock;
  // Asks the server at `signal_url`; may take longer than the bound, and runs on a thread of its
  // own so that the caller does not wait past it.
  using Probe = std::function<bool(const std::string& signal_url)>;
  using Limits = SignalServerCheckLimits;

  explicit SignalServerCheck(Probe probe, Limits limits = {},
                             std::function<Clock::time_point()> now = Clock::now);
  // Waits for the questions still out: each ends within its own limits.
  ~SignalServerCheck();
  SignalServerCheck(const SignalServerCheck&) = delete;
  SignalServerCheck& operator=(const SignalServerCheck&) = delete;

  // The kept answer while it holds; else the probe's, if it comes within the bound. Past the
  // bound the answer is "no" until the probe ends, which then stands for `keep`. Any thread.
  bool IsSignalServer(const std::string& signal_url);

  // Probes started so far.
  std::uint64_t probes() const;

 private:
  struct Answer {
    bool yes = false;
    Clock::time_point at;
  };
  struct Running {
    bool done = false;
    bool yes = false;
  };

  // Joins the probes' threads that have ended; with the lock held.
  void Reap();

  const Probe probe_;
  const Limits limits_;
  const std::function<Clock::time_point()> now_;
  mutable std::mutex mutex_;
  std::condition_variable answered_;
  std::map<std::string, Answer> answers_;
  std::map<std::string, std::shared_ptr<Running>> running_;
  std::vector<std::thread> threads_;
  std::vector<std::thread::id> ended_;
  std::uint64_t probes_ = 0;
};

}  // namespace mirell::ui
