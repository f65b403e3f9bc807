// The interface's own cost on the interface thread: one tick of the main window (its Refresh,
// which also drives the daemon's poll) and the picker's two refreshes, beside an empty slot
// called the same way in the same run. On Xvfb with openbox: two monitors and twenty windows
// with moving bars for the picker. Our widgets draw on Qt's offscreen platform.
// Usage: bench_window_refresh [ticks]
#include <fmt/format.h>

#include <QApplication>
#include <QListWidget>
#include <QMetaObject>
#include <QObject>
#include <QTableWidget>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "daemon_host.h"
#include "main_window.h"
#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/xvfb.h"
#include "picker_dialog.h"
#include "test_window.h"
#include "viewers_table.h"

namespace {

using Clock = std::chrono::steady_clock;

double Percentile(std::vector<double> values, double q) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(q * static_cast<double>(values.size())))];
}

// Milliseconds each call of `call` took.
std::vector<double> Time(int count, const std::function<void(int)>& call) {
  std::vector<double> ms;
  for (int i = 1; i <= count; ++i) {
    const auto start = Clock::now();
    call(i);
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return ms;
}

void Print(const std::string& what, const std::vector<double>& ms) {
  fmt::print("{:<58} {:>9.3f} {:>9.3f} {:>6}\n", what, Percentile(ms, 0.5), Percentile(ms, 0.99),
             ms.size());
}

class EmptySlot : public QObject {
  Q_OBJECT
 public slots:
  void Nothing() {}
};

}  // namespace

int main(int argc, char** argv) {
  using namespace mirell;
  const int ticks = argc > 1 ? std::atoi(argv[1]) : 420;
  SetLogLevel(LogLevel::kWarn);

  testsupport::XvfbOptions xvfb;
  xvfb.width = 2560;
  xvfb.height = 720;
  xvfb.window_manager = true;
  testsupport::XvfbDisplay display(xvfb);
  if (!display.available()) {
    fmt::print(stderr, "needs Xvfb and openbox (scripts/install-deps installs them)\n");
    return 1;
  }
  testsupport::ProcessOptions x;
  x.environment["DISPLAY"] = display.name();
  testsupport::RunProcess({"xrandr", "--setmonitor", "left", "1280/338x720/190+0+0", "screen"}, x);
  testsupport::RunProcess({"xrandr", "--setmonitor", "*right", "1280/338x720/190+1280+0", "none"}, x);
  std::vector<std::unique_ptr<capture::TestWindow>> windows;
  for (int i = 0; i < 20; ++i) {
    windows.push_back(std::make_unique<capture::TestWindow>(
        display.name(),
        std::vector<std::string>{"--title", fmt::format("Window {}", i), "--size", "400x300",
                                 "--position", fmt::format("{},{}", (i % 6) * 400, (i / 6) * 120),
                                 "--color", "203050", "--color2", "e0c020", "--bars",
                                 "--alternate-ms", "50"}));
  }

  qputenv("QT_QPA_PLATFORM", "offscreen");
  setenv("DISPLAY", display.name().c_str(), 1);  // For the capture layer only.
  testsupport::TempDir home;
  setenv("HOME", home.path().c_str(), 1);         // No VRChat of the user's is read.
  QApplication application(argc, argv);

  EmptySlot empty;
  const auto empty_ms = Time(ticks, [&](int) {
    QMetaObject::invokeMethod(&empty, "Nothing", Qt::DirectConnection);
  });

  ui::DaemonConfig config;
  config.signal_url.clear();
  config.install_stub = false;
  ui::DaemonHost host(config);
  ui::MainWindow window(&host);
  window.show();
  QApplication::processEvents();
  std::vector<double> tick_ms;
  std::vector<double> setting_read_ms;
  // The window read VRChat's setting at its first refresh; it reads it again every 21st.
  const auto all = Time(ticks, [&](int) {
    QMetaObject::invokeMethod(&window, "Refresh", Qt::DirectConnection);
  });
  for (std::size_t i = 0; i < all.size(); ++i) {
    ((i + 1) % 21 == 0 ? setting_read_ms : tick_ms).push_back(all[i]);
  }

  // The part of a tick that grows with the viewers: ten rows rewritten in place.
  QTableWidget table;
  ui::SetUpViewersTable(table);
  table.show();
  std::vector<session::ViewerInfo> viewers(10);
  for (std::size_t i = 0; i < viewers.size(); ++i) {
    viewers[i].connection_id = fmt::format("conn-{}", i);
    viewers[i].identity = fmt::format("usr_{:08}-0000-4000-8000-000000000000", i);
    viewers[i].display_name = fmt::format("Viewer {}", i);
    viewers[i].state = transport::PeerState::kConnected;
    viewers[i].uplink_kbps = 5800 + static_cast<std::uint32_t>(i);
  }
  const auto table_ms = Time(ticks, [&](int tick) {
    for (auto& viewer : viewers) viewer.seconds = tick;
    ui::UpdateViewersTable(table, viewers);
  });

  ui::PickerDialog picker;
  picker.show();
  QApplication::processEvents();
  const int picker_rounds = std::max(10, ticks / 20);
  const auto list_ms = Time(picker_rounds, [&](int) {
    QMetaObject::invokeMethod(&picker, "RefreshList", Qt::DirectConnection);
  });
  const auto preview_ms = Time(picker_rounds, [&](int) {
    QMetaObject::invokeMethod(&picker, "RefreshPreviews", Qt::DirectConnection);
  });

  fmt::print("the interface thread's work per call, Xvfb + offscreen widgets, same run\n");
  fmt::print("{:<58} {:>9} {:>9} {:>6}\n", "", "p50 ms", "p99 ms", "calls");
  Print("empty slot (reference)", empty_ms);
  Print("main window tick, idle host (20 of every 21)", tick_ms);
  Print("main window tick that reads VRChat's setting (1 in 21)", setting_read_ms);
  Print("viewers table, 10 viewers rewritten", table_ms);
  Print(fmt::format("picker list, {} items", picker.list()->count()), list_ms);
  Print(fmt::format("picker thumbnails, {} items", picker.list()->count()), preview_ms);
  fmt::print("tick + 10-viewer table p99: {:.3f} ms (target 2); picker refresh p99: {:.1f} ms "
             "(target 100); ratio tick p50 / empty slot p50: {:.0f}\n",
             Percentile(tick_ms, 0.99) + Percentile(table_ms, 0.99),
             Percentile(list_ms, 0.99) + Percentile(preview_ms, 0.99),
             Percentile(tick_ms, 0.5) / std::max(1e-6, Percentile(empty_ms, 0.5)));
  return 0;
}

#include "window_refresh.moc"
