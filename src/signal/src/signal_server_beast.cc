// The signal server on Boost.Beast: an acceptor, one HTTP exchange per plain request, and one
// session per WebSocket, all on one io_context thread, plain TCP or TLS by configuration.
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket.hpp>

#include <atomic>
#include <deque>
#include <future>
#include <thread>
#include <unordered_map>
#include <utility>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/base/version.h"
#include "mirell/protocol/signal_endpoint.h"
#include "mirell/signal/signal_server.h"

#include "mirell/signal/relay_choice.h"

namespace mirell::signal {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;

constexpr auto kSweepInterval = std::chrono::milliseconds(250);
constexpr std::size_t kMaxRequestHeadBytes = 8192;

}  // namespace

// What every session shares: the hub, the router, the configuration and the counters. Touched only
// on the I/O thread, except the atomics.
struct ServerCore {
  explicit ServerCore(const ServerConfig& configuration)
      : config(configuration), hub(router, configuration.hub, configuration.relay_secret) {}
  const ServerConfig config;
  InProcessRouter router;
  SignalHub hub;
  ConnectionId next_id = 1;
  std::atomic<std::size_t> connections{0};
  // Open connections by remote address (loopback is not counted: a reverse proxy on this machine
  // brings everybody's); the I/O thread only.
  std::unordered_map<std::string, std::size_t> by_address;
};

// One open connection's place in the counts, given back when the last holder lets it go: an
// HTTP request's session, then the WebSocket session it becomes.
class ConnectionSlot {
 public:
  ConnectionSlot(ServerCore& core, std::string address) : core_(&core), address_(std::move(address)) {
    core_->connections.fetch_add(1);
    if (!address_.empty()) ++core_->by_address[address_];
  }
  ConnectionSlot(ConnectionSlot&& other) noexcept
      : core_(std::exchange(other.core_, nullptr)), address_(std::move(other.address_)) {}
  ConnectionSlot& operator=(ConnectionSlot&&) = delete;
  ConnectionSlot(const ConnectionSlot&) = delete;
  ConnectionSlot& operator=(const ConnectionSlot&) = delete;
  ~ConnectionSlot() {
    if (core_ == nullptr) return;
    core_->connections.fetch_sub(1);
    if (address_.empty()) return;
    const auto found = core_->by_address.find(address_);
    if (found != core_->by_address.end() && --found->second == 0) core_->by_address.erase(found);
  }

 private:
  ServerCore* core_;
  std::string address_;
};

namespace {

// One WebSocket connection, registered with the router under its id.
template <typename Stream>
class WebSocketSession final : public RoutedConnection,
                               public std::enable_shared_from_this<WebSocketSession<Stream>> {
 public:
  WebSocketSession(Stream&& stream, ServerCore& core, ConnectionSlot slot)
      : ws_(std::move(stream)), core_(core), slot_(std::move(slot)), id_(core.next_id++) {}

  void Accept(http::request<http::string_body> request) {
    websocket::stream_base::timeout timeout{};
    timeout.handshake_timeout = core_.config.request_limit;
    timeout.idle_timeout = core_.config.idle;
    timeout.keep_alive_pings = true;
    ws_.set_option(timeout);
    ws_.read_message_max(core_.config.max_message_bytes);
    ws_.set_option(websocket::stream_base::decorator([](websocket::response_type& response) {
      response.set(http::field::server, fmt::format("mirell-signal/{}", kVersion));
    }));
    ws_.async_accept(request, [self = this->shared_from_this()](beast::error_code error) {
      if (error) return;
      self->Opened();
    });
  }

  void QueueText(std::string text) override {
    if (ended_) return;
    queued_bytes_ += text.size();
    outbox_.push_back(std::move(text));
    if (queued_bytes_ > core_.config.max_queued_bytes) {
      LOG_INFO("connection {} reads too slowly; ended", id_);
      return End();
    }
    if (!writing_) WriteNext();
  }

  void CloseAfterQueue() override {
    closing_ = true;
    if (!writing_) CloseNow();
  }

 private:
  void Opened() {
    attached_ = true;
    core_.router.Attach(id_, this->weak_from_this());
    core_.hub.Opened(id_, Clock::now());
    Read();
  }

  void Read() {
    ws_.async_read(buffer_, [self = this->shared_from_this()](beast::error_code error, std::size_t) {
      if (error) return self->Ended();
      if (!self->closing_) {
        if (self->ws_.got_text()) {
          self->core_.hub.Received(self->id_, beast::buffers_to_string(self->buffer_.data()),
                                   Clock::now());
        } else {
          self->core_.hub.ReceivedBinary(self->id_);
        }
      }
      self->buffer_.consume(self->buffer_.size());
      self->Read();
    });
  }

  void WriteNext() {
    if (outbox_.empty()) {
      writing_ = false;
      if (closing_) CloseNow();
      return;
    }
    writing_ = true;
    ws_.text(true);
    ws_.async_write(net::buffer(outbox_.front()),
                    [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                      // The connection ended while this frame was being written: Ended emptied
                      // the queue this frame was the front of.
                      if (self->ended_) return;
                      self->queued_bytes_ -= self->outbox_.front().size();
                      self->outbox_.pop_front();
                      if (error) return self->End();
                      self->WriteNext();
                    });
  }

  void CloseNow() {
    if (close_sent_ || ended_) return;
    close_sent_ = true;
    ws_.async_close(websocket::close_code::normal,
                    [self = this->shared_from_this()](beast::error_code) { self->End(); });
  }

  // Ends the TCP connection at once; the pending read then ends the session.
  void End() {
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().shutdown(tcp::socket::shutdown_both, ignored);
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

  void Ended() {
    if (ended_) return;
    ended_ = true;
    outbox_.clear();
    queued_bytes_ = 0;
    if (attached_) {
      core_.router.Detach(id_);
      core_.hub.Closed(id_);
    }
    End();
  }

  websocket::stream<Stream> ws_;
  ServerCore& core_;
  ConnectionSlot slot_;
  const ConnectionId id_;
  beast::flat_buffer buffer_;
  std::deque<std::string> outbox_;
  std::size_t queued_bytes_ = 0;
  bool writing_ = false;
  bool closing_ = false;
  bool close_sent_ = false;
  bool attached_ = false;
  bool ended_ = false;
};

// One plain request, or the upgrade that becomes a WebSocketSession.
template <typename Stream>
class HttpSession final : public std::enable_shared_from_this<HttpSession<Stream>> {
 public:
  HttpSession(Stream&& stream, ServerCore& core, ConnectionSlot slot)
      : stream_(std::move(stream)), core_(core), slot_(std::move(slot)) {}

  void Run() {
    parser_.emplace();
    parser_->header_limit(kMaxRequestHeadBytes);
    parser_->body_limit(kMaxRequestHeadBytes);
    beast::get_lowest_layer(stream_).expires_after(core_.config.request_limit);
    http::async_read(stream_, buffer_, *parser_,
                     [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                       if (error) return self->Close();
                       self->Handle(self->parser_->release());
                     });
  }

 private:
  void Handle(http::request<http::string_body> request) {
    const std::string_view target(request.target().data(), request.target().size());
    if (websocket::is_upgrade(request) &&
        target.substr(0, target.find('?')) == protocol::kSignalPath) {
      beast::get_lowest_layer(stream_).expires_never();
      std::make_shared<WebSocketSession<Stream>>(std::move(stream_), core_, std::move(*slot_))
          ->Accept(std::move(request));
      slot_.reset();
      return;
    }
    const std::string_view method(request.method_string().data(), request.method_string().size());
    const HttpAnswer answer =
        AnswerHttp(method, target, core_.config.latest, [this](std::string_view token) {
          if (core_.config.relay_urls.empty() || !core_.hub.IsPublic(token)) return std::string();
          return RelayStreamUrl(token, core_.config.relay_urls);
        });
    response_.emplace();
    response_->version(request.version());
    response_->result(answer.status);
    response_->set(http::field::server, fmt::format("mirell-signal/{}", kVersion));
    response_->set(http::field::content_type, answer.content_type);
    response_->set(http::field::cache_control, "no-store");
    response_->set("X-Content-Type-Options", "nosniff");
    if (method != "HEAD") response_->body() = answer.body;
    response_->prepare_payload();
    if (method == "HEAD") response_->content_length(answer.body.size());
    response_->keep_alive(false);
    http::async_write(stream_, *response_,
                      [self = this->shared_from_this()](beast::error_code, std::size_t) { self->Close(); });
  }

  void Close() {
    beast::error_code ignored;
    beast::get_lowest_layer(stream_).socket().shutdown(tcp::socket::shutdown_both, ignored);
    beast::get_lowest_layer(stream_).socket().close(ignored);
    slot_.reset();  // A request that became a WebSocket has handed its place on.
  }

  Stream stream_;
  ServerCore& core_;
  std::optional<ConnectionSlot> slot_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::optional<http::response<http::string_body>> response_;
};

}  // namespace

struct SignalServer::Impl {
  explicit Impl(ServerConfig configuration) : core(std::move(configuration)) {}

  void Accept() {
    acceptor.async_accept([this](beast::error_code error, tcp::socket socket) {
      if (error) {
        if (error == net::error::operation_aborted) return;
        LOG_DEBUG("accept failed: {}", error.message());
        return Accept();
      }
      if (core.connections.load() >= core.config.max_connections) {
        beast::error_code ignored;
        socket.close(ignored);
        LOG_DEBUG("refused a connection: {} are open", core.connections.load());
        return Accept();
      }
      // One client may not take every place: connections are counted by address too.
      beast::error_code peer_error;
      const tcp::endpoint peer = socket.remote_endpoint(peer_error);
      std::string address;
      if (!peer_error && !peer.address().is_loopback()) address = peer.address().to_string();
      if (!address.empty()) {
        const auto found = core.by_address.find(address);
        if (found != core.by_address.end() && found->second >= core.config.max_connections_per_address) {
          beast::error_code ignored;
          socket.close(ignored);
          LOG_DEBUG("refused a connection from {}: {} are open from there", address, found->second);
          return Accept();
        }
      }
      ConnectionSlot slot(core, std::move(address));
      if (tls) {
        Secure(std::move(socket), std::move(slot));
      } else {
        std::make_shared<HttpSession<beast::tcp_stream>>(beast::tcp_stream(std::move(socket)), core,
                                                         std::move(slot))
            ->Run();
      }
      Accept();
    });
  }

  void Secure(tcp::socket socket, ConnectionSlot slot) {
    auto stream = std::make_shared<net::ssl::stream<beast::tcp_stream>>(std::move(socket), *tls);
    auto held = std::make_shared<ConnectionSlot>(std::move(slot));
    beast::get_lowest_layer(*stream).expires_after(core.config.request_limit);
    stream->async_handshake(net::ssl::stream_base::server, [this, stream, held](beast::error_code error) {
      if (error) {
        LOG_DEBUG("TLS handshake failed: {}", error.message());
        beast::error_code ignored;
        beast::get_lowest_layer(*stream).socket().close(ignored);
        return;  // The place goes with the last copy of `held`.
      }
      std::make_shared<HttpSession<net::ssl::stream<beast::tcp_stream>>>(std::move(*stream), core,
                                                                         std::move(*held))
          ->Run();
    });
  }

  void Sweep() {
    sweeper.expires_after(kSweepInterval);
    sweeper.async_wait([this](beast::error_code error) {
      if (error) return;
      core.hub.Sweep(Clock::now());
      Sweep();
    });
  }

  template <typename Result, typename Work>
  Result OnServerThread(Work work) const {
    if (!thread.joinable()) return work();
    std::promise<Result> promise;
    auto future = promise.get_future();
    net::post(io, [&] { promise.set_value(work()); });
    return future.get();
  }

  ServerCore core;
  mutable net::io_context io;
  tcp::acceptor acceptor{io};
  net::steady_timer sweeper{io};
  std::optional<net::ssl::context> tls;
  std::thread thread;
  tcp::endpoint bound;
};

SignalServer::SignalServer(ServerConfig config) : impl_(std::make_unique<Impl>(std::move(config))) {}

SignalServer::~SignalServer() { Stop(); }

void SignalServer::Start() {
  MIRELL_CHECK(!impl_->thread.joinable(), "the signal server is started once");
  const std::string& listen = impl_->core.config.listen;
  const auto colon = listen.rfind(':');
  MIRELL_CHECK(colon != std::string::npos, "--listen wants ADDRESS:PORT, not '{}'", listen);
  std::string host = listen.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  beast::error_code error;
  const auto ip = net::ip::make_address(host, error);
  MIRELL_CHECK(!error, "'{}' is not an IP address to listen on", host);
  unsigned long port = 0;
  try {
    std::size_t used = 0;
    port = std::stoul(listen.substr(colon + 1), &used);
    MIRELL_CHECK(used == listen.size() - colon - 1 && port <= 65535, "bad port in '{}'", listen);
  } catch (const std::logic_error&) {
    MIRELL_CHECK(false, "bad port in '{}'", listen);
  }

  const ServerConfig& config = impl_->core.config;
  MIRELL_CHECK(config.tls_cert.empty() == config.tls_key.empty(),
               "--tls-cert and --tls-key go together");
  if (!config.tls_cert.empty()) {
    impl_->tls.emplace(net::ssl::context::tls_server);
    impl_->tls->set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                            net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 |
                            net::ssl::context::no_tlsv1_1);
    impl_->tls->use_certificate_chain_file(config.tls_cert, error);
    MIRELL_CHECK(!error, "could not load the certificate {}: {}", config.tls_cert, error.message());
    impl_->tls->use_private_key_file(config.tls_key, net::ssl::context::pem, error);
    MIRELL_CHECK(!error, "could not load the key {}: {}", config.tls_key, error.message());
  }

  const tcp::endpoint endpoint(ip, static_cast<unsigned short>(port));
  auto& acceptor = impl_->acceptor;
  acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(net::socket_base::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(net::socket_base::max_listen_connections, error);
  MIRELL_CHECK(!error, "could not listen on {}: {}", listen, error.message());
  impl_->bound = acceptor.local_endpoint();
  LOG_INFO("listening on {} ({})", address(), impl_->tls ? "TLS" : "plain");
  impl_->Accept();
  impl_->Sweep();
  impl_->thread = std::thread([impl = impl_.get()] {
    NameThisThread("signal-io");
    impl->io.run();
  });
}

void SignalServer::Stop() {
  if (!impl_->thread.joinable()) return;
  net::post(impl_->io, [impl = impl_.get()] {
    beast::error_code ignored;
    impl->acceptor.close(ignored);
    impl->sweeper.cancel();
  });
  // Sessions hold their own sockets; stopping the loop abandons them, and their memory goes with
  // the io_context below.
  impl_->io.stop();
  impl_->thread.join();
}

std::string SignalServer::address() const {
  const auto& bound = impl_->bound;
  return bound.address().is_v6() ? fmt::format("[{}]:{}", bound.address().to_string(), bound.port())
                                 : fmt::format("{}:{}", bound.address().to_string(), bound.port());
}

std::uint16_t SignalServer::port() const { return impl_->bound.port(); }

HubStatistics SignalServer::statistics() const {
  return impl_->OnServerThread<HubStatistics>([this] { return impl_->core.hub.statistics(); });
}

std::size_t SignalServer::open_connections() const { return impl_->core.connections.load(); }

}  // namespace mirell::signal
