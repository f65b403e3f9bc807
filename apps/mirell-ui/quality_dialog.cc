#include "quality_dialog.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QPoint>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

namespace mirell::ui {
namespace {

QLabel* WrappedLabel(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setWordWrap(true);
  return label;
}

// Selects the item whose data is `value`, appending it as `extra_text` when no preset has it,
// so that a value set by hand survives a visit to the dialog.
void SelectOrAppend(QComboBox& combo, const QVariant& value, const QString& extra_text) {
  int index = combo.findData(value);
  if (index < 0) {
    combo.addItem(extra_text, value);
    index = combo.count() - 1;
  }
  combo.setCurrentIndex(index);
}

}  // namespace

QString BitrateText(std::uint32_t kbps) {
  const char* context = "mirell::ui::QualityDialog";
  if (kbps < 1000) return QCoreApplication::translate(context, "%1 kbit/s").arg(kbps);
  const double mbps = kbps / 1000.0;
  if (mbps < 99.5) {
    return QCoreApplication::translate(context, "%1 Mbit/s").arg(QString::number(mbps, 'g', 2));
  }
  // Two significant digits as a whole number, where 'g' would print "1e+02".
  const double step = std::pow(10.0, std::floor(std::log10(mbps)) - 1);
  const QString number = QString::number(std::llround(mbps / step) * std::llround(step));
  return QCoreApplication::translate(context, "%1 Mbit/s").arg(number);
}

QualityDialog::QualityDialog(encode::ShareQuality current, bool sharing, QWidget* parent)
    : QDialog(parent), settings_(current) {
  setWindowTitle(tr("Quality"));
  setMinimumWidth(460);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(WrappedLabel(tr("Whatever you share is scaled to this size and sent at about "
                                    "this rate. Higher costs you upload, and everybody watching "
                                    "has to keep up with it."),
                                 this));

  auto* form = new QFormLayout;
  size_combo_ = new QComboBox(this);
  for (const settings::SizePreset& size : settings::SizePresets()) {
    size_combo_->addItem(QString::fromStdString(size.text),
                         QPoint(static_cast<int>(size.width), static_cast<int>(size.height)));
  }
  SelectOrAppend(*size_combo_,
                 QPoint(static_cast<int>(settings_.width), static_cast<int>(settings_.height)),
                 tr("%1 x %2").arg(settings_.width).arg(settings_.height));
  fps_combo_ = new QComboBox(this);
  for (const std::uint32_t fps : settings::FpsPresets()) fps_combo_->addItem(tr("%1 per second").arg(fps), fps);
  SelectOrAppend(*fps_combo_, settings_.fps, tr("%1 per second").arg(settings_.fps));
  video_combo_ = new QComboBox(this);
  for (const std::uint32_t kbps : settings::VideoKbpsPresets()) video_combo_->addItem(BitrateText(kbps), kbps);
  SelectOrAppend(*video_combo_, settings_.video_kbps, BitrateText(settings_.video_kbps));
  audio_combo_ = new QComboBox(this);
  for (const std::uint32_t kbps : settings::AudioKbpsPresets()) audio_combo_->addItem(BitrateText(kbps), kbps);
  // Snapped to a preset when it was loaded, so it is always found.
  audio_combo_->setCurrentIndex(std::max(0, audio_combo_->findData(settings_.audio_kbps)));
  mono_check_ = new QCheckBox(tr("Mix the sound down to mono"), this);
  mono_check_->setChecked(settings_.mono);
  form->addRow(tr("Size"), size_combo_);
  form->addRow(tr("Frames"), fps_combo_);
  form->addRow(tr("Picture"), video_combo_);
  form->addRow(tr("Sound"), audio_combo_);
  form->addRow(QString(), mono_check_);
  layout->addLayout(form);

  QLabel* mono_note = WrappedLabel(tr("Mono is sent as two identical channels, which costs an "
                                      "encoder almost nothing, so it leaves more of the sound "
                                      "budget for what is being said."),
                                   this);
  mono_note->setEnabled(false);
  layout->addWidget(mono_note);
  estimate_label_ = WrappedLabel(QString(), this);
  layout->addWidget(estimate_label_);
  if (sharing) {
    layout->addWidget(WrappedLabel(tr("You're sharing now, so this applies to the next share. "
                                      "The one running keeps what it started with."),
                                   this));
  }
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
  layout->addWidget(buttons);

  connect(buttons, &QDialogButtonBox::accepted, this, &QualityDialog::Accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  connect(video_combo_, &QComboBox::currentIndexChanged, this, &QualityDialog::Recalculate);
  connect(audio_combo_, &QComboBox::currentIndexChanged, this, &QualityDialog::Recalculate);
  Recalculate();
}

void QualityDialog::Recalculate() {
  const std::uint32_t total =
      video_combo_->currentData().toUInt() + audio_combo_->currentData().toUInt();
  estimate_label_->setText(tr("About %1 of upload for each person watching, so %2 for four.")
                               .arg(BitrateText(total), BitrateText(total * 4)));
}

void QualityDialog::Accept() {
  const QPoint size = size_combo_->currentData().toPoint();
  settings_.width = static_cast<std::uint32_t>(size.x()) & ~1u;
  settings_.height = static_cast<std::uint32_t>(size.y()) & ~1u;
  settings_.fps = fps_combo_->currentData().toUInt();
  settings_.video_kbps = video_combo_->currentData().toUInt();
  settings_.audio_kbps = audio_combo_->currentData().toUInt();
  settings_.mono = mono_check_->isChecked();
  QDialog::accept();
}

}  // namespace mirell::ui
