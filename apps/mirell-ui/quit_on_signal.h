// SIGINT and SIGTERM end the event loop, so that shutdown runs in order as after the tray's quit.
#pragma once

namespace mirell::ui {

// Installs the handlers once; call after the application object exists.
void QuitEventLoopOnSignals();

}  // namespace mirell::ui
