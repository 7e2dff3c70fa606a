// Runs real Ruby children through the real runner and checks what the application did.
#include "tasks/TaskRunner.h"

#include "actions/ActionFileParser.h"
#include "core/NotificationCenter.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/Task.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TaskStatus.h"
#include "tasks/TaskStatusController.h"
#include "tasks/TasksController.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cerrno>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>

namespace {

// A runner script for the tests: it loads the action file named on the ACTION line, so each
// test's script speaks the protocol itself.
const char* const TestRunner = R"RUBY(
description = File.read(ARGV[0])
$task_file = ARGV[0]
load description[/\AACTION: "(.*)"$/, 1]
)RUBY";

class TaskRunnerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        m_previousResources = qgetenv("SKELVO_RESOURCES");
        qputenv("SKELVO_RESOURCES", (home.path() + QStringLiteral("/res")).toUtf8());
        home.writeFile(QStringLiteral("res/Actions/lib/runner.rb"), TestRunner);
        NotificationCenter& centre = presenters->notifications;
        m_tokens = {centre.addObserver(Notifications::TaskFinished, nullptr,
                                       [this](const Notification& n) { finished << n; }),
                    centre.addObserver(Notifications::AllTasksCompleted, nullptr,
                                       [this](const Notification&) { ++allCompleted; }),
                    centre.addObserver(Notifications::TaskShowExitStatus, nullptr,
                                       [this](const Notification& n) { exits << n; })};
        m_response = presenters->distributed.addObserver(
            CmdLineNotifications::Response, nullptr, [this](const Notification& n) {
                responses << n.userInfo.value(QStringLiteral("response")).toString();
            });
    }
    void TearDown() override
    {
        waitUntil([this] { return !presenters->tasks.hasTasks(); }, 5000);
        spin(300);
        for (int token : m_tokens) {
            presenters->notifications.removeObserver(token);
        }
        presenters->distributed.removeObserver(m_response);
        qputenv("SKELVO_RESOURCES", m_previousResources);
    }

    // Starts a task whose script is `ruby`; returns it (owned by the tasks controller).
    QPointer<Task> start(const QByteArray& ruby, std::function<void()> completion = {})
    {
        const QString script =
            home.writeFile(QStringLiteral("action-%1.skelvo").arg(++m_count), ruby);
        auto* task = new Task(presenters->taskContext);
        task->actionFile = std::make_shared<ActionFile>();
        task->actionFile->actionName = QStringLiteral("Test Action");
        task->actionFile->taskPath = script;
        task->event = QStringLiteral("dragged");
        task->completion = std::move(completion);
        task->variables = {{QStringLiteral("dragged_type"), QStringLiteral("files")}};
        task->run();
        return task;
    }
    bool waitForFinish(int count = 1, int timeoutMs = 15000)
    {
        return waitUntil([&] { return finished.size() >= count; }, timeoutMs);
    }

    TestEngine presenters;
    TestHome& home = presenters.home();
    QList<Notification> finished;
    QList<Notification> exits;
    QStringList responses;
    int allCompleted = 0;

private:
    QByteArray m_previousResources;
    QList<int> m_tokens;
    int m_response = 0;
    int m_count = 0;
};

} // namespace

TEST_F(TaskRunnerTest, ProtocolRoundTripWithAcknowledgements)
{
    // Each line waits for the application's newline; without it the script would hang. The
    // folder question is answered by the chooser ("0": cancelled), not acknowledged.
    presenters.windows().setNextFolder(QStringLiteral("/chosen/folder"));
    presenters.windows().setNextFolder(QString());
    const QPointer<Task> task = start(R"RUBY(
$stdout.sync = true
def say(line)
  print line + "\n"
  STDIN.gets or raise "no acknowledgement"
end
say "Begin_Message: Copying: a.txt"
say "Progress: 50"
first = (say "Select_Folder: Pick one").chomp
second = (say "Select_Folder: Again").chomp
say "Text: #{first}|#{second}|#{[ENV['LC_ALL'], ENV['RUBYOPT'], ENV['NSUnbufferedIO'], Dir.pwd, File.basename($0), File.basename(ARGV[0])[0, 5], Process.getpgrp == Process.pid].join('|')}"
)RUBY");
    ASSERT_TRUE(waitForFinish());
    // Only a locale that is installed: a missing one makes shells print warnings.
    QProcess locales;
    locales.start(QStringLiteral("locale"), {QStringLiteral("-a")});
    ASSERT_TRUE(locales.waitForFinished(10000));
    const QString locale = locales.readAllStandardOutput().split('\n').contains("en_US.utf8")
                               ? QStringLiteral("en_US.UTF-8")
                               : QStringLiteral("C.UTF-8");
    const QString answer = QStringLiteral("/chosen/folder|0|%1|-Ku|NO|%2|runner.rb|task-|true")
                               .arg(locale, home.path() + QStringLiteral("/res/Actions/lib"));
    EXPECT_EQ(presenters.desktop().clipboard, QStringList{QStringLiteral("text:") + answer});
    EXPECT_EQ(responses, QStringList{answer});
    ASSERT_EQ(finished.size(), 1);
    EXPECT_EQ(finished[0].userInfo.value(QStringLiteral("lastCommand")).toString(),
              QStringLiteral("Text"));
    EXPECT_EQ(finished[0].userInfo.value(QStringLiteral("lastMessage")).toString(), answer);
    const QString console = presenters->debugConsole.text();
    EXPECT_TRUE(console.contains(QStringLiteral("\nBegin_Message: Copying a.txt\nProgress: 50\n")));
    EXPECT_TRUE(console.endsWith(answer + QStringLiteral("\n\n[Task completed]\n")));
    EXPECT_EQ(presenters->debugConsole.runs().last().bold, true);
    EXPECT_TRUE(waitUntil([&] { return task.isNull(); }, 2000)) << "the finished task is released";
    EXPECT_EQ(allCompleted, 1);
    EXPECT_TRUE(QDir(home.path() + QStringLiteral("/data/Skelvo/Tasks")).isEmpty())
        << "the description file is removed";
}

TEST_F(TaskRunnerTest, CrashingScriptShowsItsErrorsAndFails)
{
    start(R"RUBY(
$stdout.sync = true
print "Begin_Message: Working\n"
STDIN.gets
raise "something broke"
)RUBY");
    ASSERT_TRUE(waitForFinish());
    const auto runs = presenters->debugConsole.runs();
    EXPECT_TRUE(std::any_of(runs.begin(), runs.end(), [](const auto& run) {
        return run.colour == DebugConsoleController::Colour::Red &&
               run.text.contains(QStringLiteral("something broke"));
    })) << presenters->debugConsole.text().toStdString();
    ASSERT_EQ(presenters.desktop().notifications.size(), 1);
    EXPECT_EQ(presenters.desktop().notifications[0].title, QStringLiteral("Test Action Failed"));
    EXPECT_EQ(presenters.desktop().notifications[0].body,
              QStringLiteral("Check Debug Console for error output"));
    EXPECT_EQ(presenters.windows().debugConsoleShown, 1);
    ASSERT_FALSE(exits.isEmpty());
    EXPECT_EQ(exits.last().userInfo.value(QStringLiteral("success")).toInt(), 0);
}

TEST_F(TaskRunnerTest, CancelEndsTheWholeProcessGroupQuietly)
{
    const QString marker = QDir(home.path()).filePath(QStringLiteral("grandchild.pid"));
    const QPointer<Task> task = start(QStringLiteral(R"RUBY(
$stdout.sync = true
pid = spawn("sleep", "60")
File.write("%1", pid.to_s)
Signal.trap("TERM") { }  # a stubborn script: only the kill after the grace period ends it
print "Determinate: 1\n"
STDIN.gets
print "Progress: 10\n"
STDIN.gets
sleep 60
)RUBY")
                                          .arg(marker)
                                          .toUtf8());
    ASSERT_TRUE(waitUntil(
        [&] { return presenters->taskStatuses.hasTasks() && QFileInfo::exists(marker); }));
    ASSERT_TRUE(task);
    TaskRunner* runner = task->taskRunner();
    ASSERT_TRUE(runner);
    const qint64 group = runner->processId();
    QFile pidFile(marker);
    ASSERT_TRUE(waitUntil([&] { return QFileInfo(marker).size() > 0; }));
    ASSERT_TRUE(pidFile.open(QIODevice::ReadOnly));
    const pid_t grandchild = static_cast<pid_t>(pidFile.readAll().toLongLong());

    presenters->taskStatuses.getTask(0)->cancel();
    ASSERT_TRUE(waitForFinish(1, TaskRunner::CancelGracePeriodMs + 5000));
    EXPECT_TRUE(presenters.desktop().notifications.isEmpty())
        << "no error notification after a cancel";
    ASSERT_FALSE(exits.isEmpty());
    EXPECT_EQ(exits.first().userInfo.value(QStringLiteral("success")).toInt(), 1);
    EXPECT_TRUE(waitUntil(
        [&] { return ::kill(static_cast<pid_t>(-group), 0) != 0 && errno == ESRCH; }, 3000))
        << "a process of the group is still there";
    EXPECT_NE(::kill(grandchild, 0), 0);
}

TEST_F(TaskRunnerTest, EndlessOutputWithoutLineBreaksIsProcessedOnceItPilesUp)
{
    // Writes without pause, so only the size limit can make the runner process the output.
    start(R"RUBY(
$stdout.sync = true
deadline = Time.now + 20
acknowledged = false
until acknowledged || Time.now > deadline
  $stdout.write("z" * 4096)
  acknowledged = !IO.select([STDIN], nil, nil, 0.002).nil?
end
print "\nText: #{acknowledged ? 'acknowledged' : 'never acknowledged'}\n"
STDIN.gets
)RUBY");
    ASSERT_TRUE(waitForFinish(1, 30000));
    EXPECT_EQ(presenters.desktop().clipboard, QStringList{QStringLiteral("text:acknowledged")});
}

TEST_F(TaskRunnerTest, SplitCharactersArriveWholeAndFloodsDoNotStall)
{
    start(R"RUBY(
$stdout.sync = true
$stdout.write "h\xC3".b
STDIN.gets
$stdout.write "\xA9llo\n".b
STDIN.gets
$stdout.write(("\x00\xFF binary junk \x80".b) * 200_000)
)RUBY");
    ASSERT_TRUE(waitForFinish(1, 30000));
    const QString console = presenters->debugConsole.text();
    EXPECT_TRUE(console.contains(QStringLiteral("h\n\u00e9llo\n")))
        << console.left(200).toStdString();
    EXPECT_LE(console.size(), DebugConsoleController::DefaultMaximumLength);
}

TEST_F(TaskRunnerTest, MissingRunnerScriptAlertsAndRunsNothing)
{
    QFile::remove(QDir(home.path()).filePath(QStringLiteral("res/Actions/lib/runner.rb")));
    int completions = 0;
    start("raise 'must not run'", [&] { ++completions; });
    ASSERT_EQ(presenters.alerts().alerts.size(), 1);
    EXPECT_EQ(presenters.alerts().alerts[0].title, QStringLiteral("Failed to launch task"));
    EXPECT_EQ(presenters.alerts().alerts[0].message,
              QStringLiteral("Could not find runner.rb at at '%1'\n\nYou should re-install Skelvo.")
                  .arg(QDir(home.path()).filePath(QStringLiteral("res/Actions/lib/runner.rb"))));
    EXPECT_TRUE(waitUntil([&] { return completions == 1; }, 2000));
    EXPECT_FALSE(presenters->tasks.hasTasks());
    spin(300);
    EXPECT_TRUE(finished.isEmpty());
}

TEST_F(TaskRunnerTest, InterpreterChoice)
{
    Task task(presenters->taskContext);
    task.actionFile = std::make_shared<ActionFile>();
    TaskRunner runner(&task);
    EXPECT_TRUE(runner.launchPath().endsWith(QStringLiteral("ruby")));
    task.actionFile->optionsNib = QStringLiteral("AmazonS3Login");
    EXPECT_EQ(runner.launchPath(), QStringLiteral("/usr/bin/ruby"));
    task.actionFile->rubyPath = QStringLiteral("/opt/ruby/bin/ruby");
    EXPECT_EQ(runner.launchPath(), QStringLiteral("/opt/ruby/bin/ruby"));

    task.actionFile->rubyPath.clear();
    task.actionFile->optionsNib.clear();
    const QString arch = QSysInfo::currentCpuArchitecture() == QStringLiteral("arm64")
                             ? QStringLiteral("arm64")
                             : QStringLiteral("x86_64");
    const QString embedded = home.writeFile(
        QStringLiteral("res/Actions/lib/ruby/ruby_%1/bin/ruby").arg(arch), "#!/bin/sh\n");
    QFile::setPermissions(embedded, QFile::ReadOwner | QFile::ExeOwner);
    EXPECT_EQ(runner.launchPath(), embedded);
}

TEST_F(TaskRunnerTest, RerunLastRunsTheStoredCopyOrSaysWhatIsMissing)
{
    const QString user = QDir(home.path()).filePath(QStringLiteral("user-actions"));
    const QString script =
        home.writeFile(QStringLiteral("user-actions/again.skelvo"),
                       "# Skelvo Action Info\n# Name: Again\n# Description: d\n"
                       "# Events: Clicked\n# Creator: c\n# URL: u\n\n"
                       "$stdout.sync = true\nprint \"Text: ran\\n\"\nSTDIN.gets\n");
    ActionFileParser::shared() =
        ActionFileParser(QDir(home.path()).filePath(QStringLiteral("none")), user);
    presenters->debugConsole.setLastRunTask(nullptr);
    EXPECT_FALSE(presenters->debugConsole.rerunLast()) << "nothing ran yet";

    auto* task = new Task(presenters->taskContext);
    task->actionFile = ActionFileParser::shared().getActionWithType(QStringLiteral("Again"));
    ASSERT_TRUE(task->actionFile);
    task->event = QStringLiteral("clicked");
    task->run();
    ASSERT_TRUE(waitForFinish(1));
    EXPECT_TRUE(presenters->debugConsole.taskControlsEnabled());

    ASSERT_TRUE(presenters->debugConsole.rerunLast());
    ASSERT_TRUE(waitForFinish(2));
    EXPECT_EQ(presenters.desktop().clipboard,
              (QStringList{QStringLiteral("text:ran"), QStringLiteral("text:ran")}));

    QFile::remove(script);
    EXPECT_FALSE(presenters->debugConsole.rerunLast());
    ASSERT_EQ(presenters.alerts().alerts.size(), 1);
    EXPECT_EQ(presenters.alerts().alerts[0].title, QStringLiteral("Missing Action Bundle"));
    EXPECT_EQ(presenters.alerts().alerts[0].message,
              QStringLiteral("The last run action bundle could not be found."));
    ActionFileParser::shared() = ActionFileParser();
}
