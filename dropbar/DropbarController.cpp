#include "dropbar/DropbarController.h"

#include "builtin/BuiltInContext.h"
#include "core/DesktopServices.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"
#include "dropbar/DropbarCleanup.h"
#include "dropbar/SavedText.h"
#include "dropbar/StackIcon.h"
#include "platform/FileBookmark.h"
#include "platform/FileSystemInfo.h"
#include "store/GridDatabase.h"
#include "store/GridStoreHooks.h"
#include "store/Icons.h"
#include "tasks/DropbarSink.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QFileInfo>

DropbarController::DropbarController(const BuiltInContext& context, GridStoreHooks& hooks,
                                     QObject* parent)
    : QObject(parent)
    , m_context(context)
    , m_hooks(hooks)
{
    // A deleted grid takes its Drop Bars with it; the next look reloads.
    m_gridsObserver = m_context.tasks.notifications.addObserver(
        Notifications::GridsChanged, nullptr, [this](const Notification&) { m_loaded = false; });
    m_context.tasks.dropbarSink.setReceiver(
        {[this](const QStringList& paths) { addFilePaths(paths); },
         [this](const QStringList& paths, GridId gridId, DropbarSink::Added done) {
             addURLs(paths, {}, DropbarTarget{std::nullopt, gridId}, std::move(done));
         },
         [this](DropbarId dropbarId) { return removeDropbarWithaId(dropbarId); }});
    m_hooks.removeDropbarItems = [this](const GridAction& tile) {
        if (const auto slot = dropBarIndexWithGridActionId(tile.aId)) {
            if (const auto& dropbar = m_dropbars.at(*slot)) {
                removeDropbarWithaId(dropbar->dbId);
            }
        }
    };
}

DropbarController::~DropbarController()
{
    m_hooks.removeDropbarItems = nullptr;
    m_context.tasks.dropbarSink.setReceiver({});
    m_context.tasks.notifications.removeObserver(m_gridsObserver);
}

GridDatabase& DropbarController::db() const
{
    return GridDatabase::sharedGridDatabase();
}

// --- The shown grid's row

void DropbarController::ensureCurrentGrid()
{
    if (!m_loaded || db().selectedGridId() != m_gridId) {
        reloadDropbars();
    }
}

void DropbarController::reloadDropbars()
{
    m_gridId = db().selectedGridId();
    m_loaded = true;
    m_dropbars = {std::nullopt};
    for (const SqlRow& row : db().getDropbarsForGrid(m_gridId)) {
        Dropbar dropbar;
        dropbar.dbId = row.value(QStringLiteral("id")).toLongLong();
        dropbar.title = row.value(QStringLiteral("title")).toString();
        dropbar.name = row.value(QStringLiteral("name")).toString();
        dropbar.icon = row.value(QStringLiteral("icon")).toByteArray();
        dropbar.locked = row.value(QStringLiteral("locked")).toLongLong() != 0;
        for (const SqlRow& itemRow : db().getItemsForDropbar(dropbar.dbId)) {
            dropbar.items << DropbarItem::fromRow(itemRow);
        }
        m_dropbars << dropbar;
    }
}

const QList<std::optional<Dropbar>>& DropbarController::dropbars()
{
    ensureCurrentGrid();
    return m_dropbars;
}

int DropbarController::numDropbars()
{
    return static_cast<int>(dropbars().size()) - 1;
}

int DropbarController::numItemsAtDropbarWithaId(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    return dropbar ? static_cast<int>(dropbar->items.size()) : 0;
}

int DropbarController::numTextItemsInDropbar(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    return dropbar ? static_cast<int>(std::count_if(dropbar->items.cbegin(), dropbar->items.cend(),
                                                    [](const auto& i) { return i.isText(); }))
                   : 0;
}

std::optional<int> DropbarController::dropBarIndexWithGridActionId(qint64 tileId)
{
    const qint64 slot = tileId - Identifiers::FirstDropbarId;
    if (!Identifiers::isDropbarId(tileId) || slot >= dropbars().size()) {
        return std::nullopt;
    }
    return static_cast<int>(slot);
}

qint64 DropbarController::lastDropbarGridActionId()
{
    return Identifiers::FirstDropbarId + numDropbars();
}

std::optional<int> DropbarController::slotOfDropbar(DropbarId dbId)
{
    const auto& row = dropbars();
    for (int slot = 1; slot < row.size(); ++slot) {
        if (row.at(slot)->dbId == dbId) {
            return slot;
        }
    }
    return std::nullopt;
}

Dropbar* DropbarController::dropbarWithId(DropbarId dbId)
{
    const auto slot = slotOfDropbar(dbId);
    return slot ? &*m_dropbars[*slot] : nullptr;
}

std::optional<DropbarItem> DropbarController::itemWithId(DropbarId dbId, DropbarItemId itemId)
{
    if (const Dropbar* dropbar = dropbarWithId(dbId)) {
        for (const DropbarItem& item : dropbar->items) {
            if (item.id == itemId) {
                return item;
            }
        }
    }
    return std::nullopt;
}

QList<GridAction> DropbarController::dropbarTiles()
{
    QList<GridAction> tiles;
    const auto& row = dropbars();
    for (int slot = 0; slot < row.size(); ++slot) {
        GridAction tile;
        tile.aId = Identifiers::FirstDropbarId + slot;
        const bool text = row.at(slot) && row.at(slot)->containsOnlyText();
        tile.type = text ? QStringLiteral("Drop Bar Text") : QStringLiteral("Drop Bar Files");
        tile.name = row.at(slot) ? row.at(slot)->displayName() : QString();
        tiles << tile;
    }
    return tiles;
}

void DropbarController::updateDropbarMissingSources()
{
    ensureCurrentGrid();
    const QSet<QString> changed = m_folderChanges.takeChanged();
    QSet<QString> toWatch; // folders of items just found where they are
    for (auto& slot : m_dropbars) {
        if (!slot) {
            continue;
        }
        // Items in a watched folder that has not changed are where they were.
        QStringList paths;
        QList<qsizetype> unsure;
        QStringView lastFolder; // neighbours mostly share their folder: decide once for them
        bool folderUnchanged = false;
        for (qsizetype index = 0; index < slot->items.size(); ++index) {
            const DropbarItem& item = slot->items.at(index);
            if (item.isText()) {
                continue;
            }
            const QStringView folder = QStringView(item.path).left(item.path.lastIndexOf(u'/'));
            if (folder != lastFolder || index == 0) {
                lastFolder = folder;
                folderUnchanged = m_folderChanges.isWatched(folder.toString()) &&
                                  !changed.contains(folder.toString());
            }
            if (item.missing || !item.identity || !folderUnchanged) {
                paths << item.path;
                unsure << index;
            }
        }
        const QList<std::optional<FileIdentity>> found = FileIdentity::ofAll(paths);
        bool followed = false;
        for (qsizetype checked = 0; checked < unsure.size(); ++checked) {
            DropbarItem& item = slot->items[unsure.at(checked)];
            if (!item.identity || found.at(checked) != item.identity) {
                const QByteArray before = item.bookmarkData;
                item = DropbarItem::fromRow(
                    {{QStringLiteral("id"), item.id}, {QStringLiteral("bookmark_data"), before}});
                followed = followed || item.bookmarkData != before;
            }
            if (!item.missing) {
                toWatch.insert(item.path.left(item.path.lastIndexOf(u'/')));
            }
        }
        // A file found under a new name keeps being followed from there.
        if (followed) {
            slot->title = Dropbar::automaticTitle(slot->items);
            saveStack(*slot);
        }
    }
    for (const QString& folder : std::as_const(toWatch)) {
        // Changes on a network file system may come from other machines, unseen.
        if (!m_folderChanges.isWatched(folder) && !FileSystemInfo::isOnNetworkFileSystem(folder)) {
            m_folderChanges.watch(folder);
        }
    }
}

// --- Adding

void DropbarController::addURLs(const QStringList& paths, const QString& name,
                                const DropbarTarget& target, Completion completion)
{
    QList<DropbarItem> items;
    for (const QString& path : paths) {
        items << DropbarItem::file(path);
    }
    addItems(items, name, target, std::move(completion));
}

void DropbarController::addItems(const QList<DropbarItem>& items, const QString& name,
                                 const DropbarTarget& target, Completion completion)
{
    m_addQueue.push_back({items, name, target, std::move(completion), Identifiers::None});
    processNextInAddQueue();
}

void DropbarController::addTextToDropbarFromClipboard(const QString& text)
{
    addItems({DropbarItem::ofText(text)}, {}, {});
}

void DropbarController::processNextInAddQueue()
{
    // An add that a completion starts waits for the one in progress.
    if (m_adding) {
        return;
    }
    m_adding = true;
    while (!m_addQueue.empty()) {
        AddRequest request = std::move(m_addQueue.front());
        m_addQueue.pop_front();
        const std::optional<DropbarId> added = performAdd(request);
        if (added) {
            notifyAdded(request.items, *added);
            stackChanged();
        }
        if (request.completion) {
            request.completion(added.has_value(), added.value_or(Identifiers::None));
        }
    }
    m_adding = false;
}

bool DropbarController::makeItemsStorable(QList<DropbarItem>& items)
{
    for (DropbarItem& item : items) {
        if (item.isText()) {
            if (item.path.isEmpty()) {
                item.path = SavedText::urlForCreatedTextFileForString(
                    item.text, SupportPaths::savedTextDirectory());
            }
            continue;
        }
        if (!item.bookmarkData.isEmpty()) {
            continue;
        }
        const auto bookmark = FileBookmark::create(item.path);
        if (!bookmark) {
            Log::error(QStringLiteral(
                "Error adding item to Drop Bar because getBookmarkData returned nil"));
            return false;
        }
        item.bookmarkData = *bookmark;
        item.path = QFileInfo(item.path).absoluteFilePath();
    }
    return true;
}

std::optional<DropbarId> DropbarController::performAdd(AddRequest& request)
{
    ensureCurrentGrid();
    if (request.items.isEmpty() && !request.takeOverFrom) {
        return std::nullopt;
    }
    Dropbar* source = nullptr;
    const DropbarId sourceId = request.takeOverFrom;
    if (sourceId) {
        // A stack dragged onto another one brings all its items along.
        source = dropbarWithId(sourceId);
        if (!source) {
            return std::nullopt;
        }
        request.items = source->items + request.items;
    }
    if (!makeItemsStorable(request.items)) {
        return std::nullopt;
    }
    SqlRows rows;
    for (const DropbarItem& item : request.items) {
        rows << item.toRow();
    }
    const GridId gridId = request.target.gridId.value_or(m_gridId);
    Dropbar* existing = nullptr;
    if (request.target.slot && *request.target.slot > 0 &&
        *request.target.slot < m_dropbars.size()) {
        existing = &*m_dropbars[*request.target.slot];
    }
    Dropbar dropbar;
    if (existing) {
        dropbar = *existing;
    } else {
        // Named as a rename would name it, so that "  Work " and "Work" are the same name.
        dropbar.name = request.name.trimmed();
        if (source) {
            dropbar.locked = source->locked;
        }
    }
    dropbar.items += request.items;
    dropbar.title = Dropbar::automaticTitle(dropbar.items);
    dropbar.icon = iconFor(dropbar);

    SqliteWriteTransaction transaction = db().writeTransaction();
    if (!transaction.isActive()) {
        return std::nullopt;
    }
    if (!existing) {
        dropbar.dbId =
            db().addDropbarWithTitle(dropbar.title, dropbar.icon, dropbar.locked, gridId);
        if (!dropbar.dbId) {
            return std::nullopt;
        }
    }
    const QList<DropbarItemId> ids = db().addItemsToDropbar(dropbar.dbId, rows);
    if (ids.size() != rows.size() ||
        !db().updateDropbar(dropbar.dbId, dropbar.title, dropbar.name, dropbar.icon,
                            dropbar.locked) ||
        (sourceId && !db().deleteDropbar(sourceId)) || !transaction.commit()) {
        Log::error(QStringLiteral("The Drop Bar could not be saved; nothing was added"));
        reloadDropbars();
        return std::nullopt;
    }
    for (qsizetype index = 0; index < ids.size(); ++index) {
        dropbar.items[dropbar.items.size() - ids.size() + index].id = ids.at(index);
    }
    if (gridId == m_gridId) {
        if (existing) {
            *existing = dropbar;
        } else {
            m_dropbars << dropbar;
        }
        if (sourceId) {
            m_dropbars.removeAt(*slotOfDropbar(sourceId));
        }
    }
    return dropbar.dbId;
}

QByteArray DropbarController::iconFor(const Dropbar& dropbar) const
{
    if (dropbar.containsOnlyText()) {
        return StackIcon::forText();
    }
    QStringList paths;
    for (const DropbarItem& item : dropbar.items) {
        if (!item.isText() && paths.size() < 3) {
            paths << item.path;
        }
    }
    Icons& icons = m_context.tasks.icons;
    return StackIcon::forFiles(
        paths, [&icons](const QString& path) { return icons.workspaceIconForPath(path); });
}

void DropbarController::notifyAdded(const QList<DropbarItem>& items, DropbarId dbId)
{
    if (m_suppressNotification || items.isEmpty()) {
        return;
    }
    const QString first = items.first().displayName();
    if (items.size() == 1) {
        notify(QStringLiteral("Item Added to Drop Bar"),
               QStringLiteral("%1 has been added to Drop Bar").arg(first), dbId);
    } else if (items.size() == 2) {
        notify(QStringLiteral("Items Added to Drop Bar"),
               QStringLiteral("%1 and 1 other have been added to Drop Bar").arg(first), dbId);
    } else {
        notify(QStringLiteral("Items Added to Drop Bar"),
               QStringLiteral("%1 and %2 others have been added to Drop Bar")
                   .arg(first)
                   .arg(items.size() - 1),
               dbId);
    }
}

void DropbarController::notify(const QString& title, const QString& body, DropbarId dbId)
{
    if (!m_context.tasks.settings.boolValue(Settings::NotificationsEnabled)) {
        return;
    }
    UserNotification notification;
    notification.title = title;
    notification.body = body;
    notification.dropbarDatabaseId = dbId;
    m_context.tasks.desktop.sendNotification(notification);
}

bool DropbarController::saveStack(const Dropbar& dropbar)
{
    SqlRows rows;
    for (const DropbarItem& item : dropbar.items) {
        rows << item.toRow();
    }
    SqliteWriteTransaction transaction = db().writeTransaction();
    const bool saved = transaction.isActive() && db().replaceItemsForDropbar(dropbar.dbId, rows) &&
                       db().updateDropbar(dropbar.dbId, dropbar.title, dropbar.name, dropbar.icon,
                                          dropbar.locked) &&
                       transaction.commit();
    // Items get new row ids when they are written again.
    if (saved) {
        refreshStack(dropbar.dbId, m_gridId);
    } else {
        reloadDropbars();
    }
    return saved;
}

void DropbarController::stackChanged()
{
    if (m_hooks.prepareGrid) {
        m_hooks.prepareGrid();
    }
}

void DropbarController::refreshStack(DropbarId dbId, GridId gridId)
{
    if (gridId != m_gridId) {
        return;
    }
    Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar) {
        return;
    }
    for (const SqlRow& row : db().getDropbarsForGrid(gridId)) {
        if (row.value(QStringLiteral("id")).toLongLong() == dbId) {
            dropbar->title = row.value(QStringLiteral("title")).toString();
            dropbar->name = row.value(QStringLiteral("name")).toString();
            dropbar->icon = row.value(QStringLiteral("icon")).toByteArray();
            dropbar->locked = row.value(QStringLiteral("locked")).toLongLong() != 0;
        }
    }
    dropbar->items.clear();
    for (const SqlRow& itemRow : db().getItemsForDropbar(dbId)) {
        dropbar->items << DropbarItem::fromRow(itemRow);
    }
}

// --- Start-up

void DropbarController::removeLeftovers()
{
    // One look at what the items refer to serves both sweeps.
    const QStringList referenced = DropbarCleanup::referencedPaths(db().getAllDropbarItems());
    DropbarCleanup::removePromisedFilesDirs(referenced);
    DropbarCleanup::removeSavedTextFiles(referenced);
}

void DropbarController::removeTempFilesOf(const QList<DropbarItem>& removed)
{
    DropbarCleanup::removeTempFiles(removed,
                                    DropbarCleanup::referencedPaths(db().getAllDropbarItems()));
}
