#include "allowlist_dialog.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace mirell::ui {

AllowlistDialog::AllowlistDialog(std::vector<settings::AllowlistEntry> entries, QWidget* parent)
    : QDialog(parent), entries_(std::move(entries)) {
  setWindowTitle(tr("Who can watch without being asked"));
  setMinimumWidth(620);
  auto* layout = new QVBoxLayout(this);
  auto* intro = new QLabel(tr("People on this list get into your shares straight away. Everyone "
                              "else waits for you to say yes."),
                           this);
  intro->setWordWrap(true);
  layout->addWidget(intro);
  auto* caution = new QLabel(
      tr("This isn't a password. Mirell goes by the VRChat account a viewer claims, and it can't "
         "check that claim. User ids aren't secret, so anyone who has your link and knows a "
         "listed id gets in without you being asked.\n\nIf a link has gone somewhere it "
         "shouldn't, use New link."),
      this);
  caution->setWordWrap(true);
  caution->setStyleSheet(
      "QLabel { background: palette(alternate-base); border-radius: 4px; padding: 8px; }");
  layout->addWidget(caution);

  list_ = new QListWidget(this);
  list_->setSelectionMode(QAbstractItemView::SingleSelection);
  list_->setMinimumHeight(140);
  layout->addWidget(list_, 1);

  auto* form = new QFormLayout;
  id_edit_ = new QLineEdit(this);
  id_edit_->setPlaceholderText("usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413");
  name_edit_ = new QLineEdit(this);
  name_edit_->setPlaceholderText(tr("what to call them"));
  form->addRow(tr("VRChat user id"), id_edit_);
  form->addRow(tr("Name"), name_edit_);
  layout->addLayout(form);

  auto* row = new QHBoxLayout;
  add_button_ = new QPushButton(tr("Add"), this);
  remove_button_ = new QPushButton(tr("Remove selected"), this);
  remove_button_->setEnabled(false);
  row->addWidget(add_button_);
  row->addWidget(remove_button_);
  row->addStretch();
  layout->addLayout(row);

  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, this);
  layout->addWidget(buttons);

  connect(add_button_, &QPushButton::clicked, this, &AllowlistDialog::Add);
  connect(remove_button_, &QPushButton::clicked, this, &AllowlistDialog::Remove);
  connect(list_, &QListWidget::itemSelectionChanged, this, &AllowlistDialog::SelectionChanged);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  Rebuild();
}

void AllowlistDialog::Add() {
  const std::string id = id_edit_->text().trimmed().toStdString();
  const std::string name = name_edit_->text().trimmed().toStdString();
  if (!settings::AddToAllowlist(entries_, id, name)) {
    // The text stays, so that it can be corrected.
    id_edit_->setStyleSheet("QLineEdit { border: 1px solid red; }");
    id_edit_->setToolTip(
        tr("That isn't a VRChat user id. They look like usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413, "
           "or a short code like 4KxR2TmqZa on older accounts."));
    return;
  }
  id_edit_->setStyleSheet(QString());
  id_edit_->setToolTip(QString());
  id_edit_->clear();
  name_edit_->clear();
  Rebuild();
}

void AllowlistDialog::Remove() {
  const QList<QListWidgetItem*> selected = list_->selectedItems();
  if (selected.isEmpty()) return;
  const int row = list_->row(selected.front());
  if (row < 0 || static_cast<std::size_t>(row) >= entries_.size()) return;
  entries_.erase(entries_.begin() + row);
  Rebuild();
}

void AllowlistDialog::SelectionChanged() {
  remove_button_->setEnabled(!list_->selectedItems().isEmpty());
}

void AllowlistDialog::Rebuild() {
  list_->clear();
  for (const settings::AllowlistEntry& entry : entries_) {
    const QString id = QString::fromStdString(entry.user_id);
    list_->addItem(entry.name.empty() ? id : QString::fromStdString(entry.name) + " (" + id + ")");
  }
  SelectionChanged();
}

}  // namespace mirell::ui
