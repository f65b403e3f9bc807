// The program's one icon, drawn from the SVG in the resources, for the window and the tray.
#pragma once

#include <QIcon>

namespace mirell::ui {

// The drawing rendered at 16, 20, 24, 32, 40, 48, 64, 96, 128 and 256 pixels; the sizes that
// render are in the icon.
QIcon ProgramIcon();

}  // namespace mirell::ui
