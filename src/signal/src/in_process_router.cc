#include "mirell/signal/signal_router.h"

namespace mirell::signal {

void InProcessRouter::Attach(ConnectionId id, std::weak_ptr<RoutedConnection> connection) {
  connections_[id] = std::move(connection);
}

void InProcessRouter::Detach(ConnectionId id) { connections_.erase(id); }

void InProcessRouter::Deliver(ConnectionId to, std::string text) {
  const auto found = connections_.find(to);
  if (found == connections_.end()) return;
  if (auto connection = found->second.lock()) connection->QueueText(std::move(text));
}

void InProcessRouter::Disconnect(ConnectionId who) {
  const auto found = connections_.find(who);
  if (found == connections_.end()) return;
  if (auto connection = found->second.lock()) connection->CloseAfterQueue();
}

}  // namespace mirell::signal
