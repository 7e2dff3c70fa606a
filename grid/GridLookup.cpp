#include "grid/GridLookup.h"

namespace GridLookup {

namespace {

GridDatabase& db()
{
    return GridDatabase::sharedGridDatabase();
}

} // namespace

SqlRows gridsNamed(const QString& name)
{
    SqlRows found;
    for (const SqlRow& grid : db().getGrids()) {
        if (grid.value(QStringLiteral("name")).toString() == name) {
            found << grid;
        }
    }
    return found;
}

QString gridName(GridId gridId)
{
    for (const SqlRow& grid : db().getGrids()) {
        if (grid.value(QStringLiteral("id")).toLongLong() == gridId) {
            return grid.value(QStringLiteral("name")).toString();
        }
    }
    return {};
}

SqlRows categoriesNamed(GridId gridId, const QString& name)
{
    SqlRows found;
    for (const SqlRow& category : db().categoriesForGrid(gridId)) {
        if (category.value(QStringLiteral("name")).toString() == name) {
            found << category;
        }
    }
    return found;
}

QList<PlacedAction> actionsOfGrid(GridId gridId)
{
    QList<PlacedAction> placed;
    const QString grid = gridName(gridId);
    for (const SqlRow& category : db().categoriesForGrid(gridId)) {
        const CategoryId categoryId = category.value(QStringLiteral("id")).toLongLong();
        for (const GridActionPtr& action : db().getActionsForCategoryId(categoryId)) {
            placed << PlacedAction{action, gridId, grid,
                                   category.value(QStringLiteral("name")).toString()};
        }
    }
    return placed;
}

QList<PlacedAction> actionsNamed(const QString& name, std::optional<GridId> inGrid)
{
    QList<PlacedAction> found;
    for (const SqlRow& grid : db().getGrids()) {
        const GridId gridId = grid.value(QStringLiteral("id")).toLongLong();
        if (inGrid && *inGrid != gridId) {
            continue;
        }
        for (const PlacedAction& placed : actionsOfGrid(gridId)) {
            if (placed.action->name == name) {
                found << placed;
            }
        }
    }
    return found;
}

QString gridNamesOf(const QList<PlacedAction>& actions)
{
    QStringList names;
    for (const PlacedAction& placed : actions) {
        names << placed.grid;
    }
    return names.join(QStringLiteral(", "));
}

} // namespace GridLookup
