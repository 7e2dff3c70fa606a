// The screenshot Drop Bar against the real store, Drop Bar, events handler and folder watch.
#include "builtin/BuiltInActionRunner.h"
#include "core/Log.h"
#include "core/Settings.h"
#include "dropbar/Dropbar.h"
#include "monitor/ScreenshotDropBarManager.h"
#include "store/GridDatabase.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

const QByteArray Png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
const QString ShotName = QStringLiteral("Screenshot from 2024-05-01 10-11-12.png");

class ScreenshotDropBarTest : public testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        engine = std::make_unique<TestEngine>();
        ASSERT_TRUE(db().loadDatabase());
        (*engine)->installBuiltInActions();
        grid = db().selectedGridId();
        folder = engine->home().path() + QStringLiteral("/Shots");
        settings().setValue(Settings::ScreenshotsFolder, folder);
        FolderMonitor::Options quick;
        quick.settleInterval = std::chrono::milliseconds(300);
        quick.checkInterval = std::chrono::milliseconds(100);
        shots().setWatchOptions(quick);
        logToken = Log::addSink([this](Log::Level, const QString& line) { logged << line; });
    }
    void TearDown() override { Log::removeSink(logToken); }

    static GridDatabase& db() { return GridDatabase::sharedGridDatabase(); }
    Settings& settings() { return (*engine)->settings; }
    ScreenshotDropBarManager& shots() { return (*engine)->screenshots; }
    QString write(const QString& name, const QByteArray& contents = Png)
    {
        return engine->home().writeFile(QStringLiteral("Shots/") + name, contents);
    }
    // An action that appends the paths it is given to a log file.
    ActionId scriptAction()
    {
        const QString script = engine->home().writeFile(
            "script.sh", "#!/bin/sh\nfor f in \"$@\"; do echo \"$f\" >> \"$0.log\"; done\n");
        QFile(script).setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        runLog = script + QStringLiteral(".log");
        auto action = std::make_shared<GridAction>();
        action->type = action->name = QStringLiteral("Run Script");
        action->categoryId = db().getOrCreateFirstCategoryIdForSelectedGrid();
        action->extraVariables.insert(GridAction::PathVariable, script);
        return action->create();
    }
    QStringList ran() const
    {
        QFile file(runLog);
        return file.open(QIODevice::ReadOnly)
                   ? QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts)
                   : QStringList();
    }
    // The file paths of each stack in the grid's Drop Bar.
    static QStringList stacks(GridId gridId)
    {
        QStringList row;
        for (const SqlRow& dropbar : db().getDropbarsForGrid(gridId)) {
            for (const SqlRow& item :
                 db().getItemsForDropbar(dropbar.value(QStringLiteral("id")).toLongLong())) {
                row << DropbarItem::fromRow(item).path;
            }
        }
        return row;
    }
    void press(const UserNotification& notification)
    {
        QVariantMap info = notification.userInfo;
        info.insert(Notifications::NotificationActionIdentifierKey,
                    notification.actions.value(0).identifier);
        (*engine)->notifications.post(Notifications::UserNotificationResponse, nullptr, info);
    }

    std::unique_ptr<TestEngine> engine;
    GridId grid = 0;
    QString folder;
    QString runLog;
    QStringList logged;
    int logToken = 0;
};

TEST_F(ScreenshotDropBarTest, OnlyScreenshotsInTheWatchedFolderLandInTheDropBar)
{
    settings().setValue(Settings::AutoAddScreenshotsToDropBar, true);
    shots().start();
    EXPECT_TRUE(shots().watchedFolder().isEmpty()) << "the folder does not exist yet";
    EXPECT_TRUE(logged.contains(
        "ScreenshotDropBarManager: unable to open screenshots folder for monitoring: " + folder));

    write(QStringLiteral("old.txt"));
    settings().setValue(Settings::ScreenshotsKeepInDropBar, true); // restarts the watch
    ASSERT_EQ(shots().watchedFolder(), folder);
    // Written first, so they settle no later than the screenshot.
    write(QStringLiteral("holiday.png"));
    write(QStringLiteral("Screenshot_20240501_101112.png"), "not an image");
    const QString shot = write(ShotName);
    ASSERT_TRUE(waitUntil([&] { return !stacks(grid).isEmpty(); }));
    EXPECT_EQ(stacks(grid), QStringList{shot});

    settings().setValue(Settings::AutoAddScreenshotsToDropBar, false);
    EXPECT_TRUE(shots().watchedFolder().isEmpty()) << "nothing enabled, nothing watched";
}

TEST_F(ScreenshotDropBarTest, MissingTargetGridFallsBack)
{
    settings().setValue(Settings::AutoAddScreenshotsToDropBar, true);
    const GridId other = db().addGridWithName(QStringLiteral("Other"));
    const struct {
        GridId target;
        GridId selected;
        GridId expected;
    } rows[] = {{other, grid, other}, {4242, other, other}, {4242, 4343, grid}};
    int number = 0;
    for (const auto& row : rows) {
        settings().setValue(Settings::ScreenshotsTargetGridId, row.target);
        settings().setValue(Settings::SelectedGridId, row.selected);
        const QString shot = write(QStringLiteral("Screenshot_20240501_10111%1.png").arg(number++));
        shots().handleNewFile(shot);
        EXPECT_TRUE(waitUntil([&] { return stacks(row.expected).contains(shot); }))
            << row.target << " " << row.selected;
    }
}

TEST_F(ScreenshotDropBarTest, ConfirmationRunsTheActionOnlyOnAFileThatIsStillThere)
{
    const ActionId action = scriptAction();
    settings().setValue(Settings::ScreenshotsActionId, action);
    settings().setValue(Settings::ScreenshotsConfirmBeforeAction, true);
    const QString kept = write(ShotName);
    const QString deleted = write(QStringLiteral("2024-05-01_10-11.png"));
    shots().handleNewFile(kept);
    shots().handleNewFile(deleted);
    const QList<UserNotification>& sent = engine->desktop().notifications;
    ASSERT_EQ(sent.size(), 2);
    EXPECT_EQ(sent[0].title, "Run Run Script on Screenshot");
    EXPECT_EQ(sent[0].category, "ScreenshotRunActionCategory");
    ASSERT_EQ(sent[0].actions.size(), 1);
    EXPECT_EQ(sent[0].actions[0].identifier, "RunScreenshotAction");
    EXPECT_EQ(sent[0].imagePath, kept);
    EXPECT_EQ(sent[0].userInfo.value("runActionId").toLongLong(), action);
    EXPECT_EQ(sent[0].userInfo.value("runActionFilePath").toString(), kept);
    EXPECT_TRUE(ran().isEmpty()) << "nothing runs before the press";

    ASSERT_TRUE(QFile::remove(deleted));
    press(sent[1]);
    press(sent[0]);
    ASSERT_TRUE(waitUntil([&] { return !ran().isEmpty(); }));
    EXPECT_EQ(ran(), QStringList{kept});
}

TEST_F(ScreenshotDropBarTest, KeepInDropBarDecidesWhetherTheStackOutlivesTheRun)
{
    settings().setValue(Settings::AutoAddScreenshotsToDropBar, true);
    settings().setValue(Settings::ScreenshotsActionId, scriptAction());
    const std::pair<bool, bool> rows[] = {{true, true}, {false, false}}; // keep, stack stays
    int runs = 0;
    for (const auto& [keep, stays] : rows) {
        settings().setValue(Settings::ScreenshotsKeepInDropBar, keep);
        const QString shot = write(QStringLiteral("Screenshot_2024-05-01_10-11-1%1.png").arg(runs));
        shots().handleNewFile(shot);
        ++runs;
        // The runner lets a run go only after its completion.
        ASSERT_TRUE(waitUntil([&] {
            return ran().size() == runs &&
                   BuiltInActionRunner::shared()->runningBuiltInActions().isEmpty();
        }));
        EXPECT_EQ(stacks(grid).contains(shot), stays) << keep;
        EXPECT_TRUE(QFile::exists(shot));
    }
}

} // namespace
