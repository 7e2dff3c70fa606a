#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"
#include "core/NotificationCenter.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "store/Icons.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TaskRunner.h"
#include "tasks/TaskStatus.h"
#include "tasks/TasksController.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace CommandSupport;
using namespace GridLookup;

void CmdLineTaskHandler::listGrids(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const GridId current = db().selectedGridId();
    const SqlRows grids = db().getGrids();
    if (flag(request, "json")) {
        QJsonArray array;
        for (const SqlRow& grid : grids) {
            const GridId id = grid.value(QStringLiteral("id")).toLongLong();
            array << QJsonObject{
                {QStringLiteral("id"), id},
                {QStringLiteral("name"), grid.value(QStringLiteral("name")).toString()},
                {QStringLiteral("current"), id == current},
                {QStringLiteral("columns"), db().numColsForGrid(id)},
                {QStringLiteral("size"), db().gridSizeForGrid(id)}};
        }
        client->respond(json(array));
        return;
    }
    QString text = QStringLiteral("\nAvailable Skelvo Grids:\n") + ListRule;
    for (const SqlRow& grid : grids) {
        const bool isCurrent = grid.value(QStringLiteral("id")).toLongLong() == current;
        text += (isCurrent ? QStringLiteral("* ") : QStringLiteral("  ")) +
                grid.value(QStringLiteral("name")).toString() + u'\n';
    }
    client->respond(text);
}

void CmdLineTaskHandler::switchGrid(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"name"}, "grid name")) {
        return;
    }
    const QString name = str(request, "name");
    const std::optional<GridId> grid = findGrid(client, name);
    if (!grid) {
        return;
    }
    db().setSelectedGridId(*grid);
    m_context.notifications.post(Notifications::GridsChanged);
    client->respond(QStringLiteral("Switched to grid '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::createGrid(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"name"}, "grid name")) {
        return;
    }
    const QString name = str(request, "name");
    if (!gridsNamed(name).isEmpty()) {
        client->respond(QStringLiteral("Error: A grid named '") + name +
                        QStringLiteral("' already exists. Grid names must be unique."));
        return;
    }
    if (!db().addGridWithName(name)) {
        client->respond(QStringLiteral("Error: Failed to create grid '") + name +
                        QStringLiteral("'"));
        return;
    }
    m_context.notifications.post(Notifications::GridsChanged);
    client->respond(QStringLiteral("Created grid '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::removeGrid(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"name"}, "grid name")) {
        return;
    }
    const QString name = str(request, "name");
    const SqlRows grids = gridsNamed(name);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(name));
        return;
    }
    if (grids.size() > 1) {
        client->respond(
            QStringLiteral("Error: Multiple grids named '") + name +
            QStringLiteral(
                "' exist. Please rename grids so names are unique before removing by name."));
        return;
    }
    if (db().getGrids().size() <= 1) {
        client->respond(QStringLiteral("Error: Cannot remove grid '") + name +
                        QStringLiteral("'. You must have at least one grid."));
        return;
    }
    const GridId gridId = grids.first().value(QStringLiteral("id")).toLongLong();
    const bool wasCurrent = db().selectedGridId() == gridId;
    if (!db().deleteGrid(gridId)) {
        client->respond(QStringLiteral("Error: Failed to remove grid '") + name +
                        QStringLiteral("'"));
        return;
    }
    m_context.notifications.post(Notifications::GridsChanged);
    if (wasCurrent) {
        const SqlRows left = db().getGrids();
        const GridId next = left.first().value(QStringLiteral("id")).toLongLong();
        db().setSelectedGridId(next);
        client->respond(QStringLiteral("Removed grid '") + name +
                        QStringLiteral("'. Switched active grid to '") + gridName(next) +
                        QStringLiteral("'"));
        return;
    }
    client->respond(QStringLiteral("Removed grid '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::addCategory(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"grid", "category"}, "grid name or category name")) {
        return;
    }
    const QString grid = str(request, "grid");
    const QString category = str(request, "category");
    const SqlRows grids = gridsNamed(grid);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(grid));
        return;
    }
    if (!db().addCategoryWithName(category,
                                  grids.first().value(QStringLiteral("id")).toLongLong())) {
        client->respond(QStringLiteral("Error: Failed to add category '") + category +
                        QStringLiteral("'"));
        return;
    }
    client->respond(QStringLiteral("Added category '") + category + QStringLiteral("' to grid '") +
                    grid + QStringLiteral("'"));
}

void CmdLineTaskHandler::removeCategory(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"grid", "category"}, "grid name or category name")) {
        return;
    }
    const QString grid = str(request, "grid");
    const QString category = str(request, "category");
    const SqlRows grids = gridsNamed(grid);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(grid));
        return;
    }
    const SqlRows found =
        categoriesNamed(grids.first().value(QStringLiteral("id")).toLongLong(), category);
    if (found.isEmpty()) {
        client->respond(QStringLiteral("Error: Category '") + category +
                        QStringLiteral("' not found in grid '") + grid + QStringLiteral("'"));
        return;
    }
    if (found.size() > 1) {
        client->respond(
            QStringLiteral("Error: Multiple categories named '") + category +
            QStringLiteral("' exist in grid '") + grid +
            QStringLiteral("'. Please rename categories so names are unique within the grid before "
                           "removing by name."));
        return;
    }
    if (!db().deleteCategory(found.first().value(QStringLiteral("id")).toLongLong())) {
        client->respond(QStringLiteral("Error: Failed to remove category '") + category +
                        QStringLiteral("'"));
        return;
    }
    client->respond(QStringLiteral("Removed category '") + category +
                    QStringLiteral("' from grid '") + grid + QStringLiteral("'"));
}

void CmdLineTaskHandler::listCategories(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    GridId gridId = db().selectedGridId();
    if (!requestedGrid(client, request, gridId)) {
        return;
    }
    const SqlRows categories = db().categoriesForGrid(gridId);
    if (flag(request, "json")) {
        QJsonArray array;
        for (const SqlRow& category : categories) {
            const CategoryId id = category.value(QStringLiteral("id")).toLongLong();
            array << QJsonObject{
                {QStringLiteral("id"), id},
                {QStringLiteral("name"), category.value(QStringLiteral("name")).toString()},
                {QStringLiteral("position"),
                 category.value(QStringLiteral("display_order")).toInt()},
                {QStringLiteral("actions"), db().getNumActionsForCategoryId(id)}};
        }
        client->respond(json(array));
        return;
    }
    QString text = QStringLiteral("\nSkelvo Grid Categories:\n") + ListRule;
    for (const SqlRow& category : categories) {
        text += category.value(QStringLiteral("name")).toString() +
                QStringLiteral(" (%1 actions)\n")
                    .arg(db().getNumActionsForCategoryId(
                        category.value(QStringLiteral("id")).toLongLong()));
    }
    client->respond(text);
}

void CmdLineTaskHandler::gridSettings(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"grid"}, "grid name")) {
        return;
    }
    const QString grid = str(request, "grid");
    const std::optional<GridId> gridFound = findGrid(client, grid);
    if (!gridFound) {
        return;
    }
    const GridId gridId = *gridFound;
    const std::optional<qint64> size = integer(request, "size");
    const std::optional<qint64> cols = integer(request, "cols");
    // Check everything before changing anything.
    if (size && (*size <= 0 || *size > 150)) {
        client->respond(
            QStringLiteral("Error: size must be greater than 0 and no larger than 150."));
        return;
    }
    if (cols && *cols != 0 && (*cols < 2 || *cols > 10)) {
        client->respond(QStringLiteral("Error: cols must be 0 (auto) or between 2 and 10."));
        return;
    }
    const bool changesDropBar = request.contains(QStringLiteral("dropBar"));
    if (changesDropBar && db().categoriesForGrid(gridId).isEmpty()) {
        client->respond(QStringLiteral(
            "Error: Cannot change Drop Bar visibility for a grid with no categories — it "
            "always shows the Drop Bar. Add at least one category first."));
        return;
    }
    const bool renames = request.contains(QStringLiteral("name"));
    const QString newName = str(request, "name").trimmed();
    if (renames && newName.isEmpty()) {
        client->respond(QStringLiteral("Error: The new grid name cannot be empty."));
        return;
    }
    if (renames && newName != grid && !gridsNamed(newName).isEmpty()) {
        client->respond(QStringLiteral("Error: A grid named '") + newName +
                        QStringLiteral("' already exists. Grid names must be unique."));
        return;
    }
    QStringList changes;
    // All changes or none: a failed write rolls back the ones before it.
    SqliteWriteTransaction together = db().writeTransaction();
    bool saved = together.isActive();
    if (size) {
        saved = saved && db().setGridSize(static_cast<double>(*size), gridId);
        changes << QStringLiteral("size %1").arg(*size);
    }
    if (cols) {
        saved = saved && db().setNumCols(static_cast<int>(*cols), gridId);
        changes << (*cols == 0 ? QStringLiteral("columns auto")
                               : QStringLiteral("columns %1").arg(*cols));
    }
    if (changesDropBar) {
        saved = saved && db().setSpecialActionsVisible(flag(request, "dropBar"), gridId);
        changes << (flag(request, "dropBar") ? QStringLiteral("Drop Bar shown")
                                             : QStringLiteral("Drop Bar hidden"));
    }
    if (request.contains(QStringLiteral("switcher"))) {
        saved = saved && db().setGridSwitcherVisible(flag(request, "switcher"), gridId);
        changes << (flag(request, "switcher") ? QStringLiteral("switcher shown")
                                              : QStringLiteral("switcher hidden"));
    }
    if (renames && newName != grid) {
        saved =
            saved && db().updateGrid(
                         gridId, newName,
                         gridsNamed(grid).first().value(QStringLiteral("display_order")).toInt());
        changes << QStringLiteral("renamed to '%1'").arg(newName);
    }
    if (!changes.isEmpty() && !(saved && together.commit())) {
        client->respond(
            QStringLiteral("Error: Could not save the settings of grid '%1'").arg(grid));
        return;
    }
    if (!changes.isEmpty()) {
        m_context.notifications.post(Notifications::GridsChanged);
        client->respond(
            QStringLiteral("Updated grid '%1': %2").arg(grid, changes.join(QStringLiteral(", "))));
        return;
    }
    const int columns = db().numColsForGrid(gridId);
    client->respond(
        QStringLiteral("Grid '%1':\n  size: %2\n  columns: %3\n  Drop Bar: %4\n  switcher: %5")
            .arg(grid)
            .arg(db().gridSizeForGrid(gridId))
            .arg(columns == 0 ? QStringLiteral("auto") : QString::number(columns))
            .arg(db().specialActionsVisibleForGrid(gridId) ? QStringLiteral("shown")
                                                           : QStringLiteral("hidden"))
            .arg(db().gridSwitcherVisibleForGrid(gridId) ? QStringLiteral("shown")
                                                         : QStringLiteral("hidden")));
}

void CmdLineTaskHandler::moveAction(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"name", "category"}, "action name or category")) {
        return;
    }
    const QString name = str(request, "name");
    const QString categoryName = str(request, "category");
    std::optional<GridId> fromGrid;
    if (has(request, "fromGrid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "fromGrid"));
        if (!gridFound) {
            return;
        }
        fromGrid = *gridFound;
    }
    const QList<PlacedAction> found = actionsNamed(name, fromGrid);
    if (found.isEmpty()) {
        client->respond(fromGrid ? QStringLiteral("Error: Action '") + name +
                                       QStringLiteral("' not found in grid '") +
                                       str(request, "fromGrid") + QStringLiteral("'")
                                 : QStringLiteral("Error: Action '%1' not found").arg(name));
        return;
    }
    if (found.size() > 1) {
        client->respond(QStringLiteral("Error: Multiple actions named '") + name +
                        QStringLiteral("' exist (in grids: ") + gridNamesOf(found) +
                        QStringLiteral("). Use --from-grid to specify which one to move."));
        return;
    }
    const PlacedAction& placed = found.first();
    GridId targetGrid = placed.gridId;
    if (!requestedGrid(client, request, targetGrid)) {
        return;
    }
    const QString targetGridName = has(request, "grid") ? str(request, "grid") : placed.grid;
    const SqlRows categories = categoriesNamed(targetGrid, categoryName);
    if (categories.isEmpty()) {
        client->respond(QStringLiteral("Error: Category '") + categoryName +
                        QStringLiteral("' not found in grid '") + targetGridName +
                        QStringLiteral("'"));
        return;
    }
    const CategoryId categoryId = categories.first().value(QStringLiteral("id")).toLongLong();
    const std::optional<qint64> position = integer(request, "position");
    if (categoryId == placed.action->categoryId && !position) {
        client->respond(QStringLiteral("Error: Action '") + name +
                        QStringLiteral("' is already in category '") + categoryName +
                        QStringLiteral("'"));
        return;
    }
    const int target = position ? static_cast<int>(qMax<qint64>(0, *position))
                                : db().getNextPositionForCategoryId(categoryId);
    if (!db().moveAction(placed.action->aId, categoryId, target)) {
        client->respond(QStringLiteral("Error: Failed to move action '%1'").arg(name));
        return;
    }
    QString answer = QStringLiteral("Moved action '%1' to category '%2' in grid '%3'")
                         .arg(name, categoryName, targetGridName);
    if (targetGrid != placed.gridId && !placed.action->servicesKey.isEmpty()) {
        GridActionPtr moved = db().getGridActionWithId(placed.action->aId);
        if (moved && !moved->isServicesKeyAvailable(moved->servicesKey)) {
            const QString key = GridAction::defaultServicesKeyForName(moved->name, targetGrid);
            db().updateServicesKeyForActionId(moved->aId, key);
            answer += key.isEmpty() ? QStringLiteral("\nServices key cleared to avoid a conflict.")
                                    : QStringLiteral("\nServices key changed to '") + key +
                                          QStringLiteral("' to avoid a conflict.");
        }
    }
    m_context.notifications.post(Notifications::GridActionPositionsSaved);
    client->respond(answer);
}
