// Monitored folders with real built-in actions against the real grid store: batches fed to a
// session directly for the batch rules, and the manager with the real watch and short times.
#include "monitor/FolderMonitoringManager.h"
#include "monitor/FolderMonitoringSession.h"
#include "store/GridDatabase.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

using State = FolderMonitoringManager::State;

class FolderMonitoringTest : public testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        engine = std::make_unique<TestEngine>();
        ASSERT_TRUE(GridDatabase::sharedGridDatabase().loadDatabase());
        (*engine)->installBuiltInActions();
        watched = path("In");
        QDir().mkpath(watched);
        logAction = script("log.sh", "printf '%s\\n' \"$@\" >> " + path("log.txt") + "\n");
        moveAway =
            script("move.sh", "mkdir -p " + path("away") + " && mv \"$@\" " + path("away") + "\n");
    }
    void TearDown() override
    {
        session.reset();
        engine.reset();
    }

    QString path(const QString& relative) const { return engine->home().path() + u'/' + relative; }
    QString file(const QString& name) const
    {
        return engine->home().writeFile(QStringLiteral("In/") + name, name.toUtf8());
    }
    ActionId store(const QString& type, const QString& actionPath, const QString& name)
    {
        auto action = std::make_shared<GridAction>();
        action->type = type;
        action->name = name;
        action->categoryId =
            GridDatabase::sharedGridDatabase().getOrCreateFirstCategoryIdForSelectedGrid();
        action->extraVariables.insert(GridAction::PathVariable, actionPath);
        return action->create();
    }
    ActionId script(const QString& name, const QString& body)
    {
        const QString scriptPath = engine->home().writeFile(QStringLiteral("scripts/") + name,
                                                            "#!/bin/sh\n" + body.toUtf8());
        return store(QStringLiteral("Run Script"), scriptPath, name);
    }
    QStringList logged() const
    {
        QFile log(path("log.txt"));
        return log.open(QIODevice::ReadOnly)
                   ? QString::fromUtf8(log.readAll()).split(u'\n', Qt::SkipEmptyParts)
                   : QStringList();
    }
    MonitoredFolder folder(QList<ActionId> actions) const
    {
        MonitoredFolder folder;
        folder.id = QUuid::createUuid();
        folder.path = watched;
        folder.actionIDs = std::move(actions);
        return folder;
    }
    FolderMonitoringSession& makeSession(const MonitoredFolder& monitored)
    {
        session = std::make_unique<FolderMonitoringSession>(
            monitored, (*engine)->builtInContext, (*engine)->events, (*engine)->monitorJournal);
        return *session;
    }
    QList<MonitorJournal::Run> runs(const MonitoredFolder& monitored)
    {
        return (*engine)->monitorJournal.runs(monitored.id, 10);
    }
    bool waitForRuns(const MonitoredFolder& monitored, int count)
    {
        return waitUntil([&] { return runs(monitored).size() >= count && !session->isRunning(); },
                         20000);
    }

    std::unique_ptr<TestEngine> engine;
    std::unique_ptr<FolderMonitoringSession> session;
    QString watched;
    ActionId logAction = 0;
    ActionId moveAway = 0;
};

TEST_F(FolderMonitoringTest, EachStopMessageEndsOnlyItsBatch)
{
    const ActionId missingScript = store("Run Script", path("scripts/gone.sh"), "Gone");
    const struct {
        QList<ActionId> actions;
        QString outcome;
        int logLines;
    } rows[] = {
        {{logAction, logAction}, FolderMonitoringSession::CompletedOutcome, 2},
        {{logAction, 999999}, FolderMonitoringSession::ActionUnavailableMessage, 1},
        {{moveAway, logAction}, FolderMonitoringSession::FileGoneMessage, 0},
        {{missingScript}, FolderMonitoringSession::ActionPathMissingMessage, 0},
    };
    int row = 0;
    for (const auto& expected : rows) {
        QFile::remove(path("log.txt"));
        engine->alerts().alerts.clear();
        const MonitoredFolder monitored = folder(expected.actions);
        FolderMonitoringSession& tested = makeSession(monitored);
        const QString arrived = file(QStringLiteral("a%1.txt").arg(row++));
        tested.handleSettledFiles({arrived}, {});
        ASSERT_TRUE(waitForRuns(monitored, 1)) << expected.outcome.toStdString();
        EXPECT_EQ(runs(monitored).first().outcome, expected.outcome);
        EXPECT_EQ(runs(monitored).first().paths, QStringList{arrived});
        EXPECT_EQ(logged().size(), expected.logLines) << expected.outcome.toStdString();
        EXPECT_EQ(engine->alerts().alerts.size(),
                  expected.outcome == FolderMonitoringSession::CompletedOutcome ? 0 : 1);
    }
}

TEST_F(FolderMonitoringTest, HeldBatchesRunFirstSettledFirstRun)
{
    const ActionId slow =
        script("slow.sh", "sleep 0.3; printf '%s\\n' \"$@\" >> " + path("log.txt") + "\n");
    const MonitoredFolder monitored = folder({slow});
    FolderMonitoringSession& tested = makeSession(monitored);
    const QStringList batches[] = {{file("1")}, {file("2"), file("3")}, {file("4")}};
    for (const QStringList& batch : batches) {
        tested.handleSettledFiles(batch, {});
    }
    EXPECT_EQ(tested.heldBatches(), 2);
    ASSERT_TRUE(waitForRuns(monitored, 3));
    EXPECT_EQ(logged(), (QStringList{file("1"), file("2"), file("3"), file("4")}));
}

TEST_F(FolderMonitoringTest, AnActionsOwnOutputIsNoArrival)
{
    const QByteArray png =
        QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAIAAAABCAIAAAB7QOjdAAAADUlEQVR4nGP4zwAE/"
                               "wEHAAH/4iOeWQAAAABJRU5ErkJggg==");
    auto convert = std::make_shared<GridAction>();
    convert->type = convert->name = QStringLiteral("Convert Images");
    convert->categoryId =
        GridDatabase::sharedGridDatabase().getOrCreateFirstCategoryIdForSelectedGrid();
    convert->extraVariables = {{"output_format", "webp"}, {"keep_originals", "1"}};
    const MonitoredFolder monitored = folder({convert->create(), logAction});
    FolderMonitoringSession& tested = makeSession(monitored);
    const QString photo = engine->home().writeFile(QStringLiteral("In/photo.png"), png);
    tested.handleSettledFiles({photo}, {});
    ASSERT_TRUE(waitForRuns(monitored, 1));
    ASSERT_TRUE(QFile::exists(path("In/photo.webp")));
    // The output settles after the run: the watch would hand it over as a new batch.
    tested.handleSettledFiles({path("In/photo.webp"), file("other.txt")}, {});
    ASSERT_TRUE(waitForRuns(monitored, 2));
    EXPECT_EQ(runs(monitored).first().paths, QStringList{file("other.txt")});
}

TEST_F(FolderMonitoringTest, ConfirmationWaitsAcrossARestartWhileTheDropBarTakesFilesAtOnce)
{
    QList<QPair<QStringList, GridId>> toDropBar;
    (*engine)->dropbarSink.setReceiver(
        {{},
         [&](const QStringList& paths, GridId grid, DropbarSink::Added done) {
             toDropBar.append({paths, grid});
             done(true, Identifiers::FirstDropbarId);
         },
         {}});
    MonitoredFolder monitored = folder({logAction});
    monitored.confirmBeforeActions = true;
    monitored.dropBarGridID = GridDatabase::sharedGridDatabase().selectedGridId();
    makeSession(monitored).handleSettledFiles({file("a"), file("b")}, {});
    ASSERT_EQ(toDropBar.size(), 1);
    EXPECT_EQ(toDropBar.first().second, *monitored.dropBarGridID);
    ASSERT_EQ(engine->desktop().notifications.size(), 1);
    const UserNotification note = engine->desktop().notifications.first();
    EXPECT_TRUE(note.title.contains("2 files")) << note.title.toStdString();
    EXPECT_TRUE(note.body.contains("In")) << note.body.toStdString();
    ASSERT_EQ(note.actions.size(), 1);
    EXPECT_EQ(note.userInfo.value("monitoredFolderFilePaths").toStringList(),
              (QStringList{file("a"), file("b")}));
    EXPECT_EQ(note.userInfo.value("monitoredFolderActionIDs").toList(), QVariantList{logAction});
    spin(300);
    EXPECT_TRUE(logged().isEmpty());

    // A new session (Skelvo started again) still holds the batch; the button runs it.
    FolderMonitoringSession& restarted = makeSession(monitored);
    ASSERT_EQ(restarted.waiting().size(), 1);
    restarted.handleSettledFiles({file("c")}, {});
    EXPECT_EQ(restarted.confirm(), 2);
    ASSERT_TRUE(waitForRuns(monitored, 4));
    EXPECT_EQ(logged(), (QStringList{file("a"), file("b"), file("c")}));
    EXPECT_TRUE((*engine)->monitorJournal.waiting(monitored.id).isEmpty());

    monitored.dropBarGridID = 987654;
    engine->alerts().alerts.clear();
    makeSession(monitored).handleSettledFiles({file("d")}, {});
    ASSERT_EQ(engine->alerts().alerts.size(), 1);
    EXPECT_EQ(engine->alerts().alerts.first().message, FolderMonitoringSession::GridRemovedMessage);
    EXPECT_EQ(runs(monitored).first().outcome, FolderMonitoringSession::GridRemovedMessage);
}

// --- The manager with the real watch

class FolderMonitoringManagerTest : public FolderMonitoringTest {
protected:
    FolderMonitoringManager& manager() { return (*engine)->monitoring; }
    std::optional<State> state(const QUuid& id)
    {
        const auto status = manager().status(id);
        return status ? std::optional(status->state) : std::nullopt;
    }
    bool waitForState(const QUuid& id, State wanted)
    {
        return waitUntil([&] { return state(id) == wanted; }, 20000);
    }
    bool waitForLog(const QStringList& wanted)
    {
        return waitUntil([&] { return logged() == wanted; }, 20000);
    }
    MonitoredFolder add(bool catchUp)
    {
        manager().setTiming({std::chrono::milliseconds(300), std::chrono::milliseconds(100)});
        manager().startEnabledFolders();
        MonitoredFolder monitored = folder({logAction});
        monitored.catchUpOnStart = catchUp;
        QString error;
        EXPECT_TRUE(manager().addFolder(monitored, &error)) << error.toStdString();
        QString duplicate;
        EXPECT_FALSE(manager().addFolder(folder({}), &duplicate));
        EXPECT_EQ(duplicate, FolderMonitoringManager::AlreadyMonitoredMessage);
        return monitored;
    }
};

TEST_F(FolderMonitoringManagerTest, AFolderRemovedAndRecreatedIsMissingThenWatchedAgain)
{
    const MonitoredFolder monitored = add(false);
    ASSERT_TRUE(waitForState(monitored.id, State::Watching));
    ASSERT_TRUE(QDir(watched).removeRecursively());
    ASSERT_TRUE(waitForState(monitored.id, State::Missing));
    QDir().mkpath(watched);
    file("present");
    ASSERT_TRUE(waitForState(monitored.id, State::Watching));
    file("arrived");
    ASSERT_TRUE(waitForLog({file("arrived")}));
    spin(600);
    EXPECT_EQ(logged(), QStringList{file("arrived")});
}

} // namespace
