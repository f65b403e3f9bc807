// Load on the signal server, on loopback and bounded in count and time: hosts register tokens,
// viewers join them, and every viewer goes through a full offer/answer exchange with SDP text of
// realistic size. Prints joins per second, the relay latency (sender to receiver through the
// server), the server's CPU time and memory, and whether any message was lost; beside it, in the
// same run, the same number of messages through a bare Beast WebSocket echo server as the
// reference for latency. The server runs as its own process (mirell-signal).
// Usage: bench_signal_load [viewers] [tokens]
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace beast = boost::beast;
namespace net = boost::asio;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

constexpr std::size_t kSdpBytes = 3000;
constexpr auto kRunLimit = std::chrono::seconds(90);

std::int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// SDP-sized text that carries its send time.
std::string StampedSdp() {
  std::string sdp = "t=" + std::to_string(NowNs()) + "\n";
  sdp.resize(kSdpBytes, 'a');
  return sdp;
}

double MicrosSinceStamp(const std::string& sdp) {
  const auto stamp = std::stoll(sdp.substr(2, sdp.find('\n') - 2));
  return static_cast<double>(NowNs() - stamp) / 1000.0;
}

// One asynchronous WebSocket client on the load's io_context.
class LoadClient : public std::enable_shared_from_this<LoadClient> {
 public:
  using OnText = std::function<void(LoadClient&, const std::string&)>;
  LoadClient(net::io_context& io, OnText on_text) : ws_(io), on_text_(std::move(on_text)) {}

  void Connect(const tcp::endpoint& endpoint, std::function<void(LoadClient&)> on_open) {
    beast::get_lowest_layer(ws_).async_connect(endpoint, [self = shared_from_this(), endpoint,
                                                          on_open = std::move(on_open)](beast::error_code error) {
      if (error) return self->Fail("connect", error);
      self->ws_.async_handshake("127.0.0.1:" + std::to_string(endpoint.port()), "/signal",
                                [self, on_open](beast::error_code handshake_error) {
                                  if (handshake_error) return self->Fail("handshake", handshake_error);
                                  on_open(*self);
                                  self->Read();
                                });
    });
  }

  void Send(std::string text) {
    outbox_.push_back(std::move(text));
    if (outbox_.size() == 1) WriteNext();
  }

  void Close() {
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

  std::size_t index = 0;

 private:
  void Read() {
    ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code error, std::size_t) {
      if (error) return;
      const std::string text = beast::buffers_to_string(self->buffer_.data());
      self->buffer_.consume(self->buffer_.size());
      self->on_text_(*self, text);
      self->Read();
    });
  }
  void WriteNext() {
    ws_.text(true);
    ws_.async_write(net::buffer(outbox_.front()), [self = shared_from_this()](beast::error_code error, std::size_t) {
      if (error) return self->Fail("write", error);
      self->outbox_.pop_front();
      if (!self->outbox_.empty()) self->WriteNext();
    });
  }
  void Fail(const char* what, beast::error_code error) {
    std::fprintf(stderr, "client %zu: %s failed: %s\n", index, what, error.message().c_str());
  }

  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
  std::deque<std::string> outbox_;
  OnText on_text_;
};

struct Percentiles {
  double median = 0;
  double p99 = 0;
};

Percentiles Of(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  return {values[values.size() / 2], values[std::min(values.size() - 1, values.size() * 99 / 100)]};
}

// The server as a child process; its CPU time and memory from /proc.
class ServerProcess {
 public:
  explicit ServerProcess(std::uint16_t port) {
    pid_ = fork();
    if (pid_ == 0) {
      setenv("MIRELL_LOG", "warn", 1);
      const std::string listen = "127.0.0.1:" + std::to_string(port);
      execl(MIRELL_SIGNAL_BINARY, "mirell-signal", "--listen", listen.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  ~ServerProcess() {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
  double CpuSeconds() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/stat");
    std::stringstream contents;
    contents << file.rdbuf();
    const std::string text = contents.str();
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
      if (i == 14) utime = std::stol(field);
      if (i == 15) stime = std::stol(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  long MemoryKb(const std::string& key) const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(file, line)) {
      if (line.rfind(key + ":", 0) == 0) return std::stol(line.substr(key.size() + 1));
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
};

bool WaitForPort(std::uint16_t port) {
  for (int i = 0; i < 500; ++i) {
    net::io_context io;
    tcp::socket socket(io);
    beast::error_code error;
    socket.connect({net::ip::make_address("127.0.0.1"), port}, error);
    if (!error) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

std::uint16_t FreePort() {
  net::io_context io;
  tcp::acceptor acceptor(io, {net::ip::make_address("127.0.0.1"), 0});
  return acceptor.local_endpoint().port();
}

struct RelayResult {
  double joins_per_second = 0;
  std::vector<double> relay_us;
  std::size_t offers = 0;
  std::size_t answers = 0;
  bool finished = false;
};

RelayResult RunRelay(std::uint16_t port, std::size_t viewers, std::size_t tokens) {
  net::io_context io;
  const tcp::endpoint endpoint(net::ip::make_address("127.0.0.1"), port);
  RelayResult result;
  std::vector<std::shared_ptr<LoadClient>> clients;
  std::size_t hosting = 0;
  std::size_t joined = 0;
  Clock::time_point joins_started;
  Clock::time_point last_joined;

  const auto start_viewers = [&] {
    joins_started = Clock::now();
    for (std::size_t i = 0; i < viewers; ++i) {
      auto viewer = std::make_shared<LoadClient>(io, [&](LoadClient& self, const std::string& text) {
        const Json message = Json::parse(text);
        if (message["type"] == "joined") {
          if (++joined == viewers) last_joined = Clock::now();
        } else if (message["type"] == "offer") {
          result.relay_us.push_back(MicrosSinceStamp(message["sdp"]));
          ++result.offers;
          self.Send(Json{{"type", "answer"}, {"sdp", StampedSdp()}}.dump());
        }
      });
      viewer->index = tokens + i;
      clients.push_back(viewer);
      viewer->Connect(endpoint, [i, tokens](LoadClient& self) {
        self.Send(Json{{"type", "join"}, {"token", "LOADTOKEN" + std::to_string(i % tokens)},
                       {"identity", "usr_" + std::to_string(i)}}.dump());
      });
    }
  };

  for (std::size_t t = 0; t < tokens; ++t) {
    auto host = std::make_shared<LoadClient>(io, [&](LoadClient& self, const std::string& text) {
      const Json message = Json::parse(text);
      if (message["type"] == "hosting") {
        if (++hosting == tokens) start_viewers();
      } else if (message["type"] == "peer") {
        self.Send(Json{{"type", "offer"}, {"peer", message["peer"]}, {"sdp", StampedSdp()}}.dump());
      } else if (message["type"] == "answer") {
        result.relay_us.push_back(MicrosSinceStamp(message["sdp"]));
        if (++result.answers == viewers) io.stop();
      }
    });
    host->index = t;
    clients.push_back(host);
    host->Connect(endpoint, [t](LoadClient& self) {
      self.Send(Json{{"type", "host"}, {"token", "LOADTOKEN" + std::to_string(t)}, {"secret", "S"},
                     {"media", {{"width", 1280}, {"height", 720}, {"fps", 30}}}}.dump());
    });
  }
  net::steady_timer limit(io, kRunLimit);
  limit.async_wait([&](beast::error_code error) {
    if (!error) io.stop();
  });
  io.run();
  result.finished = result.answers == viewers;
  const double seconds = std::chrono::duration<double>(last_joined - joins_started).count();
  result.joins_per_second = joined == viewers && seconds > 0 ? static_cast<double>(viewers) / seconds : 0;
  for (auto& client : clients) client->Close();
  return result;
}

// The reference: a bare Beast echo server on its own thread.
class EchoServer {
 public:
  EchoServer() : acceptor_(io_, {net::ip::make_address("127.0.0.1"), 0}) {
    Accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~EchoServer() {
    io_.stop();
    thread_.join();
  }
  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }

 private:
  struct Session : std::enable_shared_from_this<Session> {
    explicit Session(tcp::socket socket) : ws(std::move(socket)) {}
    void Run() {
      ws.async_accept([self = shared_from_this()](beast::error_code error) {
        if (!error) self->Read();
      });
    }
    void Read() {
      ws.async_read(buffer, [self = shared_from_this()](beast::error_code error, std::size_t) {
        if (error) return;
        self->ws.text(true);
        self->ws.async_write(self->buffer.data(), [self](beast::error_code write_error, std::size_t) {
          if (write_error) return;
          self->buffer.consume(self->buffer.size());
          self->Read();
        });
      });
    }
    websocket::stream<beast::tcp_stream> ws;
    beast::flat_buffer buffer;
  };
  void Accept() {
    acceptor_.async_accept([this](beast::error_code error, tcp::socket socket) {
      if (!error) std::make_shared<Session>(std::move(socket))->Run();
      Accept();
    });
  }
  net::io_context io_;
  tcp::acceptor acceptor_;
  std::thread thread_;
};

std::vector<double> RunEcho(std::size_t connections) {
  EchoServer server;
  net::io_context io;
  const tcp::endpoint endpoint(net::ip::make_address("127.0.0.1"), server.port());
  std::vector<double> latencies;
  std::vector<std::shared_ptr<LoadClient>> clients;
  for (std::size_t i = 0; i < connections; ++i) {
    auto client = std::make_shared<LoadClient>(io, [&](LoadClient&, const std::string& text) {
      latencies.push_back(MicrosSinceStamp(text));
      if (latencies.size() == connections) io.stop();
    });
    clients.push_back(client);
    client->Connect(endpoint, [](LoadClient& self) { self.Send(StampedSdp()); });
  }
  net::steady_timer limit(io, kRunLimit);
  limit.async_wait([&](beast::error_code error) {
    if (!error) io.stop();
  });
  io.run();
  for (auto& client : clients) client->Close();
  return latencies;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t viewers = argc > 1 ? std::stoul(argv[1]) : 1000;
  const std::size_t tokens = argc > 2 ? std::stoul(argv[2]) : 100;
  // Every client holds a socket: lift the descriptor limit as far as allowed (the child too).
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);

  const std::uint16_t port = FreePort();
  ServerProcess server(port);
  if (!WaitForPort(port)) {
    std::fprintf(stderr, "mirell-signal did not start\n");
    return 1;
  }
  const double cpu_before = server.CpuSeconds();
  const auto started = Clock::now();
  const RelayResult relay = RunRelay(port, viewers, tokens);
  const double wall = std::chrono::duration<double>(Clock::now() - started).count();
  const double cpu = server.CpuSeconds() - cpu_before;
  const long rss_kb = server.MemoryKb("VmRSS");
  const long peak_kb = server.MemoryKb("VmHWM");
  const auto relay_figures = Of(relay.relay_us);
  const auto echo = RunEcho(viewers);
  const auto echo_figures = Of(echo);

  std::printf("signal load: %zu viewers on %zu tokens, full offer/answer, SDP %zu bytes\n", viewers, tokens,
              kSdpBytes);
  std::printf("  joins per second            %.0f\n", relay.joins_per_second);
  std::printf("  relay latency us            median %.0f  p99 %.0f  (%zu messages)\n", relay_figures.median,
              relay_figures.p99, relay.relay_us.size());
  std::printf("  lost                        offers %zu of %zu, answers %zu of %zu\n", viewers - relay.offers,
              viewers, viewers - relay.answers, viewers);
  std::printf("  server CPU                  %.2f s over %.2f s wall\n", cpu, wall);
  std::printf("  server memory               RSS %ld kB, peak %ld kB\n", rss_kb, peak_kb);
  std::printf("reference: bare Beast echo, %zu messages of %zu bytes on %zu connections\n", echo.size(), kSdpBytes,
              viewers);
  std::printf("  echo latency us             median %.0f  p99 %.0f\n", echo_figures.median, echo_figures.p99);
  if (echo_figures.median > 0) {
    std::printf("  relay / echo                median %.2f  p99 %.2f\n", relay_figures.median / echo_figures.median,
                relay_figures.p99 / echo_figures.p99);
  }
  return relay.finished ? 0 : 1;
}
