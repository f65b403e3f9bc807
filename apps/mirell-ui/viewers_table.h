// The "Who is watching" table: one row per viewer, keyed by connection id (kept in the first
// cell under Qt::UserRole) and updated in place, so that a selection survives every refresh.
#pragma once

#include <QString>
#include <vector>

#include "mirell/session/share_session.h"

class QTableWidget;

namespace mirell::ui {

// Columns, headers and behaviour of an empty table.
void SetUpViewersTable(QTableWidget& table);
// Adds rows for new viewers, rewrites every row, and removes the rows of viewers gone.
void UpdateViewersTable(QTableWidget& table, const std::vector<session::ViewerInfo>& viewers);
// The connection id of the selected row; empty when none is selected.
QString SelectedConnectionId(const QTableWidget& table);

}  // namespace mirell::ui
