// Linux: the WebSocket client on Boost.Beast, with OpenSSL for "wss://". Each socket has its own
// io_context and I/O thread, which runs every asynchronous step and every callback; the rest of
// the program never sees Asio.
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket.hpp>

#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/base/version.h"
#include "mirell/transport/web_socket.h"
#include "tls_context.h"
#include "server_url.h"

namespace mirell::transport {
namespace {

namespace beast = boost::beast;
namespace net = boost::asio;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;

// Name lookup, TCP connect and the TLS handshake together; then the WebSocket handshake.
constexpr auto kConnectLimit = std::chrono::seconds(10);
constexpr auto kHandshakeLimit = std::chrono::seconds(10);
// Larger frames from the server end the connection; the protocol's largest is an SDP of a few kB.
constexpr std::size_t kMaxMessageBytes = 1 << 20;
// Frames queued for a server that does not read: past this the connection is ended.
constexpr std::size_t kMaxQueuedBytes = 4 << 20;

using PlainStream = websocket::stream<beast::tcp_stream>;
using SecureStream = websocket::stream<net::ssl::stream<beast::tcp_stream>>;

// Everything the I/O thread touches; shared by the handle and the thread, so that a handle
// destroyed on its own I/O thread (from a callback) leaves the thread a living object.
class Core : public std::enable_shared_from_this<Core> {
 public:
  void Open(ServerUrl url, WebSocket::Handlers handlers) {
    url_ = std::move(url);
    {
      std::lock_guard lock(mutex_);
      handlers_ = std::move(handlers);
    }
    if (url_.secure) {
      tls_.emplace(MakeClientTlsContext());
      secure_.emplace(io_, *tls_);
    } else {
      plain_.emplace(io_);
    }
    net::post(io_, [self = shared_from_this()] { self->Resolve(); });
  }

  void Run() { io_.run(); }
  // Before Open, from the owner's thread: read by the I/O thread only after it starts.
  void SetIdleLimit(std::chrono::milliseconds limit) { idle_limit_ = limit; }

  bool Send(const std::string& text) {
    if (!open_.load()) return false;
    // Weak: a post that never runs (the loop has ended) must not keep the core alive in a cycle.
    net::post(io_, [weak = weak_from_this(), text] {
      if (auto self = weak.lock()) self->Queue(text);
    });
    return true;
  }

  bool IsOpen() const { return open_.load(); }

  void ForceClose() {
    closing_.store(true);
    net::post(io_, [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->CloseNow();
    });
  }

  void ClearHandlers() {
    std::lock_guard lock(mutex_);
    handlers_ = {};
  }

 private:
  template <typename Step>
  void WithStream(Step&& step) {
    if (secure_) {
      step(*secure_);
    } else if (plain_) {
      step(*plain_);
    }
  }

  void Resolve() {
    if (closing_.load()) return Finish({});
    resolver_.async_resolve(url_.host, url_.port, [self = shared_from_this()](
                                                      beast::error_code error,
                                                      const tcp::resolver::results_type& results) {
      if (error) return self->Finish(error);
      self->Connect(results);
    });
  }

  void Connect(const tcp::resolver::results_type& results) {
    WithStream([&](auto& ws) {
      auto& layer = beast::get_lowest_layer(ws);
      layer.expires_after(kConnectLimit);
      layer.async_connect(results, [self = shared_from_this()](beast::error_code error,
                                                              const tcp::endpoint&) {
        if (error) return self->Finish(error);
        self->SecureOrHandshake();
      });
    });
  }

  void SecureOrHandshake() {
    if (!secure_) return Handshake();
    try {
      PrepareClientTls(secure_->next_layer().native_handle(), url_.host);
    } catch (const std::exception& error) {
      return Finish({}, error.what());
    }
    beast::get_lowest_layer(*secure_).expires_after(kConnectLimit);
    secure_->next_layer().async_handshake(
        net::ssl::stream_base::client, [self = shared_from_this()](beast::error_code error) {
          if (error) return self->Finish(error);
          self->Handshake();
        });
  }

  void Handshake() {
    WithStream([&](auto& ws) {
      beast::get_lowest_layer(ws).expires_never();
      websocket::stream_base::timeout timeout{};
      timeout.handshake_timeout = kHandshakeLimit;
      // Beast pings after half the idle time without a frame, and ends the connection after the
      // whole of it.
      if (idle_limit_.count() > 0) {
        timeout.idle_timeout = idle_limit_;
        timeout.keep_alive_pings = true;
      } else {
        timeout.idle_timeout = websocket::stream_base::none();
        timeout.keep_alive_pings = false;
      }
      ws.set_option(timeout);
      ws.read_message_max(kMaxMessageBytes);
      ws.set_option(websocket::stream_base::decorator([](websocket::request_type& request) {
        request.set(beast::http::field::user_agent, fmt::format("mirell/{}", kVersion));
      }));
      ws.async_handshake(url_.host_header, url_.target,
                         [self = shared_from_this()](beast::error_code error) {
                           if (error) return self->Finish(error);
                           self->Opened();
                         });
    });
  }

  void Opened() {
    if (closing_.load()) return CloseNow();
    open_.store(true);
    Call(&WebSocket::Handlers::on_open);
    Read();
  }

  void Read() {
    WithStream([&](auto& ws) {
      ws.async_read(buffer_, [self = shared_from_this()](beast::error_code error, std::size_t) {
        if (error) return self->Finish(error);
        self->Deliver();
        self->Read();
      });
    });
  }

  void Deliver() {
    bool binary = false;
    WithStream([&](auto& ws) { binary = !ws.got_text(); });
    const std::string data = beast::buffers_to_string(buffer_.data());
    buffer_.consume(buffer_.size());
    try {
      Call(&WebSocket::Handlers::on_message, data, binary);
    } catch (const std::exception& error) {
      LOG_WARN("message handler failed: {}", error.what());
    }
  }

  void Queue(const std::string& text) {
    if (!open_.load()) return;
    queued_bytes_ += text.size();
    outbox_.push_back(text);
    if (queued_bytes_ > kMaxQueuedBytes) {
      LOG_WARN("the server reads too slowly ({} bytes queued); closing", queued_bytes_);
      return CloseNow();
    }
    if (!writing_) WriteNext();
  }

  void WriteNext() {
    if (outbox_.empty()) {
      writing_ = false;
      return;
    }
    writing_ = true;
    WithStream([&](auto& ws) {
      ws.text(true);
      ws.async_write(net::buffer(outbox_.front()),
                     [self = shared_from_this()](beast::error_code error, std::size_t) {
                       self->queued_bytes_ -= self->outbox_.front().size();
                       self->outbox_.pop_front();
                       if (error) return self->Finish(error);
                       self->WriteNext();
                     });
    });
  }

  void CloseNow() {
    closing_.store(true);
    resolver_.cancel();
    WithStream([](auto& ws) {
      beast::error_code ignored;
      beast::get_lowest_layer(ws).socket().shutdown(tcp::socket::shutdown_both, ignored);
      beast::get_lowest_layer(ws).socket().close(ignored);
    });
    // Reported now: with nothing in flight no completion would report it.
    Finish({});
  }

  // The end of the connection, reported once: an error unless it was a clean close or ours.
  void Finish(beast::error_code error, const std::string& reason = {}) {
    if (finished_) return;
    finished_ = true;
    open_.store(false);
    const bool clean = error == websocket::error::closed || closing_.load();
    if (!clean || !reason.empty()) {
      Call(&WebSocket::Handlers::on_error, reason.empty() ? error.message() : reason);
    }
    Call(&WebSocket::Handlers::on_closed);
    // Beast leaves its idle timer waiting after a failed or closed connection; the stream's end
    // frees it, so that the loop runs out now rather than at the next ping. Posted: this may run
    // inside one of the stream's own completions.
    net::post(io_, [self = shared_from_this()] {
      self->plain_.reset();
      self->secure_.reset();
    });
  }

  template <typename Member, typename... Arguments>
  void Call(Member member, Arguments&&... arguments) {
    std::function handler = [&] {
      std::lock_guard lock(mutex_);
      return handlers_.*member;
    }();
    if (handler) handler(std::forward<Arguments>(arguments)...);
  }

  net::io_context io_;
  tcp::resolver resolver_{io_};
  std::optional<net::ssl::context> tls_;
  std::optional<PlainStream> plain_;
  std::optional<SecureStream> secure_;
  ServerUrl url_;
  std::mutex mutex_;  // Guards handlers_ only.
  WebSocket::Handlers handlers_;
  std::atomic<bool> open_{false};
  std::atomic<bool> closing_{false};
  // The I/O thread's own.
  beast::flat_buffer buffer_;
  std::deque<std::string> outbox_;
  std::size_t queued_bytes_ = 0;
  bool writing_ = false;
  bool finished_ = false;
  std::chrono::milliseconds idle_limit_{0};
};

class BeastWebSocket final : public WebSocket {
 public:
  ~BeastWebSocket() override {
    core_->ClearHandlers();
    core_->ForceClose();
    if (!thread_.joinable()) return;
    // From a callback the thread cannot join itself; it holds the core and ends by itself.
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

  void Open(const std::string& url, Handlers handlers) override {
    auto parsed = ParseWebSocketUrl(url);
    MIRELL_CHECK(parsed.has_value(), "'{}' is not a ws:// or wss:// URL", url);
    MIRELL_CHECK(!thread_.joinable(), "a WebSocket is opened once");
    core_->Open(std::move(*parsed), std::move(handlers));
    thread_ = std::thread([core = core_] {
      NameThisThread("websocket");
      core->Run();
    });
  }

  void SetIdleLimit(std::chrono::milliseconds limit) override {
    MIRELL_CHECK(!thread_.joinable(), "the idle limit is set before Open");
    core_->SetIdleLimit(limit);
  }
  bool Send(const std::string& text) override { return core_->Send(text); }
  bool IsOpen() const override { return core_->IsOpen(); }
  void ForceClose() override { core_->ForceClose(); }

 private:
  std::shared_ptr<Core> core_ = std::make_shared<Core>();
  std::thread thread_;
};

}  // namespace

std::unique_ptr<WebSocket> CreateWebSocket() { return std::make_unique<BeastWebSocket>(); }

}  // namespace mirell::transport
