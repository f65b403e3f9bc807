// "Who can watch without being asked": the allowlist, edited on a copy that Save hands back and
// Cancel drops.
#pragma once

#include <QDialog>
#include <vector>

#include "mirell/settings/allowlist.h"

class QLineEdit;
class QListWidget;
class QPushButton;

namespace mirell::ui {

class AllowlistDialog : public QDialog {
  Q_OBJECT

 public:
  explicit AllowlistDialog(std::vector<settings::AllowlistEntry> entries, QWidget* parent = nullptr);

  // The list after it was accepted.
  const std::vector<settings::AllowlistEntry>& entries() const { return entries_; }

 private slots:
  void Add();
  void Remove();
  void SelectionChanged();

 private:
  void Rebuild();

  std::vector<settings::AllowlistEntry> entries_;
  QListWidget* list_ = nullptr;
  QLineEdit* id_edit_ = nullptr;
  QLineEdit* name_edit_ = nullptr;
  QPushButton* add_button_ = nullptr;
  QPushButton* remove_button_ = nullptr;
};

}  // namespace mirell::ui
