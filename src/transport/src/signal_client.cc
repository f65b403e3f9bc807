#include "mirell/transport/signal_client.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/protocol/client_messages.h"
#include "mirell/protocol/server_messages.h"
#include "mirell/transport/web_socket.h"
#include "reconnect_delay.h"

namespace mirell::transport {
namespace {

// One connection attempt's state, shared with its socket's callbacks.
struct Attempt {
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;  // The socket ended.
  std::atomic<bool> registered{false};
};

class Client final : public SignalClient {
 public:
  Client(const SignalConfig& config, bool host) : config_(config), host_(host) {}
  ~Client() override { Stop(); }

  void OnReady(std::function<void()> handler) override { Set(on_ready_, std::move(handler)); }
  void OnRefused(std::function<void(const std::string&)> handler) override {
    Set(on_refused_, std::move(handler));
  }
  void OnPeer(std::function<void(const std::string&, const protocol::PeerIdentity&)> handler) override {
    Set(on_peer_, std::move(handler));
  }
  void OnPeerGone(std::function<void(const std::string&)> handler) override {
    Set(on_peer_gone_, std::move(handler));
  }
  void OnAnswer(std::function<void(const std::string&, const std::string&, const std::string&)> handler)
      override {
    Set(on_answer_, std::move(handler));
  }
  void OnProof(std::function<void(const std::string&, const std::string&)> handler) override {
    Set(on_proof_, std::move(handler));
  }
  void OnChallenge(std::function<void(const std::string&)> handler) override {
    Set(on_challenge_, std::move(handler));
  }
  void OnOffer(std::function<void(const std::string&)> handler) override {
    Set(on_offer_, std::move(handler));
  }
  void OnMedia(std::function<void(const protocol::StreamMedia&)> handler) override {
    Set(on_media_, std::move(handler));
  }

  bool SendOffer(const std::string& peer, const std::string& sdp) override {
    return Send([&] { return protocol::MakeOfferMessage(peer, sdp); });
  }
  bool SendDeny(const std::string& peer) override {
    return Send([&] { return protocol::MakeDenyMessage(peer); });
  }
  bool SendChallenge(const std::string& peer, const std::string& challenge) override {
    return Send([&] { return protocol::MakeChallengeMessage(peer, challenge); });
  }
  bool SendAnswer(const std::string& sdp, const std::string& signature) override {
    return Send([&] { return protocol::MakeAnswerMessage(sdp, signature); });
  }
  bool SendProof(const std::string& signature) override {
    return Send([&] { return protocol::MakeProofMessage(signature); });
  }

  void Start() override {
    if (running_.exchange(true)) return;
    thread_ = std::thread([this] {
      NameThisThread("signal-client");
      Run();
    });
  }

  void End(std::chrono::milliseconds limit) override {
    std::shared_ptr<Attempt> attempt;
    {
      std::lock_guard lock(socket_lock_);
      attempt = attempt_;
    }
    if (host_ && connected_.load() && attempt) {
      ending_.store(true);  // The server's close that follows is no reason to reconnect.
      if (Send([&] { return protocol::MakeEndMessage(config_.token); })) {
        std::unique_lock lock(attempt->mutex);
        if (!attempt->changed.wait_for(lock, limit, [&] { return attempt->done; })) {
          LOG_INFO("the server did not close within {} ms of the end", limit.count());
        }
      }
    }
    Stop();
  }

  void Stop() override {
    if (!running_.exchange(false)) return;
    {
      std::lock_guard lock(wait_lock_);
    }
    wake_.notify_all();
    std::shared_ptr<WebSocket> socket;
    std::shared_ptr<Attempt> attempt;
    {
      std::lock_guard lock(socket_lock_);
      socket = socket_;
      attempt = attempt_;
    }
    if (socket) socket->ForceClose();
    // An attempt whose socket never opened has no callback to end its wait.
    if (attempt) {
      {
        std::lock_guard lock(attempt->mutex);
      }
      attempt->changed.notify_all();
    }
    if (thread_.joinable()) thread_.join();
  }

  bool connected() const override { return connected_.load(); }
  std::uint64_t reconnects() const override { return reconnects_.load(); }
  std::uint64_t malformed_messages() const override { return malformed_.load(); }

 private:
  template <typename Handler>
  void Set(Handler& slot, Handler handler) {
    std::lock_guard lock(handlers_lock_);
    slot = std::move(handler);
  }

  // Copied under the lock, called outside it, so that a handler may call Send.
  template <typename Handler, typename... Arguments>
  void Call(const Handler& slot, const Arguments&... arguments) {
    Handler handler;
    {
      std::lock_guard lock(handlers_lock_);
      handler = slot;
    }
    if (handler) handler(arguments...);
  }

  void Run() {
    std::int64_t delay_ms = 0;
    while (running_.load()) {
      if (delay_ms >= 1) {
        std::unique_lock lock(wait_lock_);
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(delay_ms);
        if (wake_.wait_until(lock, until, [this] { return !running_.load(); })) return;
      }
      const bool registered = OpenAndServe();
      if (!running_.load() || refused_.load() || ending_.load()) return;
      delay_ms = NextReconnectDelayMs(delay_ms, registered);
      reconnects_.fetch_add(1);
    }
  }

  bool OpenAndServe() {
    std::shared_ptr<WebSocket> socket = CreateWebSocket();
    socket->SetIdleLimit(config_.idle_limit);
    auto attempt = std::make_shared<Attempt>();
    // The socket's handlers never outlive it (its destructor clears them), so a plain pointer
    // to it does not keep it alive in a cycle.
    WebSocket* raw = socket.get();
    WebSocket::Handlers handlers;
    handlers.on_open = [this, raw] { Register(*raw); };
    handlers.on_message = [this, attempt](const std::string& data, bool binary) {
      if (!binary) Dispatch(data, *attempt);
    };
    const auto end = [attempt] {
      {
        std::lock_guard lock(attempt->mutex);
        attempt->done = true;
      }
      attempt->changed.notify_all();
    };
    handlers.on_closed = end;
    handlers.on_error = [end](const std::string& reason) {
      LOG_DEBUG("socket error: {}", reason);
      end();
    };
    {
      std::lock_guard lock(socket_lock_);
      socket_ = socket;
      attempt_ = attempt;
    }
    try {
      socket->Open(config_.url, std::move(handlers));
    } catch (const std::exception& error) {
      // A URL of the wrong form is a configuration fault: no retry, only Stop ends the wait.
      LOG_WARN("could not open {}: {}", config_.url, error.what());
    }
    {
      std::unique_lock lock(attempt->mutex);
      attempt->changed.wait(lock, [&] { return attempt->done || !running_.load(); });
    }
    connected_.store(false);
    {
      std::lock_guard lock(socket_lock_);
      socket_.reset();
      attempt_.reset();
    }
    socket->ForceClose();
    socket.reset();
    if (running_.load() && !refused_.load() && !ending_.load()) LOG_INFO("socket closed, reconnecting");
    return attempt->registered.load();
  }

  void Register(WebSocket& socket) {
    try {
      socket.Send(host_ ? protocol::MakeHostMessage({config_.token, config_.secret, config_.media, config_.is_public})
                        : protocol::MakeJoinMessage({config_.token, config_.identity, config_.display_name,
                                                     config_.key, config_.relay_secret}));
    } catch (const std::exception& error) {
      LOG_WARN("register failed: {}", error.what());
    }
  }

  void Dispatch(const std::string& text, Attempt& attempt) {
    const protocol::ServerMessage message = protocol::ParseServerMessage(text);
    using Kind = protocol::ServerMessage::Kind;
    switch (message.kind) {
      case Kind::kMalformed:
        malformed_.fetch_add(1);
        LOG_WARN("malformed server message (type \"{}\")", message.type.substr(0, 32));
        return;
      case Kind::kHosting:
      case Kind::kJoined:
        attempt.registered.store(true);
        // Once per socket: a person reading the log sees that the share is reachable again.
        LOG_INFO("{} token={}", host_ ? "hosting" : "joined", config_.token);
        if (message.media) Call(on_media_, *message.media);
        connected_.store(true);
        Call(on_ready_);
        return;
      case Kind::kPeer:
        Call(on_peer_, message.peer, message.identity);
        return;
      case Kind::kPeerGone:
        Call(on_peer_gone_, message.peer);
        return;
      case Kind::kOffer:
        Call(on_offer_, message.sdp);
        return;
      case Kind::kAnswer:
        Call(on_answer_, message.peer, message.sdp, message.signature);
        return;
      case Kind::kChallenge:
        Call(on_challenge_, message.challenge);
        return;
      case Kind::kProof:
        Call(on_proof_, message.peer, message.signature);
        return;
      case Kind::kError:
        refused_.store(true);
        LOG_WARN("refused: {}", message.reason);
        Call(on_refused_, message.reason);
        return;
      case Kind::kOther:
        LOG_DEBUG("ignoring a {} message", message.type);
        return;
    }
  }

  template <typename Build>
  bool Send(Build build) {
    std::shared_ptr<WebSocket> socket;
    {
      std::lock_guard lock(socket_lock_);
      socket = socket_;
    }
    if (!socket || !socket->IsOpen()) return false;
    try {
      return socket->Send(build());
    } catch (const std::exception& error) {
      LOG_DEBUG("send failed: {}", error.what());
      return false;
    }
  }

  const SignalConfig config_;
  const bool host_;
  std::mutex handlers_lock_;
  std::function<void()> on_ready_;
  std::function<void(const std::string&)> on_refused_;
  std::function<void(const std::string&, const protocol::PeerIdentity&)> on_peer_;
  std::function<void(const std::string&)> on_peer_gone_;
  std::function<void(const std::string&, const std::string&, const std::string&)> on_answer_;
  std::function<void(const std::string&, const std::string&)> on_proof_;
  std::function<void(const std::string&)> on_challenge_;
  std::function<void(const std::string&)> on_offer_;
  std::function<void(const protocol::StreamMedia&)> on_media_;
  std::mutex socket_lock_;  // Guards socket_ and attempt_.
  std::shared_ptr<WebSocket> socket_;
  std::shared_ptr<Attempt> attempt_;
  std::mutex wait_lock_;
  std::condition_variable wake_;
  std::atomic<bool> running_{false};
  std::atomic<bool> connected_{false};
  std::atomic<std::uint64_t> reconnects_{0};
  std::atomic<std::uint64_t> malformed_{0};
  std::atomic<bool> refused_{false};  // Written on the socket's thread, never reset.
  std::atomic<bool> ending_{false};   // End was called; never reset.
  std::thread thread_;
};

}  // namespace

std::unique_ptr<SignalClient> CreateHostSignalClient(const SignalConfig& config) {
  MIRELL_CHECK(!config.token.empty(), "a host needs a token");
  MIRELL_CHECK(!config.secret.empty(), "a host needs a secret");
  return std::make_unique<Client>(config, true);
}

std::unique_ptr<SignalClient> CreateViewerSignalClient(const SignalConfig& config) {
  MIRELL_CHECK(!config.token.empty(), "a viewer needs a token");
  return std::make_unique<Client>(config, false);
}

}  // namespace mirell::transport
