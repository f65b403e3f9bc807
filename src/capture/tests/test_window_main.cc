// A window with known content for the capture tests, in a process of its own (the capture
// targets leave out the test's own windows). It paints one colour, or two alternating ones with
// --alternate-ms, on every expose and resize, and writes its window id to --ready-file once it
// has painted. With --tone-file it also plays that sound file over and over (through paplay, in
// child processes, so that its sound belongs to the window's process tree). Runs until killed.
//
// mirell_test_window [--title T] [--size WxH] [--position X,Y] [--color RRGGBB]
//                    [--color2 RRGGBB --alternate-ms N] [--type NAME] [--no-pid | --fake-pid N]
//                    [--child-title T] [--bars] [--bars-after MS] [--ready-file P]
//                    [--tone-file WAV]
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

struct Options {
  std::string title = "test window";
  std::uint16_t width = 320, height = 240;
  std::int16_t x = 0, y = 0;
  std::uint32_t color = 0xFF0000, color2 = 0x0000FF;
  int alternate_ms = 0;
  std::string type;
  bool pid = true;
  long fake_pid = 0;
  std::string child_title;
  bool bars = false;
  int bars_after_ms = 0;  // Plain at first, then bars: a window that starts to draw.
  std::string ready_file;
  std::string tone_file;
};

xcb_atom_t Atom(xcb_connection_t* c, const char* name) {
  xcb_intern_atom_reply_t* reply =
      xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
  const xcb_atom_t atom = reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
  std::free(reply);
  return atom;
}

Options Parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : "";
    if (a == "--title") o.title = v, ++i;
    else if (a == "--size") std::sscanf(v, "%hux%hu", &o.width, &o.height), ++i;
    else if (a == "--position") std::sscanf(v, "%hd,%hd", &o.x, &o.y), ++i;
    else if (a == "--color") o.color = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 16)), ++i;
    else if (a == "--color2") o.color2 = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 16)), ++i;
    else if (a == "--alternate-ms") o.alternate_ms = std::atoi(v), ++i;
    else if (a == "--type") o.type = v, ++i;
    else if (a == "--no-pid") o.pid = false;
    else if (a == "--fake-pid") o.fake_pid = std::atol(v), ++i;
    else if (a == "--child-title") o.child_title = v, ++i;
    else if (a == "--bars") o.bars = true;
    else if (a == "--bars-after") o.bars_after_ms = std::atoi(v), ++i;
    else if (a == "--ready-file") o.ready_file = v, ++i;
    else if (a == "--tone-file") o.tone_file = v, ++i;
    else {
      std::fprintf(stderr, "unknown option %s\n", a.c_str());
      std::exit(2);
    }
  }
  return o;
}

// A child that plays the file again each time paplay ends. Every process of the chain dies with
// its parent, so that killing the window silences it.
void PlayForever(const std::string& file) {
  if (fork() != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) {
    const pid_t player = fork();
    if (player == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execlp("paplay", "paplay", file.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = 0;
    waitpid(player, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) _exit(1);
    if (!WIFEXITED(status)) usleep(100'000);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = Parse(argc, argv);
  if (!o.tone_file.empty()) PlayForever(o.tone_file);
  xcb_connection_t* c = xcb_connect(nullptr, nullptr);
  if (xcb_connection_has_error(c) != 0) return 1;
  xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  const xcb_window_t window = xcb_generate_id(c);
  const std::uint32_t values[] = {XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
  xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, o.x, o.y, o.width, o.height, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_EVENT_MASK, values);
  if (!o.title.empty()) {
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, Atom(c, "_NET_WM_NAME"), Atom(c, "UTF8_STRING"), 8,
                        static_cast<std::uint32_t>(o.title.size()), o.title.data());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(o.title.size()), o.title.data());
  }
  if (o.pid) {
    const auto pid = static_cast<std::uint32_t>(o.fake_pid != 0 ? o.fake_pid : getpid());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, Atom(c, "_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
  }
  if (!o.type.empty()) {
    const xcb_atom_t type = Atom(c, ("_NET_WM_WINDOW_TYPE_" + o.type).c_str());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, Atom(c, "_NET_WM_WINDOW_TYPE"), XCB_ATOM_ATOM, 32, 1, &type);
  }
  // Ask the window manager to keep our position, so that tests know where the window is.
  const std::uint32_t hints[18] = {1u | 2u | 4u | 8u, 0, 0, 0, 0};  // USPosition | USSize | PPosition | PSize
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 32, 18, hints);
  if (!o.child_title.empty()) {
    // A titled child inside the window: never a capture target of its own.
    const xcb_window_t child = xcb_generate_id(c);
    xcb_create_window(c, XCB_COPY_FROM_PARENT, child, window, 10, 10, 100, 100, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      screen->root_visual, 0, nullptr);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, child, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(o.child_title.size()), o.child_title.data());
    xcb_map_window(c, child);
  }
  xcb_map_window(c, window);
  const xcb_gcontext_t gc = xcb_generate_id(c);
  xcb_create_gc(c, gc, window, XCB_GC_FOREGROUND, &o.color);
  xcb_flush(c);

  std::uint16_t width = o.width, height = o.height;
  bool second = false;
  bool announced = false;
  int frame = 0;
  bool bars = o.bars;
  auto paint = [&] {
    const std::uint32_t colour = second ? o.color2 : o.color;
    xcb_change_gc(c, gc, XCB_GC_FOREGROUND, &colour);
    const xcb_rectangle_t all{0, 0, width, height};
    xcb_poly_fill_rectangle(c, window, gc, 1, &all);
    if (bars) {
      // Moving content for benchmarks: eight bars of the other colour that slide each repaint.
      const std::uint32_t other = second ? o.color : o.color2;
      xcb_change_gc(c, gc, XCB_GC_FOREGROUND, &other);
      const int spacing = std::max(1, width / 8);
      for (int i = 0; i < 8; ++i) {
        const auto x = static_cast<std::int16_t>((i * spacing + frame * 7) % std::max(1, static_cast<int>(width)));
        const xcb_rectangle_t bar{x, 0, static_cast<std::uint16_t>(spacing / 3), height};
        xcb_poly_fill_rectangle(c, window, gc, 1, &bar);
      }
      ++frame;
    }
    xcb_flush(c);
  };
  auto next_switch = std::chrono::steady_clock::now() + std::chrono::milliseconds(o.alternate_ms);
  const auto bars_at = std::chrono::steady_clock::now() + std::chrono::milliseconds(o.bars_after_ms);
  const int fd = xcb_get_file_descriptor(c);
  while (true) {
    pollfd p{fd, POLLIN, 0};
    const bool bars_pending = o.bars_after_ms > 0 && !bars;
    poll(&p, 1, o.alternate_ms > 0 || bars_pending ? 5 : 1000);
    while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
      const std::uint8_t type = event->response_type & 0x7F;
      if (type == XCB_EXPOSE) {
        paint();
        if (!announced && !o.ready_file.empty()) {
          // Round trip: the paint has reached the server before anyone reads the window.
          std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
          const std::string temporary = o.ready_file + ".tmp";
          std::ofstream(temporary) << window << "\n";
          std::rename(temporary.c_str(), o.ready_file.c_str());
          announced = true;
        }
      } else if (type == XCB_CONFIGURE_NOTIFY) {
        const auto* configure = reinterpret_cast<xcb_configure_notify_event_t*>(event);
        if (configure->window == window && (configure->width != width || configure->height != height)) {
          width = configure->width;
          height = configure->height;
          paint();
        }
      }
      std::free(event);
    }
    if (xcb_connection_has_error(c) != 0) return 0;
    if (bars_pending && std::chrono::steady_clock::now() >= bars_at) {
      bars = true;
      paint();
    }
    if (o.alternate_ms > 0 && std::chrono::steady_clock::now() >= next_switch) {
      second = !second;
      paint();
      next_switch += std::chrono::milliseconds(o.alternate_ms);
    }
  }
}
