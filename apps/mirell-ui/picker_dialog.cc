#include "picker_dialog.h"

#include <QCoreApplication>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QLabel>
#include <QListWidget>
#include <QPainter>
#include <QPushButton>
#include <QSet>
#include <QTimer>
#include <QVBoxLayout>
#include <utility>

#include "mirell/capture/capture_targets.h"
#include "mirell/capture/capturer.h"
#include "mirell/capture/thumbnails.h"

namespace mirell::ui {
namespace {

constexpr int kIsMonitorRole = Qt::UserRole + 1;
constexpr int kHandleRole = Qt::UserRole + 2;
constexpr int kProcessIdRole = Qt::UserRole + 3;
constexpr int kLabelRole = Qt::UserRole + 4;

constexpr int kPreviewMs = 333;
constexpr int kListMs = 2000;

using ItemKey = std::pair<bool, quint32>;  // Monitor or window, and its handle.

ItemKey KeyOf(const QListWidgetItem& item) {
  return {item.data(kIsMonitorRole).toBool(), item.data(kHandleRole).toUInt()};
}

QListWidgetItem* FindItem(const QListWidget& list, const ItemKey& key) {
  for (int row = 0; row < list.count(); ++row) {
    if (KeyOf(*list.item(row)) == key) return list.item(row);
  }
  return nullptr;
}

capture::CaptureTarget TargetOf(const QListWidgetItem& item) {
  capture::CaptureTarget target;
  if (item.data(kIsMonitorRole).toBool()) {
    target.kind = capture::CaptureKind::kMonitor;
    target.monitor = item.data(kHandleRole).toUInt();
  } else {
    target.kind = capture::CaptureKind::kWindow;
    target.window = item.data(kHandleRole).toUInt();
  }
  return target;
}

QImage ImageOf(const capture::Thumbnail& thumbnail) {
  if (thumbnail.width == 0 || thumbnail.height == 0) return {};
  const QImage view(thumbnail.bgra.data(), static_cast<int>(thumbnail.width),
                    static_cast<int>(thumbnail.height), static_cast<qsizetype>(thumbnail.width) * 4,
                    QImage::Format_RGB32);
  return view.copy();
}

}  // namespace

bool IsBlankImage(const QImage& image) {
  if (image.isNull() || image.height() < 1) return true;
  const QRgb first = image.pixel(0, 0);
  for (int y = 0; y < image.height(); y += 4) {
    for (int x = 0; x < image.width(); x += 4) {
      if (image.pixel(x, y) != first) return false;
    }
  }
  return true;
}

QPixmap PlaceholderIcon(const QSize& size) {
  static QPixmap placeholder;
  if (!placeholder.isNull() && placeholder.size() == size) return placeholder;
  placeholder = QPixmap(size);
  placeholder.fill(Qt::transparent);
  {
    // Ended before the pixmap is handed out, so that every copy shares the finished picture.
    QPainter painter(&placeholder);
    painter.setPen(QPen(QColor(128, 128, 128, 144), 1));
    painter.drawRect(QRectF(placeholder.rect()).adjusted(0.5, 0.5, -0.5, -0.5));
    painter.setPen(QColor(144, 144, 144, 255));
    painter.drawText(placeholder.rect(), Qt::AlignCenter,
                     QCoreApplication::translate("Mirell::ui::PickerDialog", "No preview"));
  }
  return placeholder;
}

PickerDialog::PickerDialog(QWidget* parent, bool offer_public)
    : QDialog(parent), thumbnails_(capture::CreateThumbnailSource()) {
  setWindowTitle(tr("Share a screen or a window"));
  setMinimumSize(760, 580);
  auto* layout = new QVBoxLayout(this);

  list_ = new QListWidget(this);
  list_->setViewMode(QListView::IconMode);
  list_->setIconSize(thumbnail_size_);
  list_->setGridSize(item_size_ + QSize(12, 12));
  list_->setResizeMode(QListView::Adjust);
  list_->setMovement(QListView::Static);
  list_->setWordWrap(true);
  list_->setSelectionMode(QAbstractItemView::SingleSelection);
  list_->setFocusPolicy(Qt::StrongFocus);
  list_->setStyleSheet(
      "QListWidget::item {  border: 2px solid transparent;  border-radius: 6px;}"
      "QListWidget::item:hover {  border-color: palette(mid);}"
      "QListWidget::item:selected {  border-color: palette(highlight);  background: "
      "palette(highlight);  color: palette(highlighted-text);}");
  layout->addWidget(list_, 1);

  hint_ = new QLabel(this);
  hint_->setWordWrap(true);
  hint_->setTextFormat(Qt::PlainText);
  hint_->setMinimumHeight(40);
  layout->addWidget(hint_);

  all_sound_ = new QCheckBox(tr("All sound: everything this computer plays, not just the window's"), this);
  all_sound_->setToolTip(tr("Voice chat and VRChat itself go out too, and viewers in the same world "
                            "hear themselves back. Leave it off unless the window's sound comes "
                            "from another program."));
  all_sound_->setVisible(false);
  layout->addWidget(all_sound_);
  connect(all_sound_, &QCheckBox::toggled, this, &PickerDialog::SelectionChanged);

  if (offer_public) {
    // Off each time: a public share is chosen for one share, never carried over unseen.
    public_ = new QCheckBox(tr("Anyone with the link can watch"), this);
    layout->addWidget(public_);
    auto* public_hint = new QLabel(
        tr("Nobody is asked about: everyone who has the link gets in, and anyone who can see "
           "it in a VRChat world can. Where your meeting place runs a relay, people without "
           "Mirell watch too, through it, and it takes one stream from you however many watch."),
        this);
    public_hint->setWordWrap(true);
    public_hint->setIndent(24);
    layout->addWidget(public_hint);
  }

  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
  share_button_ = buttons->addButton(tr("Share"), QDialogButtonBox::AcceptRole);
  share_button_->setEnabled(false);
  // Enter in the list must not share by accident.
  share_button_->setDefault(false);
  share_button_->setAutoDefault(false);
  layout->addWidget(buttons);

  connect(buttons, &QDialogButtonBox::accepted, this, &PickerDialog::Accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  connect(list_, &QListWidget::itemSelectionChanged, this, &PickerDialog::SelectionChanged);
  connect(list_, &QListWidget::itemDoubleClicked, this, &PickerDialog::Accept);

  RefreshList();
  RefreshPreviews();
  if (!capture::IsCaptureSupported()) {
    // An empty list alone would not say why (a Wayland session without XWayland, say).
    hint_->setText(tr("Can't share from here: %1.")
                       .arg(QString::fromStdString(capture::CaptureUnsupportedReason())));
  }
  list_->setCurrentItem(nullptr);
  list_->clearSelection();
  list_->setFocus();

  preview_timer_ = new QTimer(this);
  connect(preview_timer_, &QTimer::timeout, this, &PickerDialog::RefreshPreviews);
  preview_timer_->start(kPreviewMs);
  list_timer_ = new QTimer(this);
  connect(list_timer_, &QTimer::timeout, this, &PickerDialog::RefreshList);
  list_timer_->start(kListMs);
}

PickerDialog::~PickerDialog() = default;

void PickerDialog::RefreshList() {
  QSet<ItemKey> present;
  const auto place = [&](const ItemKey& key, int insert_at) {
    present.insert(key);
    QListWidgetItem* item = FindItem(*list_, key);
    if (item == nullptr) {
      item = new QListWidgetItem;
      item->setData(kIsMonitorRole, key.first);
      item->setData(kHandleRole, key.second);
      item->setSizeHint(item_size_);
      item->setIcon(PlaceholderIcon(thumbnail_size_));
      item->setTextAlignment(Qt::AlignTop | Qt::AlignHCenter);
      if (insert_at < 0) {
        list_->addItem(item);
      } else {
        list_->insertItem(insert_at, item);
      }
    }
    return item;
  };

  const std::vector<capture::CapturableMonitor> monitors = capture::EnumerateMonitors();
  for (std::size_t i = 0; i < monitors.size(); ++i) {
    const capture::CapturableMonitor& monitor = monitors[i];
    QListWidgetItem* item = place({true, monitor.monitor}, static_cast<int>(i));
    const QString name = QString::fromStdString(monitor.name);
    item->setData(kLabelRole, name);
    item->setText(name + "\n" + (monitor.primary ? tr("Whole screen - primary") : tr("Whole screen")));
  }
  for (const capture::CapturableWindow& window : capture::EnumerateWindows()) {
    QListWidgetItem* item = place({false, window.window}, -1);
    const QString title = QString::fromStdString(window.title);
    item->setData(kProcessIdRole, window.pid);
    item->setData(kLabelRole, title);
    item->setText(title + "\n" + QString::fromStdString(window.process));
  }
  for (int row = list_->count() - 1; row >= 0; --row) {
    if (!present.contains(KeyOf(*list_->item(row)))) delete list_->takeItem(row);
  }
}

void PickerDialog::RefreshPreviews() {
  if (!isVisible()) return;
  for (int row = 0; row < list_->count(); ++row) {
    QListWidgetItem* item = list_->item(row);
    const std::optional<capture::Thumbnail> thumbnail =
        thumbnails_->Take(TargetOf(*item), static_cast<std::uint32_t>(thumbnail_size_.width()),
                          static_cast<std::uint32_t>(thumbnail_size_.height()));
    const QImage image = thumbnail ? ImageOf(*thumbnail) : QImage();
    if (IsBlankImage(image)) {
      if (item->toolTip().isEmpty()) {
        item->setIcon(PlaceholderIcon(thumbnail_size_));
        item->setToolTip(tr("No preview, but sharing it should still work"));
      }
      continue;
    }
    item->setIcon(QPixmap::fromImage(image));
    item->setToolTip(QString());
  }
}

void PickerDialog::SelectionChanged() {
  const QList<QListWidgetItem*> selected = list_->selectedItems();
  share_button_->setEnabled(!selected.isEmpty());
  if (selected.isEmpty()) {
    hint_->setText(tr("Choose a screen or a window to share."));
  } else if (selected.front()->data(kIsMonitorRole).toBool()) {
    hint_->setText(tr("Everything on this screen goes out, including notifications that pop up "
                      "later. Sound is everything the computer plays, voice chat included."));
  } else if (all_sound_->isChecked()) {
    hint_->setText(tr("Only this window goes out, with everything the computer plays, voice chat "
                      "included."));
  } else {
    hint_->setText(tr("Only this window goes out, and only its sound (silence until it plays)."));
  }
  all_sound_->setVisible(!selected.isEmpty() && !selected.front()->data(kIsMonitorRole).toBool());
}

bool PickerDialog::public_share() const { return public_ != nullptr && public_->isChecked(); }

void PickerDialog::Accept() {
  const QList<QListWidgetItem*> selected = list_->selectedItems();
  if (selected.isEmpty()) return;
  const QListWidgetItem& item = *selected.front();
  session::ShareTarget target;
  target.capture = TargetOf(item);
  target.label = item.data(kLabelRole).toString().toStdString();
  if (item.data(kIsMonitorRole).toBool()) {
    target.whole_mix = true;
  } else {
    target.process_id = item.data(kProcessIdRole).toUInt();
    target.whole_mix = all_sound_->isChecked();
  }
  result_ = target;
  QDialog::accept();
}

}  // namespace mirell::ui
