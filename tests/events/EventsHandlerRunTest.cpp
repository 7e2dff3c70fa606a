// Real runs: tiles stored in the grid store, tasks started through the handler and run by
// the runner process with the test runner.rb.
#include "core/NotificationCenter.h"
#include "events/EventsHandler.h"
#include "tasks/Task.h"
#include "tasks/TasksController.h"
#include "tests/events/EventsTestSupport.h"
#include "tests/support/EventLoop.h"

#include <QDir>
#include <QFile>

using Outcome = DispatchResult::Outcome;
using namespace EventsTestActions;

namespace {

class EventsRunTest : public EventsTest {
protected:
    void SetUp() override
    {
        EventsTest::SetUp();
        useRealRunner();
        m_responses = (*engine)->distributed.addObserver(
            CmdLineNotifications::Response, nullptr, [this](const Notification& n) {
                responses << n.userInfo.value(QStringLiteral("response")).toString();
            });
        m_finishes = (*engine)->distributed.addObserver(
            CmdLineNotifications::Finish, nullptr, [this](const Notification&) { ++finishes; });
        m_taskFinished = (*engine)->notifications.addObserver(
            Notifications::TaskFinished, nullptr, [this](const Notification&) { ++tasksFinished; });
        destination = makeFolder(QStringLiteral("dest"));
    }
    void TearDown() override
    {
        waitUntil([this] { return !(*engine)->tasks.hasTasks(); }, 10000);
        settle(300);
        (*engine)->distributed.removeObserver(m_responses);
        (*engine)->distributed.removeObserver(m_finishes);
        (*engine)->notifications.removeObserver(m_taskFinished);
        EventsTest::TearDown();
    }
    // Waits for the run of `task` to be over: finished and released.
    bool waitForEnd(const QPointer<Task>& task, int finishedCount = 1)
    {
        return waitUntil([&] { return task.isNull() && tasksFinished >= finishedCount; }, 20000);
    }
    QString read(const QString& path) const
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

    QString destination;
    QStringList responses;
    int finishes = 0;
    int tasksFinished = 0;

private:
    int m_responses = 0;
    int m_finishes = 0;
    int m_taskFinished = 0;
};

} // namespace

TEST_F(EventsRunTest, ADropRunsTheStoredScriptOnTheFiles)
{
    const GridActionPtr action = store(CopyToPath, destination);
    DragInfo drag = files({makeFile(QStringLiteral("one.txt"), "first"),
                           makeFile(QStringLiteral("two \"quoted\".txt"), "second")});
    drag.copyActivated = true;
    const DispatchResult result = handler->performActionDrag(action, drag);
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    const QPointer<Task> task = result.task;
    ASSERT_TRUE(task);
    ASSERT_TRUE(waitForEnd(task));

    EXPECT_EQ(read(QDir(destination).filePath(QStringLiteral("one.txt"))), QStringLiteral("first"));
    EXPECT_EQ(read(QDir(destination).filePath(QStringLiteral("two \"quoted\".txt"))),
              QStringLiteral("second"));
    const QString variables = read(QDir(destination).filePath(QStringLiteral("variables.txt")));
    EXPECT_TRUE(variables.contains(QStringLiteral("dragged_type=files\n")))
        << variables.toStdString();
    EXPECT_TRUE(variables.contains(QStringLiteral("OPERATION=NSDragOperationCopy\n")));
    EXPECT_TRUE(variables.contains(QStringLiteral("path=%1\n").arg(destination)));
    EXPECT_FALSE(variables.contains(QStringLiteral("KEY_MODIFIERS")));
    EXPECT_EQ(responses, QStringList{QStringLiteral("copied 2")});
}

TEST_F(EventsRunTest, TheHandlerAddsNoFinishOfItsOwnToACommandLineRun)
{
    const GridActionPtr action = store(CopyToPath, destination);
    const QString file = makeFile(QStringLiteral("a.txt"), "a");

    // What the task machinery posts for one run on its own.
    auto* bare = new Task((*engine)->taskContext);
    bare->gridAction = action;
    bare->actionFile = action->actionFile();
    bare->event = QStringLiteral("dragged");
    bare->items = {file};
    bare->variables.insert(QStringLiteral("dragged_type"), QStringLiteral("files"));
    const QPointer<Task> bareTask = bare;
    bare->run();
    ASSERT_TRUE(waitForEnd(bareTask));
    const int finishesOfOneRun = finishes;
    ASSERT_GE(finishesOfOneRun, 1);

    int completed = 0;
    const QPointer<Task> task = handler->createTaskForAction(
        action, {file}, QStringLiteral("dragged"), true, [&] { ++completed; });
    ASSERT_TRUE(task);
    ASSERT_TRUE(waitForEnd(task, 2));
    settle(300);
    EXPECT_EQ(finishes, 2 * finishesOfOneRun);
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(responses, (QStringList{QStringLiteral("copied 1"), QStringLiteral("copied 1")}));
}

TEST_F(EventsRunTest, ACommandLineRenameRunWritesTheNamesAsTyped)
{
    const GridActionPtr action = store(RenameCopy, destination);
    const QString name = QStringLiteral("new \"quoted\" name.txt");
    engine->windows().setNextRename(name);
    const QPointer<Task> task = handler->createTaskForAction(
        action, {makeFile(QStringLiteral("old.txt"), "content")}, QStringLiteral("dragged"), true);
    ASSERT_TRUE(task);
    ASSERT_TRUE(waitForEnd(task));
    EXPECT_EQ(read(QDir(destination).filePath(name)), QStringLiteral("content"));
    EXPECT_EQ(responses, QStringList{QStringLiteral("renamed 1")});
    EXPECT_GE(finishes, 1);
}

TEST_F(EventsRunTest, AClickRunsTheClickedFunction)
{
    const GridActionPtr action = store(CopyToPath, destination);
    const QPointer<Task> task = handler->performActionClick(action).task;
    ASSERT_TRUE(task);
    ASSERT_TRUE(waitForEnd(task));
    EXPECT_EQ(read(QDir(destination).filePath(QStringLiteral("clicked.txt"))),
              QStringLiteral("clicked"));
    EXPECT_EQ(responses, QStringList{QStringLiteral("clicked")});
}
