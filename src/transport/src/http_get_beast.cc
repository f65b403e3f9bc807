// Linux: small GETs on Boost.Beast (with OpenSSL for https, on the same TLS settings as the signal
// client). Asynchronous steps on a private io_context run by the caller, because only those honour
// the per-phase deadlines.
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <openssl/crypto.h>

#include <type_traits>

#include "mirell/base/logging.h"
#include "mirell/protocol/signal_endpoint.h"
#include "mirell/transport/https_get.h"
#include "mirell/transport/signal_endpoint.h"
#include "server_url.h"
#include "tls_context.h"

namespace mirell::transport {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;

struct Reply {
  unsigned status = 0;
  std::string body;
};

// One GET over TLS (kSecure) or plain TCP. The reply of any status, or nullopt (the reason at
// debug) for a failure, a phase past its limit or a body over the limit.
template <bool kSecure>
class Request {
 public:
  using Stream =
      std::conditional_t<kSecure, net::ssl::stream<beast::tcp_stream>, beast::tcp_stream>;

  Request(ServerUrl url, const HttpsGetLimits& limits)
      : url_(std::move(url)), limits_(limits), stream_(MakeStream()) {}

  std::optional<Reply> Run() {
    if constexpr (kSecure) {
      try {
        PrepareClientTls(stream_.native_handle(), url_.host);
      } catch (const std::exception& error) {
        return Fail(error.what());
      }
    }
    resolve_deadline_.expires_after(limits_.phase);
    resolve_deadline_.async_wait([this](beast::error_code error) {
      if (!error) resolver_.cancel();
    });
    resolver_.async_resolve(url_.host, url_.port,
                            [this](beast::error_code error, tcp::resolver::results_type found) {
                              resolve_deadline_.cancel();
                              if (error) return Failed("name lookup", error);
                              Connect(found);
                            });
    io_.run();
    return result_;
  }

 private:
  Stream MakeStream() {
    if constexpr (kSecure) {
      tls_.emplace(MakeClientTlsContext());
      return Stream(io_, *tls_);
    } else {
      return Stream(io_);
    }
  }

  void Connect(const tcp::resolver::results_type& found) {
    beast::get_lowest_layer(stream_).expires_after(limits_.phase);
    beast::get_lowest_layer(stream_).async_connect(
        found, [this](beast::error_code error, const tcp::endpoint&) {
          if (error) return Failed("connect", error);
          Handshake();
        });
  }

  void Handshake() {
    if constexpr (kSecure) {
      stream_.async_handshake(net::ssl::stream_base::client, [this](beast::error_code error) {
        if (error) return Failed("TLS handshake", error);
        Send();
      });
    } else {
      Send();
    }
  }

  void Send() {
    request_ = {http::verb::get, url_.target, 11};
    request_.set(http::field::host, url_.host_header);
    request_.set(http::field::user_agent, "Mirell");
    beast::get_lowest_layer(stream_).expires_after(limits_.phase);
    http::async_write(stream_, request_, [this](beast::error_code error, std::size_t) {
      if (error) return Failed("send", error);
      Receive();
    });
  }

  void Receive() {
    parser_.body_limit(limits_.max_body_bytes);
    beast::get_lowest_layer(stream_).expires_after(limits_.phase);
    http::async_read(stream_, buffer_, parser_, [this](beast::error_code error, std::size_t) {
      beast::get_lowest_layer(stream_).cancel();
      if (error == http::error::body_limit) {
        LOG_DEBUG("get {}: the body is over {} bytes", url_.host, limits_.max_body_bytes);
        return;
      }
      if (error) return Failed("receive", error);
      result_ = Reply{parser_.get().result_int(), std::move(parser_.get().body())};
    });
  }

  void Failed(const char* phase, const beast::error_code& error) {
    LOG_DEBUG("get {}: {} failed: {}", url_.host, phase,
              error == beast::error::timeout || error == net::error::operation_aborted
                  ? std::string("took too long")
                  : error.message());
  }

  std::optional<Reply> Fail(const std::string& reason) {
    LOG_DEBUG("get {}: {}", url_.host, reason);
    return std::nullopt;
  }

  ServerUrl url_;
  HttpsGetLimits limits_;
  net::io_context io_;
  std::optional<net::ssl::context> tls_;  // Before the stream, which holds on to it.
  tcp::resolver resolver_{io_};
  net::steady_timer resolve_deadline_{io_};
  Stream stream_;
  http::request<http::empty_body> request_;
  beast::flat_buffer buffer_;
  http::response_parser<http::string_body> parser_;
  std::optional<Reply> result_;
};

}  // namespace

std::optional<std::string> HttpsGet(const std::string& url, const HttpsGetLimits& limits) {
  std::optional<ServerUrl> parts = ParseHttpsUrl(url);
  if (!parts) {
    LOG_DEBUG("https get refused: '{}' is not an https URL", url);
    return std::nullopt;
  }
  std::optional<Reply> reply = Request<true>(std::move(*parts), limits).Run();
  if (!reply) return std::nullopt;
  if (reply->status != 200) {
    LOG_DEBUG("https get {}: status {}", url, reply->status);
    return std::nullopt;
  }
  return std::move(reply->body);
}

bool AnswersAsSignalEndpoint(const std::string& signal_url, const HttpsGetLimits& limits) {
  std::optional<ServerUrl> parts = ParseWebSocketUrl(signal_url);
  if (!parts) return false;
  const std::optional<Reply> reply = parts->secure
                                         ? Request<true>(std::move(*parts), limits).Run()
                                         : Request<false>(std::move(*parts), limits).Run();
  return reply && reply->status == protocol::kSignalEndpointStatus &&
         reply->body.find(protocol::kSignalEndpointMarker) != std::string::npos;
}

void KeepTlsThroughExit() { OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); }

}  // namespace mirell::transport
