#pragma once

#include "events/DispatchResult.h"
#include "events/DragInfo.h"
#include "store/GridAction.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class BuiltInDispatcher;
class DropbarDispatcher;
class FolderMonitorContext;
class GridStoreHooks;
class SharingServiceDispatcher;
class Task;
struct RenameAnswer;
struct TaskContext;

// Turns drops, clicks, clipboard runs, intents, command-line runs and monitored-folder
// arrivals on grid tiles into runs: a script action becomes a Task that is started; built-in
// actions, sharing services and Drop Bar tiles go to their dispatchers. It also owns the
// rename prompt of "Rename & Move Files" and "Rename & Copy Files". Main thread only.
//
// For the command line: a run returns the script Task it made (null when it made none), so
// the request can be tied to it: the task machinery posts the run's responses and its
// "SkelvoRunCmdLineFinish" with the task's runner or output handler as sender, and a rename
// cancelled for a command-line run posts its response and finish here with the Task itself
// as sender. The Task is deleted (deleteLater) once its run is over; hold it in a QPointer.
// A `completion` given to a run is called exactly once when that run is over, however it
// ended: completed, cancelled, failed to launch, dropped at the rename prompt, or nothing
// could start at all (then on a later turn of the event loop, never within the call).
class EventsHandler : public QObject {
    Q_OBJECT
public:
    static inline const QString DraggedEvent = QStringLiteral("dragged");
    static inline const QString ClickedEvent = QStringLiteral("clicked");
    static inline const QString OperationVariable = QStringLiteral("OPERATION");
    static inline const QString OperationCopy = QStringLiteral("NSDragOperationCopy");
    static inline const QString KeyModifiersVariable = QStringLiteral("KEY_MODIFIERS");
    static inline const QString RenamedFilenameVariable = QStringLiteral("RENAMED_FILENAME_%1");
    static inline const QString DraggedTypeFiles = QStringLiteral("files");
    static inline const QString DraggedTypeText = QStringLiteral("text");
    static inline const QString OpenFileAction = QStringLiteral("Open File");
    static inline const QString GridDropSound = QStringLiteral("GridDrop");
    static inline const QString NoItemsMessage =
        QStringLiteral("Error in createTaskForAction: Pasteboard items could not be found");
    // Answers to a command-line run whose rename prompt ended without names.
    static inline const QString RenameCancelledResponse =
        QStringLiteral("Error: The rename was cancelled, so the action did not run.");
    static inline const QString RenameUnavailableResponse =
        QStringLiteral("Error: The rename prompt needs a display, and Skelvo is running without "
                       "one, so the action did not run.");
    static constexpr int AddToGridDelayMs = 300;

    // Tasks report to `context`; `hooks` rebuild the grid after tiles were added.
    EventsHandler(const TaskContext& context, GridStoreHooks& hooks, QObject* parent = nullptr);
    ~EventsHandler() override;

    // Where runs of built-in actions, sharing services and Drop Bar tiles go; none until set.
    void setBuiltInDispatcher(std::shared_ptr<BuiltInDispatcher> dispatcher)
    {
        m_builtIns = std::move(dispatcher);
    }
    void setSharingServiceDispatcher(std::shared_ptr<SharingServiceDispatcher> dispatcher)
    {
        m_sharing = std::move(dispatcher);
    }
    void setDropbarDispatcher(std::shared_ptr<DropbarDispatcher> dispatcher)
    {
        m_dropbars = std::move(dispatcher);
    }

    // --- Questions the grid asks while a drag hovers, for its cursor and its menus.
    static bool canHandleDragForAction(const GridAction& action, const DragInfo& drag);
    static bool canHandleFileDragWithTypes(const QStringList& types, const GridAction& action);
    static bool canHandleTextDragWithTypes(const QStringList& types, const GridAction& action);
    // "Option", "Command", "Shift", "Control" or empty (see KeyModifiers::selectFor).
    static QString keyModifierForAction(const KeyModifiers& held, const GridAction& action);
    // Whether a click does more than open the tile's settings sheet.
    static bool canHandleClickForAction(const GridAction& action);
    static bool clickWouldOnlyOpenConfigForAction(const GridAction& action);
    static bool canHandleClipboardForAction(const GridAction& action, const DragInfo& clipboard);

    // --- Dispatches.
    DispatchResult performActionDrag(const GridActionPtr& action, const DragInfo& drag);
    DispatchResult performActionClick(const GridActionPtr& action,
                                      std::function<void()> completion = {});
    DispatchResult performActionWithClipboardForAction(const GridActionPtr& action,
                                                       const DragInfo& clipboard);
    // Files or text for an action without a drop (intents, the command line, delivered
    // promised files). An intent-style run has no drop: no modifier, no copy, and the offered
    // format is just the file URL (or the string). Returns the script task, if one started.
    Task* runGridAction(const GridActionPtr& action, const QStringList& filePaths,
                        bool isFromIntent, std::function<void()> completion = {});
    Task* runGridAction(const GridActionPtr& action, const QString& text, bool isFromIntent,
                        std::function<void()> completion = {});
    // The files a drop only promised have been written.
    Task* pasteboardFilesArrivedWithFilePaths(const QStringList& filePaths);

    // A file arrived in a monitored folder. `completion` is called exactly once when the run
    // has ended, however it ended (finishMonitoredAction).
    void runMonitoredAction(const GridActionPtr& action, const QStringList& filePaths,
                            std::shared_ptr<FolderMonitorContext> context,
                            std::function<void()> completion);
    void finishMonitoredAction();

    // Builds a script task for the tile and starts it, or for the renaming actions opens the
    // rename prompt first. `eventType` is "dragged" or "clicked"; `viaCmdLine` marks a run
    // from the command line. Returns the task, or null when none was made or it could not
    // start (a drag without items, an unknown action, a removed tile, a missing password,
    // another rename waiting; built-in and sharing actions go through runGridAction()).
    Task* createTaskForAction(const GridActionPtr& action, const QStringList& items,
                              const QString& eventType, bool viaCmdLine,
                              std::function<void()> completion = {});

    // Dropped on the "Add to Grid" tile: plain files become "Open File" tiles, everything else
    // a tile made from the path. Returns how many tiles were added.
    int addItemsToGrid(const QStringList& paths);
    void openActionConfigForGridAction(const GridAction& action);

    // --- The rename prompt.
    // While a renaming run waits for names (then another one cannot start).
    bool isRenamePromptOpen() const { return !m_pendingTask.isNull(); }
    Task* pendingTask() const { return m_pendingTask; }
    const QStringList& renamedFilenames() const { return m_renamedFilenames; }
    bool renameViaCmdLine() const { return m_renameViaCmdLine; }
    // Closes the prompt as its Cancel button does.
    void cancelRenamePrompt();
    // "Rename and Move File" / "Rename and Copy Files (2 of 3)" in English.
    static QString renamePromptTitle(bool copy, int itemNumber, int itemCount);

    // --- State of the dispatch under way.
    GridActionPtr gridAction() const { return m_gridAction; }
    const QStringList& pasteboardTypes() const { return m_pasteboardTypes; }
    const QString& keyModifier() const { return m_keyModifier; }
    bool copyActivated() const { return m_copyActivated; }
    bool isMonitoredRunPending() const { return static_cast<bool>(m_monitoredCompletion); }

    // The alert text when a built-in action is run while no built-in runner is set.
    static QString builtInUnavailableMessage(const QString& actionName);

private:
    const TaskContext& m_context;
    GridStoreHooks& m_hooks;
    std::shared_ptr<BuiltInDispatcher> m_builtIns;
    std::shared_ptr<SharingServiceDispatcher> m_sharing;
    std::shared_ptr<DropbarDispatcher> m_dropbars;

    DispatchResult dispatchDrop(const GridActionPtr& action, const DragInfo& drag);
    DispatchResult dispatchFiles(const GridActionPtr& action, const QStringList& filePaths,
                                 std::function<void()> completion);
    DispatchResult dispatchText(const GridActionPtr& action, const QString& text,
                                std::function<void()> completion);
    DispatchResult dispatchClick(const GridActionPtr& action, std::function<void()> completion);
    // Ends the monitored run under way when it has one, then the caller's run.
    std::function<void()> runEnd(std::function<void()> completion);
    void receivePromisedFiles(const GridActionPtr& action, const DragInfo& drag);
    QString draggedType(const GridAction& action, const QStringList& items, bool viaCmdLine) const;
    Task* startTask(Task* task);
    void dropTask(Task* task);
    void abandonRun(std::function<void()> completion);
    void endDispatch();
    void reportBuiltInUnavailable(const GridAction& action);

    void promptForNextName();
    void renameAnswered(const RenameAnswer& answer);
    void finishRename(bool cancelled, const QString& response);
    void clearRenameState();

    GridActionPtr m_gridAction;
    QStringList m_pasteboardTypes;
    QString m_keyModifier;
    bool m_copyActivated = false;

    std::shared_ptr<FolderMonitorContext> m_folderMonitorContext;
    std::function<void()> m_monitoredCompletion;
    std::shared_ptr<SharingServiceDispatcher> m_monitoredSharingService;
    // Set while a monitored run is being dispatched, so that only its own task or built-in
    // run carries the context and the completion.
    bool m_monitoredDispatch = false;

    QPointer<Task> m_pendingTask;
    QStringList m_renamedFilenames;
    bool m_renameViaCmdLine = false;
    bool m_renameCopy = false;
    bool m_renameMonitored = false;
    std::function<void()> m_renameCompletion;
    quint64 m_renameGeneration = 0;
};
