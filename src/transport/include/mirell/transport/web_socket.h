// A WebSocket client connection, as the signal client needs it: open a URL, send text frames,
// hear of frames, the close and errors. Its own I/O thread runs every callback. On Linux it
// stands on Boost.Beast with OpenSSL; nothing of those shows here.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace mirell::transport {

class WebSocket {
 public:
  struct Handlers {
    std::function<void()> on_open;  // The handshake is done; frames may be sent.
    // One whole frame; `binary` for a binary frame. An exception thrown here is logged at warn
    // and the socket stays open.
    std::function<void(const std::string& data, bool binary)> on_message;
    std::function<void()> on_closed;  // Once, after open or after an error; last callback.
    std::function<void(const std::string& reason)> on_error;  // Then on_closed.
  };

  // Closes by force if still open and joins the I/O thread. Never from a callback.
  virtual ~WebSocket() = default;

  // Before Open: a connection that hears nothing from the server for `limit` is ended as dead
  // (on_error, then on_closed), and a ping goes out after half of it, so that a live server is
  // never silent that long. Zero: never (the default). A half-open TCP connection (a NAT that
  // forgot it, a machine that slept) is otherwise never noticed.
  virtual void SetIdleLimit(std::chrono::milliseconds limit) = 0;
  // Starts connecting to a "ws://" or "wss://" URL and returns at once; the outcome arrives
  // through the handlers. Throws Error for a URL that is not of that form. Call once.
  virtual void Open(const std::string& url, Handlers handlers) = 0;
  // Queues one text frame; false when the socket is not open. Any thread; never blocks on the
  // network.
  virtual bool Send(const std::string& text) = 0;
  // True between on_open and the end of the connection.
  virtual bool IsOpen() const = 0;
  // Ends the connection at once, without a closing handshake; on_closed follows if it was
  // connecting or open. Any thread, any number of times.
  virtual void ForceClose() = 0;
};

// True for a URL that Open accepts: "ws://" or "wss://" in either case, a host, no user-info, and
// a port of 1-65535 if one is named.
bool IsWebSocketUrl(std::string_view url);

// A new unopened socket. "wss://" verifies the server's certificate against the system's CA
// store (or OpenSSL's SSL_CERT_FILE / SSL_CERT_DIR) and its host name.
std::unique_ptr<WebSocket> CreateWebSocket();

}  // namespace mirell::transport
