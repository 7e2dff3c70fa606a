// The rename prompt of the two renaming actions, answered by the test's presenter.
#include "core/NotificationCenter.h"
#include "core/WindowPresenter.h"
#include "events/EventsHandler.h"
#include "tasks/Task.h"
#include "tests/events/EventsTestSupport.h"

#include <QLocale>

using Outcome = DispatchResult::Outcome;
using namespace EventsTestActions;

namespace {

class RenamePromptTest : public EventsTest {
protected:
    void SetUp() override
    {
        EventsTest::SetUp();
        m_responses = (*engine)->distributed.addObserver(
            CmdLineNotifications::Response, nullptr, [this](const Notification& n) {
                responses << n.userInfo.value(QStringLiteral("response")).toString();
                senders << n.object.data();
            });
        m_finishes = (*engine)->distributed.addObserver(CmdLineNotifications::Finish, nullptr,
                                                        [this](const Notification& n) {
                                                            ++finishes;
                                                            senders << n.object.data();
                                                        });
        destination = makeFolder(QStringLiteral("out"));
    }
    void TearDown() override
    {
        (*engine)->distributed.removeObserver(m_responses);
        (*engine)->distributed.removeObserver(m_finishes);
        EventsTest::TearDown();
    }
    FakeWindowPresenter& windows() { return engine->windows(); }
    QStringList titles() const
    {
        QStringList result;
        for (const RenamePrompt& prompt : engine->windows().renamePrompts) {
            result << prompt.title;
        }
        return result;
    }

    QString destination;
    QStringList responses;
    int finishes = 0;
    QList<QObject*> senders; // of the responses and finishes, in order

private:
    int m_responses = 0;
    int m_finishes = 0;
};

} // namespace

TEST_F(RenamePromptTest, ThreeFilesAreAskedForInTurnAndTheNamesReachTheTask)
{
    const GridActionPtr action = store(RenameMove, destination);
    const QStringList items = {makeFile(QStringLiteral("a.tar.gz")),
                               makeFolder(QStringLiteral("Photos")),
                               makeFile(QStringLiteral(".hidden"))};
    windows().setNextRename(QStringLiteral("Report \"final\".tar.gz"));
    windows().setNextRename(QStringLiteral("Pictures"));
    windows().setNextRename(QStringLiteral("visible"));

    const DispatchResult result = handler->performActionDrag(action, files(items));
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    Task* task = result.task;
    ASSERT_TRUE(task);
    EXPECT_TRUE(handler->isRenamePromptOpen());
    EXPECT_EQ(handler->pendingTask(), task);
    EXPECT_TRUE(started.isEmpty()) << "nothing runs before the names are in";
    EXPECT_EQ(windows().gridClosed, 1);
    settle();

    EXPECT_EQ(titles(), (QStringList{QStringLiteral("Rename and Move Files (1 of 3)"),
                                     QStringLiteral("Rename and Move Files (2 of 3)"),
                                     QStringLiteral("Rename and Move Files (3 of 3)")}));
    // Label, proposed name and the selected part before the last extension, per item.
    const QList<RenamePrompt>& prompts = windows().renamePrompts;
    ASSERT_EQ(prompts.size(), 3);
    const std::tuple<const char*, const char*, int> expected[] = {{"New Filename:", "a.tar.gz", 5},
                                                                  {"New Folder Name:", "Photos", 6},
                                                                  {"New Filename:", ".hidden", 7}};
    for (int i = 0; i < 3; ++i) {
        const auto& [label, name, selected] = expected[i];
        EXPECT_EQ(prompts[i].label, QString::fromLatin1(label)) << i;
        EXPECT_EQ(prompts[i].proposedName, QString::fromLatin1(name)) << i;
        EXPECT_EQ(prompts[i].selectionLength, selected) << i;
        EXPECT_EQ(prompts[i].itemNumber, i + 1);
    }

    ASSERT_EQ(started.size(), 1);
    EXPECT_EQ(started.first(), task);
    EXPECT_EQ(task->variables.value(QStringLiteral("RENAMED_FILENAME_0")),
              QStringLiteral("Report \\\"final\\\".tar.gz"));
    EXPECT_EQ(task->variables.value(QStringLiteral("RENAMED_FILENAME_1")),
              QStringLiteral("Pictures"));
    EXPECT_EQ(task->variables.value(QStringLiteral("RENAMED_FILENAME_2")),
              QStringLiteral("visible"));
    EXPECT_EQ(task->items, items);
    EXPECT_FALSE(handler->isRenamePromptOpen());
    EXPECT_TRUE(handler->renamedFilenames().isEmpty());
    EXPECT_TRUE(responses.isEmpty());
}

TEST_F(RenamePromptTest, CancellingAtTheSecondItemDropsTheWholeRun)
{
    const GridActionPtr action = store(RenameMove, destination);
    windows().setNextRename(QStringLiteral("one"));
    windows().setNextRenameCancelled();
    const QPointer<Task> task =
        handler
            ->performActionDrag(action,
                                files({makeFile(QStringLiteral("1")), makeFile(QStringLiteral("2")),
                                       makeFile(QStringLiteral("3"))}))
            .task;
    ASSERT_TRUE(task);
    settle();
    EXPECT_EQ(titles().size(), 2);
    EXPECT_TRUE(started.isEmpty());
    EXPECT_FALSE(handler->isRenamePromptOpen());
    EXPECT_TRUE(handler->renamedFilenames().isEmpty());
    EXPECT_TRUE(task.isNull()) << "the dropped task is released";
    EXPECT_TRUE(responses.isEmpty()) << "nobody on the command line is waiting";
    EXPECT_EQ(finishes, 0);
}

TEST_F(RenamePromptTest, ACommandLineRunThatIsCancelledIsAnsweredAndFinishedOnce)
{
    const GridActionPtr action = store(RenameMove, destination);
    int completed = 0;
    const QPointer<Task> task =
        handler->createTaskForAction(action, {makeFile(QStringLiteral("a.txt"))},
                                     QStringLiteral("dragged"), true, [&] { ++completed; });
    ASSERT_TRUE(task);
    Task* const sender = task;
    EXPECT_TRUE(handler->renameViaCmdLine());
    EXPECT_EQ(task->variables.value(QStringLiteral("dragged_type")), QStringLiteral("files"));
    settle();
    ASSERT_EQ(windows().pendingRenamePrompts.size(), 1);
    EXPECT_EQ(titles(), QStringList{QStringLiteral("Rename and Move File")});
    windows().pendingRenamePrompts.takeFirst()({RenameAnswer::Kind::Cancelled, {}});
    EXPECT_EQ(responses, QStringList{EventsHandler::RenameCancelledResponse});
    EXPECT_EQ(finishes, 1);
    EXPECT_EQ(senders, (QList<QObject*>{sender, sender})) << "tied to the request's task";
    settle();
    EXPECT_TRUE(task.isNull());
    EXPECT_TRUE(started.isEmpty());
    EXPECT_EQ(finishes, 1);
    EXPECT_EQ(completed, 1);
}

TEST_F(RenamePromptTest, WithoutADisplayTheCommandLineIsToldWhy)
{
    windows().setNextRenameUnavailable(); // as without a display
    const GridActionPtr action = store(RenameCopy, destination);
    const QPointer<Task> task = handler->createTaskForAction(
        action, {makeFile(QStringLiteral("a.txt"))}, QStringLiteral("dragged"), true);
    ASSERT_TRUE(task);
    EXPECT_TRUE(responses.isEmpty()) << "the caller gets the task before any answer";
    settle();
    EXPECT_EQ(responses, QStringList{EventsHandler::RenameUnavailableResponse});
    EXPECT_TRUE(responses.first().startsWith(QStringLiteral("Error: ")));
    EXPECT_EQ(finishes, 1);
    EXPECT_TRUE(task.isNull());
    EXPECT_FALSE(handler->isRenamePromptOpen());
}

TEST_F(RenamePromptTest, TheVerbFollowsTheActionAndTheCopyDrop)
{
    windows().setNextRename(QStringLiteral("x"));
    handler->performActionDrag(store(RenameCopy, destination),
                               files({makeFile(QStringLiteral("a"))}));
    settle();
    DragInfo copyDrop = files({makeFile(QStringLiteral("b")), makeFile(QStringLiteral("c"))});
    copyDrop.copyActivated = true;
    windows().setNextRename(QStringLiteral("y"));
    windows().setNextRename(QStringLiteral("z"));
    const Task* task = handler->performActionDrag(store(RenameMove, destination), copyDrop).task;
    ASSERT_TRUE(task);
    settle();
    EXPECT_EQ(titles(), (QStringList{QStringLiteral("Rename and Copy File"),
                                     QStringLiteral("Rename and Copy Files (1 of 2)"),
                                     QStringLiteral("Rename and Copy Files (2 of 2)")}));
    EXPECT_EQ(task->variables.value(QStringLiteral("OPERATION")),
              QStringLiteral("NSDragOperationCopy"));
    EXPECT_EQ(started.size(), 2);
}

TEST_F(RenamePromptTest, AnEmptyNameAsksForTheSameItemAgain)
{
    windows().setNextRename(QString());
    windows().setNextRename(QStringLiteral("kept.txt"));
    const Task* task = handler
                           ->performActionDrag(store(RenameMove, destination),
                                               files({makeFile(QStringLiteral("a.txt"))}))
                           .task;
    settle();
    EXPECT_EQ(titles().size(), 2);
    EXPECT_EQ(windows().renamePrompts[1].proposedName, QStringLiteral("a.txt"));
    ASSERT_EQ(started.size(), 1);
    EXPECT_EQ(task->variables.value(QStringLiteral("RENAMED_FILENAME_0")),
              QStringLiteral("kept.txt"));
    EXPECT_FALSE(task->variables.contains(QStringLiteral("RENAMED_FILENAME_1")));
}

TEST_F(RenamePromptTest, AnAnswerAfterTheRunWasCancelledIsIgnored)
{
    const GridActionPtr action = store(RenameMove, destination);
    const QPointer<Task> task = handler->createTaskForAction(
        action, {makeFile(QStringLiteral("a"))}, QStringLiteral("dragged"), true);
    settle();
    ASSERT_EQ(windows().pendingRenamePrompts.size(), 1);
    handler->cancelRenamePrompt();
    EXPECT_EQ(responses, QStringList{EventsHandler::RenameCancelledResponse});
    EXPECT_EQ(finishes, 1);
    windows().pendingRenamePrompts.takeFirst()(
        {RenameAnswer::Kind::Renamed, QStringLiteral("late")});
    settle();
    EXPECT_TRUE(started.isEmpty());
    EXPECT_TRUE(task.isNull());
    EXPECT_EQ(finishes, 1);
}

TEST_F(RenamePromptTest, ACancelledMonitoredRenameEndsTheMonitoredRun)
{
    auto context = std::make_shared<RecordingMonitorContext>();
    int completed = 0;
    windows().setNextRenameCancelled();
    handler->runMonitoredAction(store(RenameMove, destination), {makeFile(QStringLiteral("a"))},
                                context, [&] { ++completed; });
    EXPECT_EQ(completed, 0);
    settle();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(context->finished, 1);
    EXPECT_TRUE(responses.isEmpty());
    settle();
    EXPECT_EQ(completed, 1);
}

TEST_F(RenamePromptTest, OtherLanguagesUseTheShortTitle)
{
    EXPECT_EQ(EventsHandler::renamePromptTitle(false, 1, 1),
              QStringLiteral("Rename and Move File"));
    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    const QString many = EventsHandler::renamePromptTitle(true, 2, 3);
    const QString one = EventsHandler::renamePromptTitle(false, 1, 1);
    QLocale::setDefault(previous);
    // No translation is installed, so the words stay English.
    EXPECT_EQ(many, QStringLiteral("Rename and Copy - (2 of 3)"));
    EXPECT_EQ(one, QStringLiteral("Rename and Move"));
}
