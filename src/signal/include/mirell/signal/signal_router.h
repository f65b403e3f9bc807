// Where the signal hub's messages go: to a connection by its id, wherever that connection is
// served. In one process this is a map of live connections; a router on a message broker could
// stand behind the same two operations when one server is not enough.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace mirell::signal {

using ConnectionId = std::uint64_t;

class Router {
 public:
  virtual ~Router() = default;
  // Queues one text frame for the connection; nothing when it has gone. Never blocks.
  virtual void Deliver(ConnectionId to, std::string text) = 0;
  // Ends the connection once what is queued for it has been sent. Nothing when it has gone.
  virtual void Disconnect(ConnectionId who) = 0;
};

// A connection as the in-process router reaches it.
class RoutedConnection {
 public:
  virtual ~RoutedConnection() = default;
  virtual void QueueText(std::string text) = 0;
  virtual void CloseAfterQueue() = 0;
};

// The router of one process: a map from id to the live connection. One thread (the server's).
class InProcessRouter final : public Router {
 public:
  void Attach(ConnectionId id, std::weak_ptr<RoutedConnection> connection);
  void Detach(ConnectionId id);
  void Deliver(ConnectionId to, std::string text) override;
  void Disconnect(ConnectionId who) override;
  std::size_t size() const { return connections_.size(); }

 private:
  std::unordered_map<ConnectionId, std::weak_ptr<RoutedConnection>> connections_;
};

}  // namespace mirell::signal
