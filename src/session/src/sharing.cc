#include "mirell/protocol/share_token.h"
#include "mirell/session/sharing.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "mirell/base/ascii.h"
#include "mirell/base/clock.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/min_interval.h"
#include "mirell/capture/audio_capturer.h"
#include "mirell/encode/aac_encoder.h"
#include "mirell/encode/h264_encoder.h"
#include "mirell/encode/video_processor.h"
#include "mirell/media/aac_rtp.h"
#include "mirell/session/audio_source.h"
#include "mirell/session/capture_source.h"
#include "mirell/streams/media_stream.h"
#include "mirell/transport/peer_link.h"
#include "mirell/transport/signal_client.h"

namespace mirell::session {

namespace {

constexpr std::int64_t kNanosecondsPerMinute = 60'000'000'000;
constexpr std::int64_t kLongestShareMinutes = 24 * 60;
constexpr std::uint32_t kAudioRate = 48000;
constexpr std::uint32_t kAudioChannels = 2;
// Keyframes asked for by viewers (their lost packets, a new player) come at most this often: a
// keyframe is several times a picture's size, and an admitted viewer, or a relay's players,
// could otherwise ask for one with every picture.
constexpr std::int64_t kKeyframeRequestGapNs = 1'000'000'000;

}  // namespace

struct Sharing::State {
  std::shared_ptr<streams::MediaStream> stream;
  std::string token;
  std::string secret;
  // There is no graphics device here: pictures travel in system memory.
  std::unique_ptr<encode::H264Encoder> encoder;  // Lives across retargets.
  // Shared by every viewer's and player's request; a retarget's own keyframe does not ask it.
  std::shared_ptr<MinInterval> keyframe_gate = std::make_shared<MinInterval>(kKeyframeRequestGapNs);
  std::unique_ptr<AudioSource> audio;            // May be empty.
  std::unique_ptr<CaptureSource> capture;
  std::unique_ptr<transport::SignalClient> signal;  // May be empty.
  std::unique_ptr<ShareSession> session;            // May be empty.
  std::atomic<std::int64_t> epoch{0};  // Shared time zero of picture and sound, 100 ns.
  std::int64_t expires_at = 0;         // Steady clock, ns; 0: no limit.
  std::string label;
  bool is_public = false;
  bool whole_mix = false;
  bool audio_whole_mix = false;
  bool audio_open = false;
  // The signal server's refusal of this share, written on the signal client's thread; shared with
  // that thread's handler, which must not take the share's lock.
  struct Refusal {
    std::mutex mutex;
    std::string reason;
  };
  std::shared_ptr<Refusal> refusal = std::make_shared<Refusal>();

  // Destroys the parts in the order the share was built against: the door before its client,
  // the sources before the encoder they feed, the stream last.
  ~State() {
    label.clear();
    session.reset();
    signal.reset();
    capture.reset();
    audio.reset();
    encoder.reset();
    secret.clear();
    token.clear();
    stream.reset();
  }
};

Sharing::Sharing(streams::StreamRegistry& registry, Config config, CaptureFactories factories)
    : registry_(registry), factories_(std::move(factories)), config_(std::move(config)) {}

Sharing::Settings Sharing::CurrentSettings() const {
  return {config_, admission_required_, public_, allowlist_};
}

Sharing::~Sharing() { Stop(); }

std::unique_ptr<CaptureSource> Sharing::MakeCaptureSource(State& state, const ShareTarget& target,
                                                          const encode::ShareQuality& quality) {
  auto source = std::make_unique<CaptureSource>(factories_.picture(target.capture), *state.encoder,
                                                encode::CreateVideoProcessor(quality.width, quality.height),
                                                state.stream->frames(), quality.fps);
  source->SetEpoch(&state.epoch);
  // The stream's description follows what actually goes out.
  streams::MediaStream* stream = state.stream.get();
  encode::H264Encoder* encoder = state.encoder.get();
  source->SetKeyframeCallback([stream, encoder] { stream->SetSequenceHeader(encoder->sequence_header()); });
  return source;
}

void Sharing::Start(const ShareTarget& target) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  Stop();
  expired_ = false;
  const Settings settings = [this] {
    MutexLock lock(mutex_);
    return CurrentSettings();
  }();
  const Config& config = settings.config;
  auto state = std::make_unique<State>();
  state->label = target.label;
  state->is_public = settings.is_public;
  state->whole_mix = target.whole_mix;
  if (config.lifetime_minutes > 0) {
    state->expires_at = SteadyNowNs() + config.lifetime_minutes * kNanosecondsPerMinute;
  }
  const protocol::ShareCredentials credentials = protocol::GenerateShareCredentials();
  state->token = credentials.token;
  state->secret = credentials.secret;
  MIRELL_CHECK(capture::IsCaptureSupported(), "{}", capture::CaptureUnsupportedReason());

  const encode::ShareQuality& quality = config.quality;
  state->encoder = encode::CreateH264Encoder(encode::LiveStreamConfig(
      quality.width, quality.height, quality.fps, quality.video_kbps,
      static_cast<encode::H264Profile>(config.video_profile)));

  state->stream = std::make_shared<streams::MediaStream>(fmt::format("sharing {}", target.label),
                                                         static_cast<int>(quality.fps), quality.video_kbps);
  state->stream->SetPriming(quality.fps * static_cast<std::uint64_t>(config.prime_ms) / 1000,
                            static_cast<std::uint64_t>(config.prime_ms));
  encode::H264Encoder* encoder = state->encoder.get();
  state->stream->SetKeyframeRequester([encoder, gate = state->keyframe_gate] {
    if (gate->Take(SteadyNowNs())) encoder->RequestKeyframe();
  });

  OpenAudio(*state, target, config);
  state->capture = MakeCaptureSource(*state, target, quality);
  if (state->audio) state->audio->Start();
  state->capture->Start();
  // From here a failure must also take back what has been made public.
  try {
    StartPeering(*state, settings);
    registry_.Publish(state->token, state->stream);
  } catch (...) {
    registry_.Withdraw(state->token);
    if (state->session) state->session->Stop();
    if (state->signal) state->signal->Stop();
    throw;
  }
  LOG_INFO("target={} token={}", state->label, state->token);
  MutexLock lock(mutex_);
  state_ = std::move(state);
}

void Sharing::OpenAudio(State& state, const ShareTarget& target, const Config& config) {
  if (!config.audio_enabled) return;
  try {
    const capture::AudioFormat wanted{kAudioRate, kAudioChannels};
    std::unique_ptr<capture::IAudioCapturer> capturer =
        target.whole_mix || config.always_whole_mix
            ? factories_.whole_mix(wanted)
            : factories_.process_sound(target.process_id, wanted);
    const capture::AudioFormat format = capturer->format();
    encode::AacEncoderConfig audio;
    audio.sample_rate = format.sample_rate;
    audio.channels = format.channels;
    audio.bitrate_bps = config.quality.audio_kbps * 1000;
    std::unique_ptr<encode::AacEncoder> encoder = encode::CreateAacEncoder(audio);

    streams::AudioConfig settled;
    settled.sample_rate = encoder->sample_rate();
    settled.channels = encoder->channels();
    settled.bitrate_kbps = encoder->bitrate_bps() / 1000;
    const auto specific_config = encoder->audio_specific_config();
    settled.audio_specific_config.assign(specific_config.begin(), specific_config.end());

    const std::optional<streams::AudioConfig> advertised = state.stream->Audio();
    if (advertised && (advertised->sample_rate != settled.sample_rate ||
                       advertised->channels != settled.channels)) {
      // Viewers and the signal server were told the old format; only a retarget gets here.
      LOG_WARN("retarget audio={}/{} advertised={}/{} mismatch, keeping advertised", settled.sample_rate,
               settled.channels, advertised->sample_rate, advertised->channels);
    } else {
      state.stream->audio().SetHistory(
          static_cast<std::uint64_t>((config.prime_ms + 3000) * settled.sample_rate / 1024000));
      state.stream->SetAudio(settled);
    }
    state.audio_whole_mix = !capturer->process_scoped();
    state.audio = std::make_unique<AudioSource>(std::move(capturer), std::move(encoder), state.stream->audio());
    state.audio->SetEpoch(&state.epoch);
    state.audio->SetMono(config.quality.mono);
    state.audio_open = true;
  } catch (const std::exception& error) {
    LOG_WARN("audio unavailable: {}", error.what());
    state.audio.reset();
    state.audio_open = false;
  }
}

void Sharing::StartPeering(State& state, const Settings& settings) {
  const Config& config = settings.config;
  if (config.signal_url.empty()) return;
  transport::PeerConfig peer_config{config.ice_servers, config.ice_policy};
  const std::optional<streams::AudioConfig> audio =
      state.audio_open ? state.stream->Audio() : std::nullopt;

  transport::OfferMedia offer;
  offer.video_payload_type = 96;
  offer.audio_payload_type = 97;
  offer.has_audio = audio.has_value();
  if (audio) {
    offer.sample_rate = audio->sample_rate;
    offer.channels = audio->channels;
    offer.audio_specific_config = audio->audio_specific_config;
  }

  transport::SignalConfig signal;
  signal.url = config.signal_url;
  signal.token = state.token;
  signal.secret = state.secret;
  signal.is_public = state.is_public;
  protocol::StreamMedia media;
  media.width = config.quality.width;
  media.height = config.quality.height;
  media.fps = config.quality.fps;
  media.video_kbps = config.quality.video_kbps;
  if (audio) {
    media.sample_rate = audio->sample_rate;
    media.channels = audio->channels;
    media.audio_kbps = audio->bitrate_kbps;
    media.audio_config = media::HexEncode(audio->audio_specific_config);
  }
  signal.media = media;

  state.signal = transport::CreateHostSignalClient(signal);
  state.session = std::make_unique<ShareSession>(state.signal.get(), &state.stream->frames(),
                                                 audio ? &state.stream->audio() : nullptr, peer_config,
                                                 offer, audio ? audio->sample_rate : kAudioRate);
  state.session->SetAdmissionRequired(settings.admission_required);
  state.session->SetPublic(state.is_public);
  state.session->SetAllowlist(settings.allowlist);
  state.session->SetShareToken(state.token);
  state.session->SetPendingHandler([this](const PendingViewer& viewer) {
    PendingHandler handler;
    {
      MutexLock lock(handler_mutex_);
      handler = on_viewer_pending_;
    }
    if (handler) handler(viewer);
  });
  state.session->SetPendingGoneHandler([this](const std::string& connection_id) {
    std::function<void(const std::string&)> handler;
    {
      MutexLock lock(handler_mutex_);
      handler = on_viewer_pending_gone_;
    }
    if (handler) handler(connection_id);
  });
  encode::H264Encoder* encoder = state.encoder.get();
  state.session->SetKeyframeHandler([encoder, gate = state.keyframe_gate] {
    if (gate->Take(SteadyNowNs())) encoder->RequestKeyframe();
  });
  state.session->Start();
  state.refusal = std::make_shared<State::Refusal>();
  state.signal->OnRefused([this, refusal = state.refusal](const std::string& reason) {
    LOG_WARN("signal refused: {}", reason);
    {
      std::lock_guard lock(refusal->mutex);
      refusal->reason = reason.empty() ? std::string("no reason given") : reason;
    }
    std::function<void(const std::string&)> handler;
    {
      MutexLock lock(handler_mutex_);
      handler = on_refused_;
    }
    if (handler) handler(reason);
  });
  state.signal->Start();
}

void Sharing::Retarget(const ShareTarget& target) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  std::unique_ptr<CaptureSource> old_capture;
  std::unique_ptr<AudioSource> old_audio;
  {
    MutexLock lock(mutex_);
    if (!state_) return;
    State& state = *state_;
    // A failure here leaves the share as it was.
    std::unique_ptr<CaptureSource> replacement = MakeCaptureSource(state, target, config_.quality);

    old_capture = std::move(state.capture);
    old_audio = std::move(state.audio);
    state.audio_open = false;
    state.capture = std::move(replacement);
    state.label = target.label;
    state.whole_mix = target.whole_mix;

    old_capture->Stop();
    // Read once the old source has stopped: it goes on encoding while the new one is made, and
    // a frame number taken before would repeat its last frames' times (they would step back).
    const std::uint64_t resume_frame = old_capture->next_frame();
    state.capture->SetResumeFrame(resume_frame);
    if (old_audio) old_audio->Stop();
    OpenAudio(state, target, config_);
    if (state.audio) state.audio->Start();
    state.capture->Start();
    // Viewers resynchronise at once on the new picture.
    state.encoder->RequestKeyframe();
    LOG_INFO("retarget={} resume_frame={}", state.label, resume_frame);
  }
  old_audio.reset();
  old_capture.reset();
}

void Sharing::Revoke() {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  const protocol::ShareCredentials credentials = protocol::GenerateShareCredentials();
  std::string old_token;
  std::unique_ptr<transport::SignalClient> old_signal;
  std::unique_ptr<ShareSession> old_session;
  {
    MutexLock lock(mutex_);
    if (!state_) return;
    old_token = state_->token;
    old_signal = std::move(state_->signal);
    old_session = std::move(state_->session);
    state_->token = credentials.token;
    state_->secret = credentials.secret;
  }
  // The stream goes on under the new token: its readers of the old link (local players and this
  // session's senders) end, and new ones play from the same encoders.
  registry_.Move(old_token, credentials.token);
  if (old_session) old_session->Stop();
  // The old token is let go on the server too: its viewers are sent away, and it is nobody's.
  if (old_signal) old_signal->End();
  {
    MutexLock lock(mutex_);
    if (state_ && state_->token == credentials.token) {
      StartPeering(*state_, CurrentSettings());
      LOG_INFO("token={} revoked -> {}", old_token, state_->token);
    }
  }
  old_session.reset();
  old_signal.reset();
}

void Sharing::Stop() {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  std::unique_ptr<State> state;
  {
    MutexLock lock(mutex_);
    state = std::move(state_);
  }
  if (!state) return;
  registry_.Withdraw(state->token);
  if (state->session) state->session->Stop();
  // Said to the server, so that waiting viewers hear at once that the share is over, and the
  // token is let go rather than kept for a host that will not come back.
  if (state->signal) state->signal->End();
  if (state->audio) state->audio->Stop();
  state->capture->Stop();
  LOG_INFO("target={} stopped", state->label);
}

void Sharing::Extend(std::int32_t minutes) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  if (!state_ || state_->expires_at == 0) return;
  // Added to what is left (it was once "now + minutes", which shortened a long share), and never
  // beyond the longest a share may last.
  const std::int64_t now = SteadyNowNs();
  const std::int64_t left = std::max<std::int64_t>(state_->expires_at - now, 0);
  const std::int64_t wanted = left + std::int64_t{minutes} * kNanosecondsPerMinute;
  state_->expires_at = now + std::min(wanted, kLongestShareMinutes * kNanosecondsPerMinute);
  LOG_INFO("extended by {} minutes", minutes);
}

void Sharing::Poll() {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  ShareSession* session = nullptr;
  {
    MutexLock lock(mutex_);
    if (!state_) return;
    if (state_->expires_at != 0 && SteadyNowNs() >= state_->expires_at) {
      lock.Unlock();
      expired_ = true;
      LOG_INFO("lifetime expired, stopped");
      Stop();
      return;
    }
    session = state_->session.get();
  }
  // Only the interface thread, which is this one, replaces the session.
  if (session) session->Sweep();
}

void Sharing::OnViewerPending(PendingHandler handler) {
  MutexLock lock(handler_mutex_);
  on_viewer_pending_ = std::move(handler);
}

void Sharing::OnViewerPendingGone(std::function<void(const std::string&)> handler) {
  MutexLock lock(handler_mutex_);
  on_viewer_pending_gone_ = std::move(handler);
}

void Sharing::OnRefused(std::function<void(const std::string&)> handler) {
  MutexLock lock(handler_mutex_);
  on_refused_ = std::move(handler);
}

SignalState Sharing::signal_state() const {
  MutexLock lock(mutex_);
  if (!state_ || !state_->signal) return SignalState::kOff;
  {
    std::lock_guard refusal_lock(state_->refusal->mutex);
    if (!state_->refusal->reason.empty()) return SignalState::kRefused;
  }
  if (state_->signal->connected()) return SignalState::kConnected;
  return state_->signal->reconnects() > 0 ? SignalState::kLost : SignalState::kConnecting;
}

std::string Sharing::refusal() const {
  MutexLock lock(mutex_);
  if (!state_) return {};
  std::lock_guard refusal_lock(state_->refusal->mutex);
  return state_->refusal->reason;
}

void Sharing::SetAllowlist(Allowlist allowlist) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  allowlist_ = std::move(allowlist);
  if (state_ && state_->session) state_->session->SetAllowlist(allowlist_);
}

void Sharing::SetIceServers(std::vector<transport::IceServer> servers, std::uint32_t policy) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  config_.ice_servers = std::move(servers);
  config_.ice_policy = policy;
}

void Sharing::SetQuality(const encode::ShareQuality& quality) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  config_.quality = quality;
}

void Sharing::SetAdmissionRequired(bool required) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  admission_required_ = required;
}

void Sharing::SetPublic(bool is_public) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  public_ = is_public;
}

bool Sharing::is_public() const {
  MutexLock lock(mutex_);
  return state_ && state_->is_public;
}

void Sharing::Admit(const std::string& connection_id) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  if (state_ && state_->session) state_->session->Approve(connection_id);
}

void Sharing::Deny(const std::string& connection_id) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  if (state_ && state_->session) state_->session->Deny(connection_id);
}

void Sharing::Disconnect(const std::string& connection_id) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  MutexLock lock(mutex_);
  if (state_ && state_->session) state_->session->Disconnect(connection_id);
}

bool Sharing::active() const {
  MutexLock lock(mutex_);
  return state_ != nullptr;
}

bool Sharing::capture_running() const {
  MutexLock lock(mutex_);
  return state_ && state_->capture && state_->capture->capturing();
}

bool Sharing::audio_open() const {
  MutexLock lock(mutex_);
  return state_ && state_->audio_open;
}

bool Sharing::audio_whole_mix() const {
  MutexLock lock(mutex_);
  return state_ && state_->audio_whole_mix;
}

std::int64_t Sharing::seconds_left() const {
  MutexLock lock(mutex_);
  if (!state_ || state_->expires_at == 0) return 0;
  const std::int64_t left_ns = state_->expires_at - SteadyNowNs();
  return left_ns > 0 ? left_ns / 1'000'000'000 : 0;
}

std::string Sharing::label() const {
  MutexLock lock(mutex_);
  return state_ ? state_->label : std::string();
}

std::string Sharing::token() const {
  MutexLock lock(mutex_);
  return state_ ? state_->token : std::string();
}

std::string Sharing::link() const {
  MutexLock lock(mutex_);
  // Without a meeting place there is no link anyone could open.
  if (!state_ || config_.share_prefix.empty()) return {};
  // A link opens the page of the server it names: a plain ws:// server serves plain http://.
  const bool plain = EqualsIgnoringAsciiCase(std::string_view(config_.signal_url).substr(0, 5), "ws://");
  return fmt::format("{}://{}{}", plain ? "http" : "https", config_.share_prefix, state_->token);
}

std::size_t Sharing::viewer_count() const {
  MutexLock lock(mutex_);
  return state_ && state_->session ? state_->session->ViewerCount() : 0;
}

std::uint32_t Sharing::uplink_kbps() const {
  std::uint32_t sum = 0;
  for (const ViewerInfo& viewer : viewers()) sum += viewer.uplink_kbps;
  return sum;
}

std::vector<ViewerInfo> Sharing::viewers() const {
  MutexLock lock(mutex_);
  return state_ && state_->session ? state_->session->Viewers() : std::vector<ViewerInfo>{};
}

std::vector<PendingViewer> Sharing::pending_viewers() const {
  MutexLock lock(mutex_);
  return state_ && state_->session ? state_->session->PendingViewers() : std::vector<PendingViewer>{};
}

}  // namespace mirell::session
