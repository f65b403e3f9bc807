// A webrtcbin promise whose reply is waited for within a deadline. webrtcbin answers on its own
// thread; a pipeline that never answers must not hold the caller (the interface thread, a
// socket's thread) for ever.
#pragma once

#include <gst/gst.h>

#include <chrono>
#include <memory>

namespace mirell::transport {

class GstPromiseReply {
 public:
  // How long a caller waits for webrtcbin's reply.
  static constexpr std::chrono::milliseconds kDefaultLimit{5000};

  // A fresh promise to hand to a webrtcbin action signal.
  GstPromiseReply();
  ~GstPromiseReply();
  GstPromiseReply(const GstPromiseReply&) = delete;
  GstPromiseReply& operator=(const GstPromiseReply&) = delete;

  GstPromise* promise() const { return promise_; }
  // Waits for the reply within `limit`. Throws std::runtime_error, naming `what`, when none came
  // in time (the promise is then interrupted, so a late reply is dropped), when the promise
  // ended without one, or when the reply carries an error. The reply, which may be null, stays
  // valid while this object lives.
  const GstStructure* Wait(const char* what, std::chrono::milliseconds limit = kDefaultLimit);

  // Shared with GStreamer's change callback, which may outlive the wait.
  struct State;

 private:
  std::shared_ptr<State> state_;
  GstPromise* promise_ = nullptr;
};

}  // namespace mirell::transport
