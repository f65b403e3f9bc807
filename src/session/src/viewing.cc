#include "mirell/session/viewing.h"

#include <atomic>
#include <condition_variable>
#include <utility>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/base/min_interval.h"
#include "mirell/media/aac_rtp.h"
#include "mirell/session/peer_receiver.h"
#include "mirell/transport/peer_link.h"
#include "mirell/transport/viewer_proof.h"

namespace mirell::session {
namespace {

constexpr int kCardWaitMs = 120;
constexpr std::uint32_t kDefaultRate = 48000;
constexpr std::uint32_t kDefaultChannels = 2;
constexpr std::uint32_t kDefaultAudioKbps = 128;
// The priming frame count is worked out for 60 frames per second, whatever the stream's rate.
constexpr std::int64_t kPrimingFps = 60;
constexpr std::int64_t kKeyframeRequestGapNs = 1'000'000'000;

HoldingClipConfig CardConfig(std::uint32_t fps, const std::string& title) {
  HoldingClipConfig config;
  config.width = 1280;
  config.height = 720;
  config.fps = fps;
  config.bitrate_kbps = 1000;
  config.title = title;
  config.sample_rate = kDefaultRate;
  config.channels = kDefaultChannels;
  config.audio_bitrate_kbps = 128;
  config.seconds = 4;
  return config;
}

}  // namespace

// All the state of one token. Members are destroyed in reverse: the holding source, the signal
// client, the receiver, the link, the stream.
struct Viewing::Watch {
  std::string token;
  std::shared_ptr<streams::MediaStream> stream;
  // Shared so that the stream's keyframe requester, which an RTSP reader may call after the watch
  // has gone, holds it only weakly.
  std::shared_ptr<transport::PeerLink> link;
  std::unique_ptr<PeerReceiver> receiver;
  std::unique_ptr<transport::SignalClient> signal;
  // The card and the host's first picture meet here: the card may start late (it was still
  // being built when the watch was made) on the card's builder thread, and must never start
  // once the host's picture has taken the timeline over on a link thread.
  std::mutex card_mutex;
  std::unique_ptr<HoldingSource> holding;  // Under card_mutex.
  bool host_picture = false;               // Under card_mutex.
  std::atomic<bool> done{false};
  IdleState idle;
  // The host's latest challenge (signal thread), which the answer is signed under (link thread).
  std::mutex proof_mutex;
  std::string challenge;  // Under proof_mutex.
  // The server's word on the join (signal thread), which WaitJoinState waits for; shared, so that
  // a waiter outlives a watch that Poll removes meanwhile.
  struct Joining {
    std::mutex mutex;
    std::condition_variable changed;
    JoinState state = JoinState::kWaiting;  // Under mutex.
    void Set(JoinState to) {
      std::lock_guard lock(mutex);
      if (state != JoinState::kRefused) state = to;
      changed.notify_all();
    }
  };
  std::shared_ptr<Joining> joining = std::make_shared<Joining>();
};

Viewing::Viewing(streams::StreamRegistry& registry, Config config)
    : registry_(registry),
      signal_url_(std::move(config.signal_url)),
      share_identity_(config.share_identity),
      ice_servers_(std::move(config.ice_servers)),
      ice_policy_(config.ice_policy),
      holding_card_(config.holding_card),
      prime_ms_(config.prime_ms),
      fps_(config.fps),
      video_kbps_(config.video_kbps),
      audio_kbps_(config.audio_kbps),
      idle_grace_s_(config.idle_grace_s),
      max_watches_(config.max_watches),
      relay_secret_(std::move(config.relay_secret)) {
  if (holding_card_) {
    clip_ = std::make_unique<HoldingClip>(CardConfig(fps_, config.card_title), [this] { StartWaitingCards(); });
  }
}

Viewing::~Viewing() {
  // First: its builder may still run the ready callback, which takes the watch list's lock.
  clip_.reset();
  Stop();
}

void Viewing::StartCard(Watch& watch, const HoldingClip& clip) {
  std::lock_guard lock(watch.card_mutex);
  if (watch.holding || watch.host_picture) return;
  const std::vector<std::uint8_t> header = clip.SequenceHeader();
  if (header.empty()) return;  // The card could not be made; the watch waits without it.
  watch.stream->SetSequenceHeader(header);
  watch.holding = std::make_unique<HoldingSource>(watch.stream->frames(), watch.stream->audio(), clip);
  watch.holding->Start();
}

void Viewing::StartWaitingCards() {
  MutexLock lock(mutex_);
  for (const auto& watch : watches_) {
    if (!watch->done.load()) StartCard(*watch, *clip_);
  }
}

void Viewing::ApplyMedia(streams::MediaStream& stream, const protocol::StreamMedia& media) {
  streams::AudioConfig audio;
  audio.sample_rate = media.sample_rate != 0 ? media.sample_rate : kDefaultRate;
  audio.channels = media.channels != 0 ? media.channels : kDefaultChannels;
  audio.bitrate_kbps = media.audio_kbps != 0 ? media.audio_kbps : kDefaultAudioKbps;
  if (!media.audio_config.empty()) audio.audio_specific_config = media::HexDecode(media.audio_config);
  if (audio.audio_specific_config.empty()) {
    audio.audio_specific_config =
        media::MakeAacLcAudioSpecificConfig(audio.sample_rate, audio.channels);
  }
  const std::uint32_t rate = audio.sample_rate;
  stream.SetAudio(std::move(audio));
  // 3.5 seconds of 1024-sample units, in whole numbers and in this order.
  stream.audio().SetHistory((static_cast<std::uint64_t>(rate) * 3500 / 1024) / 1000);
}

bool Viewing::IdleDrop(IdleState& state, std::size_t players, std::int64_t now,
                       std::int64_t grace_s) {
  if (players != 0) {
    state.had_players = true;
    state.idle_since = 0;
    return false;
  }
  if (state.idle_since == 0) {
    state.idle_since = now;
    return false;
  }
  // A player may take long to come after the resolve (VRChat's opens it when the video starts):
  // a watch that never had one gets longer.
  const std::int64_t limit_s = state.had_players ? grace_s : std::max(grace_s, kNeverPlayedGraceS);
  return now - state.idle_since >= limit_s * 1'000'000'000;
}

Viewing::EnsureResult Viewing::Ensure(const std::string& token) {
  return Ensure(token, signal_url_);
}

Viewing::EnsureResult Viewing::Ensure(const std::string& token, const std::string& signal_url) {
  if (token.empty()) return EnsureResult::kFailed;
  // One at a time: two callers for one token (a relay's players come together) must not both
  // find no watch and each make one.
  MutexLock making(ensure_mutex_);
  // The host's own stream when this program shares the token: no peer connection is made.
  if (registry_.Find(token)) return EnsureResult::kReady;

  transport::PeerConfig peer_config;
  transport::SignalConfig signal_config;
  std::shared_ptr<const transport::IdentityKey> key;
  {
    MutexLock lock(mutex_);
    std::size_t live = 0;
    for (const auto& watch : watches_) {
      if (watch->token == token) return EnsureResult::kReady;
      live += watch->done.load() ? 0u : 1u;
    }
    if (live >= max_watches_) {
      LOG_WARN("token={} not watched: {} links are watched already", token, live);
      return EnsureResult::kTooMany;
    }
    peer_config.ice_servers = ice_servers_;
    peer_config.ice_policy = ice_policy_;
    signal_config.url = signal_url;
    signal_config.token = token;
    signal_config.relay_secret = relay_secret_;
    // A relay is nobody's computer: it names no one.
    if (share_identity_ && relay_secret_.empty()) {
      signal_config.identity = identity_;
      signal_config.display_name = display_name_;
      // Only beside an id: a key alone would let hosts follow this computer from share to share
      // while it says nothing of who is watching.
      if (!identity_.empty() && key_) {
        key = key_;
        signal_config.key = key->PublicText();
      }
    }
  }

  auto watch = std::make_unique<Watch>();
  watch->token = token;
  watch->stream = std::make_shared<streams::MediaStream>(fmt::format("watching {}", token),
                                                        static_cast<int>(fps_), video_kbps_);
  streams::MediaStream& stream = *watch->stream;
  stream.SetPriming(static_cast<std::uint64_t>(prime_ms_ * kPrimingFps / 1000),
                    static_cast<std::uint64_t>(prime_ms_));
  protocol::StreamMedia defaults;
  defaults.fps = 60;
  defaults.video_kbps = video_kbps_;
  defaults.sample_rate = kDefaultRate;
  defaults.channels = kDefaultChannels;
  defaults.audio_kbps = audio_kbps_;
  ApplyMedia(stream, defaults);
  if (!signal_url.empty()) stream.ExpectDescription();

  try {
    watch->link = transport::CreateAnswerer(peer_config);
  } catch (const std::exception& error) {
    LOG_WARN("token={} CreateAnswerer failed: {}", token, error.what());
    return EnsureResult::kFailed;
  }
  transport::PeerLink* const link = watch->link.get();
  watch->receiver =
      std::make_unique<PeerReceiver>(link, &stream.frames(), &stream.audio(), kDefaultRate);
  Watch* const raw = watch.get();
  watch->receiver->SetSequenceHeaderHandler(
      [raw](PeerReceiver::ByteSpan bytes) { raw->stream->SetSequenceHeader(bytes); });
  watch->receiver->SetFirstVideoHandler([raw]() -> std::int64_t {
    std::lock_guard lock(raw->card_mutex);
    raw->host_picture = true;
    if (!raw->holding) return 0;
    raw->holding->Stop();
    const std::uint64_t played = raw->holding->frames_played();
    if (played == 0) return 0;
    LOG_INFO("stream up, card frames={}", played);
    return raw->holding->last_timestamp() + raw->holding->frame_duration();
  });
  watch->receiver->Start();

  // A card still being built starts in this watch once it is ready (StartWaitingCards); the
  // players that come meanwhile wait for its first picture.
  if (clip_ && clip_->WaitReady(kCardWaitMs)) StartCard(*watch, *clip_);

  // Every new player asks for a keyframe; on a relay anyone can be a new player, so the host's
  // encoder is asked at most once a second whatever they do.
  stream.SetKeyframeRequester([weak = std::weak_ptr<transport::PeerLink>(watch->link),
                               gate = std::make_shared<MinInterval>(kKeyframeRequestGapNs)] {
    if (!gate->Take(SteadyNowNs())) return;
    if (const auto alive = weak.lock()) alive->RequestKeyframe();
  });
  link->OnState([raw, token](transport::PeerState state) {
    switch (state) {
      case transport::PeerState::kConnected:
        LOG_INFO("token={} connected", token);
        break;
      case transport::PeerState::kFailed:
      case transport::PeerState::kClosed:
        raw->done = true;
        break;
      case transport::PeerState::kConnecting:
        break;
    }
  });

  if (signal_url.empty()) {
    LOG_WARN("token={} no signal url", token);
    registry_.Publish(token, watch->stream);
    MutexLock lock(mutex_);
    watches_.push_back(std::move(watch));
    // The card may have become ready after the wait above and before the watch was listed.
    if (clip_ && clip_->WaitReady(0)) StartCard(*raw, *clip_);
    return EnsureResult::kReady;
  }

  watch->signal = transport::CreateViewerSignalClient(signal_config);
  transport::SignalClient* const signal = watch->signal.get();
  signal->OnMedia([raw, token](const protocol::StreamMedia& media) {
    streams::MediaStream& target = *raw->stream;
    ApplyMedia(target, media);
    target.SetVideoParameters(static_cast<int>(media.fps), media.video_kbps);
    if (media.sample_rate != 0) raw->receiver->SetAudioClock(media.sample_rate);
    target.MarkDescribed();
    LOG_INFO("token={} media={}x{}@{} audio={}/{}", token, media.width, media.height, media.fps,
             media.sample_rate, media.channels);
  });
  signal->OnOffer([raw, token](const std::string& sdp) {
    try {
      raw->link->SetRemoteDescription(sdp);
      const std::uint32_t rate = raw->link->audio_sample_rate();
      const std::uint32_t channels = raw->link->audio_channels();
      if (channels != 0) {
        // The offer names the audio RTP clock; what the player was told stays as it is.
        raw->receiver->SetAudioClock(rate);
        const std::optional<streams::AudioConfig> advertised = raw->stream->Audio();
        if (advertised &&
            (advertised->sample_rate != rate || advertised->channels != channels)) {
          LOG_WARN("token={} offer audio={}/{} advertised={}/{} mismatch", token, rate, channels,
                   advertised->sample_rate, advertised->channels);
        }
      }
    } catch (const std::exception& error) {
      LOG_WARN("{} sent an offer we could not apply: {}", token, error.what());
      raw->done = true;
    }
  });
  signal->OnChallenge([raw, signal, key, token](const std::string& challenge) {
    if (!key) return;  // Named no key: nothing to prove.
    {
      std::lock_guard lock(raw->proof_mutex);
      raw->challenge = challenge;
    }
    if (!signal->SendProof(key->Sign(transport::IdentityStatement(token, challenge)))) {
      LOG_WARN("token={} SendProof failed", token);
    }
  });
  link->OnLocalDescription([raw, signal, key, token](const std::string& sdp) {
    std::string signature;
    if (key) {
      std::string challenge;
      {
        std::lock_guard lock(raw->proof_mutex);
        challenge = raw->challenge;
      }
      // The host checks that the link it opens ends at this certificate.
      const std::string fingerprint = transport::DtlsFingerprintOf(sdp);
      if (!challenge.empty() && !fingerprint.empty()) {
        signature = key->Sign(transport::AnswerStatement(token, challenge, fingerprint));
      }
    }
    if (!signal->SendAnswer(sdp, signature)) LOG_WARN("token={} SendAnswer failed", token);
  });
  signal->OnReady([raw] { raw->joining->Set(JoinState::kJoined); });
  signal->OnRefused([raw, token, &registry = registry_](const std::string& reason) {
    LOG_WARN("token={} refused: {}", token, reason);
    raw->stream->MarkDescribed();  // No DESCRIBE stays waiting.
    raw->done = true;
    // The share's end, told by the server: its players end now (a BYE on each track), not at the
    // next Poll.
    registry.Withdraw(token, raw->stream.get());
    raw->joining->Set(JoinState::kRefused);
  });
  // Published before the client starts: a refusal that comes at once must find the stream to
  // withdraw, not be followed by its publication.
  registry_.Publish(token, watch->stream);
  signal->Start();
  {
    MutexLock lock(mutex_);
    watches_.push_back(std::move(watch));
    if (clip_ && clip_->WaitReady(0)) StartCard(*raw, *clip_);
  }
  LOG_INFO("token={} fetching", token);
  return EnsureResult::kReady;
}

void Viewing::End(streams::StreamRegistry& registry, Watch& watch) {
  registry.Withdraw(watch.token, watch.stream.get());
  if (watch.signal) watch.signal->Stop();
  if (watch.link) watch.link->Close();
}

void Viewing::Poll() {
  std::vector<std::unique_ptr<Watch>> finished;
  {
    MutexLock lock(mutex_);
    const std::int64_t now = SteadyNowNs();
    for (const auto& watch : watches_) {
      if (watch->done.load()) continue;
      const std::size_t players = watch->stream->frames().SubscriberCount();
      if (IdleDrop(watch->idle, players, now, idle_grace_s_)) {
        LOG_INFO("token={} no players, dropping", watch->token);
        watch->done = true;
      }
    }
    for (auto it = watches_.begin(); it != watches_.end();) {
      if ((*it)->done.load()) {
        // Withdrawn while still listed: a caller that finds no watch finds no stream either.
        registry_.Withdraw((*it)->token, (*it)->stream.get());
        finished.push_back(std::move(*it));
        it = watches_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const auto& watch : finished) {
    LOG_INFO("token={} stopped", watch->token);
    End(registry_, *watch);
  }
}

void Viewing::Stop() {
  std::vector<std::unique_ptr<Watch>> all;
  {
    MutexLock lock(mutex_);
    all.swap(watches_);
  }
  for (const auto& watch : all) End(registry_, *watch);
}

void Viewing::Drop(const std::string& token) {
  MutexLock lock(mutex_);
  for (const auto& watch : watches_) {
    if (watch->token == token) watch->done = true;
  }
}

void Viewing::SetIdentity(protocol::PeerIdentity identity) {
  MutexLock lock(mutex_);
  identity_ = std::move(identity.identity);
  display_name_ = std::move(identity.display_name);
}

void Viewing::SetIdentityKey(std::shared_ptr<const transport::IdentityKey> key) {
  MutexLock lock(mutex_);
  key_ = std::move(key);
}

void Viewing::SetShareIdentity(bool share) {
  MutexLock lock(mutex_);
  share_identity_ = share;
}

void Viewing::SetIceServers(std::vector<transport::IceServer> servers, std::uint32_t policy) {
  MutexLock lock(mutex_);
  ice_servers_ = std::move(servers);
  ice_policy_ = policy;
}

Viewing::JoinState Viewing::WaitJoinState(const std::string& token,
                                          std::chrono::milliseconds limit) const {
  std::shared_ptr<Watch::Joining> joining;
  {
    MutexLock lock(mutex_);
    for (const auto& watch : watches_) {
      if (watch->token == token && watch->signal) joining = watch->joining;
    }
  }
  if (!joining) return JoinState::kNoWatch;
  std::unique_lock lock(joining->mutex);
  joining->changed.wait_for(lock, limit, [&] { return joining->state != JoinState::kWaiting; });
  return joining->state;
}

std::size_t Viewing::WatchCount() const {
  MutexLock lock(mutex_);
  return watches_.size();
}

bool Viewing::WaitCardReady(int ms) const { return clip_ && clip_->WaitReady(ms); }

}  // namespace mirell::session
