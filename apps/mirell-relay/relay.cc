#include "relay.h"

#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/protocol/share_token.h"
#include "mirell/rtsp/stream_path.h"

namespace mirell::relay {
namespace {

using namespace std::chrono_literals;

// How long a player's first request waits for the server's word on a token; a public share whose
// host is away says nothing, and its players get the card meanwhile.
constexpr auto kJoinAnswerWait = 3s;
constexpr auto kPollInterval = 250ms;
session::Viewing::Config ViewingConfig(const RelayOptions& options) {
  session::Viewing::Config config;
  config.signal_url = options.signal_url;
  config.share_identity = false;
  config.relay_secret = options.relay_secret;
  config.max_watches = options.max_shares;
  config.idle_grace_s = options.grace_seconds;
  config.card_title = "Waiting for the host's picture";
  return config;
}

JoinGateLimits GateLimits(const RelayOptions& options) {
  JoinGateLimits limits;
  limits.joins_per_second = options.joins_per_second;
  limits.join_burst = 2 * options.joins_per_second;
  return limits;
}

}  // namespace

Relay::Relay(const RelayOptions& options)
    : options_(options),
      viewing_(registry_, ViewingConfig(options)),
      gate_(GateLimits(options)),
      rtsp_([this](const std::string& path, std::uint32_t peer) { return Lookup(path, peer); }) {
  rtsp_.SetMaxClients(options.max_players);
  rtsp_.SetMaxClientsPerAddress(options.max_players_per_address);
}

Relay::~Relay() { Stop(); }

void Relay::Start() {
  rtsp_.Start(options_.listen_address, options_.listen_port);
  poll_thread_ = std::thread([this] {
    NameThisThread("relay-poll");
    PollLoop();
  });
  LOG_INFO("relaying public shares of {}; players reach it at {}", options_.signal_url,
           options_.public_url.empty() ? "(no --public-url given)" : options_.public_url);
}

void Relay::Stop() {
  {
    std::lock_guard lock(poll_mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  poll_wake_.notify_all();
  if (poll_thread_.joinable()) poll_thread_.join();
  rtsp_.Stop();
  viewing_.Stop();
}

std::shared_ptr<streams::MediaStream> Relay::Lookup(const std::string& path, std::uint32_t peer) {
  const std::string token = rtsp::TokenFromPath(path);
  if (!protocol::IsShareToken(token)) return nullptr;
  using JoinState = session::Viewing::JoinState;
  const auto watched = [&] { return viewing_.WaitJoinState(token, std::chrono::milliseconds(0)) != JoinState::kNoWatch; };
  if (!watched()) {
    // New joins one at a time: the players of one share come together, and only the first may
    // make its watch (and spend the join allowance); the rest find it. Players of shares already
    // watched never wait here.
    std::lock_guard lock(join_mutex_);
    if (!watched()) {
      if (!gate_.MayJoin(token, peer, JoinGate::Clock::now())) {
        LOG_DEBUG("token={} not asked about (refused lately, or too many joins in all or from its player's address)", token);
        return nullptr;
      }
      if (viewing_.Ensure(token) != session::Viewing::EnsureResult::kReady) return nullptr;
    }
  }
  // A player that comes while the server has not yet answered waits for that answer too: no
  // card is shown for a token the server is about to refuse.
  const JoinState state = viewing_.WaitJoinState(token, kJoinAnswerWait);
  if (state == JoinState::kRefused) {
    std::lock_guard lock(join_mutex_);
    gate_.Refused(token, JoinGate::Clock::now());
    return nullptr;
  }
  if (state == JoinState::kNoWatch) return nullptr;
  return registry_.Find(token);
}

void Relay::PollLoop() {
  std::unique_lock lock(poll_mutex_);
  while (!stopping_) {
    poll_wake_.wait_for(lock, kPollInterval, [this] { return stopping_; });
    if (stopping_) break;
    lock.unlock();
    viewing_.Poll();
    lock.lock();
  }
}

}  // namespace mirell::relay
