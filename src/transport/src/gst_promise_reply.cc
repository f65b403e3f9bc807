#include "gst_promise_reply.h"

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>

namespace mirell::transport {

// Shared with GStreamer's change callback, which may come after the wait has given up.
struct GstPromiseReply::State {
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
};

namespace {

void Changed(GstPromise*, gpointer data) {
  auto& state = **static_cast<std::shared_ptr<GstPromiseReply::State>*>(data);
  {
    std::lock_guard lock(state.mutex);
    state.done = true;
  }
  state.changed.notify_all();
}

void Release(gpointer data) { delete static_cast<std::shared_ptr<GstPromiseReply::State>*>(data); }

}  // namespace

GstPromiseReply::GstPromiseReply() : state_(std::make_shared<State>()) {
  promise_ = gst_promise_new_with_change_func(&Changed, new std::shared_ptr<State>(state_), &Release);
}

GstPromiseReply::~GstPromiseReply() { gst_promise_unref(promise_); }

const GstStructure* GstPromiseReply::Wait(const char* what, std::chrono::milliseconds limit) {
  {
    std::unique_lock lock(state_->mutex);
    if (!state_->changed.wait_for(lock, limit, [&] { return state_->done; })) {
      lock.unlock();
      gst_promise_interrupt(promise_);
      throw std::runtime_error(std::string(what) + ": no reply from webrtcbin within " +
                               std::to_string(limit.count()) + " ms");
    }
  }
  // Answered, interrupted or expired: the wait returns at once.
  if (gst_promise_wait(promise_) != GST_PROMISE_RESULT_REPLIED) {
    throw std::runtime_error(std::string(what) + ": no reply from webrtcbin");
  }
  const GstStructure* reply = gst_promise_get_reply(promise_);
  if (reply != nullptr && gst_structure_has_field(reply, "error")) {
    GError* error = nullptr;
    gst_structure_get(reply, "error", G_TYPE_ERROR, &error, nullptr);
    std::string text = std::string(what) + ": " + (error ? error->message : "failed");
    if (error) g_error_free(error);
    throw std::runtime_error(text);
  }
  return reply;
}

}  // namespace mirell::transport
