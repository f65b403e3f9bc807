#include "x11_connection.h"

#include <cstring>

namespace mirell::capture {

X11Connection::X11Connection() {
  int screen_number = 0;
  xcb_connection_t* connection = xcb_connect(nullptr, &screen_number);
  if (xcb_connection_has_error(connection) != 0) {
    xcb_disconnect(connection);
    return;
  }
  xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (int i = 0; i < screen_number && screens.rem > 0; ++i) xcb_screen_next(&screens);
  if (screens.rem == 0) {
    xcb_disconnect(connection);
    return;
  }
  connection_ = connection;
  screen_ = screens.data;
}

X11Connection::~X11Connection() {
  if (connection_ != nullptr) xcb_disconnect(connection_);
}

xcb_atom_t X11Connection::Atom(const std::string& name) {
  if (const auto found = atoms_.find(name); found != atoms_.end()) return found->second;
  auto reply = TakeReply(xcb_intern_atom_reply(
      connection_, xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.c_str()),
      nullptr));
  const xcb_atom_t atom = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
  atoms_.emplace(name, atom);
  return atom;
}

std::vector<std::uint32_t> X11Connection::Property32(xcb_window_t window, xcb_atom_t property, xcb_atom_t type) {
  auto reply = TakeReply(xcb_get_property_reply(
      connection_, xcb_get_property(connection_, 0, window, property, type, 0, 1 << 16), nullptr));
  if (!reply || reply->format != 32 || reply->type != type) return {};
  const auto count = static_cast<std::size_t>(xcb_get_property_value_length(reply.get())) / 4;
  if (count == 0) return {};
  std::vector<std::uint32_t> values(count);
  std::memcpy(values.data(), xcb_get_property_value(reply.get()), count * 4);
  return values;
}

std::optional<std::string> X11Connection::PropertyText(xcb_window_t window, xcb_atom_t property, xcb_atom_t type) {
  auto reply = TakeReply(xcb_get_property_reply(
      connection_, xcb_get_property(connection_, 0, window, property, type, 0, 1 << 16), nullptr));
  if (!reply || reply->format != 8 || reply->type != type) return std::nullopt;
  const auto* bytes = static_cast<const char*>(xcb_get_property_value(reply.get()));
  return std::string(bytes, static_cast<std::size_t>(xcb_get_property_value_length(reply.get())));
}

bool X11Connection::HasExtension(const std::string& name) {
  auto reply = TakeReply(xcb_query_extension_reply(
      connection_, xcb_query_extension(connection_, static_cast<std::uint16_t>(name.size()), name.c_str()),
      nullptr));
  return reply && reply->present != 0;
}

bool IsWaylandOnlySession() {
  const char* display = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  return (display == nullptr || *display == '\0') && wayland != nullptr && *wayland != '\0';
}

}  // namespace mirell::capture
