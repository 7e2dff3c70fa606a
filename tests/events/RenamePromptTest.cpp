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

// Records the command line's answers and finishes, each as "response TEXT" or "finish", with
// the object they were posted for.
class RenamePromptTest : public EventsTest {
protected:
    void SetUp() override
    {
        EventsTest::SetUp();
        for (const QString& name : {CmdLineNotifications::Response, CmdLineNotifications::Finish}) {
            m_tokens << (*engine)->distributed.addObserver(
                name, nullptr, [this, name](const Notification& n) {
                    answers << (name == CmdLineNotifications::Finish
                                    ? QStringLiteral("finish")
                                    : n.userInfo.value(QStringLiteral("response")).toString());
                    senders << n.object.data();
                });
        }
        destination = makeFolder(QStringLiteral("out"));
    }
    void TearDown() override
    {
        for (int token : std::as_const(m_tokens)) {
            (*engine)->distributed.removeObserver(token);
        }
        EventsTest::TearDown();
    }
    QStringList titles()
    {
        QStringList result;
        for (const RenamePrompt& prompt : windows().renamePrompts) {
            result << prompt.title;
        }
        return result;
    }
    QPointer<Task> runFromCmdLine(const QString& type, std::function<void()> completion = {})
    {
        return handler->createTaskForAction(store(type, destination),
                                            {makeFile(QStringLiteral("a.txt"))},
                                            QStringLiteral("dragged"), true, std::move(completion));
    }

    QString destination;
    QStringList answers;
    QList<QObject*> senders;

private:
    QList<int> m_tokens;
};

} // namespace

TEST_F(RenamePromptTest, ThreeItemsAreAskedForInTurnAndTheNamesReachTheTask)
{
    const QStringList items = {makeFile(QStringLiteral("a.tar.gz")),
                               makeFolder(QStringLiteral("Photos")),
                               makeFile(QStringLiteral(".hidden"))};
    windows().setNextRename(QStringLiteral("Report \"final\".tar.gz"));
    windows().setNextRename(QString()); // asks for the same item again
    windows().setNextRename(QStringLiteral("Pictures"));
    windows().setNextRename(QStringLiteral("visible"));

    const DispatchResult result =
        handler->performActionDrag(store(RenameMove, destination), files(items));
    ASSERT_EQ(result.outcome, Outcome::StartedTask);
    Task* task = result.task;
    EXPECT_TRUE(handler->isRenamePromptOpen());
    EXPECT_EQ(handler->pendingTask(), task);
    EXPECT_TRUE(started.isEmpty()) << "nothing runs before the names are in";
    EXPECT_EQ(windows().gridClosed, 1);
    settle();

    // Title, label, proposed name and the selected part before the last extension.
    const std::tuple<const char*, const char*, const char*, int> expected[] = {
        {"Rename and Move Files (1 of 3)", "New Filename:", "a.tar.gz", 5},
        {"Rename and Move Files (2 of 3)", "New Folder Name:", "Photos", 6},
        {"Rename and Move Files (2 of 3)", "New Folder Name:", "Photos", 6},
        {"Rename and Move Files (3 of 3)", "New Filename:", ".hidden", 7}};
    const QList<RenamePrompt>& prompts = windows().renamePrompts;
    ASSERT_EQ(prompts.size(), 4);
    for (int i = 0; i < 4; ++i) {
        const auto& [title, label, name, selected] = expected[i];
        EXPECT_EQ(prompts[i].title, QString::fromLatin1(title)) << i;
        EXPECT_EQ(prompts[i].label, QString::fromLatin1(label)) << i;
        EXPECT_EQ(prompts[i].proposedName, QString::fromLatin1(name)) << i;
        EXPECT_EQ(prompts[i].selectionLength, selected) << i;
    }

    ASSERT_EQ(started.size(), 1);
    EXPECT_EQ(started.first(), task);
    const char* names[] = {"Report \\\"final\\\".tar.gz", "Pictures", "visible"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(task->variables.value(QStringLiteral("RENAMED_FILENAME_%1").arg(i)),
                  QString::fromLatin1(names[i]));
    }
    EXPECT_FALSE(task->variables.contains(QStringLiteral("RENAMED_FILENAME_3")));
    EXPECT_EQ(task->items, items);
    EXPECT_FALSE(handler->isRenamePromptOpen());
    EXPECT_TRUE(handler->renamedFilenames().isEmpty());
    EXPECT_TRUE(answers.isEmpty());
}

TEST_F(RenamePromptTest, CancellingADropDropsTheWholeRunAndNobodyIsAnswered)
{
    windows().setNextRename(QStringLiteral("one"));
    windows().setNextRenameCancelled();
    const QPointer<Task> task =
        handler
            ->performActionDrag(store(RenameMove, destination),
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
    EXPECT_TRUE(answers.isEmpty());

    // A cancelled monitored run ends the monitored run.
    auto context = std::make_shared<RecordingMonitorContext>();
    int completed = 0;
    windows().setNextRenameCancelled();
    handler->runMonitoredAction(store(RenameMove, destination), {makeFile(QStringLiteral("a"))},
                                context, [&] { ++completed; });
    EXPECT_EQ(completed, 0);
    settle();
    settle();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(context->finished, 1);
    EXPECT_TRUE(answers.isEmpty());
}

TEST_F(RenamePromptTest, ACommandLineRunIsAnsweredAndFinishedOnce)
{
    struct Row {
        const char* how; // "cancel" in the prompt, "unavailable" (no display), "handler"
        QString answer;
        const char* title;
    };
    const Row rows[] = {
        {"cancel", EventsHandler::RenameCancelledResponse, "Rename and Move File"},
        {"unavailable", EventsHandler::RenameUnavailableResponse, "Rename and Copy File"},
        {"handler", EventsHandler::RenameCancelledResponse, "Rename and Move File"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.how);
        const QString how = QString::fromLatin1(row.how);
        answers.clear();
        senders.clear();
        windows().renamePrompts.clear();
        if (how == u"unavailable") {
            windows().setNextRenameUnavailable();
        }
        int completed = 0;
        const QPointer<Task> task =
            runFromCmdLine(how == u"unavailable" ? RenameCopy : RenameMove, [&] { ++completed; });
        ASSERT_TRUE(task);
        Task* const sender = task;
        EXPECT_TRUE(handler->renameViaCmdLine());
        EXPECT_TRUE(answers.isEmpty()) << "the caller gets the task before any answer";
        settle();
        EXPECT_EQ(titles(), QStringList{QString::fromLatin1(row.title)});
        if (how != u"unavailable") {
            ASSERT_EQ(windows().pendingRenamePrompts.size(), 1);
            const auto answer = windows().pendingRenamePrompts.takeFirst();
            if (how == u"cancel") {
                answer({RenameAnswer::Kind::Cancelled, {}});
            } else {
                handler->cancelRenamePrompt();
                answer({RenameAnswer::Kind::Renamed, QStringLiteral("late")}); // ignored
            }
        }
        EXPECT_EQ(answers, (QStringList{row.answer, QStringLiteral("finish")}));
        EXPECT_EQ(senders, (QList<QObject*>{sender, sender})) << "tied to the request's task";
        settle();
        EXPECT_TRUE(task.isNull());
        EXPECT_TRUE(started.isEmpty());
        EXPECT_EQ(answers.size(), 2);
        EXPECT_EQ(completed, 1);
        EXPECT_FALSE(handler->isRenamePromptOpen());
    }
    EXPECT_TRUE(EventsHandler::RenameUnavailableResponse.startsWith(QStringLiteral("Error: ")));
}

TEST_F(RenamePromptTest, TheVerbFollowsTheActionTheCopyDropAndTheLanguage)
{
    DragInfo copyDrop = files({makeFile(QStringLiteral("b")), makeFile(QStringLiteral("c"))});
    copyDrop.copyActivated = true;
    windows().setNextRename(QStringLiteral("y"));
    windows().setNextRename(QStringLiteral("z"));
    const Task* task = handler->performActionDrag(store(RenameMove, destination), copyDrop).task;
    ASSERT_TRUE(task);
    settle();
    EXPECT_EQ(titles(), (QStringList{QStringLiteral("Rename and Copy Files (1 of 2)"),
                                     QStringLiteral("Rename and Copy Files (2 of 2)")}));
    EXPECT_EQ(task->variables.value(QStringLiteral("OPERATION")),
              QStringLiteral("NSDragOperationCopy"));
    EXPECT_EQ(started.size(), 1);

    // Other languages use the short title; no translation is installed, so the words stay
    // English.
    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    const QString many = EventsHandler::renamePromptTitle(true, 2, 3);
    const QString one = EventsHandler::renamePromptTitle(false, 1, 1);
    QLocale::setDefault(previous);
    EXPECT_EQ(many, QStringLiteral("Rename and Copy - (2 of 3)"));
    EXPECT_EQ(one, QStringLiteral("Rename and Move"));
}
