// The listener, the I/O thread and the lookup threads, on Boost.Asio.
#include "mirell/rtsp/rtsp_server.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "rtp_packet_cache.h"
#include "rtsp_connection.h"
#include "rtsp_sdp.h"

namespace mirell::rtsp {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using WorkGuard = asio::executor_work_guard<asio::io_context::executor_type>;

constexpr std::size_t kMaxPacketSize = 1200;
// About three seconds of units of a few streams: what a late player's priming reaches back to;
// and at most 32 MB of them, however big the pictures.
constexpr std::size_t kRememberedUnits = 512;
constexpr std::size_t kRememberedBytes = 32u << 20;

// The first and every hundredth: a flood must not flood the log too.
bool WorthLogging(std::uint64_t count) { return count == 1 || count % 100 == 0; }

// Runs `context` until it runs out of work. A handler that throws is logged and the loop goes
// on: one connection's failure must not end everybody's.
void RunContained(asio::io_context& context) {
  for (;;) {
    try {
      context.run();
      return;
    } catch (const std::exception& error) {
      LOG_ERROR("a handler failed: {}", error.what());
    }
  }
}

}  // namespace

struct RtspServer::Impl {
  asio::io_context io;
  asio::io_context lookups;
  std::optional<WorkGuard> io_work{io.get_executor()};
  std::optional<WorkGuard> lookup_work{lookups.get_executor()};
  tcp::acceptor acceptor{io};
  asio::steady_timer accept_retry{io};
  std::uint64_t failed_accepts = 0;  // I/O thread only.
  std::thread io_thread;
  std::vector<std::thread> lookup_threads;
  RtpPacketCache packets{kRememberedUnits, kRememberedBytes, kMaxPacketSize};
  struct Served {
    std::shared_ptr<RtspConnection> connection;
    std::uint32_t address;  // IPv4, host order; 0 when not counted per address.
  };
  std::unordered_map<std::uint64_t, Served> served;  // I/O thread only.
  std::uint64_t next_client = 0;                     // I/O thread only.
};

RtspServer::RtspServer(StreamLookup lookup)
    : lookup_([path_lookup = std::move(lookup)](const std::string& path, std::uint32_t) {
        return path_lookup(path);
      }) {}

RtspServer::RtspServer(PeerStreamLookup lookup) : lookup_(std::move(lookup)) {}

RtspServer::~RtspServer() { Stop(); }

std::uint64_t RtspServer::packetized_units() const {
  return impl_ ? impl_->packets.packetized_units() : 0;
}

void RtspServer::Start(std::uint16_t port) { Start(std::string(kLoopback), port); }

void RtspServer::Start(const std::string& bind_address, std::uint16_t port) {
  boost::system::error_code error;
  const auto address = asio::ip::make_address_v4(bind_address, error);
  if (error) {
    ThrowError(fmt::format("rtsp: '{}' is not an IPv4 address", bind_address),
               std::source_location::current());
  }
  auto impl = std::make_unique<Impl>();
  tcp::acceptor& acceptor = impl->acceptor;
  acceptor.open(tcp::v4(), error);
  MIRELL_CHECK(!error, "rtsp: socket() failed: {}", error.message());
  acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  acceptor.bind(tcp::endpoint(address, port), error);
  if (error) {
    ThrowError(fmt::format("rtsp: could not bind {}:{} ({})", bind_address, port, error.message()),
               std::source_location::current());
  }
  acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) {
    ThrowError(fmt::format("rtsp: listen failed ({})", error.message()), std::source_location::current());
  }
  port_ = acceptor.local_endpoint().port();
  impl_ = std::move(impl);
  running_.store(true);
  Accept();
  impl_->io_thread = std::thread([this] {
    NameThisThread("rtsp-io");
    RunContained(impl_->io);
  });
  for (int i = 0; i < kLookupThreads; ++i) {
    impl_->lookup_threads.emplace_back([this] {
      NameThisThread("rtsp-lookup");
      RunContained(impl_->lookups);
    });
  }
  LOG_INFO("listening {}:{}", bind_address, port_);
}

void RtspServer::Stop() {
  if (!running_.exchange(false)) return;
  asio::post(impl_->io, [this] {
    boost::system::error_code ignored;
    impl_->acceptor.close(ignored);
    impl_->accept_retry.cancel();
    // Close takes each out of `served`.
    std::vector<std::shared_ptr<RtspConnection>> connections;
    for (const auto& [client, served] : impl_->served) connections.push_back(served.connection);
    for (const auto& connection : connections) connection->Close();
  });
  // Lookups under way finish (their answers find their connections closed), then the I/O thread
  // runs out of work: every socket is closed and every timer cancelled.
  impl_->lookup_work.reset();
  for (auto& thread : impl_->lookup_threads) thread.join();
  impl_->io_work.reset();
  impl_->io_thread.join();
}

void RtspServer::Accept() {
  impl_->acceptor.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
    if (!impl_->acceptor.is_open()) return;
    if (error) {
      // Out of descriptors, say: the listener goes on after a pause rather than spinning.
      if (WorthLogging(++impl_->failed_accepts)) {
        LOG_WARN("accept failed ({} so far): {}", impl_->failed_accepts, error.message());
      }
      impl_->accept_retry.expires_after(std::chrono::milliseconds(100));
      impl_->accept_retry.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) Accept();
      });
      return;
    }
    boost::system::error_code peer_error;
    const auto peer = socket.remote_endpoint(peer_error);
    const std::uint32_t raw =
        !peer_error && peer.address().is_v4() ? peer.address().to_v4().to_uint() : 0;
    // This machine's connections (a local player, a proxy in front) are not counted per address.
    const std::uint32_t address = (raw >> 24) == 127 ? 0 : raw;
    const std::uint64_t client = ++impl_->next_client;
    std::size_t from_address = 0;
    if (address != 0) {
      for (const auto& [id, served] : impl_->served) from_address += served.address == address ? 1u : 0u;
    }
    if (from_address >= max_clients_per_address_ || impl_->served.size() >= max_clients_) {
      // Counted before the close, which the client may see at once.
      const std::uint64_t refused = refused_.fetch_add(1) + 1;
      boost::system::error_code ignored;
      socket.close(ignored);
      if (WorthLogging(refused)) {
        if (from_address >= max_clients_per_address_) {
          LOG_WARN("refused connection {}: {} from one address are served already", refused,
                   max_clients_per_address_);
        } else {
          LOG_WARN("refused connection {} beyond the {} served at once", refused, max_clients_);
        }
      }
      Accept();
      return;
    }
    RtspConnectionContext context{lookup_,
                                  impl_->lookups,
                                  impl_->packets,
                                  port_,
                                  randomize_rtp_base_,
                                  request_within_,
                                  send_within_,
                                  [this](std::uint64_t gone) {
                                    impl_->served.erase(gone);
                                    connections_.store(impl_->served.size());
                                  }};
    auto connection =
        std::make_shared<RtspConnection>(std::move(context), std::move(socket), client, address);
    impl_->served.emplace(client, Impl::Served{connection, address});
    connections_.store(impl_->served.size());
    connection->Start();
    Accept();
  });
}

}  // namespace mirell::rtsp
