// mirell-demo-window: something worth sharing in a demo or a benchmark. Coloured bars slide
// across a dark window, a strip along its top carries the steady-clock time as a time code
// (repainted at --fps, 144 by default, so that a reader can tell when each picture was made),
// and the process plays a tone. Each picture is drawn off screen and put in the window with one
// request, so capture never sees half of one. Runs until killed.
//
// mirell-demo-window [--title T] [--size WxH] [--fps N] [--tone HZ (0: none)] [--ready-file P]
#include <time.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "timecode.h"
#include "tone.h"

namespace {

struct Options {
  std::string title = "Mirell demo";
  std::uint16_t width = 1280, height = 720;
  int fps = 144;
  int tone = 440;
  std::string ready_file;
};

[[noreturn]] void Usage(const std::string& problem) {
  std::fprintf(stderr,
               "mirell-demo-window: %s\nusage: mirell-demo-window [--title T] [--size WxH] [--fps N] "
               "[--tone HZ] [--ready-file P]\n",
               problem.c_str());
  std::exit(2);
}

Options Parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (i + 1 >= argc) Usage(name + " needs a value");
    const char* value = argv[++i];
    if (name == "--title") {
      o.title = value;
    } else if (name == "--size") {
      if (std::sscanf(value, "%hux%hu", &o.width, &o.height) != 2 || o.width < 160 || o.height < 90) {
        Usage("--size takes WxH, at least 160x90");
      }
    } else if (name == "--fps") {
      o.fps = std::atoi(value);
      if (o.fps < 1 || o.fps > 1000) Usage("--fps takes 1 to 1000");
    } else if (name == "--tone") {
      o.tone = std::atoi(value);
      if (o.tone < 0 || o.tone > 20000) Usage("--tone takes 0 to 20000 Hz");
    } else if (name == "--ready-file") {
      o.ready_file = value;
    } else {
      Usage("unknown option " + name);
    }
  }
  return o;
}

xcb_atom_t Atom(xcb_connection_t* c, const char* name) {
  xcb_intern_atom_reply_t* reply =
      xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
  const xcb_atom_t atom = reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
  std::free(reply);
  return atom;
}

void Fill(xcb_connection_t* c, xcb_drawable_t target, xcb_gcontext_t gc, std::uint32_t colour, int x, int y,
          int width, int height) {
  xcb_change_gc(c, gc, XCB_GC_FOREGROUND, &colour);
  const xcb_rectangle_t rectangle{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                                  static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height)};
  xcb_poly_fill_rectangle(c, target, gc, 1, &rectangle);
}

void Paint(xcb_connection_t* c, xcb_pixmap_t canvas, xcb_gcontext_t gc, int width, int height, long frame) {
  Fill(c, canvas, gc, 0x202830, 0, 0, width, height);
  constexpr std::uint32_t kBars[] = {0xE04040, 0x40C040, 0x4060E0, 0xE0C040, 0xC040C0, 0x40C0C0};
  const int bar = width / 12;
  for (int i = 0; i < 6; ++i) {
    const int x = static_cast<int>((i * 2 * bar + frame * 4) % (width + bar)) - bar;
    Fill(c, canvas, gc, kBars[i], x, height / 6, bar, height * 2 / 3);
  }
  // The time code last, closest to the moment the picture is shown.
  const std::uint64_t cells = mirell::timecode::Cells(mirell::timecode::Now());
  const double cell = mirell::timecode::CellSize(width);
  for (int i = 0; i < mirell::timecode::kCells; ++i) {
    const bool one = ((cells >> (mirell::timecode::kCells - 1 - i)) & 1u) != 0;
    const int x = static_cast<int>(i * cell);
    Fill(c, canvas, gc, one ? 0xFFFFFF : 0x000000, x, 0, static_cast<int>((i + 1) * cell) - x, static_cast<int>(cell));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = Parse(argc, argv);
  xcb_connection_t* c = xcb_connect(nullptr, nullptr);
  if (xcb_connection_has_error(c) != 0) {
    std::fprintf(stderr, "mirell-demo-window: cannot open the X display (is DISPLAY set?)\n");
    return 1;
  }
  xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  const xcb_window_t window = xcb_generate_id(c);
  const std::uint32_t events[] = {XCB_EVENT_MASK_EXPOSURE};
  xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, o.width, o.height, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_EVENT_MASK, events);
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, Atom(c, "_NET_WM_NAME"), Atom(c, "UTF8_STRING"), 8,
                      static_cast<std::uint32_t>(o.title.size()), o.title.data());
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                      static_cast<std::uint32_t>(o.title.size()), o.title.data());
  const std::uint32_t pid = static_cast<std::uint32_t>(getpid());
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, Atom(c, "_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
  // A fixed size: a resized window would move the time code.
  std::uint32_t hints[18] = {16u | 32u};  // PMinSize | PMaxSize
  hints[5] = hints[7] = o.width;
  hints[6] = hints[8] = o.height;
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 32, 18,
                      hints);
  const xcb_pixmap_t canvas = xcb_generate_id(c);
  xcb_create_pixmap(c, screen->root_depth, canvas, window, o.width, o.height);
  const xcb_gcontext_t gc = xcb_generate_id(c);
  xcb_create_gc(c, gc, canvas, 0, nullptr);
  xcb_map_window(c, window);
  xcb_flush(c);

  std::unique_ptr<mirell::demo::Tone> tone;
  if (o.tone > 0) tone = std::make_unique<mirell::demo::Tone>(o.tone);

  const long interval_ns = 1'000'000'000L / o.fps;
  timespec next{};
  clock_gettime(CLOCK_MONOTONIC, &next);
  bool announced = false;
  for (long frame = 0;; ++frame) {
    while (xcb_generic_event_t* event = xcb_poll_for_event(c)) std::free(event);
    if (xcb_connection_has_error(c) != 0) return 0;  // The display went away.
    Paint(c, canvas, gc, o.width, o.height, frame);
    xcb_copy_area(c, canvas, window, gc, 0, 0, 0, 0, o.width, o.height);
    xcb_flush(c);
    if (!announced && !o.ready_file.empty()) {
      // A round trip: the picture has reached the server before anyone looks for the window.
      std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
      const std::string temporary = o.ready_file + ".tmp";
      std::ofstream(temporary) << window << "\n";
      std::rename(temporary.c_str(), o.ready_file.c_str());
      announced = true;
    }
    next.tv_nsec += interval_ns;
    while (next.tv_nsec >= 1'000'000'000L) {
      next.tv_nsec -= 1'000'000'000L;
      ++next.tv_sec;
    }
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  }
}
