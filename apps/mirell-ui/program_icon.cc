#include "program_icon.h"

#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

namespace mirell::ui {

QIcon ProgramIcon() {
  QIcon icon;
  QSvgRenderer renderer(QStringLiteral(":/mirell/mirell.svg"));
  if (!renderer.isValid()) return icon;
  for (const int size : {16, 20, 24, 32, 40, 48, 64, 96, 128, 256}) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    renderer.render(&painter);
    painter.end();
    icon.addPixmap(pixmap);
  }
  return icon;
}

}  // namespace mirell::ui
