// Managing whole stacks: locks, names, separating and combining, moving between grids,
// removing.
#include "builtin/BuiltInContext.h"
#include "core/Settings.h"
#include "core/WindowPresenter.h"
#include "dropbar/DropbarController.h"
#include "store/GridDatabase.h"
#include "store/GridStoreHooks.h"
#include "tasks/TaskContext.h"

#include <QFileInfo>

namespace {

// Stacks moved to a grid that is not there would be kept but never shown.
bool gridExists(GridDatabase& db, GridId gridId)
{
    const SqlRows grids = db.getGrids();
    return std::any_of(grids.cbegin(), grids.cend(), [gridId](const SqlRow& grid) {
        return grid.value(QStringLiteral("id")).toLongLong() == gridId;
    });
}

} // namespace

bool DropbarController::setDropbarLockingWithaId(DropbarId dbId, bool locked)
{
    Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar) {
        return false;
    }
    Dropbar changed = *dropbar;
    changed.locked = locked;
    if (!db().updateDropbar(dbId, changed.title, changed.name, changed.icon, locked)) {
        return false;
    }
    *dropbar = changed;
    stackChanged();
    return true;
}

bool DropbarController::setDropbarNameWithaId(DropbarId dbId, const QString& name)
{
    Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar) {
        return false;
    }
    const QString trimmed = name.trimmed();
    if (!db().updateDropbar(dbId, dropbar->title, trimmed, dropbar->icon, dropbar->locked)) {
        return false;
    }
    dropbar->name = trimmed;
    stackChanged();
    return true;
}

bool DropbarController::isDropbarRenamedWithaId(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    return dropbar && !dropbar->name.isEmpty();
}

bool DropbarController::isDropbarLockedWithaId(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    return dropbar && dropbar->locked;
}

bool DropbarController::hasRenamedStacks()
{
    const auto& row = dropbars();
    return std::any_of(row.cbegin() + 1, row.cend(),
                       [](const auto& dropbar) { return !dropbar->name.isEmpty(); });
}

bool DropbarController::resetAllStackNames()
{
    SqliteWriteTransaction transaction = db().writeTransaction();
    for (const auto& dropbar : dropbars()) {
        if (dropbar && !dropbar->name.isEmpty() &&
            !db().updateDropbar(dropbar->dbId, dropbar->title, {}, dropbar->icon,
                                dropbar->locked)) {
            return false;
        }
    }
    const bool saved = transaction.commit();
    reloadDropbars();
    stackChanged();
    return saved;
}

bool DropbarController::seperateDropbarItemsWithaId(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar || dropbar->items.size() < 2) {
        return false;
    }
    // The first item stays; every other one becomes a stack of its own, in order.
    SqliteWriteTransaction transaction = db().writeTransaction();
    Dropbar first = *dropbar;
    first.items = {dropbar->items.first()};
    first.title = Dropbar::automaticTitle(first.items);
    first.icon = iconFor(first);
    // The new stacks are stored last in the grid; they belong right after their source.
    QList<DropbarId> order;
    for (const auto& slot : m_dropbars) {
        if (slot) {
            order << slot->dbId;
        }
    }
    qsizetype position = order.indexOf(dbId);
    for (qsizetype index = 1; index < dropbar->items.size(); ++index) {
        Dropbar single;
        single.items = {dropbar->items.at(index)};
        const QString title = Dropbar::automaticTitle(single.items);
        const QByteArray icon = iconFor(single);
        const DropbarId separated =
            db().separateItem(dropbar->items.at(index).id, dbId, m_gridId, title, icon);
        // Each part keeps the name (and, through the store, the lock) of the stack it left.
        if (!separated ||
            (!dropbar->name.isEmpty() &&
             !db().updateDropbar(separated, title, dropbar->name, icon, dropbar->locked))) {
            return false;
        }
        order.insert(++position, separated);
    }
    const bool saved =
        db().updateDropbar(dbId, first.title, first.name, first.icon, first.locked) &&
        db().updateDropbarPositions(order, m_gridId) && transaction.commit();
    reloadDropbars();
    stackChanged();
    return saved;
}

bool DropbarController::combineAllItemsToStack()
{
    const auto& row = dropbars();
    if (row.size() < 3) {
        return false;
    }
    Dropbar combined = *row.at(1);
    combined.name.clear();
    for (int slot = 2; slot < row.size(); ++slot) {
        combined.items += row.at(slot)->items;
        combined.locked = combined.locked || row.at(slot)->locked;
    }
    combined.title = QStringLiteral("Combined Stack");
    combined.icon = iconFor(combined);
    SqlRows rows;
    for (const DropbarItem& item : combined.items) {
        rows << item.toRow();
    }
    SqliteWriteTransaction transaction = db().writeTransaction();
    bool saved = transaction.isActive() && db().replaceItemsForDropbar(combined.dbId, rows) &&
                 db().updateDropbar(combined.dbId, combined.title, combined.name, combined.icon,
                                    combined.locked);
    for (int slot = 2; saved && slot < row.size(); ++slot) {
        saved = db().deleteDropbar(row.at(slot)->dbId);
    }
    saved = saved && transaction.commit();
    reloadDropbars();
    stackChanged();
    return saved;
}

bool DropbarController::moveDropbarWithaId(DropbarId dbId, GridId gridId)
{
    if (!dropbarWithId(dbId) || gridId == m_gridId || !gridExists(db(), gridId) ||
        !db().moveDropbar(dbId, gridId)) {
        return false;
    }
    m_dropbars.removeAt(*slotOfDropbar(dbId));
    stackChanged();
    autoClosePopOutDropBarIfEmpty();
    return true;
}

bool DropbarController::moveAllDropbarsToGrid(GridId gridId)
{
    const auto& row = dropbars();
    if (row.size() < 2 || gridId == m_gridId || !gridExists(db(), gridId)) {
        return false;
    }
    SqliteWriteTransaction transaction = db().writeTransaction();
    for (int slot = 1; slot < row.size(); ++slot) {
        if (!db().moveDropbar(row.at(slot)->dbId, gridId)) {
            return false;
        }
    }
    if (!transaction.commit()) {
        return false;
    }
    m_dropbars = {std::nullopt};
    stackChanged();
    autoClosePopOutDropBarIfEmpty();
    return true;
}

bool DropbarController::revealDropbarWithDatabaseId(DropbarId dbId)
{
    const GridId gridId = db().gridIdForDropbar(dbId);
    if (!gridId) {
        return false;
    }
    if (gridId != db().selectedGridId()) {
        db().setSelectedGridId(gridId);
        stackChanged();
    }
    const auto slot = slotOfDropbar(dbId);
    if (!slot) {
        return false;
    }
    m_context.tasks.windows.revealDropbar(Identifiers::FirstDropbarId + *slot);
    return true;
}

bool DropbarController::dropbarContainsFoldersOrAppsWithaId(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar) {
        return false;
    }
    return std::any_of(dropbar->items.cbegin(), dropbar->items.cend(), [](const DropbarItem& item) {
        const QFileInfo info(item.path);
        const QString suffix = info.suffix().toLower();
        // Applications are .desktop entries here.
        return !item.isText() && (info.isDir() || suffix == u"app" || suffix == u"desktop");
    });
}

void DropbarController::updateIconForDropbarWithaId(DropbarId dbId)
{
    Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar) {
        return;
    }
    const QByteArray icon = iconFor(*dropbar);
    if (db().updateDropbar(dbId, dropbar->title, dropbar->name, icon, dropbar->locked)) {
        dropbar->icon = icon;
    }
}

void DropbarController::updateAllDropbarIcons()
{
    for (const auto& dropbar : dropbars()) {
        if (dropbar) {
            updateIconForDropbarWithaId(dropbar->dbId);
        }
    }
}

bool DropbarController::removeDropbarWithaId(DropbarId dbId, bool removeTempFiles)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar) {
        return false;
    }
    const QList<DropbarItem> removed = dropbar->items;
    if (!db().deleteDropbar(dbId)) {
        return false;
    }
    m_dropbars.removeAt(*slotOfDropbar(dbId));
    if (removeTempFiles) {
        removeTempFilesOf(removed);
    }
    stackChanged();
    autoClosePopOutDropBarIfEmpty();
    return true;
}

bool DropbarController::removeDropbars()
{
    QList<DropbarItem> removed;
    SqliteWriteTransaction transaction = db().writeTransaction();
    for (const auto& dropbar : dropbars()) {
        if (!dropbar) {
            continue;
        }
        removed += dropbar->items;
        // An emptied locked stack must not keep the title and icon of what it held.
        Dropbar emptied = *dropbar;
        emptied.items.clear();
        const bool done = dropbar->locked
                              ? db().deleteItemsForDropbar(dropbar->dbId) &&
                                    db().updateDropbar(dropbar->dbId, Dropbar::automaticTitle({}),
                                                       dropbar->name, iconFor(emptied), true)
                              : db().deleteDropbar(dropbar->dbId);
        if (!done) {
            return false;
        }
    }
    const bool saved = transaction.commit();
    reloadDropbars();
    if (saved) {
        removeTempFilesOf(removed);
    }
    stackChanged();
    autoClosePopOutDropBarIfEmpty();
    return saved;
}

bool DropbarController::removeItem(DropbarItemId itemId, DropbarId dbId, bool removeTempFiles)
{
    Dropbar* dropbar = dropbarWithId(dbId);
    const auto item = itemWithId(dbId, itemId);
    if (!dropbar || !item) {
        return false;
    }
    // The last item of an unlocked stack takes the stack with it.
    if (dropbar->items.size() == 1 && !dropbar->locked) {
        return removeDropbarWithaId(dbId, removeTempFiles);
    }
    Dropbar changed = *dropbar;
    changed.items.removeIf([itemId](const DropbarItem& i) { return i.id == itemId; });
    changed.title = Dropbar::automaticTitle(changed.items);
    changed.icon = iconFor(changed);
    SqliteWriteTransaction transaction = db().writeTransaction();
    if (!db().deleteItem(itemId, dbId) ||
        !db().updateDropbar(dbId, changed.title, changed.name, changed.icon, changed.locked) ||
        !transaction.commit()) {
        return false;
    }
    *dropbar = changed;
    if (removeTempFiles) {
        removeTempFilesOf({*item});
    }
    stackChanged();
    return true;
}

void DropbarController::autoClosePopOutDropBarIfEmpty()
{
    WindowPresenter& windows = m_context.tasks.windows;
    if (m_dropbars.size() <= 1 &&
        m_context.tasks.settings.boolValue(Settings::AutoClosePopOutDropBar) &&
        windows.isDropBarSecondaryVisible()) {
        windows.closeDropBarSecondary();
    }
}
