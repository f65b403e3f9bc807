// Sound capture through the PulseAudio API (PulseAudio itself, or PipeWire through
// pipewire-pulse): the default sink's monitor for the whole output, or a monitor stream of each
// playback stream (sink input) of one process tree, and silence while the tree plays nothing.
// One threaded main loop per capturer: its thread reads the streams and runs the callback.
#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

#include <algorithm>
#include <cstdint>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <thread>
#include <vector>

#include "mirell/base/clock.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/capture/audio_capturer.h"
#include "process_tree.h"
#include "sample_clock.h"

namespace mirell::capture {
namespace {

constexpr auto kSetupLimit = std::chrono::seconds(2);
// With several streams, a stream that has given nothing while another holds this much counts
// as silent for that stretch (a paused application on PipeWire sends no data at all).
constexpr std::int64_t kMixWait100ns = 300'000;
// While a process tree plays nothing, silence goes out in buffers of this length.
constexpr pa_usec_t kSilenceTickUs = 20'000;

// The main loop's lock, held for a scope.
class LoopLock {
 public:
  explicit LoopLock(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
  ~LoopLock() { pa_threaded_mainloop_unlock(loop_); }
  LoopLock(const LoopLock&) = delete;
  LoopLock& operator=(const LoopLock&) = delete;

 private:
  pa_threaded_mainloop* loop_;
};

// Waits, with the loop's lock held, until `done` or the deadline; the lock is let go while
// waiting so that the loop's thread can run the callbacks that make `done` true.
template <typename Predicate>
bool WaitLocked(pa_threaded_mainloop* loop, std::chrono::steady_clock::time_point deadline, Predicate done) {
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    pa_threaded_mainloop_unlock(loop);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    pa_threaded_mainloop_lock(loop);
  }
  return true;
}

std::optional<std::uint32_t> ProcessIdOf(const pa_sink_input_info& info) {
  const char* text = pa_proplist_gets(info.proplist, PA_PROP_APPLICATION_PROCESS_ID);
  if (text == nullptr) return std::nullopt;
  try {
    return static_cast<std::uint32_t>(std::stoul(text));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

class PulseAudioCapturer final : public IAudioCapturer {
 public:
  // Whole output when `pid` is empty, else that process tree's playback streams.
  PulseAudioCapturer(std::optional<std::uint32_t> pid, const AudioFormat& format) : pid_(pid) {
    format_.sample_rate = format.sample_rate;
    format_.channels = std::clamp<std::uint32_t>(format.channels, 1, 2);
    name_ = pid_ ? fmt::format("process {} loopback", *pid_) : "whole-device loopback";
    loop_ = pa_threaded_mainloop_new();
    MIRELL_CHECK(loop_ != nullptr, "could not make a sound server main loop");
    MIRELL_CHECK(pa_threaded_mainloop_start(loop_) == 0, "could not start the sound server main loop");
    try {
      Connect();
    } catch (...) {
      Shutdown();
      throw;
    }
  }

  ~PulseAudioCapturer() override {
    Stop();
    Shutdown();
  }

  void Start(AudioCallback on_audio) override {
    MIRELL_CHECK(on_audio != nullptr, "an audio capturer needs somewhere to send audio");
    if (running_.exchange(true)) return;
    LoopLock lock(loop_);
    on_audio_ = std::move(on_audio);
    if (pid_) {
      for (const std::uint32_t input : initial_inputs_) Attach(input);
      pa_context_set_subscribe_callback(context_, &PulseAudioCapturer::OnEvent, this);
      pa_operation_unref(pa_context_subscribe(context_, PA_SUBSCRIPTION_MASK_SINK_INPUT, nullptr, nullptr));
      // A stream that appeared since the capturer was made, before the subscription: the server
      // answers in order, so this list and the events from now on miss nothing.
      pa_operation* listed = pa_context_get_sink_input_info_list(context_, &PulseAudioCapturer::OnInputInfo, this);
      if (listed != nullptr) pa_operation_unref(listed);
      silence_event_ = pa_context_rttime_new(context_, pa_rtclock_now() + kSilenceTickUs,
                                             &PulseAudioCapturer::OnSilenceTick, this);
    } else {
      Attach(std::nullopt);
    }
    LOG_INFO("{} at {} Hz, {} channels", name_, format_.sample_rate, format_.channels);
  }

  void Stop() override {
    if (!running_.exchange(false)) return;
    LoopLock lock(loop_);
    pa_context_set_subscribe_callback(context_, nullptr, nullptr);
    if (silence_event_ != nullptr) {
      pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
      api->time_free(silence_event_);
      silence_event_ = nullptr;
    }
    for (auto& [id, monitor] : monitors_) Release(monitor);
    monitors_.clear();
    // Callbacks run on the loop's thread with its lock held: once we hold it and have cleared
    // the function, no callback can be running or start.
    on_audio_ = nullptr;
  }

  const AudioFormat& format() const override { return format_; }
  bool process_scoped() const override { return pid_.has_value(); }
  const std::string& name() const override { return name_; }

 private:
  struct Monitor {
    pa_stream* stream = nullptr;
    std::vector<float> queue;  // Samples waiting to be mixed with the other streams'.
  };

  void Connect() {
    LoopLock lock(loop_);
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "Mirell");
    MIRELL_CHECK(context_ != nullptr, "could not make a sound server context");
    MIRELL_CHECK(pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0,
                 "no sound server to capture from ({})", pa_strerror(pa_context_errno(context_)));
    const auto deadline = std::chrono::steady_clock::now() + kSetupLimit;
    const bool settled = WaitLocked(loop_, deadline, [&] {
      const auto state = pa_context_get_state(context_);
      return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
    MIRELL_CHECK(settled && pa_context_get_state(context_) == PA_CONTEXT_READY,
                 "no sound server to capture from ({})", pa_strerror(pa_context_errno(context_)));
    const pa_sample_spec asked{PA_SAMPLE_FLOAT32LE, format_.sample_rate, static_cast<std::uint8_t>(format_.channels)};
    if (pid_) {
      MIRELL_CHECK(pa_sample_spec_valid(&asked) != 0, "the sound server cannot record at {} Hz", format_.sample_rate);
      // None is fine: the tree is heard as silence until it plays.
      initial_inputs_ = MatchingInputs(deadline);
    } else {
      const DefaultOutput output = FindDefaultOutput(deadline);
      monitor_source_ = output.monitor;
      // The server resamples a record stream to any valid rate; a rate it cannot take at all
      // falls back to the output's own, and the server folds its channels to two at most.
      if (pa_sample_spec_valid(&asked) == 0) {
        LOG_WARN("the output device would not resample to {} Hz ({}); falling back to its own rate, and a viewer "
                 "may get the pitch wrong",
                 format_.sample_rate, pa_strerror(PA_ERR_INVALID));
        format_.sample_rate = output.rate;
      }
    }
  }

  std::vector<std::uint32_t> MatchingInputs(std::chrono::steady_clock::time_point deadline) {
    struct Query {
      std::uint32_t pid;
      std::vector<std::uint32_t> found;
      bool done = false;
    } query{*pid_, {}};
    pa_operation* operation = pa_context_get_sink_input_info_list(
        context_,
        [](pa_context*, const pa_sink_input_info* info, int eol, void* data) {
          auto* q = static_cast<Query*>(data);
          if (eol != 0) {
            q->done = true;
            return;
          }
          if (const auto pid = ProcessIdOf(*info); pid && IsSameOrDescendant(*pid, q->pid)) q->found.push_back(info->index);
        },
        &query);
    MIRELL_CHECK(operation != nullptr, "could not list the playback streams");
    const bool done = WaitLocked(loop_, deadline, [&] { return query.done; });
    pa_operation_cancel(operation);
    pa_operation_unref(operation);
    MIRELL_CHECK(done, "the sound server did not list its playback streams within 2 s");
    return query.found;
  }

  struct DefaultOutput {
    std::string monitor;
    std::uint32_t rate = 0;
  };

  DefaultOutput FindDefaultOutput(std::chrono::steady_clock::time_point deadline) {
    struct Query {
      std::string sink;
      std::string monitor;
      std::uint32_t rate = 0;
      bool server_done = false;
      bool sink_done = false;
    } query;
    pa_operation* operation = pa_context_get_server_info(
        context_,
        [](pa_context*, const pa_server_info* info, void* data) {
          auto* q = static_cast<Query*>(data);
          if (info != nullptr && info->default_sink_name != nullptr) q->sink = info->default_sink_name;
          q->server_done = true;
        },
        &query);
    MIRELL_CHECK(operation != nullptr, "could not ask the sound server for its default output");
    const bool answered = WaitLocked(loop_, deadline, [&] { return query.server_done; });
    pa_operation_cancel(operation);
    pa_operation_unref(operation);
    MIRELL_CHECK(answered && !query.sink.empty(), "the sound server has no default output");
    operation = pa_context_get_sink_info_by_name(
        context_, query.sink.c_str(),
        [](pa_context*, const pa_sink_info* info, int eol, void* data) {
          auto* q = static_cast<Query*>(data);
          if (eol != 0) {
            q->sink_done = true;
            return;
          }
          if (info->monitor_source_name != nullptr) q->monitor = info->monitor_source_name;
          q->rate = info->sample_spec.rate;
        },
        &query);
    MIRELL_CHECK(operation != nullptr, "could not ask the sound server about its output");
    const bool found = WaitLocked(loop_, deadline, [&] { return query.sink_done; });
    pa_operation_cancel(operation);
    pa_operation_unref(operation);
    MIRELL_CHECK(found && !query.monitor.empty(), "the output {} has no monitor to capture", query.sink);
    return {query.monitor, query.rate};
  }

  // Opens one record stream: of the default sink's monitor, or (with a sink input) a monitor of
  // that playback stream alone. On the loop's thread or with its lock held.
  void Attach(std::optional<std::uint32_t> sink_input) {
    const std::uint32_t key = sink_input.value_or(PA_INVALID_INDEX);
    if (monitors_.count(key) != 0) return;
    const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, format_.sample_rate, static_cast<std::uint8_t>(format_.channels)};
    pa_stream* stream = pa_stream_new(context_, "Mirell capture", &spec, nullptr);
    if (stream == nullptr) {
      LOG_WARN("{}: could not make a record stream ({})", name_, pa_strerror(pa_context_errno(context_)));
      return;
    }
    pa_buffer_attr attributes{};
    attributes.maxlength = static_cast<std::uint32_t>(-1);
    attributes.tlength = attributes.prebuf = attributes.minreq = static_cast<std::uint32_t>(-1);
    // 10 ms fragments; without ADJUST_LATENCY the server sends data in bursts of seconds.
    attributes.fragsize = static_cast<std::uint32_t>(pa_usec_to_bytes(10'000, &spec));
    auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY);
    const char* device = monitor_source_.empty() ? nullptr : monitor_source_.c_str();
    if (sink_input) {
      pa_stream_set_monitor_stream(stream, *sink_input);
      flags = static_cast<pa_stream_flags_t>(flags | PA_STREAM_DONT_MOVE);
      device = nullptr;
    }
    pa_stream_set_read_callback(stream, &PulseAudioCapturer::OnRead, this);
    pa_stream_set_state_callback(stream, &PulseAudioCapturer::OnStreamState, this);
    if (pa_stream_connect_record(stream, device, &attributes, flags) < 0) {
      LOG_WARN("{}: could not record ({})", name_, pa_strerror(pa_context_errno(context_)));
      pa_stream_unref(stream);
      return;
    }
    monitors_[key].stream = stream;
    if (sink_input) LOG_DEBUG("{}: following playback stream {}", name_, *sink_input);
  }

  static void Release(Monitor& monitor) {
    if (monitor.stream == nullptr) return;
    pa_stream_set_read_callback(monitor.stream, nullptr, nullptr);
    pa_stream_set_state_callback(monitor.stream, nullptr, nullptr);
    pa_stream_disconnect(monitor.stream);
    pa_stream_unref(monitor.stream);
    monitor.stream = nullptr;
  }

  // A new playback stream of the process starts later: follow it. A stream whose playback ended
  // (or moved, which ends a monitor on PulseAudio) is let go; a moved one is taken up again.
  static void OnEvent(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index, void* data) {
    auto* self = static_cast<PulseAudioCapturer*>(data);
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SINK_INPUT) return;
    const auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    if (kind == PA_SUBSCRIPTION_EVENT_REMOVE) {
      self->Forget(index);
      return;
    }
    pa_operation* operation = pa_context_get_sink_input_info(context, index, &PulseAudioCapturer::OnInputInfo, self);
    if (operation != nullptr) pa_operation_unref(operation);
  }

  // A playback stream's description: followed when it belongs to the process tree.
  static void OnInputInfo(pa_context*, const pa_sink_input_info* info, int eol, void* owner) {
    auto* capturer = static_cast<PulseAudioCapturer*>(owner);
    if (eol != 0 || info == nullptr || !capturer->running_) return;
    if (const auto pid = ProcessIdOf(*info); pid && IsSameOrDescendant(*pid, *capturer->pid_)) {
      capturer->Attach(info->index);
    }
  }

  void Forget(std::uint32_t key) {
    const auto found = monitors_.find(key);
    if (found == monitors_.end()) return;
    Release(found->second);
    monitors_.erase(found);
  }

  static void OnStreamState(pa_stream* stream, void* data) {
    auto* self = static_cast<PulseAudioCapturer*>(data);
    const auto state = pa_stream_get_state(stream);
    if (state != PA_STREAM_FAILED) return;
    // "Entity killed": the playback stream ended or moved. Let it go; a moved one comes back as
    // a change event and is attached again.
    LOG_DEBUG("{}: a record stream ended ({})", self->name_, pa_strerror(pa_context_errno(self->context_)));
    for (auto& [found_key, monitor] : self->monitors_) {
      if (monitor.stream == stream) {
        const std::uint32_t key = found_key;  // The entry is erased below.
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        // Unref after this callback returns: the library still holds the stream here.
        pa_mainloop_api* api = pa_threaded_mainloop_get_api(self->loop_);
        api->defer_new(api, [](pa_mainloop_api* a, pa_defer_event* e, void* s) {
          pa_stream_unref(static_cast<pa_stream*>(s));
          a->defer_free(e);
        }, stream);
        monitor.stream = nullptr;
        self->monitors_.erase(key);
        if (self->pid_ && key != PA_INVALID_INDEX) {
          pa_operation* operation = pa_context_get_sink_input_info(
              self->context_, key,
              [](pa_context*, const pa_sink_input_info* info, int eol, void* owner) {
                auto* capturer = static_cast<PulseAudioCapturer*>(owner);
                if (eol == 0 && info != nullptr && capturer->running_) capturer->Attach(info->index);
              },
              self);
          if (operation != nullptr) pa_operation_unref(operation);
        }
        return;
      }
    }
  }

  static void OnRead(pa_stream* stream, std::size_t, void* data) {
    auto* self = static_cast<PulseAudioCapturer*>(data);
    const void* bytes = nullptr;
    std::size_t length = 0;
    while (pa_stream_peek(stream, &bytes, &length) == 0 && length > 0) {
      // What is still queued behind this fragment was captured after it: a burst of fragments
      // gets rising times, not all "now".
      const std::size_t readable = pa_stream_readable_size(stream);
      const std::size_t behind = readable != static_cast<std::size_t>(-1) && readable > length ? readable - length : 0;
      // A null pointer with a length is a hole in the stream: nothing to deliver.
      if (bytes != nullptr && self->running_) {
        self->Take(stream, static_cast<const float*>(bytes), length / sizeof(float), behind / sizeof(float));
      }
      pa_stream_drop(stream);
    }
  }

  void Take(pa_stream* stream, const float* samples, std::size_t count, std::size_t behind) {
    const std::size_t channels = format_.channels;
    count -= count % channels;
    if (count == 0) return;
    if (monitors_.size() <= 1) {
      Deliver(samples, count / channels, behind / channels);
      return;
    }
    for (auto& [key, monitor] : monitors_) {
      if (monitor.stream == stream) monitor.queue.insert(monitor.queue.end(), samples, samples + count);
    }
    MixQueued();
  }

  // Silence for the time since the last tick, while no playback stream of the tree is followed:
  // a viewer's player gets a sound track from the start, and never the rest of the output.
  static void OnSilenceTick(pa_mainloop_api*, pa_time_event* event, const struct timeval*, void* data) {
    auto* self = static_cast<PulseAudioCapturer*>(data);
    if (!self->running_ || self->silence_event_ != event) return;
    const std::int64_t now = SteadyNowNs() / 100;
    if (!self->monitors_.empty()) {
      self->silence_from_ = 0;
    } else {
      if (self->silence_from_ == 0) self->silence_from_ = now - static_cast<std::int64_t>(kSilenceTickUs * 10);
      const auto frames = static_cast<std::uint64_t>((now - self->silence_from_) * self->format_.sample_rate / 10'000'000);
      if (frames > 0) {
        self->silence_.assign(frames * self->format_.channels, 0.0f);
        self->Deliver(self->silence_.data(), frames, 0, true);
        self->silence_from_ += static_cast<std::int64_t>(frames * 10'000'000 / self->format_.sample_rate);
      }
    }
    pa_context_rttime_restart(self->context_, event, pa_rtclock_now() + kSilenceTickUs);
  }

  // Several playback streams: sum what all of them have; a stream that stays silent while
  // another has waited long enough counts as zeros for that stretch.
  void MixQueued() {
    std::size_t ready = SIZE_MAX;
    std::size_t longest = 0;
    for (const auto& [key, monitor] : monitors_) {
      ready = std::min(ready, monitor.queue.size());
      longest = std::max(longest, monitor.queue.size());
    }
    const auto wait_samples = static_cast<std::size_t>(kMixWait100ns * format_.sample_rate / 10'000'000 * format_.channels);
    if (ready == 0 && longest >= wait_samples) ready = longest;
    if (ready == 0) return;
    mix_.assign(ready, 0.0f);
    for (auto& [key, monitor] : monitors_) {
      const std::size_t take = std::min(ready, monitor.queue.size());
      for (std::size_t i = 0; i < take; ++i) mix_[i] += monitor.queue[i];
      monitor.queue.erase(monitor.queue.begin(), monitor.queue.begin() + static_cast<std::ptrdiff_t>(take));
    }
    Deliver(mix_.data(), ready / format_.channels, 0);
  }

  // Time stamps from the sample count (SampleClock: the lower envelope of the measurements).
  void Deliver(const float* samples, std::size_t frames, std::size_t frames_behind, bool silent = false) {
    if (!on_audio_) return;
    const auto to_100ns = [&](std::uint64_t count) {
      return static_cast<std::int64_t>(count * 10'000'000 / format_.sample_rate);
    };
    if (clock_.sample_rate() != format_.sample_rate) clock_ = SampleClock(format_.sample_rate);
    const std::int64_t measured = SteadyNowNs() / 100 - to_100ns(frames + frames_behind);
    const std::int64_t timestamp = clock_.Stamp(measured, frames);
    try {
      on_audio_(AudioBuffer{samples, frames, timestamp, silent});
    } catch (const std::exception& error) {
      LOG_DEBUG("{}: a buffer was lost: {}", name_, error.what());
    }
  }

  void Shutdown() {
    if (loop_ == nullptr) return;
    {
      LoopLock lock(loop_);
      for (auto& [key, monitor] : monitors_) Release(monitor);
      monitors_.clear();
      if (context_ != nullptr) {
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        context_ = nullptr;
      }
    }
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
    loop_ = nullptr;
  }

  const std::optional<std::uint32_t> pid_;
  AudioFormat format_;
  std::string name_;
  pa_threaded_mainloop* loop_ = nullptr;
  // All below: the loop's thread, or another thread holding the loop's lock.
  pa_context* context_ = nullptr;
  std::string monitor_source_;
  std::vector<std::uint32_t> initial_inputs_;
  std::map<std::uint32_t, Monitor> monitors_;  // By sink input; PA_INVALID_INDEX for the device.
  std::vector<float> mix_;
  pa_time_event* silence_event_ = nullptr;
  std::int64_t silence_from_ = 0;  // 100 ns; where the silence sent so far ends, 0 when none.
  std::vector<float> silence_;
  AudioCallback on_audio_;
  SampleClock clock_{48000};  // Made again for the format's rate at the first buffer.
  std::atomic<bool> running_{false};
};

}  // namespace

std::unique_ptr<IAudioCapturer> CreateProcessLoopbackCapturer(std::uint32_t pid, const AudioFormat& format) {
  return std::make_unique<PulseAudioCapturer>(pid, format);
}

std::unique_ptr<IAudioCapturer> CreateDeviceLoopbackCapturer(const AudioFormat& format) {
  return std::make_unique<PulseAudioCapturer>(std::nullopt, format);
}

}  // namespace mirell::capture
