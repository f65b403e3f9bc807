// One xcb connection with the helpers the capture code shares: interned atoms, properties read as
// values, and replies whose errors come back per request (xcb never exits the process on an X
// error, which Xlib's default handler would, and it needs no process-global error handler that
// would fight Qt's). A connection belongs to one thread.
#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mirell::capture {

// A reply or error from xcb, freed with free().
template <typename T>
using XcbReply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
XcbReply<T> TakeReply(T* reply) {
  return XcbReply<T>(reply, &std::free);
}

class X11Connection {
 public:
  // Connects to $DISPLAY. A connection that failed reports ok() false and does nothing else.
  X11Connection();
  ~X11Connection();
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;

  bool ok() const { return connection_ != nullptr; }
  xcb_connection_t* get() const { return connection_; }
  xcb_window_t root() const { return screen_->root; }
  xcb_screen_t* screen() const { return screen_; }

  // The atom of `name`, interned once per connection; XCB_ATOM_NONE when the server refuses.
  xcb_atom_t Atom(const std::string& name);
  // A property as 32-bit values (CARDINAL, ATOM, WINDOW); empty when absent or of another format.
  std::vector<std::uint32_t> Property32(xcb_window_t window, xcb_atom_t property, xcb_atom_t type);
  // A text property (UTF8_STRING or STRING) as bytes; nullopt when absent.
  std::optional<std::string> PropertyText(xcb_window_t window, xcb_atom_t property, xcb_atom_t type);
  // Whether the server has the extension, by name ("Composite", "DAMAGE", "MIT-SHM", ...).
  bool HasExtension(const std::string& name);

 private:
  xcb_connection_t* connection_ = nullptr;
  xcb_screen_t* screen_ = nullptr;
  std::map<std::string, xcb_atom_t> atoms_;
};

// True when this session has no X display to reach but is a Wayland session.
bool IsWaylandOnlySession();

}  // namespace mirell::capture
