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
  // `offer_public`: a new share, which may be made public; a swap of what a share shows keeps
  // what the share is.
  explicit PickerDialog(QWidget* parent = nullptr, bool offer_public = false);
  ~PickerDialog() override;

  // Filled by Accept; read after exec.
  const std::optional<session::ShareTarget>& result() const { return result_; }
  // "Anyone with the link can watch" was ticked; never without `offer_public`.
  bool public_share() const;
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
  QCheckBox* public_ = nullptr;     // Null unless offered.
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
