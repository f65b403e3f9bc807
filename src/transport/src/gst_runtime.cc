#include "gst_runtime.h"

#include <gst/gst.h>

#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

#include "mirell/base/logging.h"
#include "mirell/transport/peer_link.h"

namespace mirell::transport {
namespace {

// Warnings that every healthy connection gives: the answerer makes its own transceivers for the
// offer, and the forward-error-correction it does not use finds no decoder.
bool IsRoutineWarning(std::string_view text) {
  for (std::string_view routine : {"did not find compatible transceiver for offer caps",
                                   "could not send sticky events",
                                   "failed to match fec decoder with transceiver"}) {
    if (text.starts_with(routine)) return true;
  }
  return false;
}

void LogFromGstreamer(GstDebugCategory* /*category*/, GstDebugLevel level, const gchar* /*file*/,
                      const gchar* /*function*/, gint /*line*/, GObject* /*object*/,
                      GstDebugMessage* message, gpointer /*data*/) {
  const gchar* text = gst_debug_message_get(message);
  if (text == nullptr) return;
  if ((level == GST_LEVEL_ERROR || level == GST_LEVEL_WARNING) && !IsRoutineWarning(text)) {
    LOG_WARN("rtc: {}", text);
  } else {
    LOG_DEBUG("rtc: {}", text);
  }
}

std::once_flag init_once;
std::string init_failure;

void Initialise() {
  GError* error = nullptr;
  if (!gst_init_check(nullptr, nullptr, &error)) {
    init_failure = std::string("GStreamer did not start: ") + (error ? error->message : "unknown reason");
    if (error) g_error_free(error);
    return;
  }
  for (const char* element : {"webrtcbin", "nicesrc", "dtlssrtpenc", "appsink", "rtpbin"}) {
    GstElementFactory* factory = gst_element_factory_find(element);
    if (factory == nullptr) {
      init_failure = std::string("the WebRTC stack is incomplete: GStreamer element '") + element +
                     "' is not installed";
      return;
    }
    gst_object_unref(factory);
  }
}

}  // namespace

void EnsureGstreamer() {
  std::call_once(init_once, Initialise);
  if (!init_failure.empty()) throw std::runtime_error(init_failure);
}

void InitialiseTransportLogging() {
  static std::once_flag logging_once;
  std::call_once(logging_once, [] {
    // GStreamer's own default writer goes; ours takes its place. GST_DEBUG, when set, still
    // chooses what GStreamer reports.
    // GStreamer's macros for these compare a function pointer with a void pointer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
    gst_debug_remove_log_function(gst_debug_log_default);
    gst_debug_add_log_function(LogFromGstreamer, nullptr, nullptr);
#pragma GCC diagnostic pop
    if (std::getenv("GST_DEBUG") == nullptr) gst_debug_set_default_threshold(GST_LEVEL_WARNING);
  });
  EnsureGstreamer();
}

}  // namespace mirell::transport
