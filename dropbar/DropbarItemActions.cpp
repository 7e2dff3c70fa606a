// What is done with items: opening, revealing, previewing, copying, typing text, and the
// drops and clicks that the grid hands over.
#include "builtin/BuiltInContext.h"
#include "core/DesktopServices.h"
#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"
#include "dropbar/DropbarController.h"
#include "platform/Launcher.h"
#include "store/GridDatabase.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QSaveFile>
#include <QUrl>

namespace {

QStringList filePathsOf(const Dropbar& dropbar)
{
    QStringList paths;
    for (const DropbarItem& item : dropbar.items) {
        if (!item.isText() && !item.missing) {
            paths << item.path;
        }
    }
    return paths;
}

// Files that only exist as a promise or as image data are kept in a folder of Skelvo's own,
// which goes when their item is removed.
QStringList intoPromisedFilesFolder(const QStringList& paths)
{
    const QString promised = QDir::cleanPath(SupportPaths::promisedFilesDirectory()) + u'/';
    if (std::all_of(paths.cbegin(), paths.cend(),
                    [&](const QString& p) { return QDir::cleanPath(p).startsWith(promised); })) {
        return paths;
    }
    const QString container = SupportPaths::uniquePromisedFilesDirectory();
    QStringList moved;
    for (const QString& path : paths) {
        const QString target = QDir(container).filePath(QFileInfo(path).fileName());
        if (!QFile::rename(path, target)) {
            Log::error(QStringLiteral("Error moving temp promised file %1 to %2\n%3")
                           .arg(path, target, QStringLiteral("the file could not be moved")));
            Log::error(QStringLiteral("Failed to move promised files"));
            return {};
        }
        moved << target;
    }
    return moved;
}

} // namespace

bool DropbarController::performStackItemMenuAction(StackItemMenuAction action, DropbarItemId itemId,
                                                   DropbarId dbId, GridId targetGridId)
{
    const auto item = itemWithId(dbId, itemId);
    if (!item) {
        return false;
    }
    switch (action) {
    case StackItemMenuAction::MoveToGrid:
    case StackItemMenuAction::Separate: {
        const GridId gridId = action == StackItemMenuAction::MoveToGrid ? targetGridId : m_gridId;
        Dropbar single;
        single.items = {*item};
        const DropbarId separated = db().separateItem(
            itemId, dbId, gridId, Dropbar::automaticTitle(single.items), iconFor(single));
        if (!separated) {
            return false;
        }
        reloadDropbars();
        if (Dropbar* source = dropbarWithId(dbId)) {
            source->title = Dropbar::automaticTitle(source->items);
            updateIconForDropbarWithaId(dbId);
        }
        stackChanged();
        return true;
    }
    case StackItemMenuAction::QuickLook:
        m_context.tasks.windows.showQuickLook({item->path});
        return true;
    case StackItemMenuAction::ShowInFolder:
        return showInFolder(*item);
    case StackItemMenuAction::Copy:
        if (item->isText()) {
            m_context.tasks.desktop.pasteString(item->text);
        } else {
            m_context.tasks.desktop.pasteFiles({item->path});
        }
        notify(QStringLiteral("Drop Bar Item Copied to Clipboard"),
               QStringLiteral("%1 now on clipboard").arg(item->displayName()));
        return true;
    case StackItemMenuAction::Remove:
        return removeItem(itemId, dbId);
    }
    return false;
}

bool DropbarController::openItem(const DropbarItem& item)
{
    if (item.isText()) {
        return insertDropbarTextIntoFrontmostApp(item);
    }
    if (item.missing) {
        Log::warning(QStringLiteral("Source file not found: %1").arg(item.path));
        notify(QStringLiteral("Source file not found"), item.path);
        return false;
    }
    QString error;
    if (!m_context.launcher.openUrl(QUrl::fromLocalFile(item.path).toString(), &error)) {
        Log::error(QStringLiteral("Could not open %1: %2").arg(item.path, error));
        return false;
    }
    return true;
}

bool DropbarController::openDropbarItems(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar) {
        return false;
    }
    bool opened = true;
    for (const DropbarItem& item : dropbar->items) {
        opened = (item.isText() || openItem(item)) && opened;
    }
    return opened;
}

bool DropbarController::showInFolder(const DropbarItem& item)
{
    if (item.path.isEmpty() || (!item.isText() && item.missing)) {
        return false;
    }
    QString error;
    const QString folder = QFileInfo(item.path).absolutePath();
    if (!m_context.launcher.openUrl(QUrl::fromLocalFile(folder).toString(), &error)) {
        Log::error(QStringLiteral("Could not show %1: %2").arg(item.path, error));
        return false;
    }
    return true;
}

QStringList DropbarController::previewPanelURLs(DropbarId dbId)
{
    QStringList paths;
    if (const Dropbar* dropbar = dropbarWithId(dbId)) {
        for (const DropbarItem& item : dropbar->items) {
            if (!item.path.isEmpty() && !item.missing) {
                paths << item.path;
            }
        }
    }
    return paths;
}

void DropbarController::quickLook(DropbarId dbId)
{
    const QStringList paths = previewPanelURLs(dbId);
    if (!paths.isEmpty()) {
        m_context.tasks.windows.showQuickLook(paths);
    }
}

bool DropbarController::copyToClipboardFromDropBar(DropbarId dbId)
{
    const Dropbar* dropbar = dropbarWithId(dbId);
    if (!dropbar || dropbar->items.isEmpty()) {
        return false;
    }
    QString what;
    if (dropbar->containsOnlyText()) {
        QStringList texts;
        for (const DropbarItem& item : dropbar->items) {
            texts << item.text;
        }
        m_context.tasks.desktop.pasteString(texts.join(u'\n'));
        what = QStringLiteral("Text");
    } else {
        const QStringList paths = filePathsOf(*dropbar);
        const bool someMissing = std::any_of(dropbar->items.cbegin(), dropbar->items.cend(),
                                             [](const DropbarItem& i) { return i.missing; });
        if (someMissing) {
            notify(QStringLiteral("One or more source files not found"), dropbar->displayName());
        }
        if (paths.isEmpty()) {
            return false;
        }
        m_context.tasks.desktop.pasteFiles(paths);
        what = dropbar->items.size() == 1 ? QStringLiteral("Item")
               : dropbar->name.isEmpty()  ? QStringLiteral("Items")
                                          : QStringLiteral("Stack");
    }
    notify(QStringLiteral("Drop Bar %1 Copied to Clipboard").arg(what),
           QStringLiteral("%1 now on clipboard").arg(dropbar->displayName()));
    return true;
}

bool DropbarController::insertDropbarTextIntoFrontmostApp(const DropbarItem& item)
{
    QString error;
    if (!m_context.tasks.desktop.insertTextIntoFrontmostApp(item.text, &error)) {
        Log::error(QStringLiteral("Error inserting text into frontmost app: %1").arg(error));
        return false;
    }
    return true;
}

bool DropbarController::addItemsFromDrag(const DragInfo& drag, DropbarId dropBarId,
                                         bool fromWithinSkelvo, bool)
{
    DropbarTarget target;
    const auto slot = dropBarIndexWithGridActionId(dropBarId);
    if (slot && *slot > 0) {
        target.slot = *slot;
    }
    if (fromWithinSkelvo && drag.sourceDropbarId) {
        if (!dropbarWithId(drag.sourceDropbarId) ||
            (target.slot && m_dropbars.at(*target.slot)->dbId == drag.sourceDropbarId)) {
            return false;
        }
        m_addQueue.push_back({{}, {}, target, {}, drag.sourceDropbarId});
        processNextInAddQueue();
        return true;
    }
    if (!drag.filePaths.isEmpty()) {
        addURLs(drag.filePaths, {}, target);
        return true;
    }
    if (!drag.imageData.isEmpty()) {
        const QString path = QDir(SupportPaths::uniquePromisedFilesDirectory())
                                 .filePath(QStringLiteral("Image.png"));
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(drag.imageData) < 0 || !file.commit()) {
            Log::error(
                QStringLiteral("Error writing image to %1: %2").arg(path, file.errorString()));
            return false;
        }
        addURLs({path}, {}, target);
        return true;
    }
    if (drag.receivePromisedFiles) {
        QPointer<DropbarController> self(this);
        drag.receivePromisedFiles([self, target](const QStringList& paths) {
            const QStringList kept = intoPromisedFilesFolder(paths);
            if (self && !kept.isEmpty()) {
                self->addURLs(kept, {}, target);
            }
        });
        return true;
    }
    if (!drag.text.isEmpty()) {
        addItems({DropbarItem::ofText(drag.text)}, {}, target);
        return true;
    }
    return false;
}

void DropbarController::handleClick(const GridAction& dropBarTile)
{
    const auto slot = dropBarIndexWithGridActionId(dropBarTile.aId);
    if (!slot || *slot == 0) {
        return;
    }
    const Dropbar& dropbar = *m_dropbars.at(*slot);
    if (dropbar.containsOnlyText()) {
        insertDropbarTextIntoFrontmostApp(dropbar.items.first());
    } else if (dropbar.items.size() == 1) {
        openItem(dropbar.items.first());
    } else {
        m_context.tasks.windows.revealDropbar(dropBarTile.aId);
    }
}
