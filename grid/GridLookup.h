#pragma once

#include "core/Identifiers.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"

#include <QList>
#include <QString>

#include <optional>

// Finding grids, categories and placed actions by the names the user knows them by; names
// need not be unique, so each lookup gives every match.
namespace GridLookup {

struct PlacedAction {
    GridActionPtr action;
    GridId gridId = 0;
    QString grid;
    QString category;
};

SqlRows gridsNamed(const QString& name);
QString gridName(GridId gridId);
SqlRows categoriesNamed(GridId gridId, const QString& name);
QList<PlacedAction> actionsOfGrid(GridId gridId);
// The actions of that name in every grid, or in the one given.
QList<PlacedAction> actionsNamed(const QString& name, std::optional<GridId> inGrid);
// The grids of the actions, joined with ", " (for an answer that names them).
QString gridNamesOf(const QList<PlacedAction>& actions);

} // namespace GridLookup
