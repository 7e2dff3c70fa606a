// Drops, clicks, clipboard and monitored runs through the handler, with tasks that are
// written but not started.
#include "events/EventsHandler.h"

#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "events/PasteboardTypes.h"
#include "store/GridDatabase.h"
#include "store/GridStoreHooks.h"
#include "tasks/Task.h"
#include "tests/events/EventsTestSupport.h"
#include "tests/support/EventLoop.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using Outcome = DispatchResult::Outcome;
using namespace EventsTestActions;

namespace {

QString descriptionOf(const Task* task)
{
    QFile file(task->taskDescriptionPath());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// Counts one notification name on a centre while alive.
class Counter {
public:
    Counter(NotificationCenter& centre, const QString& name)
        : m_centre(centre)
        , m_token(centre.addObserver(name, nullptr, [this](const Notification& n) { seen << n; }))
    {}
    ~Counter() { m_centre.removeObserver(m_token); }
    Counter(const Counter&) = delete;
    Counter& operator=(const Counter&) = delete;
    QList<Notification> seen;

private:
    NotificationCenter& m_centre;
    int m_token;
};

} // namespace

// --- Variables of the created tasks

TEST_F(EventsTest, DroppedFilesCarryTheCopyOperationTheModifierAndTheFilesType)
{
    const GridActionPtr action = store(Files);
    DragInfo drag = files({makeFile(QStringLiteral("a.txt")), makeFile(QStringLiteral("b c.txt"))});
    drag.copyActivated = true;
    drag.modifiers.option = true;
    const DispatchResult result = handler->performActionDrag(action, drag);
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    ASSERT_EQ(started.size(), 1);
    Task* task = result.task;
    ASSERT_TRUE(task);
    EXPECT_EQ(task->event, QStringLiteral("dragged"));
    EXPECT_EQ(task->items, drag.filePaths);
    EXPECT_EQ(task->variables.value(QStringLiteral("OPERATION")),
              QStringLiteral("NSDragOperationCopy"));
    EXPECT_EQ(task->variables.value(QStringLiteral("dragged_type")), QStringLiteral("files"));
    EXPECT_EQ(task->variables.value(QStringLiteral("KEY_MODIFIERS")), QStringLiteral("Option"));
    const QString description = descriptionOf(task);
    EXPECT_TRUE(description.contains(QStringLiteral("VARIABLE: \"KEY_MODIFIERS\" \"Option\"\n")));
    EXPECT_TRUE(description.endsWith(
        QStringLiteral("ITEMS: \"%1\" \"%2\"").arg(drag.filePaths[0], drag.filePaths[1])));
    EXPECT_GE(engine->windows().gridClosed, 1);
    // Nothing of the drop stays behind for the next run.
    EXPECT_TRUE(handler->keyModifier().isEmpty());
    EXPECT_FALSE(handler->copyActivated());
    EXPECT_TRUE(handler->pasteboardTypes().isEmpty());
}

TEST_F(EventsTest, DroppedTextIsTheOneItemOfATextRun)
{
    const GridActionPtr action = store(FilesAndText);
    const QString words = QStringLiteral("say \"hi\" there");
    const DispatchResult result = handler->performActionDrag(action, text(words));
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    EXPECT_EQ(result.task->items, QStringList{words});
    EXPECT_EQ(result.task->variables.value(QStringLiteral("dragged_type")), QStringLiteral("text"));
    EXPECT_TRUE(descriptionOf(result.task).endsWith(QStringLiteral("ITEMS: \"say \"hi\" there\"")));
}

TEST_F(EventsTest, TheDraggedTypeOfARun)
{
    const GridActionPtr action = store(FilesAndText);
    const QString file = makeFile(QStringLiteral("a.txt"));
    // On the command line an existing path is a file, other words are text, even after a drop.
    ASSERT_TRUE(handler->performActionDrag(action, files({file})).task);
    struct Row {
        QString item;
        bool viaCmdLine;
        const char* type;
    };
    const Row rows[] = {{file, true, "files"},
                        {QStringLiteral("no such path"), true, "text"},
                        {file, false, "text"}}; // outside it only the offered formats decide
    for (const Row& row : rows) {
        Task* task = handler->createTaskForAction(action, {row.item}, QStringLiteral("dragged"),
                                                  row.viaCmdLine);
        ASSERT_TRUE(task);
        EXPECT_EQ(task->variables.value(QStringLiteral("dragged_type")),
                  QString::fromLatin1(row.type))
            << row.item.toStdString() << row.viaCmdLine;
        EXPECT_FALSE(task->variables.contains(QStringLiteral("OPERATION")));
    }
    Task* intent = handler->runGridAction(action, QStringList{file}, true);
    ASSERT_TRUE(intent);
    EXPECT_EQ(intent->variables.value(QStringLiteral("dragged_type")), QStringLiteral("files"));
    Task* textIntent = handler->runGridAction(action, QStringLiteral("a text"), true);
    ASSERT_TRUE(textIntent);
    EXPECT_EQ(textIntent->variables.value(QStringLiteral("dragged_type")), QStringLiteral("text"));
    EXPECT_EQ(textIntent->items, QStringList{QStringLiteral("a text")});
}

TEST_F(EventsTest, ADragWithoutItemsLogsAndRunsNothing)
{
    const GridActionPtr action = store(Files);
    LogCapture log;
    EXPECT_EQ(handler->createTaskForAction(action, {}, QStringLiteral("dragged"), false), nullptr);
    EXPECT_TRUE(log.contains(
        QStringLiteral("Error in createTaskForAction: Pasteboard items could not be found")));
    EXPECT_EQ(handler->runGridAction(action, QStringList{}, true), nullptr);
    EXPECT_TRUE(started.isEmpty());
}

// --- Clicks, in their order

TEST_F(EventsTest, AClickOnAScriptStartsAClickedTaskWithoutItems)
{
    const GridActionPtr action = store(ClicksOnly);
    EXPECT_TRUE(EventsHandler::canHandleClickForAction(*action));
    EXPECT_FALSE(EventsHandler::clickWouldOnlyOpenConfigForAction(*action));
    const DispatchResult result = handler->performActionClick(action);
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    EXPECT_EQ(result.task->event, QStringLiteral("clicked"));
    EXPECT_TRUE(result.task->items.isEmpty());
    EXPECT_FALSE(result.task->variables.contains(QStringLiteral("dragged_type")));
    EXPECT_EQ(engine->windows().gridClosed, 1);
}

TEST_F(EventsTest, ClicksOnSpecialTiles)
{
    FakeWindowPresenter& windows = engine->windows();
    EXPECT_EQ(handler->performActionClick(tile(Identifiers::AddToGridTileId)).outcome,
              Outcome::ShowedAddActionMenu);
    EXPECT_EQ(windows.addActionMenuShown, 1);

    EXPECT_EQ(handler->performActionClick(tile(100002, QStringLiteral("Drop Bar Files"))).outcome,
              Outcome::HandedToDropBar);
    EXPECT_EQ(handler->performActionClick(tile(100003, QStringLiteral("Drop Bar Text"))).outcome,
              Outcome::HandedToDropBar);
    EXPECT_EQ(dropbars->clicks, (QList<ActionId>{100002, 100003}));

    EXPECT_EQ(handler->performActionClick(tile(100000, QStringLiteral("Drop Bar Files"))).outcome,
              Outcome::ShowedDropBarPinned);
    EXPECT_EQ(windows.dropBarSecondaryShown, 1);
    EXPECT_EQ(windows.gridClosed, 1);
    windows.dropBarSecondaryVisible = true;
    handler->performActionClick(tile(100000, QStringLiteral("Drop Bar Files")));
    EXPECT_EQ(windows.dropBarSecondaryShown, 1) << "already showing";
    EXPECT_EQ(windows.gridClosed, 1);
    EXPECT_TRUE(dropbars->drops.isEmpty());
    EXPECT_TRUE(started.isEmpty());
}

TEST_F(EventsTest, ClicksOnSharingServices)
{
    const GridActionPtr email = store(Email);
    EXPECT_EQ(handler->performActionClick(email).outcome, Outcome::HandedToSharingService);
    EXPECT_EQ(sharing->clicks, QStringList{Email});
    EXPECT_EQ(engine->windows().gridClosed, 1);

    const GridActionPtr airDrop = store(AirDrop);
    EXPECT_EQ(handler->performActionClick(airDrop).outcome, Outcome::OpenedActionConfig);
    const GridActionPtr dropOnly = store(ShareOnDrop);
    EXPECT_EQ(handler->performActionClick(dropOnly).outcome, Outcome::OpenedActionConfig);
    EXPECT_EQ(engine->windows().configSheets, (QList<ActionId>{airDrop->aId, dropOnly->aId}));
    EXPECT_EQ(sharing->clicks, QStringList{Email});
    EXPECT_EQ(handler->performActionDrag(email, text(QStringLiteral("note"))).outcome,
              Outcome::HandedToSharingService);
    EXPECT_EQ(sharing->shared, QStringList{QStringLiteral("Email: text note")});
}

TEST_F(EventsTest, AClickThatCannotRunOpensTheSettingsSheet)
{
    Counter closeSheets((*engine)->notifications, Notifications::CloseActionConfigWindows);
    const GridActionPtr dragsOnly = store(DragsOnly);
    EXPECT_TRUE(EventsHandler::clickWouldOnlyOpenConfigForAction(*dragsOnly));
    EXPECT_FALSE(EventsHandler::canHandleClickForAction(*dragsOnly));
    const GridActionPtr renameCopy = store(RenameCopy, makeFolder(QStringLiteral("out")));
    const GridActionPtr missing =
        store(ClicksOnly, QDir(home->path()).filePath(QStringLiteral("gone")));
    const GridActionPtr invalid = store(Invalid);

    for (const GridActionPtr& action : {dragsOnly, renameCopy, missing, invalid}) {
        EXPECT_EQ(handler->performActionClick(action).outcome, Outcome::OpenedActionConfig)
            << action->type.toStdString();
    }
    EXPECT_EQ(engine->windows().configSheets,
              (QList<ActionId>{dragsOnly->aId, renameCopy->aId, missing->aId, invalid->aId}));
    EXPECT_EQ(closeSheets.seen.size(), 4);
    EXPECT_EQ(engine->windows().gridClosed, 4);
    EXPECT_TRUE(started.isEmpty());
}

TEST_F(EventsTest, BuiltInActionsGoToTheBuiltInDispatcher)
{
    const GridActionPtr openFile = store(OpenFile, makeFile(QStringLiteral("doc.txt")));
    EXPECT_EQ(handler->performActionClick(openFile).outcome, Outcome::HandedToBuiltIn);
    const GridActionPtr resize = store(ResizeImages);
    const QString image = makeFile(QStringLiteral("p.png"));
    DragInfo drag = files({image});
    EXPECT_EQ(handler->performActionDrag(resize, drag).outcome, Outcome::HandedToBuiltIn);
    const GridActionPtr appleScript =
        store(RunAppleScript, {}, {{QStringLiteral("handles_option"), QStringLiteral("1")}});
    EXPECT_EQ(handler->performActionClick(appleScript).outcome, Outcome::HandedToBuiltIn);

    ASSERT_EQ(builtIns->calls.size(), 3);
    EXPECT_EQ(builtIns->calls[0].kind, QStringLiteral("click"));
    EXPECT_EQ(builtIns->calls[0].action->aId, openFile->aId);
    EXPECT_EQ(builtIns->calls[1].kind, QStringLiteral("files"));
    EXPECT_EQ(builtIns->calls[1].urls, QList<QUrl>{QUrl::fromLocalFile(image)});
    EXPECT_FALSE(builtIns->calls[1].completion) << "only monitored runs carry a completion";
    EXPECT_FALSE(builtIns->calls[1].context);
    EXPECT_EQ(builtIns->calls[2].action->aId, appleScript->aId);
    EXPECT_TRUE(started.isEmpty());
}

TEST_F(EventsTest, WithoutABuiltInRunnerTheUserIsToldAndNothingRuns)
{
    handler->setBuiltInDispatcher(nullptr);
    const GridActionPtr openFile = store(OpenFile, makeFile(QStringLiteral("doc.txt")));
    EXPECT_EQ(handler->performActionClick(openFile).outcome, Outcome::NotHandled);
    const GridActionPtr resize = store(ResizeImages);
    EXPECT_EQ(handler->runGridAction(resize, QStringList{makeFile(QStringLiteral("p.png"))}, true),
              nullptr);
    const QList<Alert>& alerts = engine->alerts().alerts;
    ASSERT_EQ(alerts.size(), 2);
    EXPECT_EQ(alerts[0].message, EventsHandler::builtInUnavailableMessage(OpenFile));
    EXPECT_EQ(alerts[1].message, EventsHandler::builtInUnavailableMessage(ResizeImages));
    EXPECT_TRUE(alerts[0].message.contains(QStringLiteral("built-in")));
    EXPECT_TRUE(started.isEmpty());
}

// --- Drops that do not start a task

TEST_F(EventsTest, DropsOnDropBarTiles)
{
    FakeWindowPresenter& windows = engine->windows();
    DragInfo drag = files({makeFile(QStringLiteral("a.txt"))});
    drag.modifiers.option = true;
    EXPECT_EQ(
        handler->performActionDrag(tile(100002, QStringLiteral("Drop Bar Files")), drag).outcome,
        Outcome::HandedToDropBar);
    ASSERT_EQ(dropbars->drops.size(), 1);
    EXPECT_EQ(dropbars->drops[0].dropBarId, 100002);
    EXPECT_FALSE(dropbars->drops[0].fromWithinSkelvo);
    EXPECT_TRUE(dropbars->drops[0].delayPrepareGrid);
    EXPECT_EQ(windows.gridClosed, 1);
    EXPECT_EQ(windows.dropBarSecondaryShown, 1);

    DragInfo inside = text(QStringLiteral("kept"));
    inside.fromWithinSkelvo = true;
    handler->performActionDrag(tile(100003, QStringLiteral("Drop Bar Text")), inside);
    ASSERT_EQ(dropbars->drops.size(), 2);
    EXPECT_TRUE(dropbars->drops[1].fromWithinSkelvo);
    EXPECT_FALSE(dropbars->drops[1].delayPrepareGrid);
    EXPECT_EQ(windows.gridClosed, 1) << "a drag from inside leaves the grid open";

    DragInfo clipboard = text(QStringLiteral("pasted"));
    clipboard.isGeneralPasteboard = true;
    dropbars->addResult = false;
    handler->performActionDrag(tile(100003, QStringLiteral("Drop Bar Text")), clipboard);
    ASSERT_EQ(dropbars->drops.size(), 3);
    EXPECT_FALSE(dropbars->drops[2].delayPrepareGrid);
    EXPECT_EQ(windows.gridClosed, 1) << "nothing was added";

    DragInfo ownStack = files({makeFile(QStringLiteral("b.txt"))});
    ownStack.formats << PasteboardTypes::StackItem;
    ownStack.fromWithinSkelvo = true;
    ownStack.sourceDropbarId = 100004;
    EXPECT_EQ(handler->performActionDrag(tile(100004, QStringLiteral("Drop Bar Files")), ownStack)
                  .outcome,
              Outcome::NotHandled);
    EXPECT_EQ(dropbars->drops.size(), 3);
}

TEST_F(EventsTest, AHandledDropPlaysTheDropSoundWhenSoundsAreOn)
{
    const GridActionPtr action = store(Files);
    handler->performActionDrag(action, files({makeFile(QStringLiteral("a"))}));
    EXPECT_TRUE(engine->desktop().sounds.isEmpty());
    (*engine)->settings.setValue(Settings::PlaySounds, true);
    handler->performActionDrag(action, text(QStringLiteral("refused")));
    EXPECT_TRUE(engine->desktop().sounds.isEmpty()) << "a refused drop is silent";
    handler->performActionDrag(action, files({makeFile(QStringLiteral("b"))}));
    EXPECT_EQ(engine->desktop().sounds, QStringList{QStringLiteral("GridDrop")});
}

TEST_F(EventsTest, DroppingOnAddToGridAddsTilesAfterTheGridCloses)
{
    int rebuilt = 0;
    (*engine)->storeHooks.prepareGrid = [&] { ++rebuilt; };
    const QString folder = makeFolder(QStringLiteral("Projects"));
    const QString plain = makeFile(QStringLiteral("notes.txt"));
    const QString singleFileAction = makeFile(QStringLiteral("tool.skelvo"));
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    const qint64 before = db.getNumActions();

    DragInfo drag = files({folder, plain, singleFileAction});
    ASSERT_TRUE(EventsHandler::canHandleDragForAction(*tile(Identifiers::AddToGridTileId), drag));
    EXPECT_EQ(handler->performActionDrag(tile(Identifiers::AddToGridTileId), drag).outcome,
              Outcome::AddingToGrid);
    EXPECT_EQ(engine->windows().gridClosed, 1);
    EXPECT_EQ(db.getNumActions(), before) << "not before the grid has closed";
    ASSERT_TRUE(waitUntil([&] { return db.getNumActions() == before + 2 && rebuilt > 0; }));
    QStringList added;
    for (const GridActionPtr& action : db.getAllActions()) {
        added << action->type + QLatin1Char('=') +
                     action->extraVariables.value(GridAction::PathVariable).toString();
    }
    EXPECT_TRUE(added.contains(MoveFiles + QLatin1Char('=') + folder))
        << added.join(u'\n').toStdString();
    EXPECT_TRUE(added.contains(OpenFile + QLatin1Char('=') + plain));
    EXPECT_EQ(rebuilt, 1);
}

TEST_F(EventsTest, PromisedFilesRunTheActionOnceTheyArrive)
{
    const GridActionPtr action = store(Files);
    std::function<void(const QStringList&)> arrived;
    DragInfo drag;
    drag.formats = {QStringLiteral("XdndDirectSave0")};
    drag.copyActivated = true;
    drag.modifiers.command = true;
    drag.receivePromisedFiles = [&](std::function<void(const QStringList&)> callback) {
        arrived = std::move(callback);
    };
    EXPECT_EQ(handler->performActionDrag(action, drag).outcome, Outcome::WaitingForPromisedFiles);
    ASSERT_TRUE(arrived);
    EXPECT_TRUE(started.isEmpty());

    // Another run in between does not change where the files go.
    handler->performActionClick(store(ClicksOnly));
    const QString received = makeFile(QStringLiteral("SkFilePromise-1/mail.eml"));
    arrived({received});
    ASSERT_EQ(started.size(), 2);
    Task* task = started.last();
    EXPECT_EQ(task->items, QStringList{received});
    EXPECT_EQ(task->variables.value(QStringLiteral("dragged_type")), QStringLiteral("files"));
    EXPECT_EQ(task->variables.value(QStringLiteral("OPERATION")),
              QStringLiteral("NSDragOperationCopy"));
    EXPECT_EQ(task->variables.value(QStringLiteral("KEY_MODIFIERS")), QStringLiteral("Command"));
}

// --- The clipboard

TEST_F(EventsTest, TheClipboardsImageRunsAsASavedPng)
{
    const GridActionPtr action = store(Files);
    DragInfo clipboard;
    clipboard.isGeneralPasteboard = true;
    clipboard.formats = {QStringLiteral("image/png"), QStringLiteral("application/x-qt-image")};
    clipboard.imageData = QByteArray("\x89PNG\r\n\x1a\nrest", 12);
    EXPECT_TRUE(EventsHandler::canHandleClipboardForAction(*action, clipboard));
    const DispatchResult result = handler->performActionWithClipboardForAction(action, clipboard);
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    ASSERT_EQ(result.task->items.size(), 1);
    const QFileInfo saved(result.task->items.first());
    EXPECT_EQ(saved.fileName(), QStringLiteral("Image.png"));
    EXPECT_TRUE(saved.absolutePath().startsWith(SupportPaths::promisedFilesDirectory() +
                                                QStringLiteral("/SkFilePromise-")));
    QFile file(saved.filePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), clipboard.imageData);
    EXPECT_EQ(result.task->variables.value(QStringLiteral("dragged_type")),
              QStringLiteral("files"));

    clipboard.imageData.clear();
    EXPECT_EQ(handler->performActionWithClipboardForAction(action, clipboard).outcome,
              Outcome::NotHandled);
    EXPECT_EQ(started.size(), 1);
}

TEST_F(EventsTest, TheClipboardsFilesAndTextRunLikeADrop)
{
    const GridActionPtr both = store(FilesAndText);
    DragInfo clipboard = files({makeFile(QStringLiteral("a.txt"))});
    clipboard.isGeneralPasteboard = true;
    Task* fileTask = handler->performActionWithClipboardForAction(both, clipboard).task;
    ASSERT_TRUE(fileTask);
    EXPECT_EQ(fileTask->items, clipboard.filePaths);
    EXPECT_EQ(fileTask->variables.value(QStringLiteral("dragged_type")), QStringLiteral("files"));

    DragInfo words = text(QStringLiteral("copied words"));
    words.isGeneralPasteboard = true;
    Task* textTask = handler->performActionWithClipboardForAction(both, words).task;
    ASSERT_TRUE(textTask);
    EXPECT_EQ(textTask->items, QStringList{QStringLiteral("copied words")});
    EXPECT_EQ(textTask->variables.value(QStringLiteral("dragged_type")), QStringLiteral("text"));

    const GridActionPtr filesOnly = store(Files);
    EXPECT_FALSE(EventsHandler::canHandleClipboardForAction(*filesOnly, words));
    EXPECT_EQ(handler->performActionWithClipboardForAction(filesOnly, words).outcome,
              Outcome::NotHandled);
    EXPECT_EQ(started.size(), 2);
}

// --- Monitored runs

TEST_F(EventsTest, AMonitoredRunCarriesItsContextAndEndsOnce)
{
    const GridActionPtr action = store(Files);
    auto context = std::make_shared<RecordingMonitorContext>();
    int completed = 0;
    const QString arrived = makeFile(QStringLiteral("in/new.txt"));
    handler->runMonitoredAction(action, {arrived}, context, [&] { ++completed; });
    ASSERT_EQ(started.size(), 1);
    Task* task = started.first();
    EXPECT_EQ(task->folderMonitorContext, context);
    EXPECT_EQ(task->items, QStringList{arrived});
    EXPECT_EQ(task->variables.value(QStringLiteral("dragged_type")), QStringLiteral("files"));
    EXPECT_FALSE(task->variables.contains(QStringLiteral("KEY_MODIFIERS")));
    EXPECT_TRUE(handler->isMonitoredRunPending());

    // A command-line run meanwhile is not part of the monitored run.
    Task* other = handler->createTaskForAction(action, {arrived}, QStringLiteral("dragged"), true);
    ASSERT_TRUE(other);
    EXPECT_FALSE(other->folderMonitorContext);
    EXPECT_FALSE(other->completion);

    EXPECT_EQ(completed, 0);
    task->finishCompletion();
    settle();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(context->finished, 1);
    EXPECT_FALSE(handler->isMonitoredRunPending());
    handler->finishMonitoredAction();
    EXPECT_EQ(completed, 1);
}

TEST_F(EventsTest, AMonitoredRunThatCannotStartEndsAtOnce)
{
    handler->setBuiltInDispatcher(nullptr);
    auto context = std::make_shared<RecordingMonitorContext>();
    int completed = 0;
    handler->runMonitoredAction(store(ResizeImages), {makeFile(QStringLiteral("a.png"))}, context,
                                [&] { ++completed; });
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(context->finished, 1);

    const GridActionPtr removed = store(Files);
    ASSERT_TRUE(GridDatabase::sharedGridDatabase().deleteAction(removed->aId));
    handler->runMonitoredAction(removed, {makeFile(QStringLiteral("b.txt"))}, context,
                                [&] { ++completed; });
    settle();
    EXPECT_EQ(completed, 2);
    EXPECT_EQ(context->finished, 2);
}

TEST_F(EventsTest, MonitoredBuiltInAndSharingRunsEndThroughTheirCompletion)
{
    auto context = std::make_shared<RecordingMonitorContext>();
    int completed = 0;
    handler->runMonitoredAction(store(ResizeImages), {makeFile(QStringLiteral("a.png"))}, context,
                                [&] { ++completed; });
    ASSERT_EQ(builtIns->calls.size(), 1);
    EXPECT_EQ(builtIns->calls[0].context, context);
    ASSERT_TRUE(builtIns->calls[0].completion);
    EXPECT_EQ(completed, 0);
    builtIns->calls[0].completion();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(context->finished, 1);

    handler->runMonitoredAction(store(Email), {makeFile(QStringLiteral("b.txt"))}, context,
                                [&] { ++completed; });
    ASSERT_EQ(sharing->completions.size(), 1);
    ASSERT_TRUE(sharing->completions[0]);
    EXPECT_EQ(completed, 1);
    sharing->completions[0]();
    EXPECT_EQ(completed, 2);
    EXPECT_EQ(context->finished, 2);
}

// --- The completion a caller gives a run

TEST_F(EventsTest, ARunThatStartsNothingStillCallsItsCompletionOnceButLater)
{
    int completed = 0;
    const auto count = [&] { ++completed; };
    const QString file = makeFile(QStringLiteral("a.txt"));
    EXPECT_EQ(
        handler->createTaskForAction(store(Files), {}, QStringLiteral("dragged"), true, count),
        nullptr);
    EXPECT_EQ(handler->runGridAction(tile(4242, QStringLiteral("No Such Action")),
                                     QStringList{file}, true, count),
              nullptr);
    EXPECT_EQ(handler->createTaskForAction(store(ResizeImages), {file}, QStringLiteral("dragged"),
                                           true, count),
              nullptr)
        << "a built-in action does not run as a task";
    const GridActionPtr removed = store(Files);
    ASSERT_TRUE(GridDatabase::sharedGridDatabase().deleteAction(removed->aId));
    EXPECT_EQ(handler->createTaskForAction(removed, {file}, QStringLiteral("dragged"), true, count),
              nullptr);
    EXPECT_EQ(handler->performActionClick(store(DragsOnly), count).outcome,
              Outcome::OpenedActionConfig);
    EXPECT_EQ(handler->runGridAction(store(Email), QStringLiteral("shared text"), true, count),
              nullptr);
    EXPECT_EQ(completed, 0) << "never within the call";
    settle();
    EXPECT_EQ(completed, 6);
    settle(50);
    EXPECT_EQ(completed, 6);
    EXPECT_TRUE(started.isEmpty());
}

TEST_F(EventsTest, ARunThatIsHandedOnPassesItsCompletionOn)
{
    int completed = 0;
    const auto count = [&] { ++completed; };
    const QString file = makeFile(QStringLiteral("a.txt"));
    Task* task =
        handler->createTaskForAction(store(Files), {file}, QStringLiteral("dragged"), true, count);
    ASSERT_TRUE(task);
    ASSERT_TRUE(task->completion);
    EXPECT_EQ(handler->performActionClick(store(OpenFile, file), count).outcome,
              Outcome::HandedToBuiltIn);
    EXPECT_EQ(handler->runGridAction(store(ResizeImages), QStringList{file}, true, count), nullptr);
    EXPECT_EQ(handler->runGridAction(store(Email), QStringList{file}, true, count), nullptr);
    settle();
    EXPECT_EQ(completed, 0) << "all of them are still running";

    task->finishCompletion();
    ASSERT_EQ(builtIns->calls.size(), 2);
    builtIns->calls[0].completion();
    builtIns->calls[1].completion();
    ASSERT_EQ(sharing->completions.size(), 1);
    sharing->completions[0]();
    settle();
    EXPECT_EQ(completed, 4);
}
