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

QString variable(const Task* task, const char* name)
{
    return task->variables.value(QString::fromLatin1(name));
}

} // namespace

TEST_F(EventsTest, TheVariablesAndItemsOfCreatedTasks)
{
    const GridActionPtr action = store(Files);
    DragInfo drag = files({makeFile(QStringLiteral("a.txt")), makeFile(QStringLiteral("b c.txt"))});
    drag.copyActivated = true;
    drag.modifiers.option = true;
    const DispatchResult result = handler->performActionDrag(action, drag);
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    ASSERT_EQ(started.size(), 1);
    Task* task = result.task;
    EXPECT_EQ(task->event, QStringLiteral("dragged"));
    EXPECT_EQ(task->items, drag.filePaths);
    EXPECT_EQ(variable(task, "OPERATION"), QStringLiteral("NSDragOperationCopy"));
    EXPECT_EQ(variable(task, "dragged_type"), QStringLiteral("files"));
    EXPECT_EQ(variable(task, "KEY_MODIFIERS"), QStringLiteral("Option"));
    EXPECT_TRUE(descriptionOf(task).endsWith(
        QStringLiteral("ITEMS: \"%1\" \"%2\"").arg(drag.filePaths[0], drag.filePaths[1])));
    EXPECT_GE(windows().gridClosed, 1);
    // Nothing of the drop stays behind for the next run.
    EXPECT_TRUE(handler->keyModifier().isEmpty());
    EXPECT_FALSE(handler->copyActivated());
    EXPECT_TRUE(handler->pasteboardTypes().isEmpty());

    const GridActionPtr both = store(FilesAndText);
    const QString words = QStringLiteral("say \"hi\" there");
    Task* textTask = handler->performActionDrag(both, text(words)).task;
    ASSERT_TRUE(textTask);
    EXPECT_EQ(textTask->items, QStringList{words});
    EXPECT_EQ(variable(textTask, "dragged_type"), QStringLiteral("text"));
    EXPECT_TRUE(descriptionOf(textTask).endsWith(QStringLiteral("ITEMS: \"say \"hi\" there\"")));

    // On the command line an existing path is a file, other words are text, even after a
    // drop; outside it only the offered formats decide.
    const QString file = makeFile(QStringLiteral("c.txt"));
    const std::tuple<QString, bool, const char*> rows[] = {
        {file, true, "files"},
        {QStringLiteral("no such path"), true, "text"},
        {file, false, "text"}};
    for (const auto& [item, viaCmdLine, type] : rows) {
        Task* run =
            handler->createTaskForAction(both, {item}, QStringLiteral("dragged"), viaCmdLine);
        ASSERT_TRUE(run);
        EXPECT_EQ(variable(run, "dragged_type"), QString::fromLatin1(type))
            << item.toStdString() << viaCmdLine;
        EXPECT_FALSE(run->variables.contains(QStringLiteral("OPERATION")));
    }
    Task* textIntent = handler->runGridAction(both, QStringLiteral("a text"), true);
    ASSERT_TRUE(textIntent);
    EXPECT_EQ(variable(textIntent, "dragged_type"), QStringLiteral("text"));
    EXPECT_EQ(textIntent->items, QStringList{QStringLiteral("a text")});
}

TEST_F(EventsTest, ClicksGoWhereTheirRouteLeads)
{
    int sheetsClosed = 0;
    const int observer =
        (*engine)->notifications.addObserver(Notifications::CloseActionConfigWindows, nullptr,
                                             [&](const Notification&) { ++sheetsClosed; });
    const GridActionPtr script = store(ClicksOnly);
    const GridActionPtr openFile = store(OpenFile, makeFile(QStringLiteral("doc.txt")));
    const GridActionPtr appleScript =
        store(RunAppleScript, {}, {{QStringLiteral("handles_option"), QStringLiteral("1")}});
    const GridActionPtr dragsOnly = store(DragsOnly);
    EXPECT_TRUE(EventsHandler::canHandleClickForAction(*script));
    EXPECT_FALSE(EventsHandler::clickWouldOnlyOpenConfigForAction(*script));
    EXPECT_TRUE(EventsHandler::clickWouldOnlyOpenConfigForAction(*dragsOnly));
    EXPECT_FALSE(EventsHandler::canHandleClickForAction(*dragsOnly));
    const std::pair<GridActionPtr, Outcome> rows[] = {
        {script, Outcome::StartedTask},
        {tile(Identifiers::AddToGridTileId), Outcome::ShowedAddActionMenu},
        {tile(100002, QStringLiteral("Drop Bar Files")), Outcome::HandedToDropBar},
        {tile(100003, QStringLiteral("Drop Bar Text")), Outcome::HandedToDropBar},
        {tile(100000, QStringLiteral("Drop Bar Files")), Outcome::ShowedDropBarPinned},
        {store(Email), Outcome::HandedToSharingService},
        {openFile, Outcome::HandedToBuiltIn},
        {appleScript, Outcome::HandedToBuiltIn},
        {store(AirDrop), Outcome::OpenedActionConfig},
        {store(ShareOnDrop), Outcome::OpenedActionConfig},
        {dragsOnly, Outcome::OpenedActionConfig},
        {store(RenameCopy, makeFolder(QStringLiteral("out"))), Outcome::OpenedActionConfig},
        {store(ClicksOnly, engine->home().path() + QStringLiteral("/gone")),
         Outcome::OpenedActionConfig},
        {store(Invalid), Outcome::OpenedActionConfig}};
    QList<ActionId> configured;
    for (const auto& [action, outcome] : rows) {
        EXPECT_EQ(handler->performActionClick(action).outcome, outcome)
            << action->type.toStdString();
        if (outcome == Outcome::OpenedActionConfig) {
            configured << action->aId;
        }
    }
    EXPECT_EQ(windows().configSheets, configured);
    EXPECT_EQ(sheetsClosed, configured.size());
    (*engine)->notifications.removeObserver(observer);
    // The script, the pinned Drop Bar, the sharing service and each sheet.
    EXPECT_EQ(windows().gridClosed, 3 + configured.size());
    EXPECT_EQ(windows().addActionMenuShown, 1);
    EXPECT_EQ(dropbars->clicks, (QList<ActionId>{100002, 100003}));
    EXPECT_TRUE(dropbars->drops.isEmpty());
    EXPECT_EQ(windows().dropBarSecondaryShown, 1);
    EXPECT_EQ(sharing->clicks, QStringList{Email});
    ASSERT_EQ(builtIns->calls.size(), 2);
    EXPECT_EQ(builtIns->calls[0].kind, QStringLiteral("click"));
    EXPECT_EQ(builtIns->calls[0].id, openFile->aId);
    EXPECT_EQ(builtIns->calls[1].id, appleScript->aId);
    ASSERT_EQ(started.size(), 1);
    EXPECT_EQ(started[0]->event, QStringLiteral("clicked"));
    EXPECT_TRUE(started[0]->items.isEmpty());
    EXPECT_FALSE(started[0]->variables.contains(QStringLiteral("dragged_type")));

    windows().dropBarSecondaryVisible = true;
    handler->performActionClick(tile(100000, QStringLiteral("Drop Bar Files")));
    EXPECT_EQ(windows().dropBarSecondaryShown, 1) << "already showing";
}

TEST_F(EventsTest, BuiltInAndSharingDrops)
{
    const GridActionPtr resize = store(ResizeImages);
    const QString image = makeFile(QStringLiteral("p.png"));
    EXPECT_EQ(handler->performActionDrag(resize, files({image})).outcome, Outcome::HandedToBuiltIn);
    ASSERT_EQ(builtIns->calls.size(), 1);
    EXPECT_EQ(builtIns->calls[0].kind, QStringLiteral("files"));
    EXPECT_EQ(builtIns->calls[0].urls, QList<QUrl>{QUrl::fromLocalFile(image)});
    EXPECT_FALSE(builtIns->calls[0].completion) << "only monitored runs carry a completion";
    EXPECT_FALSE(builtIns->calls[0].context);
    EXPECT_EQ(handler->performActionDrag(store(Email), text(QStringLiteral("note"))).outcome,
              Outcome::HandedToSharingService);
    EXPECT_EQ(sharing->shared, QStringList{QStringLiteral("Email: text note")});

    // Without a built-in runner the user is told and nothing runs.
    handler->setBuiltInDispatcher(nullptr);
    const GridActionPtr openFile = store(OpenFile, makeFile(QStringLiteral("doc.txt")));
    EXPECT_EQ(handler->performActionClick(openFile).outcome, Outcome::NotHandled);
    EXPECT_EQ(handler->runGridAction(resize, QStringList{image}, true), nullptr);
    const QList<Alert>& alerts = engine->alerts().alerts;
    ASSERT_EQ(alerts.size(), 2);
    EXPECT_EQ(alerts[0].message, EventsHandler::builtInUnavailableMessage(OpenFile));
    EXPECT_EQ(alerts[1].message, EventsHandler::builtInUnavailableMessage(ResizeImages));
    EXPECT_EQ(builtIns->calls.size(), 1);
    EXPECT_TRUE(started.isEmpty());
}

TEST_F(EventsTest, DropsOnDropBarTiles)
{
    const GridActionPtr files100002 = tile(100002, QStringLiteral("Drop Bar Files"));
    const GridActionPtr text100003 = tile(100003, QStringLiteral("Drop Bar Text"));
    DragInfo drag = files({makeFile(QStringLiteral("a.txt"))});
    drag.modifiers.option = true;
    EXPECT_EQ(handler->performActionDrag(files100002, drag).outcome, Outcome::HandedToDropBar);
    EXPECT_EQ(windows().gridClosed, 1);
    EXPECT_EQ(windows().dropBarSecondaryShown, 1);

    DragInfo inside = text(QStringLiteral("kept"));
    inside.fromWithinSkelvo = true;
    handler->performActionDrag(text100003, inside);
    EXPECT_EQ(windows().gridClosed, 1) << "a drag from inside leaves the grid open";

    DragInfo clipboard = text(QStringLiteral("pasted"));
    clipboard.isGeneralPasteboard = true;
    dropbars->addResult = false;
    handler->performActionDrag(text100003, clipboard);
    EXPECT_EQ(windows().gridClosed, 1) << "nothing was added";

    DragInfo ownStack = files({makeFile(QStringLiteral("b.txt"))});
    ownStack.formats << PasteboardTypes::StackItem;
    ownStack.fromWithinSkelvo = true;
    ownStack.sourceDropbarId = 100004;
    EXPECT_EQ(handler->performActionDrag(tile(100004, QStringLiteral("Drop Bar Files")), ownStack)
                  .outcome,
              Outcome::NotHandled);
    ASSERT_EQ(dropbars->drops.size(), 3);
    const std::tuple<DropbarId, bool, bool> expected[] = {
        {100002, false, true}, {100003, true, false}, {100003, false, false}};
    for (int i = 0; i < 3; ++i) {
        const auto& [id, within, delay] = expected[i];
        EXPECT_EQ(dropbars->drops[i].dropBarId, id) << i;
        EXPECT_EQ(dropbars->drops[i].fromWithinSkelvo, within) << i;
        EXPECT_EQ(dropbars->drops[i].delayPrepareGrid, delay) << i;
    }
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
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    const qint64 before = db.getNumActions();

    DragInfo drag = files({folder, plain, makeFile(QStringLiteral("tool.skelvo"))});
    ASSERT_TRUE(EventsHandler::canHandleDragForAction(*tile(Identifiers::AddToGridTileId), drag));
    EXPECT_EQ(handler->performActionDrag(tile(Identifiers::AddToGridTileId), drag).outcome,
              Outcome::AddingToGrid);
    EXPECT_EQ(windows().gridClosed, 1);
    EXPECT_EQ(db.getNumActions(), before) << "not before the grid has closed";
    ASSERT_TRUE(waitUntil([&] { return db.getNumActions() == before + 2 && rebuilt > 0; }));
    QStringList added;
    for (const GridActionPtr& action : db.getAllActions()) {
        added << action->type + u'=' +
                     action->extraVariables.value(GridAction::PathVariable).toString();
    }
    EXPECT_TRUE(added.contains(MoveFiles + u'=' + folder)) << added.join(u'\n').toStdString();
    EXPECT_TRUE(added.contains(OpenFile + u'=' + plain));
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
    drag.receivePromisedFiles = [&](auto callback) { arrived = std::move(callback); };
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
    EXPECT_EQ(variable(task, "dragged_type"), QStringLiteral("files"));
    EXPECT_EQ(variable(task, "OPERATION"), QStringLiteral("NSDragOperationCopy"));
    EXPECT_EQ(variable(task, "KEY_MODIFIERS"), QStringLiteral("Command"));
}

TEST_F(EventsTest, TheClipboardRunsLikeADropAndItsImageAsASavedPng)
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
    EXPECT_EQ(variable(result.task, "dragged_type"), QStringLiteral("files"));
    clipboard.imageData.clear();
    EXPECT_EQ(handler->performActionWithClipboardForAction(action, clipboard).outcome,
              Outcome::NotHandled);

    const GridActionPtr both = store(FilesAndText);
    DragInfo copied = files({makeFile(QStringLiteral("a.txt"))});
    DragInfo words = text(QStringLiteral("copied words"));
    for (DragInfo* info : {&copied, &words}) {
        info->isGeneralPasteboard = true;
        Task* task = handler->performActionWithClipboardForAction(both, *info).task;
        ASSERT_TRUE(task);
        EXPECT_EQ(task->items, info == &copied ? copied.filePaths : QStringList{words.text});
        EXPECT_EQ(variable(task, "dragged_type"),
                  info == &copied ? QStringLiteral("files") : QStringLiteral("text"));
    }
    EXPECT_FALSE(EventsHandler::canHandleClipboardForAction(*action, words));
    EXPECT_EQ(handler->performActionWithClipboardForAction(action, words).outcome,
              Outcome::NotHandled);
    EXPECT_EQ(started.size(), 3);
}

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
    EXPECT_EQ(variable(task, "dragged_type"), QStringLiteral("files"));
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

    // Built-in and sharing runs end through the completion they are handed.
    handler->runMonitoredAction(store(ResizeImages), {makeFile(QStringLiteral("a.png"))}, context,
                                [&] { ++completed; });
    ASSERT_EQ(builtIns->calls.size(), 1);
    EXPECT_EQ(builtIns->calls[0].context, context);
    ASSERT_TRUE(builtIns->calls[0].completion);
    EXPECT_EQ(completed, 1);
    builtIns->calls[0].completion();
    handler->runMonitoredAction(store(Email), {makeFile(QStringLiteral("b.txt"))}, context,
                                [&] { ++completed; });
    ASSERT_EQ(sharing->completions.size(), 1);
    ASSERT_TRUE(sharing->completions[0]);
    EXPECT_EQ(completed, 2);
    sharing->completions[0]();
    EXPECT_EQ(completed, 3);
    EXPECT_EQ(context->finished, 3);

    // One that cannot start ends at once.
    handler->setBuiltInDispatcher(nullptr);
    handler->runMonitoredAction(store(ResizeImages), {makeFile(QStringLiteral("c.png"))}, context,
                                [&] { ++completed; });
    EXPECT_EQ(completed, 4);
    const GridActionPtr removed = store(Files);
    ASSERT_TRUE(GridDatabase::sharedGridDatabase().deleteAction(removed->aId));
    handler->runMonitoredAction(removed, {arrived}, context, [&] { ++completed; });
    settle();
    EXPECT_EQ(completed, 5);
    EXPECT_EQ(context->finished, 5);
}

TEST_F(EventsTest, ARunThatStartsNothingStillCallsItsCompletionOnceButLater)
{
    int completed = 0;
    const auto count = [&] { ++completed; };
    const QString file = makeFile(QStringLiteral("a.txt"));
    LogCapture log;
    EXPECT_EQ(
        handler->createTaskForAction(store(Files), {}, QStringLiteral("dragged"), true, count),
        nullptr);
    EXPECT_TRUE(log.contains(
        QStringLiteral("Error in createTaskForAction: Pasteboard items could not be found")));
    EXPECT_EQ(handler->runGridAction(store(Files), QStringList{}, true, count), nullptr);
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
    EXPECT_EQ(completed, 7);
    settle(50);
    EXPECT_EQ(completed, 7);
    EXPECT_TRUE(started.isEmpty());

    // A click handed to a built-in ends when the built-in says so.
    handler->performActionClick(store(OpenFile, file), count);
    ASSERT_FALSE(builtIns->calls.isEmpty());
    ASSERT_TRUE(builtIns->calls.last().completion);
    builtIns->calls.last().completion();
    settle();
    EXPECT_EQ(completed, 8);
}
