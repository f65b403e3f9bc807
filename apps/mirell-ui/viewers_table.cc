#include "viewers_table.h"

#include <QAbstractItemView>
#include <QCoreApplication>
#include <QHeaderView>
#include <QSet>
#include <QTableWidget>

#include "window_texts.h"

namespace mirell::ui {
namespace {

QString Tr(const char* text) {
  return QCoreApplication::translate("mirell::ui::MainWindow", text);
}

int RowOf(const QTableWidget& table, const QString& connection_id) {
  for (int row = 0; row < table.rowCount(); ++row) {
    const QTableWidgetItem* first = table.item(row, 0);
    if (first && first->data(Qt::UserRole).toString() == connection_id) return row;
  }
  return -1;
}

}  // namespace

void SetUpViewersTable(QTableWidget& table) {
  table.setRowCount(0);
  table.setColumnCount(4);
  table.setHorizontalHeaderLabels({Tr("Viewer"), Tr("Watching for"), Tr("Uplink"), Tr("State")});
  if (QTableWidgetItem* uplink = table.horizontalHeaderItem(2)) {
    uplink->setToolTip(
        Tr("Video sent to this viewer, averaged over a few seconds. Your actual usage is about 3% "
           "higher."));
  }
  // Every column stays in view: the numbers and the state take what they need, who it is takes
  // the rest, and a name too long for it loses its middle ("(checked)" at the end stays; the
  // tooltip has it whole).
  QHeaderView& header = *table.horizontalHeader();
  header.setStretchLastSection(false);
  header.setSectionResizeMode(0, QHeaderView::Stretch);
  for (int column = 1; column < 4; ++column) header.setSectionResizeMode(column, QHeaderView::ResizeToContents);
  table.setTextElideMode(Qt::ElideMiddle);
  table.verticalHeader()->hide();
  table.setSelectionBehavior(QAbstractItemView::SelectRows);
  table.setSelectionMode(QAbstractItemView::SingleSelection);
  table.setEditTriggers(QAbstractItemView::NoEditTriggers);
  table.setMinimumHeight(120);
}

void UpdateViewersTable(QTableWidget& table, const std::vector<session::ViewerInfo>& viewers) {
  QSet<QString> present;
  for (const session::ViewerInfo& viewer : viewers) {
    const QString id = QString::fromStdString(viewer.connection_id);
    present.insert(id);
    int row = RowOf(table, id);
    if (row < 0) {
      row = table.rowCount();
      table.insertRow(row);
      for (int column = 0; column < 4; ++column) table.setItem(row, column, new QTableWidgetItem);
      table.item(row, 0)->setData(Qt::UserRole, id);
    }
    const ViewerCell cell = ViewerCellFor(viewer);
    table.item(row, 0)->setText(cell.text);
    table.item(row, 0)->setToolTip(cell.tool_tip);
    table.item(row, 1)->setText(DurationText(viewer.seconds));
    table.item(row, 2)->setText(RateText(viewer.uplink_kbps));
    table.item(row, 3)->setText(PeerStateText(viewer.state));
  }
  const QString selected = SelectedConnectionId(table);
  for (int row = table.rowCount() - 1; row >= 0; --row) {
    const QTableWidgetItem* first = table.item(row, 0);
    if (!first || !present.contains(first->data(Qt::UserRole).toString())) table.removeRow(row);
  }
  // Qt moves the current row, and with it a single selection, onto a neighbour of a removed
  // row; the selection of a viewer who left must go with them, not pass to somebody else.
  if (!selected.isEmpty() && !present.contains(selected)) {
    table.setCurrentItem(nullptr);
    table.clearSelection();
  }
}

QString SelectedConnectionId(const QTableWidget& table) {
  const QList<QTableWidgetItem*> selected = table.selectedItems();
  for (const QTableWidgetItem* item : selected) {
    const QTableWidgetItem* first = table.item(item->row(), 0);
    if (first) return first->data(Qt::UserRole).toString();
  }
  return {};
}

}  // namespace mirell::ui
