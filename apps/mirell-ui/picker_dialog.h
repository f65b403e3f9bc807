// "Share a screen or a window": live thumbnails of every monitor and window to pick from. The
// list is read again every two seconds with the items kept in place (a selection survives and
// nothing jumps); the thumbnails are taken again three times a second while the dialog shows.
#pragma once

#include <QDialog>
#include <QImage>
#include <QPixmap>
#include <QSize>
#include <memory>
#include <optional>

#include "mirell/session/sharing.h"

class QCheckBox;
class QLabel;
class QListWidget;
class QPushButton;
class QTimer;

namespace mirell::capture {
class ThumbnailSource;
}

namespace mirell::ui {

class PickerDialog : public QDialog {
  Q_OBJECT

 public:
  explicit PickerDialog(QWidget* parent = nullptr);
  ~PickerDialog() override;

  // Filled by Accept; read after exec.
  const std::optional<session::ShareTarget>& result() const { return result_; }
  QListWidget* list() const { return list_; }

 private slots:
  void RefreshList();
  void RefreshPreviews();
  void SelectionChanged();
  void Accept();

 private:
  QListWidget* list_ = nullptr;
  QLabel* hint_ = nullptr;
  QCheckBox* all_sound_ = nullptr;  // A window's share with everything the computer plays.
  QPushButton* share_button_ = nullptr;
  QTimer* preview_timer_ = nullptr;
  QTimer* list_timer_ = nullptr;
  std::optional<session::ShareTarget> result_;
  QSize thumbnail_size_{256, 144};
  QSize item_size_{256 + 16, 144 + 58};
  std::unique_ptr<capture::ThumbnailSource> thumbnails_;
};

// A null image, one under a pixel high, or one whose every fourth pixel (both ways) equals the
// top-left pixel: nothing worth showing yet.
bool IsBlankImage(const QImage& image);
// "No preview" in a thin frame, of the given size; kept and rebuilt only for another size.
QPixmap PlaceholderIcon(const QSize& size);

}  // namespace mirell::ui
