// Where the program's "open this link" goes in tests, instead of a browser: installed with
// QDesktopServices::setUrlHandler, it keeps the links. Test code only.
#pragma once

#include <QList>
#include <QObject>
#include <QUrl>

namespace mirell::ui {

class UrlCatcher : public QObject {
  Q_OBJECT

 public:
  QList<QUrl> opened;

 public slots:
  void Open(const QUrl& url) { opened.append(url); }
};

}  // namespace mirell::ui
