#include "events/EventsHandler.h"

#include "actions/ActionFileParser.h"
#include "core/AlertHelper.h"
#include "core/DesktopServices.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"
#include "events/AcceptanceRules.h"
#include "events/BuiltInDispatcher.h"
#include "events/DropbarDispatcher.h"
#include "events/PasteboardTypes.h"
#include "events/SharingServiceDispatcher.h"
#include "platform/ApplicationFiles.h"
#include "store/GridStoreHooks.h"
#include "tasks/FolderMonitorContext.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QTimer>
#include <QUrl>

#include <utility>

namespace {

using Outcome = DispatchResult::Outcome;

ActionFilePtr actionFileOf(const GridAction& action)
{
    return action.actionFile();
}

// The length of a name without its extension; a leading dot does not start an extension.
int baseNameLength(const QString& name)
{
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return static_cast<int>(dot > 0 ? dot : name.size());
}

// Runs `block` on a later turn of the main loop (at once when there is no loop).
void callLater(std::function<void()> block)
{
    if (!block) {
        return;
    }
    QCoreApplication* application = QCoreApplication::instance();
    if (!application) {
        block();
        return;
    }
    QMetaObject::invokeMethod(application, std::move(block), Qt::QueuedConnection);
}

bool usesEnglish()
{
    const QLocale::Language language = QLocale().language();
    return language == QLocale::English || language == QLocale::C;
}

} // namespace

EventsHandler::EventsHandler(const TaskContext& context, GridStoreHooks& hooks, QObject* parent)
    : QObject(parent)
    , m_context(context)
    , m_hooks(hooks)
{}

EventsHandler::~EventsHandler() = default;

// --- Questions

bool EventsHandler::canHandleDragForAction(const GridAction& action, const DragInfo& drag)
{
    return AcceptanceRules::canHandleDrag(action, actionFileOf(action).get(), drag);
}

bool EventsHandler::canHandleFileDragWithTypes(const QStringList& types, const GridAction& action)
{
    return AcceptanceRules::canHandleFileDragWithTypes(types, action, actionFileOf(action).get());
}

bool EventsHandler::canHandleTextDragWithTypes(const QStringList& types, const GridAction& action)
{
    return AcceptanceRules::canHandleTextDragWithTypes(types, action, actionFileOf(action).get());
}

QString EventsHandler::keyModifierForAction(const KeyModifiers& held, const GridAction& action)
{
    const ActionFilePtr file = actionFileOf(action);
    return file ? held.selectFor(*file) : QString();
}

bool EventsHandler::canHandleClickForAction(const GridAction& action)
{
    return AcceptanceRules::routeClick(action, actionFileOf(action).get()) !=
           AcceptanceRules::ClickRoute::OpenConfig;
}

bool EventsHandler::clickWouldOnlyOpenConfigForAction(const GridAction& action)
{
    return AcceptanceRules::clickWouldOnlyOpenConfig(action, actionFileOf(action).get());
}

bool EventsHandler::canHandleClipboardForAction(const GridAction& action, const DragInfo& clipboard)
{
    return AcceptanceRules::canHandleClipboard(action, actionFileOf(action).get(), clipboard);
}

QString EventsHandler::builtInUnavailableMessage(const QString& actionName)
{
    return QStringLiteral("\"%1\" is a built-in action, and built-in actions cannot run in "
                          "this version of Skelvo.")
        .arg(actionName);
}

// --- Drops

DispatchResult EventsHandler::performActionDrag(const GridActionPtr& action, const DragInfo& drag)
{
    if (!action || AcceptanceRules::isStackItemFromSameDropbar(*action, drag)) {
        return {};
    }
    m_gridAction = action;
    m_pasteboardTypes = drag.formats;
    m_copyActivated = drag.copyActivated;
    m_keyModifier = keyModifierForAction(drag.modifiers, *action);

    const DispatchResult result = dispatchDrop(action, drag);
    if (result.outcome != Outcome::WaitingForPromisedFiles) {
        endDispatch();
    }
    if (result.outcome != Outcome::NotHandled &&
        m_context.settings.boolValue(Settings::PlaySounds)) {
        m_context.desktop.playSound(GridDropSound);
    }
    return result;
}

DispatchResult EventsHandler::dispatchDrop(const GridActionPtr& action, const DragInfo& drag)
{
    if (AcceptanceRules::isAddToGridTile(*action)) {
        m_context.windows.closeGrid();
        // Gives the grid time to close before it is rebuilt with the new tiles.
        QTimer::singleShot(AddToGridDelayMs, this,
                           [this, paths = drag.filePaths] { addItemsToGrid(paths); });
        return {Outcome::AddingToGrid};
    }

    if (AcceptanceRules::isDropbarTile(*action)) {
        DropbarDispatcher* dropbar = m_dropbars.get();
        if (!dropbar) {
            Log::warning(QStringLiteral("No Drop Bar is available; the drop on \"%1\" is ignored")
                             .arg(action->name));
            return {};
        }
        const bool fromOutside = !drag.fromWithinSkelvo;
        const bool added = dropbar->addItemsFromDrag(drag, action->aId, drag.fromWithinSkelvo,
                                                     fromOutside && !drag.isGeneralPasteboard);
        if (added && fromOutside) {
            m_context.windows.closeGrid();
            if (drag.modifiers.option) {
                m_context.windows.showDropBarSecondaryPinned();
            }
        }
        return {Outcome::HandedToDropBar};
    }

    const ActionFilePtr file = actionFileOf(*action);
    if (AcceptanceRules::canHandleFileDragWithTypes(m_pasteboardTypes, *action, file.get())) {
        if (!drag.filePaths.isEmpty()) {
            return dispatchFiles(action, drag.filePaths, {});
        }
        if (!drag.receivePromisedFiles) {
            Log::warning(QStringLiteral("The drop on \"%1\" carries no files that can be read")
                             .arg(action->name));
            return {};
        }
        receivePromisedFiles(action, drag);
        return {Outcome::WaitingForPromisedFiles};
    }
    if (AcceptanceRules::canHandleTextDragWithTypes(m_pasteboardTypes, *action, file.get())) {
        return dispatchText(action, drag.text, {});
    }
    return {};
}

void EventsHandler::receivePromisedFiles(const GridActionPtr& action, const DragInfo& drag)
{
    // The files may take a while; the drop they belong to is carried along, so that another
    // dispatch in between does not change where they go.
    QPointer<EventsHandler> self(this);
    drag.receivePromisedFiles([self, action, types = m_pasteboardTypes, modifier = m_keyModifier,
                               copy = m_copyActivated](const QStringList& paths) {
        if (!self) {
            return;
        }
        self->m_gridAction = action;
        self->m_pasteboardTypes = types;
        self->m_keyModifier = modifier;
        self->m_copyActivated = copy;
        self->pasteboardFilesArrivedWithFilePaths(paths);
    });
}

Task* EventsHandler::pasteboardFilesArrivedWithFilePaths(const QStringList& filePaths)
{
    return runGridAction(m_gridAction, filePaths, false);
}

DispatchResult EventsHandler::performActionWithClipboardForAction(const GridActionPtr& action,
                                                                  const DragInfo& clipboard)
{
    if (!action || !canHandleClipboardForAction(*action, clipboard)) {
        return {};
    }
    DragInfo drop = clipboard;
    drop.isGeneralPasteboard = true;
    drop.fromWithinSkelvo = false;
    if (clipboard.filePaths.isEmpty() && PasteboardTypes::containsImageType(clipboard.formats)) {
        if (clipboard.imageData.isEmpty()) {
            Log::warning(QStringLiteral("The clipboard's image could not be read"));
            return {};
        }
        const QString folder = SupportPaths::uniquePromisedFilesDirectory();
        const QString path = QDir(folder).filePath(QStringLiteral("Image.png"));
        QFile file(path);
        if (folder.isEmpty() || !file.open(QIODevice::WriteOnly) ||
            file.write(clipboard.imageData) != clipboard.imageData.size() || !file.flush()) {
            Log::error(QStringLiteral("Error saving the clipboard's image to %1").arg(path));
            return {};
        }
        // The saved image is dropped as a file of its own, not as the clipboard.
        drop = DragInfo{};
        drop.formats = {PasteboardTypes::FileUrl};
        drop.filePaths = {path};
    }
    return performActionDrag(action, drop);
}

// --- Files and text without a drop

Task* EventsHandler::runGridAction(const GridActionPtr& action, const QStringList& filePaths,
                                   bool isFromIntent, std::function<void()> completion)
{
    if (isFromIntent) {
        m_pasteboardTypes = {PasteboardTypes::FileUrl};
        m_gridAction = action;
        m_keyModifier.clear();
        m_copyActivated = false;
    }
    DispatchResult result;
    if (action) {
        result = dispatchFiles(action, filePaths, std::move(completion));
    } else {
        abandonRun(std::move(completion));
    }
    endDispatch();
    return result.task;
}

Task* EventsHandler::runGridAction(const GridActionPtr& action, const QString& text,
                                   bool isFromIntent, std::function<void()> completion)
{
    if (isFromIntent) {
        m_pasteboardTypes = {PasteboardTypes::PlainText};
        m_gridAction = action;
        m_keyModifier.clear();
        m_copyActivated = false;
    }
    DispatchResult result;
    if (action) {
        result = dispatchText(action, text, std::move(completion));
    } else {
        abandonRun(std::move(completion));
    }
    endDispatch();
    return result.task;
}

DispatchResult EventsHandler::dispatchFiles(const GridActionPtr& action,
                                            const QStringList& filePaths,
                                            std::function<void()> completion)
{
    const ActionFilePtr file = actionFileOf(*action);
    if (!file) {
        Log::error(QStringLiteral("Cannot find action with type '%1' in %2")
                       .arg(action->type, QStringLiteral("runGridAction")));
        abandonRun(std::move(completion));
        return {};
    }

    if (file->isSharingService) {
        const std::shared_ptr<SharingServiceDispatcher> sharing = m_sharing;
        if (!sharing) {
            Log::warning(
                QStringLiteral("No sharing service is available for \"%1\"").arg(action->name));
            abandonRun(std::move(completion));
            return {};
        }
        if (m_monitoredDispatch) {
            // Kept alive until the sharing has ended.
            m_monitoredSharingService = sharing;
        }
        sharing->shareItems(*action, filePaths, runEnd(std::move(completion)));
        m_context.windows.closeGrid();
        return {Outcome::HandedToSharingService};
    }

    if (file->isBuiltInAction) {
        BuiltInDispatcher* builtIn = m_builtIns.get();
        if (!builtIn) {
            reportBuiltInUnavailable(*action);
            abandonRun(std::move(completion));
            return {};
        }
        // Without a sandbox the tile's referenced path needs no access grant first.
        QList<QUrl> urls;
        for (const QString& path : filePaths) {
            urls << QUrl::fromLocalFile(path);
        }
        const std::shared_ptr<FolderMonitorContext> context =
            m_monitoredDispatch ? m_folderMonitorContext : nullptr;
        const QString modifier = std::exchange(m_keyModifier, QString());
        builtIn->runActionWithDrag(action, urls, modifier, context, runEnd(std::move(completion)));
        return {Outcome::HandedToBuiltIn};
    }

    Task* task = createTaskForAction(action, filePaths, DraggedEvent, false, std::move(completion));
    return {task ? Outcome::StartedTask : Outcome::NotHandled, task};
}

DispatchResult EventsHandler::dispatchText(const GridActionPtr& action, const QString& text,
                                           std::function<void()> completion)
{
    const ActionFilePtr file = actionFileOf(*action);
    if (!file) {
        Log::error(QStringLiteral("Cannot find action with type '%1' in %2")
                       .arg(action->type, QStringLiteral("runGridAction")));
        abandonRun(std::move(completion));
        return {};
    }
    if (file->isSharingService) {
        const std::shared_ptr<SharingServiceDispatcher> sharing = m_sharing;
        if (!sharing) {
            Log::warning(
                QStringLiteral("No sharing service is available for \"%1\"").arg(action->name));
            abandonRun(std::move(completion));
            return {};
        }
        sharing->shareText(*action, text);
        m_context.windows.closeGrid();
        // Sharing text is over once the service has it.
        abandonRun(std::move(completion));
        return {Outcome::HandedToSharingService};
    }
    if (file->isBuiltInAction) {
        BuiltInDispatcher* builtIn = m_builtIns.get();
        if (!builtIn) {
            reportBuiltInUnavailable(*action);
            abandonRun(std::move(completion));
            return {};
        }
        builtIn->runActionWithDrag(action, text, std::exchange(m_keyModifier, QString()),
                                   runEnd(std::move(completion)));
        return {Outcome::HandedToBuiltIn};
    }
    Task* task = createTaskForAction(action, {text}, DraggedEvent, false, std::move(completion));
    return {task ? Outcome::StartedTask : Outcome::NotHandled, task};
}

// --- Clicks

DispatchResult EventsHandler::performActionClick(const GridActionPtr& action,
                                                 std::function<void()> completion)
{
    if (!action) {
        abandonRun(std::move(completion));
        return {};
    }
    const DispatchResult result = dispatchClick(action, std::move(completion));
    endDispatch();
    return result;
}

DispatchResult EventsHandler::dispatchClick(const GridActionPtr& action,
                                            std::function<void()> completion)
{
    using Route = AcceptanceRules::ClickRoute;
    const ActionFilePtr file = actionFileOf(*action);
    DispatchResult result;
    switch (AcceptanceRules::routeClick(*action, file.get())) {
    case Route::AddActionMenu:
        m_context.windows.showAddActionMenu();
        result.outcome = Outcome::ShowedAddActionMenu;
        break;
    case Route::DropBarTile:
        if (DropbarDispatcher* dropbar = m_dropbars.get()) {
            dropbar->handleClick(*action);
            result.outcome = Outcome::HandedToDropBar;
        } else {
            Log::warning(QStringLiteral("No Drop Bar is available; the click on \"%1\" is ignored")
                             .arg(action->name));
        }
        break;
    case Route::DropBarPinned:
        if (!m_context.windows.isDropBarSecondaryVisible()) {
            m_context.windows.showDropBarSecondaryPinned();
            m_context.windows.closeGrid();
        }
        result.outcome = Outcome::ShowedDropBarPinned;
        break;
    case Route::SharingService:
        if (const std::shared_ptr<SharingServiceDispatcher> sharing = m_sharing) {
            sharing->handleClick(*action);
            m_context.windows.closeGrid();
            result.outcome = Outcome::HandedToSharingService;
        } else {
            Log::warning(
                QStringLiteral("No sharing service is available for \"%1\"").arg(action->name));
        }
        break;
    case Route::OpenConfig:
        openActionConfigForGridAction(*action);
        result.outcome = Outcome::OpenedActionConfig;
        break;
    case Route::RunBuiltIn:
        if (BuiltInDispatcher* builtIn = m_builtIns.get()) {
            builtIn->runActionWithClick(action, runEnd(std::move(completion)));
            return {Outcome::HandedToBuiltIn};
        }
        reportBuiltInUnavailable(*action);
        break;
    case Route::RunScript: {
        Task* task = createTaskForAction(action, {}, ClickedEvent, false, std::move(completion));
        return {task ? Outcome::StartedTask : Outcome::NotHandled, task};
    }
    }
    // Nothing runs on past this click.
    abandonRun(std::move(completion));
    return result;
}

void EventsHandler::openActionConfigForGridAction(const GridAction& action)
{
    m_context.windows.closeGrid();
    m_context.notifications.post(Notifications::CloseActionConfigWindows);
    m_context.windows.showActionConfigSheet(action.aId);
}

// --- Monitored runs

void EventsHandler::runMonitoredAction(const GridActionPtr& action, const QStringList& filePaths,
                                       std::shared_ptr<FolderMonitorContext> context,
                                       std::function<void()> completion)
{
    m_folderMonitorContext = std::move(context);
    m_monitoredCompletion = std::move(completion);
    m_copyActivated = false;
    m_keyModifier.clear();
    m_monitoredDispatch = true;
    runGridAction(action, filePaths, true);
}

void EventsHandler::finishMonitoredAction()
{
    const std::shared_ptr<FolderMonitorContext> context = std::exchange(m_folderMonitorContext, {});
    std::function<void()> completion = std::exchange(m_monitoredCompletion, {});
    m_monitoredSharingService.reset();
    if (context) {
        context->finish();
    }
    if (completion) {
        completion();
    }
}

std::function<void()> EventsHandler::runEnd(std::function<void()> completion)
{
    if (!m_monitoredDispatch) {
        return completion;
    }
    return [self = QPointer<EventsHandler>(this), completion = std::move(completion)] {
        if (self) {
            self->finishMonitoredAction();
        }
        if (completion) {
            completion();
        }
    };
}

void EventsHandler::abandonRun(std::function<void()> completion)
{
    // Nothing will run, so nothing else would ever end the monitored run or the caller's.
    if (m_monitoredDispatch) {
        m_monitoredDispatch = false;
        finishMonitoredAction();
    }
    callLater(std::move(completion));
}

// --- Tasks

Task* EventsHandler::createTaskForAction(const GridActionPtr& action, const QStringList& items,
                                         const QString& eventType, bool viaCmdLine,
                                         std::function<void()> completion)
{
    if (!action) {
        abandonRun(std::move(completion));
        endDispatch();
        return nullptr;
    }
    // Without a sandbox the tile's referenced path needs no access grant first.
    auto* task = new Task(m_context);
    const bool monitored = m_monitoredDispatch;
    if (monitored) {
        task->folderMonitorContext = m_folderMonitorContext;
    }
    task->completion = runEnd(completion);
    task->event = eventType;
    task->gridAction = action;
    task->actionFile = action->actionFile();
    if (!task->actionFile || task->actionFile->isBuiltInAction ||
        task->actionFile->isSharingService) {
        Log::error(task->actionFile
                       ? QStringLiteral("\"%1\" is not a script action; it cannot "
                                        "run as a task")
                             .arg(action->type)
                       : QStringLiteral("Cannot find action with type '%1' in %2")
                             .arg(action->type, QStringLiteral("createTaskForAction")));
        dropTask(task);
        endDispatch();
        return nullptr;
    }

    if (eventType == DraggedEvent) {
        if (items.isEmpty()) {
            Log::error(NoItemsMessage);
            dropTask(task);
            endDispatch();
            return nullptr;
        }
        task->items = items;
        if (m_copyActivated) {
            task->variables.insert(OperationVariable, OperationCopy);
        }
        task->variables.insert(Task::DraggedTypeVariable, draggedType(*action, items, viaCmdLine));
    }
    if (!m_keyModifier.isEmpty()) {
        task->variables.insert(KeyModifiersVariable, m_keyModifier);
    }
    const bool copy = m_copyActivated;
    endDispatch();

    if (AcceptanceRules::isRenameAction(action->type) && eventType == DraggedEvent) {
        if (m_pendingTask) {
            Log::warning(QStringLiteral("\"%1\" was not run: the rename prompt of another run is "
                                        "still open")
                             .arg(action->name));
            dropTask(task);
            return nullptr;
        }
        m_context.windows.closeGrid();
        m_renamedFilenames.clear();
        m_pendingTask = task;
        task->setParent(this); // owned here until it runs or is dropped
        m_renameViaCmdLine = viaCmdLine;
        m_renameCopy = copy;
        m_renameMonitored = monitored;
        m_renameCompletion = std::move(completion);
        // The caller gets the task before the prompt can answer.
        QTimer::singleShot(0, this, [this, generation = ++m_renameGeneration] {
            if (generation == m_renameGeneration) {
                promptForNextName();
            }
        });
        return task;
    }
    return startTask(task);
}

QString EventsHandler::draggedType(const GridAction& action, const QStringList& items,
                                   bool viaCmdLine) const
{
    if (viaCmdLine && QFileInfo::exists(items.first())) {
        return DraggedTypeFiles;
    }
    return canHandleFileDragWithTypes(m_pasteboardTypes, action) ? DraggedTypeFiles
                                                                 : DraggedTypeText;
}

Task* EventsHandler::startTask(Task* task)
{
    task->setParent(nullptr); // from here the tasks controller owns it
    task->run();
    m_context.windows.closeGrid();
    if (task->taskDescriptionPath().isEmpty() && !task->isWaitingForSecrets()) {
        // Nothing was started (the tile is gone or its password is missing); its completion
        // has been queued already. One still waiting for its login starts, or goes, later.
        task->deleteLater();
        return nullptr;
    }
    return task;
}

void EventsHandler::dropTask(Task* task)
{
    // A monitored run learns that it is over through the task's completion.
    task->finishCompletion();
    delete task;
}

void EventsHandler::endDispatch()
{
    // Nothing of one drop may leak into the next run.
    m_keyModifier.clear();
    m_copyActivated = false;
    m_pasteboardTypes.clear();
    m_monitoredDispatch = false;
}

void EventsHandler::reportBuiltInUnavailable(const GridAction& action)
{
    m_context.alerts.showCriticalAlertWithTitle(QStringLiteral("Cannot Run Action"),
                                                builtInUnavailableMessage(action.type));
}

// --- The rename prompt

QString EventsHandler::renamePromptTitle(bool copy, int itemNumber, int itemCount)
{
    const QString verb = copy ? tr("Copy") : tr("Move");
    if (usesEnglish()) {
        const QString suffix = itemCount >= 2
                                   ? QStringLiteral("s (%1 of %2)").arg(itemNumber).arg(itemCount)
                                   : QString();
        return QStringLiteral("Rename and %1 File%2").arg(verb, suffix);
    }
    const QString suffix =
        itemCount >= 2 ? tr(" - (%1 of %2)").arg(itemNumber).arg(itemCount) : QString();
    return tr("Rename and %1%2").arg(verb, suffix);
}

void EventsHandler::promptForNextName()
{
    Task* task = m_pendingTask;
    if (!task || m_renamedFilenames.size() >= task->items.size()) {
        return;
    }
    const int index = static_cast<int>(m_renamedFilenames.size());
    const QString item = task->items.at(index);
    const QFileInfo info(QDir::cleanPath(item));

    RenamePrompt prompt;
    prompt.itemPath = item;
    prompt.proposedName = info.fileName();
    prompt.selectionLength = baseNameLength(prompt.proposedName);
    prompt.label = info.isDir() ? tr("New Folder Name:") : tr("New Filename:");
    const bool copy = m_renameCopy || task->actionType() == AcceptanceRules::RenameCopyFiles;
    prompt.itemNumber = index + 1;
    prompt.itemCount = static_cast<int>(task->items.size());
    prompt.title = renamePromptTitle(copy, prompt.itemNumber, prompt.itemCount);

    m_context.windows.promptForRenamedFilename(
        prompt, [self = QPointer<EventsHandler>(this),
                 generation = m_renameGeneration](const RenameAnswer& answer) {
            // An answer to a prompt that was cancelled meanwhile is ignored.
            if (self && self->m_renameGeneration == generation) {
                self->renameAnswered(answer);
            }
        });
}

void EventsHandler::renameAnswered(const RenameAnswer& answer)
{
    switch (answer.kind) {
    case RenameAnswer::Kind::Cancelled:
        finishRename(true, RenameCancelledResponse);
        return;
    case RenameAnswer::Kind::Unavailable:
        finishRename(true, RenameUnavailableResponse);
        return;
    case RenameAnswer::Kind::Renamed:
        break;
    }
    Task* task = m_pendingTask;
    if (!task) {
        return;
    }
    // An empty name is not taken: the same item is asked again.
    if (!answer.name.isEmpty()) {
        m_renamedFilenames << answer.name;
    }
    if (m_renamedFilenames.size() < task->items.size()) {
        ++m_renameGeneration;
        promptForNextName();
        return;
    }
    finishRename(false, QString());
}

void EventsHandler::finishRename(bool cancelled, const QString& response)
{
    Task* task = m_pendingTask;
    const QStringList names = m_renamedFilenames;
    const bool viaCmdLine = m_renameViaCmdLine;
    const bool monitored = m_renameMonitored;
    std::function<void()> completion = std::move(m_renameCompletion);
    clearRenameState();

    if (task && !cancelled) {
        for (qsizetype i = 0; i < names.size(); ++i) {
            QString name = names.at(i);
            name.replace(QLatin1Char('"'), QLatin1String("\\\""));
            task->variables.insert(RenamedFilenameVariable.arg(i), name);
        }
        startTask(task);
        return;
    }

    if (task) {
        // The task is the sender, so the answer reaches the request that started it.
        if (viaCmdLine) {
            m_context.distributed.post(CmdLineNotifications::Response, task,
                                       {{QStringLiteral("response"), response}});
            m_context.distributed.post(CmdLineNotifications::Finish, task);
        }
        task->completion = nullptr;
        task->deleteLater();
    }
    if (monitored) {
        finishMonitoredAction();
    }
    callLater(std::move(completion));
}

void EventsHandler::cancelRenamePrompt()
{
    if (m_pendingTask) {
        finishRename(true, RenameCancelledResponse);
    }
}

void EventsHandler::clearRenameState()
{
    ++m_renameGeneration;
    m_pendingTask = nullptr;
    m_renamedFilenames.clear();
    m_renameViaCmdLine = false;
    m_renameCopy = false;
    m_renameMonitored = false;
    m_renameCompletion = nullptr;
}

// --- Add to Grid

int EventsHandler::addItemsToGrid(const QStringList& paths)
{
    const ActionFilePtr openFile = ActionFileParser::shared().getActionWithType(OpenFileAction);
    int added = 0;
    for (const QString& path : paths) {
        const QFileInfo info(path);
        const QString suffix = info.suffix().toLower();
        const bool plainFile = info.isFile() && suffix != QLatin1String("skbundle") &&
                               suffix != QLatin1String("skelvo") &&
                               !ApplicationFiles::isApplication(path);
        GridActionPtr record;
        if (plainFile && !openFile) {
            Log::error(QStringLiteral("Cannot find action with type '%1' in %2")
                           .arg(OpenFileAction, QStringLiteral("addItemsToGrid")));
        } else {
            record = plainFile ? GridAction::initWithPath(path, openFile)
                               : GridAction::initWithPath(path);
        }
        if (record && record->create() != Identifiers::None) {
            ++added;
        }
    }
    if (added > 0 && m_hooks.prepareGrid) {
        m_hooks.prepareGrid();
    }
    return added;
}
