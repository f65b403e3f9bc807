// The program's side of the resolve protocol: the stub asks, over a local endpoint, whether a URL
// is ours and what the player should open instead.
//
// One connection carries one request line, "RESOLVE " + URL + "\n" (at most 4096 bytes up to and
// including the newline), and one answer line:
//   "OK " + address + "\n"   the URL is ours; the player opens the address
//   "PASS\n"                 not ours; the stub runs the real resolver
//   "ERR " + reason + "\n"   ours, but it could not be resolved
//   "ERR unknown verb\n"     the line does not begin with "RESOLVE "
// A connection that ends with no complete line gets nothing, and so does one whose line has not
// arrived within kRequestReadLimit of its acceptance: any program of the user can open the
// endpoint, and a client that connects and stays silent must not hold the service or its Stop.
// Requests are served strictly one at a time on one thread; the resolver must return promptly.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace mirell::resolve {

class ResolveConnection;
class ResolveEndpoint;

enum class ResolveStatus : std::uint32_t {
  kNotOurs = 0,
  kResolved = 1,
  kFailed = 2,
};

struct ResolveResult {
  ResolveStatus status = ResolveStatus::kNotOurs;
  std::string url;     // With kResolved: the address the player must open.
  std::string reason;  // With kFailed: a short text for the stub and the log.
};

using Resolver = std::function<ResolveResult(const std::string& url)>;

// The longest a connection may take to deliver its request line.
inline constexpr std::chrono::milliseconds kRequestReadLimit{2000};
// The most bytes of a request, newline included.
inline constexpr std::size_t kRequestLimit = 4096;

// One request line as it arrived (without its newline), read as the protocol says: the URL
// behind "RESOLVE " (a CR before the newline is not part of it), or nullopt when the line begins
// with anything else.
std::optional<std::string> ParseResolveRequest(std::string_view line);

class ResolveService {
 public:
  // `pipe_name` is the endpoint to listen on (see OpenResolveEndpoint). The resolver is called on
  // the service's thread, never concurrently with itself, and may throw.
  ResolveService(std::string pipe_name, Resolver resolver);
  ~ResolveService();
  ResolveService(const ResolveService&) = delete;
  ResolveService& operator=(const ResolveService&) = delete;

  // Binds the endpoint and starts serving. Throws Error when the endpoint cannot be bound; the
  // service is then not running. A second call while running does nothing.
  void Start();
  // Ends the accept loop and joins its thread; waits for a client being served. Idempotent.
  void Stop();

  // The endpoint as bound ("127.0.0.1:PORT"), empty when not running.
  std::string endpoint() const;
  // RESOLVE requests that the resolver has answered.
  std::uint64_t requests() const { return requests_.load(); }

 private:
  void AcceptLoop();
  void ServeOne(ResolveConnection& connection);

  std::string pipe_name_;
  Resolver resolver_;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> requests_{0};
  std::thread thread_;
  // Written by Start and Stop only while the accept thread is not running.
  std::unique_ptr<ResolveEndpoint> endpoint_;
};

}  // namespace mirell::resolve
