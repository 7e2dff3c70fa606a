#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "store/StoreContext.h"

// --- Drop Bars and their items

SqlRows GridDatabase::getDropbarsForGrid(GridId gridId)
{
    return runQuery(QStringLiteral("SELECT * FROM dropbars WHERE grid_id = ? ORDER BY position"),
                    {gridId});
}

DropbarId GridDatabase::addDropbarWithTitle(const QString& title, const QByteArray& icon,
                                            bool locked, GridId gridId)
{
    DropbarId dropbarId = 0;
    const bool ok = write([&] {
        const qint64 position = nextOrder(
            QStringLiteral("SELECT MAX(position) FROM dropbars WHERE grid_id = ?"), {gridId});
        if (!m_connection.update(QStringLiteral("INSERT INTO dropbars (grid_id, title, icon, "
                                                "locked, position) VALUES (?, ?, ?, ?, ?)"),
                                 {gridId, title, icon, locked ? 1 : 0, position})) {
            return false;
        }
        dropbarId = m_connection.lastInsertRowId();
        return true;
    });
    return ok ? dropbarId : 0;
}

bool GridDatabase::updateDropbar(DropbarId dropbarId, const QString& title, const QString& name,
                                 const QByteArray& icon, bool locked)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral(
                "UPDATE dropbars SET title = ?, name = ?, icon = ?, locked = ? WHERE id = ?"),
            {title, name, icon, locked ? 1 : 0, dropbarId});
    });
}

bool GridDatabase::updateDropbarPositions(const QList<DropbarId>& dropbarIds, GridId gridId)
{
    return write([&] {
        for (qsizetype index = 0; index < dropbarIds.size(); ++index) {
            if (!m_connection.update(
                    QStringLiteral("UPDATE dropbars SET position = ? WHERE id = ? AND grid_id = ?"),
                    {index, dropbarIds.at(index), gridId})) {
                return false;
            }
        }
        return true;
    });
}

bool GridDatabase::deleteDropbar(DropbarId dropbarId)
{
    return write([&] {
        return deleteItemsForDropbar(dropbarId) &&
               m_connection.update(QStringLiteral("DELETE FROM dropbars WHERE id = ?"),
                                   {dropbarId});
    });
}

bool GridDatabase::moveDropbar(DropbarId dropbarId, GridId gridId)
{
    return write([&] {
        const qint64 position = nextOrder(
            QStringLiteral("SELECT MAX(position) FROM dropbars WHERE grid_id = ?"), {gridId});
        return m_connection.update(
            QStringLiteral("UPDATE dropbars SET grid_id = ?, position = ? WHERE id = ?"),
            {gridId, position, dropbarId});
    });
}

qint64 GridDatabase::getDropbarCountForGrid(GridId gridId)
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM dropbars WHERE grid_id = ?"), {gridId},
                     0);
}

SqlRows GridDatabase::getItemsForDropbar(DropbarId dropbarId)
{
    return runQuery(
        QStringLiteral("SELECT * FROM dropbar_items WHERE dropbar_id = ? ORDER BY position"),
        {dropbarId});
}

DropbarItemId GridDatabase::addItemToDropbar(DropbarId dropbarId, const QString& type,
                                             const QByteArray& bookmarkData,
                                             const QString& textContent,
                                             const QString& textFilePath)
{
    DropbarItemId itemId = 0;
    const bool ok = write([&] {
        const qint64 position = nextOrder(
            QStringLiteral("SELECT MAX(position) FROM dropbar_items WHERE dropbar_id = ?"),
            {dropbarId});
        const QVariant bookmark =
            bookmarkData.isNull() ? SqliteConnection::nullValue() : QVariant(bookmarkData);
        if (!m_connection.update(
                QStringLiteral("INSERT INTO dropbar_items (dropbar_id, type, bookmark_data, "
                               "text_content, text_file_path, position) VALUES (?, ?, ?, ?, ?, ?)"),
                {dropbarId, type, bookmark, textContent, textFilePath, position})) {
            return false;
        }
        itemId = m_connection.lastInsertRowId();
        return true;
    });
    return ok ? itemId : 0;
}

bool GridDatabase::deleteItemsForDropbar(DropbarId dropbarId)
{
    return write([&] {
        return m_connection.update(QStringLiteral("DELETE FROM dropbar_items WHERE dropbar_id = ?"),
                                   {dropbarId});
    });
}

bool GridDatabase::replaceItemsForDropbar(DropbarId dropbarId, const SqlRows& items)
{
    return write(
        [&] { return deleteItemsForDropbar(dropbarId) && insertItems(dropbarId, items, 0); });
}

QList<DropbarItemId> GridDatabase::addItemsToDropbar(DropbarId dropbarId, const SqlRows& items)
{
    QList<DropbarItemId> ids;
    const bool ok = write([&] {
        const qint64 first = nextOrder(
            QStringLiteral("SELECT MAX(position) FROM dropbar_items WHERE dropbar_id = ?"),
            {dropbarId});
        return insertItems(dropbarId, items, first, &ids);
    });
    return ok ? ids : QList<DropbarItemId>{};
}

bool GridDatabase::insertItems(DropbarId dropbarId, const SqlRows& items, qint64 firstPosition,
                               QList<DropbarItemId>* ids)
{
    for (qsizetype index = 0; index < items.size(); ++index) {
        const SqlRow& item = items.at(index);
        const auto field = [&](const char* key) {
            return item.value(QString::fromLatin1(key), SqliteConnection::nullValue());
        };
        if (!m_connection.update(
                QStringLiteral("INSERT INTO dropbar_items (dropbar_id, type, bookmark_data, "
                               "text_content, text_file_path, position) VALUES (?, ?, ?, ?, ?, ?)"),
                {dropbarId, field("type"), field("bookmark_data"), field("text_content"),
                 field("text_file_path"), firstPosition + index})) {
            return false;
        }
        if (ids) {
            ids->append(m_connection.lastInsertRowId());
        }
    }
    return true;
}

SqlRows GridDatabase::getAllDropbarItems()
{
    return runQuery(QStringLiteral("SELECT * FROM dropbar_items"));
}

bool GridDatabase::deleteItem(DropbarItemId itemId, DropbarId dropbarId)
{
    return write([&] {
        return m_connection.update(
                   QStringLiteral("DELETE FROM dropbar_items WHERE id = ? AND dropbar_id = ?"),
                   {itemId, dropbarId}) &&
               m_connection.changes() == 1;
    });
}

DropbarId GridDatabase::separateItem(DropbarItemId itemId, DropbarId dropbarId, GridId gridId,
                                     const QString& title, const QByteArray& icon)
{
    DropbarId separated = 0;
    const bool ok = write([&] {
        if (!m_connection.update(
                QStringLiteral(
                    "INSERT INTO dropbars (grid_id, title, icon, locked, position) SELECT ?, ?, ?, "
                    "locked, COALESCE((SELECT MAX(position) + 1 FROM dropbars WHERE grid_id = ?), "
                    "0) FROM dropbars WHERE id = ? AND EXISTS (SELECT 1 FROM dropbar_items WHERE "
                    "id = ? AND dropbar_id = ?) AND EXISTS (SELECT 1 FROM grids WHERE id = ?)"),
                {gridId, title, icon, gridId, dropbarId, itemId, dropbarId, gridId}) ||
            m_connection.changes() != 1) {
            return false;
        }
        separated = m_connection.lastInsertRowId();
        if (!m_connection.update(QStringLiteral("UPDATE dropbar_items SET dropbar_id = ?, "
                                                "position = 0 WHERE id = ? AND dropbar_id = ?"),
                                 {separated, itemId, dropbarId}) ||
            m_connection.changes() != 1) {
            return false;
        }
        return m_connection.update(
            QStringLiteral("DELETE FROM dropbars WHERE id = ? AND NOT EXISTS (SELECT 1 FROM "
                           "dropbar_items WHERE dropbar_id = ?)"),
            {dropbarId, dropbarId});
    });
    return ok ? separated : 0;
}

GridId GridDatabase::gridIdForDropbar(DropbarId dropbarId)
{
    return integerOf(QStringLiteral("SELECT grids.id FROM dropbars JOIN grids ON grids.id = "
                                    "dropbars.grid_id WHERE dropbars.id = ?"),
                     {dropbarId}, 0);
}
