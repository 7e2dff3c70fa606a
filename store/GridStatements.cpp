#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "store/StoreContext.h"

// --- Grids

SqlRows GridDatabase::getGrids()
{
    return runQuery(QStringLiteral("SELECT * FROM grids ORDER BY display_order"));
}

GridId GridDatabase::addGridWithName(const QString& name)
{
    GridId gridId = 0;
    const bool ok = write([&] {
        const qint64 order = nextOrder(QStringLiteral("SELECT MAX(display_order) FROM grids"), {});
        if (!m_connection.update(
                QStringLiteral("INSERT INTO grids (name, display_order) VALUES (?, ?)"),
                {name, order})) {
            return false;
        }
        gridId = m_connection.lastInsertRowId();
        return true;
    });
    if (!ok) {
        return 0;
    }
    context().notifications.post(Notifications::GridsChanged);
    return gridId;
}

bool GridDatabase::updateGrid(GridId gridId, const QString& name, int order)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE grids SET name = ?, display_order = ? WHERE id = ?"),
            {name, order, gridId});
    });
}

bool GridDatabase::deleteGrid(GridId gridId)
{
    const bool ok = write([&] {
        if (!m_connection.update(QStringLiteral("DELETE FROM dropbar_items WHERE dropbar_id IN "
                                                "(SELECT id FROM dropbars WHERE grid_id = ?)"),
                                 {gridId}) ||
            !m_connection.update(QStringLiteral("DELETE FROM dropbars WHERE grid_id = ?"),
                                 {gridId})) {
            return false;
        }
        for (const SqlRow& category : categoriesForGrid(gridId)) {
            if (!deleteCategory(
                    SqliteConnection::toInteger(category.value(QStringLiteral("id")), 0))) {
                return false;
            }
        }
        return m_connection.update(QStringLiteral("DELETE FROM grids WHERE id = ?"), {gridId});
    });
    if (ok) {
        context().notifications.post(Notifications::GridsChanged);
    }
    return ok;
}

GridId GridDatabase::selectedGridId()
{
    const GridId stored = context().settings.integerValue(Settings::SelectedGridId);
    if (stored >= 1 &&
        integerOf(QStringLiteral("SELECT id FROM grids WHERE id = ?"), {stored}, 0) == stored) {
        return stored;
    }
    const SqlRows grids = getGrids();
    if (grids.isEmpty()) {
        return stored;
    }
    const GridId first = SqliteConnection::toInteger(grids.first().value(QStringLiteral("id")), 0);
    setSelectedGridId(first);
    return first;
}

void GridDatabase::setSelectedGridId(GridId gridId)
{
    context().settings.setValue(Settings::SelectedGridId, gridId);
}

std::optional<SqlRow> GridDatabase::selectedGrid()
{
    const SqlRows rows =
        runQuery(QStringLiteral("SELECT * FROM grids WHERE id = (?)"), {selectedGridId()});
    if (rows.isEmpty()) {
        return std::nullopt;
    }
    return rows.first();
}

double GridDatabase::gridSizeForGrid(GridId gridId)
{
    const auto value =
        m_connection.scalar(QStringLiteral("SELECT grid_size FROM grids WHERE id = ?"), {gridId});
    if (!value || SqliteConnection::isNull(*value)) {
        return 0.0;
    }
    return value->toDouble();
}

bool GridDatabase::setGridSize(double size, GridId gridId)
{
    return write([&] {
        return m_connection.update(QStringLiteral("UPDATE grids SET grid_size = ? WHERE id = ?"),
                                   {size, gridId});
    });
}

double GridDatabase::gridSizeForSelectedGrid()
{
    return gridSizeForGrid(selectedGridId());
}

bool GridDatabase::setGridSizeForSelectedGrid(double size)
{
    return setGridSize(size, selectedGridId());
}

int GridDatabase::numColsForGrid(GridId gridId)
{
    return static_cast<int>(
        integerOf(QStringLiteral("SELECT num_cols FROM grids WHERE id = ?"), {gridId}, 0));
}

bool GridDatabase::setNumCols(int numCols, GridId gridId)
{
    return write([&] {
        if (numCols < 1) {
            return m_connection.update(
                QStringLiteral("UPDATE grids SET num_cols = NULL WHERE id = ?"), {gridId});
        }
        return m_connection.update(QStringLiteral("UPDATE grids SET num_cols = ? WHERE id = ?"),
                                   {numCols, gridId});
    });
}

bool GridDatabase::readsAsVisible(const QString& sql, GridId gridId)
{
    const auto rows = m_connection.query(sql, {gridId});
    if (!rows || rows->isEmpty()) {
        return true;
    }
    const QVariant value = rows->first().first();
    return SqliteConnection::isNull(value) || SqliteConnection::toInteger(value, 0) == 1;
}

bool GridDatabase::specialActionsVisibleForGrid(GridId gridId)
{
    return readsAsVisible(QStringLiteral("SELECT special_actions_visible FROM grids WHERE id = ?"),
                          gridId);
}

bool GridDatabase::setSpecialActionsVisible(bool visible, GridId gridId)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE grids SET special_actions_visible = ? WHERE id = ?"),
            {visible ? 1 : 0, gridId});
    });
}

bool GridDatabase::gridSwitcherVisibleForGrid(GridId gridId)
{
    return readsAsVisible(QStringLiteral("SELECT grid_switcher_visible FROM grids WHERE id = ?"),
                          gridId);
}

bool GridDatabase::setGridSwitcherVisible(bool visible, GridId gridId)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE grids SET grid_switcher_visible = ? WHERE id = ?"),
            {visible ? 1 : 0, gridId});
    });
}

// --- Categories

SqlRows GridDatabase::getCategories()
{
    return runQuery(QStringLiteral("SELECT * FROM categories"));
}

SqlRows GridDatabase::categoriesForGrid(GridId gridId)
{
    return runQuery(
        QStringLiteral("SELECT * FROM categories WHERE grid_id = (?) ORDER BY display_order"),
        {gridId});
}

CategoryId GridDatabase::addCategoryWithName(const QString& name, GridId gridId)
{
    CategoryId categoryId = 0;
    const bool ok = write([&] {
        const qint64 order =
            nextOrder(QStringLiteral("SELECT MAX(display_order) FROM categories WHERE grid_id = ?"),
                      {gridId});
        if (!m_connection.update(QStringLiteral("INSERT INTO categories (name, grid_id, "
                                                "display_order) VALUES (?, ?, ?)"),
                                 {name, gridId, order})) {
            return false;
        }
        categoryId = m_connection.lastInsertRowId();
        return true;
    });
    return ok ? categoryId : 0;
}

bool GridDatabase::updateCategory(CategoryId categoryId, const QString& name)
{
    return write([&] {
        return m_connection.update(QStringLiteral("UPDATE categories SET name = ? WHERE id = ?"),
                                   {name, categoryId});
    });
}

bool GridDatabase::updateCategoryGridId(CategoryId categoryId, GridId gridId)
{
    return write([&] {
        return m_connection.update(QStringLiteral("UPDATE categories SET grid_id = ? WHERE id = ?"),
                                   {gridId, categoryId});
    });
}

bool GridDatabase::updateCategoryDisplayOrder(CategoryId categoryId, int displayOrder)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE categories SET display_order = ? WHERE id = ?"),
            {displayOrder, categoryId});
    });
}

bool GridDatabase::deleteCategory(CategoryId categoryId)
{
    return write([&] {
        for (const GridActionPtr& action : getActionsForCategoryId(categoryId)) {
            if (!deleteAction(action->aId)) {
                return false;
            }
        }
        return m_connection.update(QStringLiteral("DELETE FROM categories WHERE id = ?"),
                                   {categoryId});
    });
}

CategoryId GridDatabase::getFirstCategoryIdForSelectedGrid()
{
    return integerOf(
        QStringLiteral("SELECT id FROM categories WHERE grid_id = ? ORDER BY id LIMIT 1"),
        {selectedGridId()}, 0);
}

CategoryId GridDatabase::getOrCreateFirstCategoryIdForSelectedGrid()
{
    const CategoryId first = getFirstCategoryIdForSelectedGrid();
    if (first != 0) {
        return first;
    }
    const CategoryId created = addCategoryWithName(QStringLiteral("Actions"), selectedGridId());
    if (created != 0) {
        context().notifications.post(Notifications::GridCategoryCreated);
    }
    return created;
}

CategoryId GridDatabase::placementCategory(const QString& sql)
{
    const CategoryId found = integerOf(sql, {selectedGridId()}, 0);
    return found != 0 ? found : getOrCreateFirstCategoryIdForSelectedGrid();
}

CategoryId GridDatabase::getActionsCategoryIdForSelectedGrid()
{
    return placementCategory(QStringLiteral("SELECT id FROM categories WHERE (name = 'Actions' OR "
                                            "name = 'actions') AND grid_id = ? LIMIT 1"));
}

CategoryId GridDatabase::getAppsCategoryIdForSelectedGrid()
{
    return placementCategory(QStringLiteral(
        "SELECT id FROM categories WHERE (LOWER(name) LIKE '%%apps%%' OR LOWER(name) LIKE "
        "'%%applications%%') AND grid_id = ? LIMIT 1"));
}

CategoryId GridDatabase::getFoldersCategoryIdForSelectedGrid()
{
    return placementCategory(QStringLiteral(
        "SELECT id FROM categories WHERE LOWER(name) LIKE '%%folder%%' AND grid_id = ? LIMIT 1"));
}

QStringList GridDatabase::folderActionNames()
{
    return {QStringLiteral("Move Files"), QStringLiteral("Copy Files"),
            QStringLiteral("Rename & Move Files"), QStringLiteral("Rename & Copy Files")};
}

QStringList GridDatabase::coreFileActionNames()
{
    return QStringList{QStringLiteral("Open Application")} + folderActionNames();
}
