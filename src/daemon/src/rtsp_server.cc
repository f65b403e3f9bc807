// The listener and the connection threads. Sockets are POSIX here.
#include "mirell/daemon/rtsp_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <exception>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "rtsp_connection.h"
#include "rtsp_sdp.h"
#include "socket_io.h"

namespace mirell::daemon {

RtspServer::RtspServer(StreamLookup lookup) : lookup_(std::move(lookup)) {}

RtspServer::~RtspServer() { Stop(); }

void RtspServer::Start(std::uint16_t port) { Start(std::string(kLoopback), port); }

void RtspServer::Start(const std::string& bind_address, std::uint16_t port) {
  port_ = port;
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  MIRELL_CHECK(listener >= 0, "rtsp: socket() failed with {}", errno);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_pton(AF_INET, bind_address.c_str(), &address.sin_addr) != 1) {
    CloseSocket(listener);
    ThrowError(fmt::format("rtsp: '{}' is not an IPv4 address", bind_address),
               std::source_location::current());
  }
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    CloseSocket(listener);
    ThrowError(fmt::format("rtsp: could not bind {}:{} ({})", bind_address, port, HrToString(-error)),
               std::source_location::current());
  }
  if (listen(listener, SOMAXCONN) != 0) {
    const int error = errno;
    CloseSocket(listener);
    ThrowError(fmt::format("rtsp: listen failed ({})", HrToString(-error)),
               std::source_location::current());
  }
  socklen_t size = sizeof(address);
  if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
    port_ = ntohs(address.sin_port);
  }
  listener_ = listener;
  running_.store(true);
  accept_thread_ = std::thread([this] {
    NameThisThread("rtsp-accept");
    AcceptLoop();
  });
  LOG_INFO("listening {}:{}", bind_address, port_);
}

void RtspServer::Stop() {
  if (!running_.exchange(false)) return;
  // Wakes the accept loop's wait at once rather than at its next 200 ms turn.
  ShutdownSocket(listener_);
  accept_thread_.join();
  CloseSocket(listener_);
  listener_ = -1;
  std::vector<Client> clients;
  {
    // A connection blocked in a send to a player that stopped reading would otherwise hold Stop
    // until the player goes away. Under the lock, so that no socket is closed meanwhile.
    std::lock_guard lock(clients_mutex_);
    for (auto& client : client_threads_) {
      if (!client.finished->load()) ShutdownSocket(client.socket);
    }
    clients.swap(client_threads_);
  }
  for (auto& client : clients) client.thread.join();
}

void RtspServer::AcceptLoop() {
  while (running_.load() && listener_ >= 0) {
    ReapFinishedClients();
    if (!WaitReadable(listener_, 200)) continue;
    sockaddr_in peer{};
    socklen_t peer_size = sizeof(peer);
    const int socket = accept4(listener_, reinterpret_cast<sockaddr*>(&peer), &peer_size, SOCK_CLOEXEC);
    if (socket < 0) continue;
    const std::uint32_t address = peer.sin_family == AF_INET ? ntohl(peer.sin_addr.s_addr) : 0;
    // This machine's connections (a local player, a proxy in front) are not counted per address.
    const bool counted = address != 0 && (address >> 24) != 127;
    if (!running_.load()) {
      CloseSocket(socket);
      break;
    }
    const std::uint64_t client = next_client_.fetch_add(1) + 1;
    auto finished = std::make_shared<std::atomic<bool>>(false);
    std::lock_guard lock(clients_mutex_);
    std::size_t live = 0;
    std::size_t from_address = 0;
    for (const Client& existing : client_threads_) {
      if (existing.finished->load()) continue;
      ++live;
      from_address += counted && existing.address == address ? 1u : 0u;
    }
    if (from_address >= max_clients_per_address_) {
      const std::uint64_t refused = refused_.fetch_add(1) + 1;
      CloseSocket(socket);
      if (refused == 1 || refused % 100 == 0) {
        LOG_WARN("refused connection {}: {} from one address are served already", refused,
                 max_clients_per_address_);
      }
      continue;
    }
    if (live >= max_clients_) {
      // Counted before the close, which the client may see at once.
      const std::uint64_t refused = refused_.fetch_add(1) + 1;
      CloseSocket(socket);
      // The first and every hundredth: a flood must not flood the log too.
      if (refused == 1 || refused % 100 == 0) {
        LOG_WARN("refused connection {} beyond the {} served at once", refused, max_clients_);
      }
      continue;
    }
    client_threads_.push_back(
        {std::thread([this, socket, client, finished] {
           NameThisThread("rtsp-client");
           try {
             ServeConnection(socket, client);
           } catch (const std::exception& error) {
             LOG_WARN("client {} failed: {}", client, error.what());
           }
           {
             // Stop shuts live sockets down under this lock; it must never reach a descriptor
             // number that has been closed and handed to someone else.
             std::lock_guard closing(clients_mutex_);
             finished->store(true);
             CloseSocket(socket);
           }
           LOG_INFO("client={} disconnected", client);
         }),
         socket, finished, address});
  }
}

// Joins connection threads that have ended, so that a long run with many short connections does
// not keep one finished thread per connection.
void RtspServer::ReapFinishedClients() {
  std::vector<std::thread> finished_threads;
  {
    std::lock_guard lock(clients_mutex_);
    for (auto it = client_threads_.begin(); it != client_threads_.end();) {
      if (it->finished->load()) {
        finished_threads.push_back(std::move(it->thread));
        it = client_threads_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& thread : finished_threads) thread.join();
}

void RtspServer::ServeConnection(int socket, std::uint64_t client) {
  RtspConnection connection({lookup_, running_, port_, randomize_rtp_base_, request_within_}, socket, client);
  connection.Run();
}

}  // namespace mirell::daemon
