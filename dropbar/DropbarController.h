#pragma once

#include "core/Identifiers.h"
#include "dropbar/Dropbar.h"
#include "events/DropbarDispatcher.h"
#include "platform/FolderChanges.h"
#include "store/GridAction.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <deque>
#include <functional>
#include <optional>

struct BuiltInContext;
class GridDatabase;
class GridStoreHooks;

// Where an add goes: a slot of the shown grid's Drop Bar row, or a new Drop Bar in a grid.
struct DropbarTarget {
    std::optional<int> slot;      // an existing stack of the shown grid
    std::optional<GridId> gridId; // a new stack in this grid (the shown one when unset)
};

// The Drop Bars of the shown grid. Slot 0 is the grid's standing empty slot, which takes drops
// and turns them into a new stack; every other slot holds a stack. Each change is mirrored into
// the grid store as one transaction, so the store always holds whole stacks.
class DropbarController : public QObject, public DropbarDispatcher {
    Q_OBJECT
public:
    using Completion = std::function<void(bool added, DropbarId dropbarId)>;

    DropbarController(const BuiltInContext& context, GridStoreHooks& hooks,
                      QObject* parent = nullptr);
    ~DropbarController() override;

    // --- The shown grid's row
    // The row as stored for the selected grid, reloaded when another grid was selected since.
    const QList<std::optional<Dropbar>>& dropbars();
    void reloadDropbars();
    GridId shownGridId() const { return m_gridId; }
    int numDropbars(); // stacks, the standing slot not counted
    int numItemsAtDropbarWithaId(DropbarId dbId);
    int numTextItemsInDropbar(DropbarId dbId);
    std::optional<int> dropBarIndexWithGridActionId(qint64 tileId);
    qint64 lastDropbarGridActionId();
    std::optional<int> slotOfDropbar(DropbarId dbId);
    // Tiles for the grid view: the standing slot (id 100000) and one per stack.
    QList<GridAction> dropbarTiles();
    // Checks every file item again: follows renames, notes what is gone.
    void updateDropbarMissingSources();

    // --- Adding. Requests are worked off one at a time in the order they came.
    void addURLs(const QStringList& paths, const QString& name, const DropbarTarget& target,
                 Completion completion = {});
    void addItems(const QList<DropbarItem>& items, const QString& name, const DropbarTarget& target,
                  Completion completion = {});
    void addFilePaths(const QStringList& paths) { addURLs(paths, {}, {}); }
    void addTextToDropbarFromClipboard(const QString& text);
    void setSuppressAddedToDropBarNotification(bool suppress) { m_suppressNotification = suppress; }

    // --- Stacks
    bool setDropbarLockingWithaId(DropbarId dbId, bool locked);
    bool setDropbarNameWithaId(DropbarId dbId, const QString& name);
    bool isDropbarRenamedWithaId(DropbarId dbId);
    bool isDropbarLockedWithaId(DropbarId dbId);
    bool hasRenamedStacks();
    bool resetAllStackNames();
    bool seperateDropbarItemsWithaId(DropbarId dbId);
    bool combineAllItemsToStack();
    bool moveDropbarWithaId(DropbarId dbId, GridId gridId);
    bool moveAllDropbarsToGrid(GridId gridId);
    bool revealDropbarWithDatabaseId(DropbarId dbId);
    bool dropbarContainsFoldersOrAppsWithaId(DropbarId dbId);
    void updateIconForDropbarWithaId(DropbarId dbId);
    void updateAllDropbarIcons();
    // Reloads one stack's items, title, name and icon from the store.
    void refreshStack(DropbarId dbId, GridId gridId);

    // --- Removing
    bool removeDropbarWithaId(DropbarId dbId, bool removeTempFiles = true);
    // Every stack of the shown grid; locked stacks stay, emptied.
    bool removeDropbars();
    bool removeItem(DropbarItemId itemId, DropbarId dbId, bool removeTempFiles = true);
    void autoClosePopOutDropBarIfEmpty();

    // --- Items
    enum class StackItemMenuAction { MoveToGrid, Separate, QuickLook, ShowInFolder, Copy, Remove };
    bool performStackItemMenuAction(StackItemMenuAction action, DropbarItemId itemId,
                                    DropbarId dbId, GridId targetGridId = Identifiers::None);
    bool openItem(const DropbarItem& item);
    bool openDropbarItems(DropbarId dbId);
    bool showInFolder(const DropbarItem& item);
    void quickLook(DropbarId dbId);
    QStringList previewPanelURLs(DropbarId dbId);
    bool copyToClipboardFromDropBar(DropbarId dbId);
    bool insertDropbarTextIntoFrontmostApp(const DropbarItem& item);

    // --- Start-up: promised-file folders and saved text that no item refers to.
    void removeLeftovers();

    // DropbarDispatcher
    bool addItemsFromDrag(const DragInfo& drag, DropbarId dropBarId, bool fromWithinSkelvo,
                          bool delayPrepareGrid) override;
    void handleClick(const GridAction& dropBarTile) override;

private:
    struct AddRequest {
        QList<DropbarItem> items;
        QString name;
        DropbarTarget target;
        Completion completion;
        DropbarId takeOverFrom = Identifiers::None; // a stack dragged onto the target
    };

    GridDatabase& db() const;
    void ensureCurrentGrid();
    void processNextInAddQueue();
    std::optional<DropbarId> performAdd(AddRequest& request);
    bool makeItemsStorable(QList<DropbarItem>& items);
    Dropbar* dropbarWithId(DropbarId dbId);
    std::optional<DropbarItem> itemWithId(DropbarId dbId, DropbarItemId itemId);
    QByteArray iconFor(const Dropbar& dropbar) const;
    void notifyAdded(const QList<DropbarItem>& items, DropbarId dbId);
    void notify(const QString& title, const QString& body, DropbarId dbId = Identifiers::None);
    bool saveStack(const Dropbar& dropbar);
    void stackChanged();
    // Deletes Skelvo's own files of removed items that no remaining item refers to.
    void removeTempFilesOf(const QList<DropbarItem>& removed);

    const BuiltInContext& m_context;
    GridStoreHooks& m_hooks;
    GridId m_gridId = Identifiers::None;
    bool m_loaded = false;
    QList<std::optional<Dropbar>> m_dropbars;
    std::deque<AddRequest> m_addQueue;
    bool m_adding = false;
    bool m_suppressNotification = false;
    int m_gridsObserver = 0;
    // The local folders of shown files, so that a listing only looks again at items whose
    // folder changed.
    FolderChanges m_folderChanges;
};
