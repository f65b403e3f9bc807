// The peer link on GStreamer's webrtcbin. Each link is one pipeline: on the host a source pad of
// our own per track, linked into a send-only transceiver, on the viewer an appsink per track that
// webrtcbin opens. Packets pass through unchanged; webrtcbin adds SRTP, RTCP, NACK retransmission
// and PLI. A send runs the whole way to the socket on the caller's thread, with no queue or
// thread of the link in between.
//
// No GLib main loop runs: messages on the bus are logged and dropped by a sync handler, and
// webrtcbin's signals arrive on its own threads. Offers and answers are made by waiting on their
// promises from the caller's thread. webrtcbin notices a vanished peer only after a minute or
// more, so the link keeps its own liveness: a connected peer silent for the liveness bound (no
// RTCP, no media) is reported failed.
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/sdp/sdp.h>
#define GST_USE_UNSTABLE_API
#include <gst/webrtc/nice/nice.h>
#include <gst/webrtc/webrtc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "gst_promise_reply.h"
#include "gst_runtime.h"
#include "ice_host_lookup.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/transport/peer_link.h"
#include "peer_link_testing.h"
#include "peer_media_format.h"

namespace mirell::transport {
namespace {

using Clock = std::chrono::steady_clock;

constexpr guint kRtcpBandwidthBits = 100000;  // Room for prompt NACKs and PLIs.
// RTCP at least this often, so that the liveness bound sees a live peer many times over (RTP's
// own minimum is 5 s).
constexpr guint64 kRtcpMinInterval = 500 * GST_MSECOND;

std::atomic<std::int64_t> liveness_bound_ms{kDefaultPeerLivenessBound.count()};
std::atomic<unsigned> outgoing_video_loss{0};
// The viewer's jitter buffer: 0 drops packets that come a little late; 50 ms left retransmissions
// too little time on a loaded machine.
std::atomic<unsigned> receive_latency_ms{kDefaultReceiveLatencyMs};
std::atomic<std::uint64_t> outgoing_video_dropped{0};

std::int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
      .count();
}

std::string DescriptionText(const GstWebRTCSessionDescription* description) {
  gchar* text = gst_sdp_message_as_text(description->sdp);
  std::string result = text ? text : "";
  g_free(text);
  return result;
}

PeerState MapConnectionState(GstWebRTCPeerConnectionState state) {
  switch (state) {
    case GST_WEBRTC_PEER_CONNECTION_STATE_NEW:
    case GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTING:
      return PeerState::kConnecting;
    case GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED:
      return PeerState::kConnected;
    case GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED:
      return PeerState::kClosed;
    default:
      return PeerState::kFailed;
  }
}

bool HasProperty(gpointer object, const char* name) {
  return g_object_class_find_property(G_OBJECT_GET_CLASS(object), name) != nullptr;
}

// libnice asks the router for a mapped port by UPnP, and until the router answers or 200 ms have
// passed it does not finish gathering: a non-trickle offer or answer waits that long every
// time. A router that maps ports keeps them open for strangers too, so it is not worth it.
void StopPortMapping(GstElement* nice_element) {
  GObject* agent = nullptr;
  g_object_get(nice_element, "agent", &agent, nullptr);
  if (agent == nullptr) return;
  if (HasProperty(agent, "upnp")) g_object_set(agent, "upnp", FALSE, nullptr);
  g_object_unref(agent);
}

const char* FactoryName(GstElement* element) {
  GstElementFactory* factory = gst_element_get_factory(element);
  return factory ? GST_OBJECT_NAME(factory) : "";
}

GstCaps* TrackCaps(bool video, const OfferMedia& media) {
  if (video) {
    return gst_caps_new_simple(
        "application/x-rtp", "media", G_TYPE_STRING, "video", "encoding-name", G_TYPE_STRING,
        "H264", "payload", G_TYPE_INT, static_cast<int>(media.video_payload_type), "clock-rate",
        G_TYPE_INT, 90000, "ssrc", G_TYPE_UINT, kVideoSsrc, "profile-level-id", G_TYPE_STRING,
        "42e01f", "packetization-mode", G_TYPE_STRING, "1", "level-asymmetry-allowed",
        G_TYPE_STRING, "1", "a-mid", G_TYPE_STRING, std::string(kVideoMid).c_str(), nullptr);
  }
  GstCaps* caps = gst_caps_new_simple(
      "application/x-rtp", "media", G_TYPE_STRING, "audio", "encoding-name", G_TYPE_STRING,
      "MPEG4-GENERIC", "payload", G_TYPE_INT, static_cast<int>(media.audio_payload_type),
      "clock-rate", G_TYPE_INT, static_cast<int>(media.sample_rate), "encoding-params",
      G_TYPE_STRING, std::to_string(media.channels).c_str(), "ssrc", G_TYPE_UINT, kAudioSsrc,
      "a-mid", G_TYPE_STRING, std::string(kAudioMid).c_str(), nullptr);
  // Every format parameter as a string field, as the SDP carries it.
  std::string parameters = AudioFormatParameters(media);
  GstStructure* structure = gst_caps_get_structure(caps, 0);
  std::size_t at = 0;
  while (at < parameters.size()) {
    std::size_t end = parameters.find(';', at);
    if (end == std::string::npos) end = parameters.size();
    std::string pair = parameters.substr(at, end - at);
    std::size_t equals = pair.find('=');
    if (equals != std::string::npos) {
      gst_structure_set(structure, pair.substr(0, equals).c_str(), G_TYPE_STRING,
                        pair.substr(equals + 1).c_str(), nullptr);
    }
    at = end + 1;
  }
  return caps;
}

class Link final : public PeerLink {
 public:
  Link(const PeerConfig& config, bool offerer);
  ~Link() override;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  void AddTracksAndOffer(const OfferMedia& media);
  // The answerer's pipeline runs from the start, ready for the offer.
  void Start();

  void OnLocalDescription(std::function<void(const std::string&)> handler) override;
  void OnState(std::function<void(PeerState)> handler) override;
  void OnVideo(std::function<void(ByteSpan)> handler) override;
  void OnAudio(std::function<void(ByteSpan)> handler) override;
  void OnKeyframeRequest(std::function<void()> handler) override;
  void SetRemoteDescription(const std::string& sdp) override;
  bool SendVideo(ByteSpan packet) override { return Send(video_pad_, packet); }
  bool SendAudio(ByteSpan packet) override { return Send(audio_pad_, packet); }
  bool RequestKeyframe() override;
  PeerState state() const override { return state_.load(); }
  std::uint32_t audio_sample_rate() const override { return audio_sample_rate_.load(); }
  std::uint32_t audio_channels() const override { return audio_channels_.load(); }
  void Close() override;

 private:
  struct Receiver {
    Link* link;
    bool video;
  };

  void ConfigureIce(const PeerConfig& config);
  // Makes the track's source pad (kept in `video_pad_` or `audio_pad_`) and its transceiver.
  void AddSendTrack(bool video, const OfferMedia& media);
  // Unlinks and frees the send pads, after the pipeline has stopped: webrtcbin's pads would
  // otherwise keep pointing at them.
  void ReleaseSendTracks();
  // Runs webrtcbin's create-offer or create-answer and waits for the description.
  GstWebRTCSessionDescription* CreateDescription(const char* action, const char* field);
  // Applies and frees it.
  void SetLocalDescription(GstWebRTCSessionDescription* description);
  // Gives the agent the STUN server by address, or leaves it out when its name does not resolve.
  // Before the link's transports exist (they take the server when they are made), but not in the
  // constructor: a viewer's link is made while a resolve waits, and a lookup may take a while.
  void ApplyStunServer();
  bool Send(GstPad* pad, ByteSpan packet);
  void Transition(PeerState next);
  void LogSelectedPair();
  void Watch();

  // webrtcbin's signals and the pads' callbacks.
  static void OnConnectionState(GstElement* webrtc, GParamSpec*, gpointer self);
  static void OnGatheringState(GstElement* webrtc, GParamSpec*, gpointer self);
  static void OnPadAdded(GstElement* webrtc, GstPad* pad, gpointer self);
  static void OnNewTransceiver(GstElement* webrtc, GstWebRTCRTPTransceiver* transceiver,
                               gpointer self);
  static void OnDeepElementAdded(GstBin*, GstBin*, GstElement* element, gpointer self);
  static void OnSourceActive(GstElement*, guint, gpointer self);
  static GstPadProbeReturn OnUpstreamEvent(GstPad*, GstPadProbeInfo* info, gpointer self);
  static gboolean OnSendPadQuery(GstPad* pad, GstObject* parent, GstQuery* query);
  static GstPadProbeReturn OnOutgoing(GstPad*, GstPadProbeInfo* info, gpointer self);
  bool DropOutgoing(GstBuffer* buffer);
  static GstFlowReturn OnSample(GstAppSink* sink, gpointer receiver);
  static GstBusSyncReply OnBusMessage(GstBus*, GstMessage* message, gpointer);

  GstElement* pipeline_ = nullptr;
  GstElement* webrtc_ = nullptr;
  GstPad* video_pad_ = nullptr;  // Offerer only; owned, and fixed once the offer is made.
  GstPad* audio_pad_ = nullptr;
  const bool offerer_;
  std::atomic<PeerState> state_{PeerState::kConnecting};
  std::atomic<bool> closed_{false};
  std::atomic<std::uint32_t> audio_sample_rate_{0};
  std::atomic<std::uint32_t> audio_channels_{0};
  std::atomic<std::int64_t> last_heard_ms_{0};
  std::atomic<std::uint8_t> video_payload_type_{96};
  std::atomic<unsigned> loss_every_{0};
  std::int64_t liveness_bound_ms_ = 0;  // Set before the watch starts.
  std::atomic<std::uint64_t> outgoing_video_{0};
  std::optional<IceServerUri> stun_;  // Until it is applied; the thread making descriptions only.
  std::string stun_description_;
  Receiver video_receiver_{this, true};
  Receiver audio_receiver_{this, false};

  mutable std::mutex lock_;  // Guards the next seven.
  std::optional<std::string> local_description_;
  std::function<void(const std::string&)> on_local_description_;
  std::function<void(PeerState)> on_state_;
  std::function<void(ByteSpan)> on_video_;
  std::function<void(ByteSpan)> on_audio_;
  std::function<void()> on_keyframe_request_;
  GstPad* video_receive_pad_ = nullptr;  // A reference; the viewer's keyframe requests go up it.
  GstWebRTCRTPTransceiver* first_transceiver_ = nullptr;  // A reference; for the selected pair.

  std::mutex watch_mutex_;
  std::condition_variable watch_wake_;
  bool watch_stop_ = false;
  std::thread watch_;
};

Link::Link(const PeerConfig& config, bool offerer) : offerer_(offerer) {
  EnsureGstreamer();
  pipeline_ = gst_pipeline_new(nullptr);
  webrtc_ = gst_element_factory_make("webrtcbin", nullptr);
  if (pipeline_ == nullptr || webrtc_ == nullptr) {
    if (webrtc_) gst_object_unref(webrtc_);
    if (pipeline_) gst_object_unref(pipeline_);
    throw std::runtime_error("webrtcbin could not be made");
  }
  g_object_set(webrtc_, "bundle-policy", GST_WEBRTC_BUNDLE_POLICY_MAX_BUNDLE, nullptr);
  if (!offerer_) g_object_set(webrtc_, "latency", static_cast<guint>(receive_latency_ms.load()), nullptr);
  gst_bin_add(GST_BIN(pipeline_), webrtc_);

  GstBus* bus = gst_element_get_bus(pipeline_);
  gst_bus_set_sync_handler(bus, &Link::OnBusMessage, nullptr, nullptr);
  gst_object_unref(bus);

  ConfigureIce(config);

  g_signal_connect(webrtc_, "notify::connection-state", G_CALLBACK(&Link::OnConnectionState), this);
  g_signal_connect(webrtc_, "notify::ice-gathering-state", G_CALLBACK(&Link::OnGatheringState),
                   this);
  g_signal_connect(webrtc_, "pad-added", G_CALLBACK(&Link::OnPadAdded), this);
  g_signal_connect(webrtc_, "on-new-transceiver", G_CALLBACK(&Link::OnNewTransceiver), this);
  g_signal_connect(webrtc_, "deep-element-added", G_CALLBACK(&Link::OnDeepElementAdded), this);

  loss_every_ = outgoing_video_loss.load();
  liveness_bound_ms_ = liveness_bound_ms.load();
  watch_ = std::thread([this] {
    NameThisThread("link-watch");
    Watch();
  });
}

Link::~Link() {
  Close();
  if (webrtc_) g_signal_handlers_disconnect_by_data(webrtc_, this);
  ReleaseSendTracks();
  gst_object_unref(pipeline_);
}

void Link::ReleaseSendTracks() {
  for (GstPad** pad : {&video_pad_, &audio_pad_}) {
    if (*pad == nullptr) continue;
    GstPad* peer = gst_pad_get_peer(*pad);
    if (peer) {
      gst_pad_unlink(*pad, peer);
      gst_object_unref(peer);
    }
    gst_pad_set_active(*pad, FALSE);
    gst_object_unref(std::exchange(*pad, nullptr));
  }
}

void Link::ConfigureIce(const PeerConfig& config) {
  if (config.ice_policy == 1) {
    LOG_INFO("ice policy=host");
    return;
  }
  bool have_stun = false;
  for (const IceServer& server : config.ice_servers) {
    std::string description = IceServerDescription(server);
    try {
      IceServerUri uri = ToIceServerUri(server);
      if (uri.turn) {
        gboolean added = FALSE;
        g_signal_emit_by_name(webrtc_, "add-turn-server", uri.uri.c_str(), &added);
        if (!added) throw std::invalid_argument("the ICE agent refused it");
      } else {
        // webrtcbin takes a single STUN server.
        if (have_stun) throw std::invalid_argument("only the first STUN server is used");
        // Set once its name is looked up, just before gathering starts.
        stun_ = uri;
        stun_description_ = description;
        have_stun = true;
      }
      LOG_INFO("ice server {}", description);
    } catch (const std::exception& error) {
      LOG_WARN("ignoring ice server {}: {}", description, error.what());
    }
  }
  if (config.ice_policy == 2) {
    g_object_set(webrtc_, "ice-transport-policy", GST_WEBRTC_ICE_TRANSPORT_POLICY_RELAY, nullptr);
    LOG_INFO("ice policy=relay");
  }
}

void Link::AddSendTrack(bool video, const OfferMedia& media) {
  GstCaps* caps = TrackCaps(video, media);
  // Owned by the link, not by an element: no thread of its own stands between a send and the
  // socket. It answers the queries a live source answers and holds its caps fixed.
  GstPad* source_pad = gst_pad_new(video ? "video_src" : "audio_src", GST_PAD_SRC);
  gst_pad_use_fixed_caps(source_pad);
  gst_pad_set_query_function(source_pad, &Link::OnSendPadQuery);
  gst_pad_set_active(source_pad, TRUE);

  GstPad* sink_pad = gst_element_request_pad_simple(webrtc_, "sink_%u");
  if (sink_pad == nullptr || gst_pad_link(source_pad, sink_pad) != GST_PAD_LINK_OK) {
    gst_pad_set_active(source_pad, FALSE);
    gst_object_unref(source_pad);
    if (sink_pad) gst_object_unref(sink_pad);
    gst_caps_unref(caps);
    throw std::runtime_error("a track could not be linked into webrtcbin");
  }
  (video ? video_pad_ : audio_pad_) = source_pad;  // Released with the link.
  // Kept on the pad and sent ahead of the first packet, once the pipeline runs.
  const auto keep = [source_pad](GstEvent* event) {
    gst_pad_store_sticky_event(source_pad, event);
    gst_event_unref(event);
  };
  keep(gst_event_new_stream_start(video ? "mirell-video" : "mirell-audio"));
  keep(gst_event_new_caps(caps));
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  keep(gst_event_new_segment(&segment));
  if (video) {
    gst_pad_add_probe(source_pad, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, &Link::OnUpstreamEvent, this,
                      nullptr);
  }
  GstWebRTCRTPTransceiver* transceiver = nullptr;
  g_object_get(sink_pad, "transceiver", &transceiver, nullptr);
  gst_object_unref(sink_pad);
  if (transceiver == nullptr) {
    gst_caps_unref(caps);
    throw std::runtime_error("webrtcbin made no transceiver for a track");
  }
  g_object_set(transceiver, "direction", GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDONLY,
               "codec-preferences", caps, "do-nack", TRUE, nullptr);
  {
    std::lock_guard hold(lock_);
    if (first_transceiver_ == nullptr) {
      first_transceiver_ = transceiver;
      transceiver = nullptr;
    }
  }
  if (transceiver) gst_object_unref(transceiver);
  gst_caps_unref(caps);
}

void Link::AddTracksAndOffer(const OfferMedia& media) {
  ApplyStunServer();
  video_payload_type_ = media.video_payload_type;
  AddSendTrack(true, media);
  if (media.has_audio) {
    AddSendTrack(false, media);
    audio_sample_rate_ = media.sample_rate;
    audio_channels_ = media.channels;
  }
  Start();
  SetLocalDescription(CreateDescription("create-offer", "offer"));
}

GstWebRTCSessionDescription* Link::CreateDescription(const char* action, const char* field) {
  GstPromiseReply reply;
  g_signal_emit_by_name(webrtc_, action, nullptr, reply.promise());
  const GstStructure* answer = reply.Wait(action);
  GstWebRTCSessionDescription* description = nullptr;
  if (answer == nullptr ||
      !gst_structure_get(answer, field, GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &description, nullptr)) {
    throw std::runtime_error(std::string(action) + ": no " + field + " in the reply");
  }
  return description;
}

void Link::Start() {
  if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    throw std::runtime_error("the link's pipeline did not start");
  }
}

void Link::ApplyStunServer() {
  if (!stun_) return;
  const std::optional<std::string> address = NumericIceHost(stun_->host);
  if (!address) {
    LOG_WARN("ignoring ice server {}: its name does not resolve", stun_description_);
  } else {
    const bool v6 = address->find(':') != std::string::npos;
    const std::string host = v6 ? "[" + *address + "]" : *address;
    const std::string uri = fmt::format("stun://{}:{}", host, stun_->port);
    if (*address != stun_->host) LOG_DEBUG("ice server {} is {}", stun_description_, *address);
    g_object_set(webrtc_, "stun-server", uri.c_str(), nullptr);
  }
  stun_.reset();
}

void Link::SetLocalDescription(GstWebRTCSessionDescription* description) {
  GstPromiseReply reply;
  g_signal_emit_by_name(webrtc_, "set-local-description", description, reply.promise());
  gst_webrtc_session_description_free(description);
  reply.Wait("set-local-description");
}

void Link::OnLocalDescription(std::function<void(const std::string&)> handler) {
  std::optional<std::string> known;
  {
    std::lock_guard hold(lock_);
    on_local_description_ = handler;
    known = local_description_;
  }
  if (known && handler) handler(*known);
}

void Link::OnState(std::function<void(PeerState)> handler) {
  std::lock_guard hold(lock_);
  on_state_ = std::move(handler);
}

void Link::OnVideo(std::function<void(ByteSpan)> handler) {
  std::lock_guard hold(lock_);
  on_video_ = std::move(handler);
}

void Link::OnAudio(std::function<void(ByteSpan)> handler) {
  std::lock_guard hold(lock_);
  on_audio_ = std::move(handler);
}

void Link::OnKeyframeRequest(std::function<void()> handler) {
  std::lock_guard hold(lock_);
  on_keyframe_request_ = std::move(handler);
}

void Link::SetRemoteDescription(const std::string& sdp) {
  if (closed_) throw std::runtime_error("the link is closed");
  GstSDPMessage* message = nullptr;
  gst_sdp_message_new(&message);
  if (gst_sdp_message_parse_buffer(reinterpret_cast<const guint8*>(sdp.data()),
                                   static_cast<guint>(sdp.size()), message) != GST_SDP_OK ||
      gst_sdp_message_medias_len(message) == 0) {
    gst_sdp_message_free(message);
    throw std::runtime_error("the remote description is not a session description");
  }
  std::optional<RemoteAudioFormat> audio;
  try {
    audio = ReadRemoteAudioFormat(sdp);
  } catch (...) {
    gst_sdp_message_free(message);
    throw;
  }
  if (audio) {
    audio_sample_rate_ = audio->sample_rate;
    audio_channels_ = audio->channels;
  }
  if (!offerer_) ApplyStunServer();
  GstWebRTCSessionDescription* description = gst_webrtc_session_description_new(
      offerer_ ? GST_WEBRTC_SDP_TYPE_ANSWER : GST_WEBRTC_SDP_TYPE_OFFER, message);

  {
    GstPromiseReply reply;
    g_signal_emit_by_name(webrtc_, "set-remote-description", description, reply.promise());
    gst_webrtc_session_description_free(description);
    reply.Wait("set-remote-description");
  }
  if (offerer_) return;

  // webrtcbin does not answer by itself: make the answer and apply it; gathering then runs to
  // completion and delivers it through OnLocalDescription.
  SetLocalDescription(CreateDescription("create-answer", "answer"));
}

bool Link::Send(GstPad* pad, ByteSpan packet) {
  if (pad == nullptr || packet.empty() || closed_ || state_ != PeerState::kConnected) {
    return false;
  }
  GstBuffer* buffer = gst_buffer_new_memdup(packet.data(), packet.size());
  if (buffer == nullptr) return false;
  // Stamped with the running time of the send, as a live source does: the sender reports map
  // RTP time to the clock by it.
  GST_BUFFER_PTS(buffer) = gst_element_get_current_running_time(pipeline_);
  GstFlowReturn result = gst_pad_push(pad, buffer);
  if (result != GST_FLOW_OK) {
    LOG_DEBUG("send failed: {}", gst_flow_get_name(result));
    return false;
  }
  return true;
}

bool Link::RequestKeyframe() {
  GstPad* pad = nullptr;
  {
    std::lock_guard hold(lock_);
    if (video_receive_pad_) pad = GST_PAD(gst_object_ref(video_receive_pad_));
  }
  if (pad == nullptr || closed_ || state_ != PeerState::kConnected) {
    if (pad) gst_object_unref(pad);
    return false;
  }
  // The force-key-unit event travels up into webrtcbin, whose RTP session sends a PLI.
  GstStructure* structure = gst_structure_new(
      "GstForceKeyUnit", "running-time", GST_TYPE_CLOCK_TIME, GST_CLOCK_TIME_NONE, "all-headers",
      G_TYPE_BOOLEAN, TRUE, "count", G_TYPE_UINT, 0u, nullptr);
  gboolean sent = gst_pad_send_event(pad, gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, structure));
  gst_object_unref(pad);
  if (!sent) LOG_DEBUG("keyframe request failed: webrtcbin did not take the event");
  return sent;
}

void Link::Close() {
  if (closed_.exchange(true)) return;
  {
    std::lock_guard hold(lock_);
    on_local_description_ = nullptr;
    on_state_ = nullptr;
    on_video_ = nullptr;
    on_audio_ = nullptr;
    on_keyframe_request_ = nullptr;
  }
  {
    std::lock_guard hold(watch_mutex_);
    watch_stop_ = true;
  }
  watch_wake_.notify_all();
  if (watch_.joinable()) watch_.join();
  // Joins every streaming thread and webrtcbin's own; the pipeline goes with the link.
  gst_element_set_state(pipeline_, GST_STATE_NULL);
  std::lock_guard hold(lock_);
  if (video_receive_pad_) gst_object_unref(std::exchange(video_receive_pad_, nullptr));
  if (first_transceiver_) gst_object_unref(std::exchange(first_transceiver_, nullptr));
}

void Link::Transition(PeerState next) {
  PeerState current = state_.load();
  do {
    if (current == next || current == PeerState::kClosed) return;
    if (current == PeerState::kFailed && next != PeerState::kClosed) return;
    if (current == PeerState::kConnected && next == PeerState::kConnecting) return;
    // Before the state says connected: the liveness watch reads the two without a common lock,
    // and a connected link still holding the initial 0 looked silent for hours and failed.
    if (next == PeerState::kConnected) last_heard_ms_ = NowMs();
  } while (!state_.compare_exchange_weak(current, next));
  if (closed_) return;
  LOG_INFO("{}", PeerStateWord(next));
  if (next == PeerState::kConnected) LogSelectedPair();
  std::function<void(PeerState)> handler;
  {
    std::lock_guard hold(lock_);
    handler = on_state_;
  }
  if (handler) handler(next);
}

void Link::LogSelectedPair() {
  GstWebRTCRTPTransceiver* transceiver = nullptr;
  {
    std::lock_guard hold(lock_);
    if (first_transceiver_) {
      transceiver = GST_WEBRTC_RTP_TRANSCEIVER(gst_object_ref(first_transceiver_));
    }
  }
  if (transceiver == nullptr) return;
  GstWebRTCRTPReceiver* receiver = nullptr;
  GstWebRTCDTLSTransport* dtls = nullptr;
  GstWebRTCICETransport* ice_transport = nullptr;
  GstWebRTCICE* ice = nullptr;
  g_object_get(transceiver, "receiver", &receiver, nullptr);
  if (receiver) g_object_get(receiver, "transport", &dtls, nullptr);
  if (dtls) g_object_get(dtls, "transport", &ice_transport, nullptr);
  g_object_get(webrtc_, "ice-agent", &ice, nullptr);
  if (ice && ice_transport && GST_IS_WEBRTC_NICE_TRANSPORT(ice_transport)) {
    GstWebRTCICEStream* stream =
        GST_WEBRTC_ICE_STREAM(GST_WEBRTC_NICE_TRANSPORT(ice_transport)->stream);
    GstWebRTCICECandidateStats* local = nullptr;
    GstWebRTCICECandidateStats* remote = nullptr;
    if (stream && gst_webrtc_ice_get_selected_pair(ice, stream, &local, &remote) && local && remote) {
      LOG_INFO("connected {} -> {}", CandidateTypeWord(local->type ? local->type : ""),
               CandidateTypeWord(remote->type ? remote->type : ""));
    }
    if (local) gst_webrtc_ice_candidate_stats_free(local);
    if (remote) gst_webrtc_ice_candidate_stats_free(remote);
  }
  if (ice) gst_object_unref(ice);
  if (ice_transport) gst_object_unref(ice_transport);
  if (dtls) gst_object_unref(dtls);
  if (receiver) gst_object_unref(receiver);
  gst_object_unref(transceiver);
}

void Link::Watch() {
  std::unique_lock hold(watch_mutex_);
  while (!watch_stop_) {
    watch_wake_.wait_for(hold, std::chrono::milliseconds(250));
    if (watch_stop_ || state_ != PeerState::kConnected) continue;
    std::int64_t silent = NowMs() - last_heard_ms_.load();
    if (silent >= liveness_bound_ms_) {
      LOG_WARN("peer silent for {} ms, counted as gone", silent);
      hold.unlock();
      Transition(PeerState::kFailed);
      hold.lock();
    }
  }
}

void Link::OnConnectionState(GstElement* webrtc, GParamSpec*, gpointer self) {
  auto* link = static_cast<Link*>(self);
  if (link->closed_) return;
  GstWebRTCPeerConnectionState state = GST_WEBRTC_PEER_CONNECTION_STATE_NEW;
  g_object_get(webrtc, "connection-state", &state, nullptr);
  link->Transition(MapConnectionState(state));
}

void Link::OnGatheringState(GstElement* webrtc, GParamSpec*, gpointer self) {
  auto* link = static_cast<Link*>(self);
  if (link->closed_) return;
  GstWebRTCICEGatheringState state = GST_WEBRTC_ICE_GATHERING_STATE_NEW;
  g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
  if (state != GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) return;
  GstWebRTCSessionDescription* description = nullptr;
  g_object_get(webrtc, "local-description", &description, nullptr);
  if (description == nullptr) {
    LOG_WARN("ice gathered, no local description");
    return;
  }
  std::string text = DescriptionText(description);
  const char* type = gst_webrtc_sdp_type_to_string(description->type);
  gst_webrtc_session_description_free(description);
  LOG_DEBUG("gathering complete - local description is an {} with {} candidates", type,
            CountCandidates(text));
  std::function<void(const std::string&)> handler;
  {
    std::lock_guard hold(link->lock_);
    link->local_description_ = text;
    handler = link->on_local_description_;
  }
  if (handler) handler(text);
}

void Link::OnPadAdded(GstElement*, GstPad* pad, gpointer self) {
  auto* link = static_cast<Link*>(self);
  if (GST_PAD_DIRECTION(pad) != GST_PAD_SRC || link->closed_) return;
  std::string mid;
  GstWebRTCRTPTransceiver* transceiver = nullptr;
  g_object_get(pad, "transceiver", &transceiver, nullptr);
  if (transceiver) {
    gchar* text = nullptr;
    g_object_get(transceiver, "mid", &text, nullptr);
    if (text) mid = text;
    g_free(text);
    gst_object_unref(transceiver);
  }
  bool video = mid == kVideoMid;
  LOG_INFO("remote track '{}'", mid);

  GstElement* sink = gst_element_factory_make("appsink", nullptr);
  if (sink == nullptr) {
    LOG_WARN("remote track '{}' dropped: appsink could not be made", mid);
    return;
  }
  g_object_set(sink, "sync", FALSE, "async", FALSE, "enable-last-sample", FALSE, nullptr);
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = &Link::OnSample;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks,
                             video ? &link->video_receiver_ : &link->audio_receiver_, nullptr);
  gst_bin_add(GST_BIN(link->pipeline_), sink);
  GstPad* sink_pad = gst_element_get_static_pad(sink, "sink");
  if (gst_pad_link(pad, sink_pad) != GST_PAD_LINK_OK) {
    LOG_WARN("remote track '{}' could not be linked", mid);
  }
  gst_object_unref(sink_pad);
  gst_element_sync_state_with_parent(sink);
  if (video) {
    std::lock_guard hold(link->lock_);
    if (link->video_receive_pad_ == nullptr) link->video_receive_pad_ = GST_PAD(gst_object_ref(pad));
  }
}

void Link::OnNewTransceiver(GstElement*, GstWebRTCRTPTransceiver* transceiver, gpointer self) {
  auto* link = static_cast<Link*>(self);
  // Off by default; without it the answer offers no NACK and lost packets stay lost.
  g_object_set(transceiver, "do-nack", TRUE, nullptr);
  std::lock_guard hold(link->lock_);
  if (link->first_transceiver_ == nullptr) {
    link->first_transceiver_ = GST_WEBRTC_RTP_TRANSCEIVER(gst_object_ref(transceiver));
  }
}

void Link::OnDeepElementAdded(GstBin*, GstBin*, GstElement* element, gpointer self) {
  std::string_view factory = FactoryName(element);
  if (factory == "rtprtxsend") {
    g_object_set(element, "max-size-packets", kNackStorePackets, nullptr);
  } else if (factory == "rtpsession") {
    // Without the bandwidth most NACKs expire unsent; without probation 0 the first packets of a
    // source are held back and the first retransmission is lost.
    g_object_set(element, "rtcp-rr-bandwidth", kRtcpBandwidthBits, "rtcp-rs-bandwidth",
                 kRtcpBandwidthBits, "probation", 0u, "rtcp-min-interval", kRtcpMinInterval,
                 nullptr);
    // Sender reports by capture time: the send time needs the pipeline's latency, which no
    // sink of ours ever asks for, and RTP's session warns about every packet without it.
    if (HasProperty(element, "rtcp-sync-send-time")) {
      g_object_set(element, "rtcp-sync-send-time", FALSE, nullptr);
    }
    g_signal_connect(element, "on-ssrc-active", G_CALLBACK(&Link::OnSourceActive), self);
  } else if (factory == "nicesink") {
    StopPortMapping(element);
    if (static_cast<Link*>(self)->loss_every_ > 0) {
      GstPad* pad = gst_element_get_static_pad(element, "sink");
      gst_pad_add_probe(pad,
                        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER |
                                                     GST_PAD_PROBE_TYPE_BUFFER_LIST),
                        &Link::OnOutgoing, self, nullptr);
      gst_object_unref(pad);
    }
  } else if (factory == "rtpjitterbuffer") {
    if (HasProperty(element, "faststart-min-packets")) {
      g_object_set(element, "faststart-min-packets", 1u, nullptr);
    }
    // By default it guesses when the next packet is due and asks for it once that time has
    // passed; video comes in a burst per frame, so it asked for every next frame's first packet
    // before the host had it (15 requests and warnings a second per viewer). A gap still asks.
    if (HasProperty(element, "rtx-next-seqnum")) {
      g_object_set(element, "rtx-next-seqnum", FALSE, nullptr);
    }
  }
}

void Link::OnSourceActive(GstElement*, guint, gpointer self) {
  static_cast<Link*>(self)->last_heard_ms_ = NowMs();
}

GstPadProbeReturn Link::OnUpstreamEvent(GstPad*, GstPadProbeInfo* info, gpointer self) {
  auto* link = static_cast<Link*>(self);
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  if (event == nullptr || GST_EVENT_TYPE(event) != GST_EVENT_CUSTOM_UPSTREAM) return GST_PAD_PROBE_OK;
  const GstStructure* structure = gst_event_get_structure(event);
  if (structure == nullptr || !gst_structure_has_name(structure, "GstForceKeyUnit")) {
    return GST_PAD_PROBE_OK;
  }
  std::function<void()> handler;
  {
    std::lock_guard hold(link->lock_);
    handler = link->on_keyframe_request_;
  }
  if (handler && !link->closed_) {
    LOG_DEBUG("remote asked for a keyframe");
    handler();
  }
  return GST_PAD_PROBE_OK;
}

gboolean Link::OnSendPadQuery(GstPad* pad, GstObject* parent, GstQuery* query) {
  if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
    gst_query_set_latency(query, TRUE, 0, GST_CLOCK_TIME_NONE);
    return TRUE;
  }
  return gst_pad_query_default(pad, parent, query);
}

bool Link::DropOutgoing(GstBuffer* buffer) {
  // SRTP leaves the RTP header in the clear: the payload type tells a first transmission of video
  // from its retransmission (another payload type) and from RTCP (200 and up).
  std::uint8_t header[2] = {0, 0};
  if (gst_buffer_extract(buffer, 0, header, 2) != 2 || (header[0] & 0xC0) != 0x80) return false;
  if ((header[1] & 0x7F) != video_payload_type_.load()) return false;
  if (++outgoing_video_ % loss_every_.load() != 0) return false;
  ++outgoing_video_dropped;
  return true;
}

GstPadProbeReturn Link::OnOutgoing(GstPad*, GstPadProbeInfo* info, gpointer self) {
  auto* link = static_cast<Link*>(self);
  if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) {
    return link->DropOutgoing(GST_PAD_PROBE_INFO_BUFFER(info)) ? GST_PAD_PROBE_DROP
                                                               : GST_PAD_PROBE_OK;
  }
  GstBufferList* list = gst_buffer_list_make_writable(GST_PAD_PROBE_INFO_BUFFER_LIST(info));
  GST_PAD_PROBE_INFO_DATA(info) = list;
  gst_buffer_list_foreach(
      list,
      [](GstBuffer** buffer, guint, gpointer data) -> gboolean {
        if (static_cast<Link*>(data)->DropOutgoing(*buffer)) {
          gst_buffer_unref(*buffer);
          *buffer = nullptr;
        }
        return TRUE;
      },
      link);
  return GST_PAD_PROBE_OK;
}

GstFlowReturn Link::OnSample(GstAppSink* sink, gpointer receiver_data) {
  auto* receiver = static_cast<Receiver*>(receiver_data);
  Link* link = receiver->link;
  GstSample* sample = gst_app_sink_pull_sample(sink);
  if (sample == nullptr) return GST_FLOW_EOS;
  link->last_heard_ms_ = NowMs();
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  GstMapInfo map;
  if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    // The buffer stays mapped for the handler: the one copy is the one GStreamer already made.
    std::function<void(ByteSpan)> handler;
    {
      std::lock_guard hold(link->lock_);
      handler = receiver->video ? link->on_video_ : link->on_audio_;
    }
    if (handler && !link->closed_) handler(ByteSpan(map.data, map.size));
    gst_buffer_unmap(buffer, &map);
  }
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

GstBusSyncReply Link::OnBusMessage(GstBus*, GstMessage* message, gpointer) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR || GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
    GError* error = nullptr;
    gchar* debug = nullptr;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
      gst_message_parse_error(message, &error, &debug);
    } else {
      gst_message_parse_warning(message, &error, &debug);
    }
    LOG_WARN("rtc: {} ({})", error ? error->message : "?", debug ? debug : "");
    if (error) g_error_free(error);
    g_free(debug);
  }
  return GST_BUS_DROP;
}

}  // namespace

void SetPeerLivenessBound(std::chrono::milliseconds bound) { liveness_bound_ms = bound.count(); }

void SetOutgoingVideoLoss(unsigned every) { outgoing_video_loss = every; }

void SetReceiveLatency(unsigned milliseconds) { receive_latency_ms = milliseconds; }

std::uint64_t OutgoingVideoDropped() { return outgoing_video_dropped.load(); }

std::unique_ptr<PeerLink> CreateOfferer(const PeerConfig& config, const OfferMedia& media) {
  auto link = std::make_unique<Link>(config, true);
  link->AddTracksAndOffer(media);
  return link;
}

std::unique_ptr<PeerLink> CreateAnswerer(const PeerConfig& config) {
  auto link = std::make_unique<Link>(config, false);
  link->Start();
  return link;
}

void PrepareLinks() {
  // The DTLS certificate is made with the first link's transports and kept for every later link
  // of the process: one link made and closed pays for it.
  const auto started = std::chrono::steady_clock::now();
  try {
    CreateOfferer(PeerConfig{{}, 1}, OfferMedia{})->Close();
  } catch (const std::exception& error) {
    LOG_WARN("links not prepared: {}", error.what());
    return;
  }
  LOG_DEBUG("links prepared in {} ms", std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - started)
                                           .count());
}

}  // namespace mirell::transport
