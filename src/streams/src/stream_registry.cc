#include "mirell/streams/stream_registry.h"

#include "mirell/base/logging.h"

namespace mirell::streams {

void StreamRegistry::Publish(const std::string& token, std::shared_ptr<MediaStream> stream) {
  LOG_INFO("publish label={} token={}", stream ? stream->label() : std::string(), token);
  std::lock_guard lock(mutex_);
  streams_[token] = std::move(stream);
}

void StreamRegistry::Withdraw(const std::string& token) { Withdraw(token, nullptr); }

void StreamRegistry::Withdraw(const std::string& token, const MediaStream* only) {
  std::shared_ptr<MediaStream> stream;
  {
    std::lock_guard lock(mutex_);
    const auto it = streams_.find(token);
    if (it == streams_.end() || (only != nullptr && it->second.get() != only)) return;
    stream = std::move(it->second);
    streams_.erase(it);
  }
  if (!stream) return;
  LOG_INFO("withdraw label={}", stream->label());
  stream->frames().Close();
  stream->audio().Close();
}

void StreamRegistry::Move(const std::string& from, const std::string& to) {
  std::shared_ptr<MediaStream> stream;
  {
    std::lock_guard lock(mutex_);
    const auto it = streams_.find(from);
    if (it == streams_.end()) return;
    stream = std::move(it->second);
    streams_.erase(it);
    streams_[to] = stream;
  }
  if (!stream) return;
  LOG_INFO("move label={} token={}", stream->label(), to);
  stream->frames().EndReaders();
  stream->audio().EndReaders();
}

std::shared_ptr<MediaStream> StreamRegistry::Find(const std::string& token) const {
  std::lock_guard lock(mutex_);
  const auto it = streams_.find(token);
  return it == streams_.end() ? nullptr : it->second;
}

std::size_t StreamRegistry::Size() const {
  std::lock_guard lock(mutex_);
  return streams_.size();
}

std::vector<std::string> StreamRegistry::Tokens() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> tokens;
  tokens.reserve(streams_.size());
  for (const auto& entry : streams_) tokens.push_back(entry.first);
  return tokens;
}

}  // namespace mirell::streams
