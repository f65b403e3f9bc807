#include "fake_signal_server.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace mirell::transport::testing {

namespace beast = boost::beast;
namespace net = boost::asio;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;

struct FakeSignalServer::State : std::enable_shared_from_this<FakeSignalServer::State> {
  using Stream = websocket::stream<beast::tcp_stream>;

  struct Connection {
    explicit Connection(tcp::socket socket) : ws(std::move(socket)) {}
    Stream ws;
    beast::flat_buffer buffer;
    std::deque<std::pair<std::string, bool>> outbox;
    bool writing = false;
  };

  net::io_context io;
  tcp::acceptor acceptor{io, tcp::endpoint(net::ip::make_address("127.0.0.1"), 0)};
  std::thread thread;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::string> received;
  int accepted = 0;
  std::shared_ptr<Connection> newest;  // I/O thread only.
  std::vector<std::weak_ptr<Connection>> all;  // I/O thread only.
  std::vector<std::shared_ptr<Connection>> frozen;  // Kept open, never read; I/O thread only.

  static void Close(Connection& connection) {
    beast::error_code ignored;
    beast::get_lowest_layer(connection.ws).socket().shutdown(tcp::socket::shutdown_both, ignored);
    beast::get_lowest_layer(connection.ws).socket().close(ignored);
  }

  void Accept() {
    acceptor.async_accept([self = shared_from_this()](beast::error_code error, tcp::socket socket) {
      if (error) return;
      auto connection = std::make_shared<Connection>(std::move(socket));
      self->all.push_back(connection);
      connection->ws.async_accept([self, connection](beast::error_code accept_error) {
        if (accept_error) return;
        self->newest = connection;
        {
          std::lock_guard lock(self->mutex);
          ++self->accepted;
        }
        self->changed.notify_all();
        self->Read(connection);
      });
      self->Accept();
    });
  }

  void Read(const std::shared_ptr<Connection>& connection) {
    connection->ws.async_read(connection->buffer, [self = shared_from_this(), connection](
                                                      beast::error_code error, std::size_t) {
      if (error) return;
      {
        std::lock_guard lock(self->mutex);
        self->received.push_back(beast::buffers_to_string(connection->buffer.data()));
      }
      connection->buffer.consume(connection->buffer.size());
      self->changed.notify_all();
      self->Read(connection);
    });
  }

  void Write(const std::shared_ptr<Connection>& connection) {
    if (connection->outbox.empty()) {
      connection->writing = false;
      return;
    }
    connection->writing = true;
    connection->ws.text(!connection->outbox.front().second);
    connection->ws.async_write(net::buffer(connection->outbox.front().first),
                               [self = shared_from_this(), connection](beast::error_code, std::size_t) {
                                 connection->outbox.pop_front();
                                 self->Write(connection);
                               });
  }

  void Post(std::string data, bool binary) {
    net::post(io, [self = shared_from_this(), data = std::move(data), binary] {
      if (!self->newest) return;
      self->newest->outbox.emplace_back(data, binary);
      if (!self->newest->writing) self->Write(self->newest);
    });
  }
};

FakeSignalServer::FakeSignalServer() : state_(std::make_shared<State>()) {
  state_->Accept();
  state_->thread = std::thread([state = state_] { state->io.run(); });
}

FakeSignalServer::~FakeSignalServer() {
  // Everything is closed on the I/O thread; the pending operations end, and with them the run.
  net::post(state_->io, [state = state_] {
    beast::error_code ignored;
    state->acceptor.close(ignored);
    for (const auto& weak : state->all) {
      if (auto connection = weak.lock()) State::Close(*connection);
    }
    state->newest.reset();
    state->frozen.clear();
  });
  state_->thread.join();
}

std::uint16_t FakeSignalServer::port() const { return state_->acceptor.local_endpoint().port(); }

std::string FakeSignalServer::url() const {
  return "ws://127.0.0.1:" + std::to_string(port()) + "/signal";
}

std::optional<std::string> FakeSignalServer::NextMessage(std::chrono::milliseconds timeout) {
  std::unique_lock lock(state_->mutex);
  if (!state_->changed.wait_for(lock, timeout, [&] { return !state_->received.empty(); })) {
    return std::nullopt;
  }
  std::string message = std::move(state_->received.front());
  state_->received.pop_front();
  return message;
}

bool FakeSignalServer::WaitForConnections(int count, std::chrono::milliseconds timeout) {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return state_->accepted >= count; });
}

int FakeSignalServer::connections() const {
  std::lock_guard lock(state_->mutex);
  return state_->accepted;
}

void FakeSignalServer::Send(const std::string& text) { state_->Post(text, false); }

void FakeSignalServer::SendBinary(const std::string& bytes) { state_->Post(bytes, true); }

void FakeSignalServer::Freeze() {
  net::post(state_->io, [state = state_] {
    if (!state->newest) return;
    // The pending read ends aborted and no other is started; the socket stays open.
    beast::error_code ignored;
    beast::get_lowest_layer(state->newest->ws).socket().cancel(ignored);
    state->frozen.push_back(std::move(state->newest));
  });
}

void FakeSignalServer::Drop() {
  net::post(state_->io, [state = state_] {
    if (!state->newest) return;
    State::Close(*state->newest);
    state->newest.reset();
  });
}

}  // namespace mirell::transport::testing
