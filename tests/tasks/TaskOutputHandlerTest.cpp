#include "tasks/TaskOutputHandler.h"

#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/DropbarSink.h"
#include "tasks/FolderMonitorContext.h"
#include "tasks/RecentItems.h"
#include "tasks/Task.h"
#include "tasks/TaskStatus.h"
#include "tasks/TaskStatusController.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"
#include "tests/support/TestHome.h"

#include <QDir>

#include <gtest/gtest.h>

namespace {

using Item = TaskOutputHandler::Item;
using Colour = DebugConsoleController::Colour;

Item command(const char* c, const char* m)
{
    return Item{QString::fromUtf8(c), QString::fromUtf8(m), {}, true};
}
Item text(const char* t)
{
    return Item{{}, {}, QString::fromUtf8(t), false};
}

// Observes a notification name and keeps what was posted.
class Recorder {
public:
    Recorder(NotificationCenter& center, const QString& name)
        : m_center(center)
        , m_token(center.addObserver(name, nullptr, [this](const Notification& n) { posted << n; }))
    {}
    ~Recorder() { m_center.removeObserver(m_token); }
    QList<Notification> posted;

private:
    NotificationCenter& m_center;
    int m_token;
};

class OutputHandlerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        engine().debugConsole.clear();
        engine().recentItems.clear();
        task.actionFile = std::make_shared<ActionFile>();
        task.actionFile->actionName = QStringLiteral("Move Files");
        task.items = {QStringLiteral("/home/me/a report.pdf")};
        task.variables = {{QStringLiteral("dragged_type"), QStringLiteral("files")}};
    }
    void TearDown() override
    {
        // Rows left behind by a test must not count in the next one.
        spin(300);
        for (TaskStatus* row : engine().taskStatuses.taskStatuses()) {
            engine().taskStatuses.destroyTask(row);
        }
    }
    void feed(const char* chunk) { handler.processOutput(QString::fromUtf8(chunk)); }
    QList<DebugConsoleController::Run> consoleRuns() const { return engine().debugConsole.runs(); }

    Engine& engine() const { return presenters.engine(); }

    mutable TestEngine presenters;
    Task task{presenters->taskContext};
    TaskOutputHandler handler{&task, nullptr};
};

} // namespace

TEST(Framing, SplitsChunksIntoCommandsAndText)
{
    struct Row {
        const char* chunk;
        QList<Item> expected;
    };
    const Row rows[] = {
        {"Progress: 50\n", {command("Progress", "50")}},
        {"  \n\n", {}},
        {"Begin_Message: Copying: a.txt", {command("Begin_Message", "Copying a.txt")}},
        {"Alert: one[;ntwo", {command("Alert", "one\ntwo")}},
        {"Done: copying", {command("Done", "copying")}},
        {"plain words\nDone:", {text("plain words\n"), text("Done:\n")}},
        {"Word: \nX", {text("Word"), text("X\n")}},
        {": orphan message\nnext", {text("orphan message"), text("next\n")}},
        {"  Text:   spaced  \n", {command("Text", "spaced")}},
        {" Lead: x", {command("Lead", "x")}},
        {"a: b\n\n  \nc: d", {command("a", "b"), command("c", "d")}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(TaskOutputHandler::extractCommands(QString::fromUtf8(row.chunk)), row.expected)
            << row.chunk;
    }
}

TEST_F(OutputHandlerTest, ConsoleEchoesCommandsInBlackAndTextInRed)
{
    feed("Begin_Message: Copying\nsome error text\nBogus: thing\n");
    const auto runs = consoleRuns();
    ASSERT_EQ(runs.size(), 2);
    EXPECT_EQ(runs[0], (DebugConsoleController::Run{QStringLiteral("\nBegin_Message: Copying\n"),
                                                    Colour::Black, false}));
    EXPECT_EQ(runs[1], (DebugConsoleController::Run{
                           QStringLiteral("some error text\nBogus: thing\n"), Colour::Red, false}));
    EXPECT_EQ(handler.lastCommand(), QStringLiteral("Bogus"));
    EXPECT_EQ(handler.lastMessage(), QStringLiteral("thing"));
    // Only the first chunk opens with a blank line.
    feed("Progress: 10");
    EXPECT_TRUE(engine().debugConsole.text().endsWith(QStringLiteral("thing\nProgress: 10\n")));
}

TEST_F(OutputHandlerTest, StatusRowComesWithTheFirstStatusCommand)
{
    Recorder determinate(engine().notifications, Notifications::TasksDeterminateUpdated);
    Recorder overall(engine().notifications, Notifications::TasksOverallProgressUpdated);
    EXPECT_FALSE(handler.taskStatus());
    feed("Progress: 40");
    TaskStatus* row = handler.taskStatus();
    ASSERT_TRUE(row);
    EXPECT_EQ(row->statusText(), QStringLiteral("Task 1"));
    EXPECT_DOUBLE_EQ(row->progress(), 40.0);
    feed("Determinate: 1");
    EXPECT_FALSE(row->isIndeterminate());
    ASSERT_FALSE(overall.posted.isEmpty());
    feed("Progress: 40");
    EXPECT_DOUBLE_EQ(overall.posted.last().userInfo.value(QStringLiteral("progress")).toDouble(),
                     40.0);
    LogCapture log;
    feed("Determinate: yes");
    EXPECT_FALSE(row->isIndeterminate());
    EXPECT_TRUE(log.contains(
        QStringLiteral("Invalid value for Determinate: - expecting '1' or '0', but got 'yes'")));
    EXPECT_EQ(determinate.posted.size(), 2);
    feed("Begin_Message: Copying: a.txt");
    EXPECT_EQ(row->statusText(), QStringLiteral("Copying a.txt"));
    EXPECT_EQ(handler.taskStatus(), row);
}

TEST_F(OutputHandlerTest, TextResultGoesToClipboardResponseRecentItemsAndFinishes)
{
    Recorder responses(engine().distributed, CmdLineNotifications::Response);
    Recorder finishes(engine().distributed, CmdLineNotifications::Finish);
    Recorder exits(engine().notifications, Notifications::TaskShowExitStatus);
    engine().settings.setValue(Settings::PlaySounds, true);
    feed("Finish_Message: Moved 1 item");
    feed("Text: result text");
    EXPECT_EQ(presenters.desktop().clipboard, QStringList{QStringLiteral("text:result text")});
    ASSERT_EQ(responses.posted.size(), 1);
    EXPECT_EQ(responses.posted[0].userInfo.value(QStringLiteral("response")).toString(),
              QStringLiteral("result text"));
    EXPECT_GE(finishes.posted.size(), 1);
    ASSERT_EQ(exits.posted.size(), 1);
    EXPECT_EQ(exits.posted[0].userInfo.value(QStringLiteral("success")).toInt(), 1);
    ASSERT_EQ(engine().recentItems.items().size(), 1);
    EXPECT_EQ(engine().recentItems.items()[0].title, QStringLiteral("a report.pdf - Move Files"));
    EXPECT_EQ(engine().recentItems.items()[0].type, 2);
    ASSERT_EQ(presenters.desktop().notifications.size(), 1);
    EXPECT_EQ(presenters.desktop().notifications[0].title, QStringLiteral("Move Files Completed"));
    EXPECT_EQ(presenters.desktop().notifications[0].body, QStringLiteral("Moved 1 item"));
    EXPECT_TRUE(presenters.desktop().sounds.isEmpty()) << "the sound comes a little later";
    EXPECT_TRUE(waitUntil([&] { return !presenters.desktop().sounds.isEmpty(); }));
    EXPECT_EQ(presenters.desktop().sounds, QStringList{QStringLiteral("TaskFinished")});
}

TEST_F(OutputHandlerTest, UrlResultWithTitleAndZeroOutput)
{
    engine().settings.setValue(Settings::PlaySounds, QStringLiteral("no"));
    Recorder responses(engine().distributed, CmdLineNotifications::Response);
    feed("URL: 0");
    EXPECT_TRUE(presenters.desktop().clipboard.isEmpty());
    EXPECT_TRUE(responses.posted.isEmpty());
    EXPECT_TRUE(engine().recentItems.items().isEmpty());

    feed("URL_Title: " + QByteArray(60, 'T') + "\nURL: https://example.org/x");
    EXPECT_EQ(presenters.desktop().clipboard,
              QStringList{QStringLiteral("url:https://example.org/x")});
    EXPECT_EQ(handler.url(), QStringLiteral("https://example.org/x"));
    EXPECT_EQ(engine().recentItems.items()[0].title,
              QString(50, u'T') + QStringLiteral("… - Move Files"));
    EXPECT_EQ(engine().recentItems.items()[0].type, 1);
    spin(150);
    EXPECT_TRUE(presenters.desktop().sounds.isEmpty());
}

TEST_F(OutputHandlerTest, RecentItemLabelForTextDrops)
{
    task.variables = {{QStringLiteral("dragged_type"), QStringLiteral("text")}};
    task.items = {QStringLiteral("some/dragged text")};
    feed("Text: out");
    EXPECT_EQ(engine().recentItems.items()[0].title,
              QStringLiteral("some/dragged text - Move Files"));
    task.items.clear();
    feed("Text: out2");
    EXPECT_EQ(engine().recentItems.items()[0].title, QStringLiteral("out2 - Move Files"));
}

TEST_F(OutputHandlerTest, FinishNotificationOnceWithCopyRenaming)
{
    task.variables.insert(QStringLiteral("OPERATION"), QStringLiteral("NSDragOperationCopy"));
    feed("Fail: Disk full");
    feed("Fail: Again");
    ASSERT_EQ(presenters.desktop().notifications.size(), 1);
    EXPECT_EQ(presenters.desktop().notifications[0].title, QStringLiteral("Copy Files Failed"));
    EXPECT_EQ(presenters.desktop().notifications[0].body, QStringLiteral("Disk full"));
    EXPECT_TRUE(handler.taskFailed());

    Task rename(engine().taskContext);
    rename.actionFile = std::make_shared<ActionFile>();
    rename.actionFile->actionName = QStringLiteral("Rename & Move Files");
    rename.variables = {{QStringLiteral("OPERATION"), QStringLiteral("NSDragOperationCopy")}};
    TaskOutputHandler other(&rename, nullptr);
    other.processOutput(QStringLiteral("Notification_AppleScript: run me\nURL: https://u"));
    other.sendFinishNotification(QStringLiteral("URL is now on clipboard"));
    ASSERT_EQ(presenters.desktop().notifications.size(), 2);
    EXPECT_EQ(presenters.desktop().notifications[1].title,
              QStringLiteral("Rename & Copy Files Completed"));
    EXPECT_EQ(presenters.desktop().notifications[1].clickUrl, QStringLiteral("https://u"));
    EXPECT_EQ(presenters.desktop().notifications[1].clickScript, QStringLiteral("run me"));
}

TEST_F(OutputHandlerTest, ErrorsAndAlertsAreShownLater)
{
    Recorder showed(engine().notifications, Notifications::TaskShowedAlert);
    feed("Progress: 10\nError_Title: Upload\nError: No network");
    EXPECT_TRUE(handler.taskFailed());
    EXPECT_TRUE(presenters.alerts().alerts.isEmpty());
    ASSERT_TRUE(waitUntil([&] { return presenters.alerts().alerts.size() == 1; }));
    EXPECT_EQ(presenters.alerts().alerts[0].style, Alert::Style::Critical);
    EXPECT_EQ(presenters.alerts().alerts[0].title, QStringLiteral("Upload"));
    EXPECT_EQ(presenters.alerts().alerts[0].message, QStringLiteral("No network"));
    ASSERT_EQ(showed.posted.size(), 1);
    EXPECT_EQ(showed.posted[0].userInfo.value(QStringLiteral("task")).value<QObject*>(), &task);

    feed("Alert: first[;nsecond");
    ASSERT_TRUE(waitUntil([&] { return presenters.alerts().alerts.size() == 2; }));
    EXPECT_EQ(presenters.alerts().alerts[1].style, Alert::Style::Informational);
    EXPECT_EQ(presenters.alerts().alerts[1].message, QStringLiteral("first\nsecond"));
}

TEST_F(OutputHandlerTest, DropbarPathsAreCheckedBeforeAdding)
{
    QStringList added;
    engine().dropbarSink.setReceiver(
        {.add = [&](const QStringList& paths) { added << paths; }, .addToGrid = {}, .remove = {}});
    const QString existing = presenters.home().writeFile(QStringLiteral("a.txt"), "a");
    feed(("Add_Dropbar: " + existing + "\nComplete_Add_Dropbar: 1").toUtf8());
    EXPECT_EQ(added, QStringList{existing});
    EXPECT_TRUE(handler.dropbarAddPaths().isEmpty());

    feed(("Add_Dropbar: " + existing + "\nAdd_Dropbar: /no/such/file\nComplete_Add_Dropbar: 1")
             .toUtf8());
    EXPECT_EQ(added.size(), 1);
    EXPECT_TRUE(handler.taskFailed());
    EXPECT_TRUE(engine().debugConsole.text().endsWith(
        QStringLiteral("Add to Drop Bar failed. Path at /no/such/file not found\n")));
    EXPECT_EQ(handler.lastCommand(), QStringLiteral("Add_Dropbar"));
    engine().dropbarSink.setReceiver({});
}

TEST_F(OutputHandlerTest, OutputFileReachesTheFolderMonitor)
{
    struct Context : FolderMonitorContext {
        void registerOutputAtPath(const QString& path) override { paths << path; }
        QStringList paths;
    };
    auto context = std::make_shared<Context>();
    task.folderMonitorContext = context;
    const QByteArray encoded = QStringLiteral("/tmp/ü out.png").toUtf8().toBase64();
    feed("Output_File: " + encoded +
         "\nOutput_File: ***\nOutput_File: " + QByteArray("\xff\xfe").toBase64());
    EXPECT_EQ(context->paths, QStringList{QStringLiteral("/tmp/ü out.png")});
}

TEST_F(OutputHandlerTest, FailureWordsSaveValueAndSelectFolder)
{
    // Only a lower-case "failed" or "error" in the finish message is a failure.
    for (const auto& [message, failed] :
         {std::pair{"Upload failed", true}, {"Failed", false}, {"an error occurred", true}}) {
        feed(QByteArray("Finish_Message: ") + message);
        EXPECT_EQ(handler.taskFailed(), failed) << message;
    }
    feed("Save_Value: orphan");
    EXPECT_EQ(handler.lastCommand(), QStringLiteral("Save_Value"));
    EXPECT_FALSE(task.gridActionVariable(QStringLiteral("orphan")));
    feed("Select_Folder: Where to?");
    ASSERT_EQ(presenters.windows().folderRequests.size(), 1);
    const auto& request = presenters.windows().folderRequests[0];
    EXPECT_EQ(request.title, QStringLiteral("Choose Folder"));
    EXPECT_EQ(request.prompt, QStringLiteral("Where to?"));
    EXPECT_EQ(request.startFolder, QDir::homePath());
}

TEST(TaskStatusRows, OverallProgressPositionsAndCancel)
{
    ensureCoreApplication();
    TestEngine engine;
    TaskStatusController& controller = engine->taskStatuses;
    Recorder overall(engine->notifications, Notifications::TasksOverallProgressUpdated);
    TaskStatus* half = controller.newTaskWithIcon({});
    TaskStatus* spinning = controller.newTaskWithIcon({});
    EXPECT_EQ(spinning->statusText(), QStringLiteral("Task 2"));
    half->setIndeterminate(false);
    half->setProgress(50);
    EXPECT_DOUBLE_EQ(overall.posted.last().userInfo.value(QStringLiteral("progress")).toDouble(),
                     75.0);
    EXPECT_TRUE(controller.hasDeterminateTasks());
    EXPECT_EQ(controller.progressAreaHeight(), 110);

    TaskStatus* third = controller.newTaskWithIcon({});
    EXPECT_EQ(controller.progressAreaHeight(), 165);
    qsizetype movedFrom = -1;
    QObject::connect(&controller, &TaskStatusController::rowsMovedUp,
                     [&](qsizetype from) { movedFrom = from; });
    spinning->finishWithFade(true);
    spinning->finishWithFade(false); // only once
    EXPECT_EQ(controller.numTasks(), 3) << "a fading row stays for a moment";
    EXPECT_TRUE(waitUntil([&] { return controller.numTasks() == 2; }));
    EXPECT_EQ(controller.getTaskPosition(third), 1);
    EXPECT_EQ(movedFrom, 1);
    EXPECT_EQ(controller.progressAreaHeight(), 110);
    EXPECT_EQ(TaskStatusController::rowTop(controller.getTaskPosition(third)), 55);

    LogCapture log;
    EXPECT_FALSE(controller.getTask(7));
    EXPECT_TRUE(log.contains(QStringLiteral("TaskID 7 does not exist")));
    half->finishWithFade(false);

    // Cancelling a built-in action fades its row and reports a failure, once.
    Recorder exits(engine->notifications, Notifications::TaskShowExitStatus);
    int cancels = 0;
    third->setBuiltInCancel([&] { ++cancels; });
    bool faded = false;
    QObject::connect(third, &TaskStatus::finishing, [&](bool fade) { faded = fade; });
    third->cancel();
    third->cancel();
    EXPECT_EQ(cancels, 1);
    EXPECT_TRUE(faded);
    ASSERT_EQ(exits.posted.size(), 1);
    EXPECT_EQ(exits.posted[0].userInfo.value(QStringLiteral("success")).toBool(), false);
    EXPECT_TRUE(waitUntil([&] { return !controller.hasTasks(); }));
}
