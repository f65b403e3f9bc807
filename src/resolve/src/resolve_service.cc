#include "mirell/resolve/resolve_service.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <string_view>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/resolve/resolve_endpoint.h"

namespace mirell::resolve {
namespace {

constexpr std::string_view kVerb = "RESOLVE ";
constexpr std::size_t kLoggedUnknownBytes = 32;

}  // namespace

std::optional<std::string> ParseResolveRequest(std::string_view line) {
  // A client that ends its line the network way (CRLF) means the same URL; a CR kept in it would
  // end up in a share link's token.
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (!line.starts_with(kVerb)) return std::nullopt;
  return std::string(line.substr(kVerb.size()));
}

ResolveService::ResolveService(std::string pipe_name, Resolver resolver)
    : pipe_name_(std::move(pipe_name)), resolver_(std::move(resolver)) {
  MIRELL_CHECK(resolver_ != nullptr, "ResolveService needs a resolver");
}

ResolveService::~ResolveService() { Stop(); }

void ResolveService::Start() {
  if (running_.exchange(true)) return;
  try {
    endpoint_ = OpenResolveEndpoint(pipe_name_);
  } catch (...) {
    running_.store(false);
    throw;
  }
  thread_ = std::thread([this] {
    NameThisThread("resolve");
    AcceptLoop();
  });
  LOG_INFO("listening {}", endpoint_->name());
}

void ResolveService::Stop() {
  if (!running_.exchange(false)) return;
  endpoint_->Wake();
  thread_.join();
  endpoint_.reset();
  LOG_DEBUG("stopped after {} requests", requests_.load());
}

std::string ResolveService::endpoint() const {
  return running_.load() && endpoint_ ? endpoint_->name() : std::string();
}

void ResolveService::AcceptLoop() {
  while (running_.load()) {
    auto connection = endpoint_->Accept();
    if (!running_.load()) break;
    if (!connection) continue;  // A failed accept or a refused peer: wait for the next client.
    try {
      ServeOne(*connection);
    } catch (const std::exception& error) {
      LOG_WARN("request failed: {}", error.what());
    }
  }
}

void ResolveService::ServeOne(ResolveConnection& connection) {
  const auto deadline = std::chrono::steady_clock::now() + kRequestReadLimit;
  std::array<char, kRequestLimit> buffer{};
  std::size_t received = 0;
  const char* newline = nullptr;
  while (newline == nullptr) {
    if (received == buffer.size()) {
      LOG_WARN("malformed request bytes={}", received);
      return;
    }
    const auto count = connection.Read(std::span(buffer).subspan(received), deadline);
    if (count == ResolveConnection::kTimedOut) {
      LOG_DEBUG("no request line within {} ms (bytes={}); closed", kRequestReadLimit.count(),
                received);
      return;
    }
    if (count <= 0) {
      if (!running_.load()) return;  // Woken by Stop, not a malformed request.
      LOG_WARN("malformed request bytes={}", received);
      return;
    }
    received += static_cast<std::size_t>(count);
    newline = static_cast<const char*>(std::memchr(buffer.data(), '\n', received));
  }

  const std::string_view line(buffer.data(), static_cast<std::size_t>(newline - buffer.data()));
  const auto parsed = ParseResolveRequest(line);
  if (!parsed) {
    LOG_WARN("unknown verb in '{}'", line.substr(0, kLoggedUnknownBytes));
    connection.Write("ERR unknown verb\n");
    return;
  }
  const std::string& url = *parsed;
  const ResolveResult result = resolver_(url);
  requests_.fetch_add(1);

  std::string answer;
  switch (result.status) {
    case ResolveStatus::kNotOurs:
      LOG_DEBUG("{} is not ours", url);
      answer = "PASS\n";
      break;
    case ResolveStatus::kResolved:
      LOG_INFO("{} -> {}", url, result.url);
      answer = "OK " + result.url + "\n";
      break;
    case ResolveStatus::kFailed:
      LOG_WARN("{} failed: {}", url, result.reason);
      answer = "ERR " + result.reason + "\n";
      break;
  }
  connection.Write(answer);
}

}  // namespace mirell::resolve
