// "Quality": size, frame rate, the two bit rates and mono for the next share, from presets; a
// stored value that is no preset is kept as an extra choice.
#pragma once

#include <QDialog>
#include <QString>

#include "mirell/session/sharing.h"
#include "mirell/settings/quality.h"

class QCheckBox;
class QComboBox;
class QLabel;

namespace mirell::ui {

class QualityDialog : public QDialog {
  Q_OBJECT

 public:
  QualityDialog(encode::ShareQuality current, bool sharing, QWidget* parent = nullptr);

  // The chosen values, after Accept.
  const encode::ShareQuality& settings() const { return settings_; }

 private slots:
  void Recalculate();
  void Accept();

 private:
  encode::ShareQuality settings_;
  QComboBox* size_combo_ = nullptr;
  QComboBox* fps_combo_ = nullptr;
  QComboBox* video_combo_ = nullptr;
  QComboBox* audio_combo_ = nullptr;
  QCheckBox* mono_check_ = nullptr;
  QLabel* estimate_label_ = nullptr;
};

// "900 kbit/s", "1.5 Mbit/s", "6 Mbit/s", "16 Mbit/s": two significant digits.
QString BitrateText(std::uint32_t kbps);

}  // namespace mirell::ui
