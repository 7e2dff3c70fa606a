#include "builtin/BuiltInAction.h"
#include "builtin/BuiltInActionRunner.h"
#include "builtin/BuiltInActionTaskBridge.h"
#include "builtin/OpenUrlAction.h"
#include "builtin/RunAppleScriptAction.h"
#include "builtin/RunScriptAction.h"
#include "builtin/RunShortcutAction.h"
#include "core/NotificationCenter.h"
#include "core/UserUrl.h"
#include "platform/Launcher.h"
#include "store/GridAction.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/DropbarSink.h"
#include "tasks/FolderMonitorContext.h"
#include "tasks/RecentItems.h"
#include "tasks/TaskStatus.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>

namespace {

// Records what would have been opened or launched instead of doing it.
struct FakeLauncher : Launcher {
    bool openUrl(const QString& url, QString* error) override { return record({url}, error); }
    bool launchApplication(const QString& application, const QStringList& files,
                           QString* error) override
    {
        return record(QStringList{application} + files, error);
    }
    bool record(const QStringList& call, QString* error)
    {
        calls << call;
        *error = failWith;
        return failWith.isEmpty();
    }
    QList<QStringList> calls;
    QString failWith;
};

QList<QUrl> urls(const QStringList& paths)
{
    QList<QUrl> list;
    for (const QString& path : paths) {
        list << QUrl::fromLocalFile(path);
    }
    return list;
}

QStringList readLines(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly)
               ? QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts)
               : QStringList();
}

bool processGone(qint64 pid)
{
    // A zombie that no one has reaped yet no longer runs.
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    return ::kill(static_cast<pid_t>(pid), 0) != 0 ||
           (stat.open(QIODevice::ReadOnly) && stat.readAll().contains(") Z "));
}

// An engine with a fake launcher, a fresh runner, and the command-line finishes, responses
// and notification bodies each run leaves.
class BuiltInTest : public ::testing::Test {
protected:
    BuiltInTest()
    {
        engine->distributed.addObserver(CmdLineNotifications::Finish, nullptr,
                                        [this](const Notification&) { ++finishes; });
        engine->distributed.addObserver(CmdLineNotifications::Response, nullptr,
                                        [this](const Notification& note) {
                                            responses << note.userInfo.value("response").toString();
                                        });
    }
    ~BuiltInTest() override
    {
        runner.reset();
        spin(50);
    }

    GridActionPtr action(const QString& type, const QVariantMap& variables = {},
                         const QString& name = QString())
    {
        auto action = std::make_shared<GridAction>();
        action->type = type;
        action->name = name.isEmpty() ? type : name;
        action->extraVariables = variables;
        return action;
    }
    BuiltInAction* click(const QString& type, const QVariantMap& variables = {})
    {
        return runner->runActionWithClickWithGridAction(action(type, variables));
    }
    BuiltInAction* drop(const QString& type, const QVariantMap& variables, const QStringList& files)
    {
        return runner->runActionWithDragWithGridAction(action(type, variables), urls(files),
                                                       QString());
    }
    QString writeFile(const QString& relativePath, const QByteArray& contents)
    {
        return engine.home().writeFile(relativePath, contents);
    }
    QString path(const QString& relative) { return engine.home().path() + u'/' + relative; }
    QStringList bodies()
    {
        QStringList bodies;
        for (const UserNotification& notification : engine.desktop().notifications) {
            bodies << notification.body;
        }
        return bodies;
    }
    bool waitForIdle(int timeoutMs = 10000)
    {
        return waitUntil([this] { return runner->runningBuiltInActions().isEmpty(); }, timeoutMs);
    }

    const bool application = (ensureCoreApplication(), true);
    std::shared_ptr<FakeLauncher> launcher = std::make_shared<FakeLauncher>();
    TestEngine engine{launcher};
    std::shared_ptr<BuiltInActionRunner> runner =
        std::make_shared<BuiltInActionRunner>(&engine->builtInContext);
    int finishes = 0;
    QStringList responses;
};

// --- Framework

class ResultAction : public BuiltInAction {
public:
    void runWithClick() override
    {
        returnResult("https://example.com/shared", false);
        finish();
        finish(); // a second call must change nothing
    }
};

TEST_F(BuiltInTest, ResultGoesToClipboardResponseAndRecentItemsAndRunFinishesOnce)
{
    engine->recentItems.clear();
    ResultAction result;
    result.setUp(engine->builtInContext, {}, action("Uploader", {}, "Long name"), {});
    int completions = 0;
    result.completion = [&completions] { ++completions; };
    result.runWithClick();
    EXPECT_EQ(engine.desktop().clipboard, QStringList{"url:https://example.com/shared"});
    EXPECT_EQ(responses, QStringList{"https://example.com/shared"});
    ASSERT_EQ(engine->recentItems.items().size(), 1);
    EXPECT_EQ(engine->recentItems.items().first().title, "Long name - https://example.com/shared");
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, RunnerClosesTheGridAndTracksEachRunUntilItFinishes)
{
    const QString script = writeFile("s/wait.sh", "#!/bin/sh\nsleep 0.5\n");
    BuiltInAction* first = click("Run Script", {{"path", script}});
    BuiltInAction* second = drop("Run Script", {{"path", script}}, {script});
    ASSERT_TRUE(first && second && first != second);
    EXPECT_EQ(runner->runningBuiltInActions(), (QList<BuiltInAction*>{first, second}));
    EXPECT_EQ(engine.windows().gridClosed, 2);
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(finishes, 2);

    int completions = 0;
    EXPECT_EQ(
        runner->runActionWithClickWithGridAction(action("Nope"), [&completions] { ++completions; }),
        nullptr);
    EXPECT_EQ(completions, 1) << "an unknown built-in starts nothing but completes";
}

// --- Run Script

TEST_F(BuiltInTest, RunScriptFailuresAreNotifiedAndFinishTheRun)
{
    const std::pair<const char*, const char*> rows[] = {
        {nullptr, "No script has been selected for this action."},
        {"", "The selected script could not be found."},
        {"#!/no/such/interpreter -x\necho\n",
         "The interpreter at /no/such/interpreter could not be executed."},
        {"echo hello\n", "The selected script needs a shebang on its first line, such as "
                         "#!/bin/zsh or #!/usr/bin/env python3."},
        {"#!/bin/sh\necho out\necho trouble >&2\nexit 2\n",
         "Script exited with status 2. Check the Action Console for details."},
    };
    engine->debugConsole.clear();
    int row = 0;
    for (const auto& [script, expected] : rows) {
        engine.desktop().notifications.clear();
        QVariantMap variables;
        if (script) {
            const QString name = QStringLiteral("s%1.sh").arg(++row);
            variables.insert("path", *script ? writeFile(name, script) : path("gone.sh"));
        }
        click("Run Script", variables);
        ASSERT_TRUE(waitForIdle());
        EXPECT_EQ(bodies(), QStringList{QString::fromUtf8(expected)});
    }
    EXPECT_EQ(finishes, int(std::size(rows)));
    // The failing script's error output is shown in red in the console.
    bool redError = false;
    for (const DebugConsoleController::Run& run : engine->debugConsole.runs()) {
        redError |=
            run.colour == DebugConsoleController::Colour::Red && run.text.contains("trouble");
    }
    EXPECT_TRUE(redError);
    EXPECT_TRUE(engine->debugConsole.text().endsWith("\n[Task completed]\n"));
}

// The rest of the script's environment is checked end to end; only a drop brings a modifier.
TEST_F(BuiltInTest, RunScriptIsToldTheDropsModifier)
{
    const QString record = path("record.txt");
    const QString script = writeFile("show.sh", "#!/bin/sh\necho \"$SKELVO_KEY_MODIFIER\" > '" +
                                                    record.toUtf8() + "'\n");
    runner->runActionWithDragWithGridAction(action("Run Script", {{"path", script}}),
                                            urls({script}), "option");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(readLines(record), QStringList{"option"});
    EXPECT_EQ(bodies(), QStringList{"Run Script completed."});
}

TEST_F(BuiltInTest, CancelEndsTheScriptsProcessGroupANormalEndDoesNot)
{
    const QString pids = path("pids.txt");
    const auto script = [&](const char* name, const QByteArray& tail) {
        return writeFile(QString::fromLatin1(name),
                         QByteArray("#!/bin/sh\nsleep 300 &\necho $! >> '") + pids.toUtf8() +
                             "'\n" + tail);
    };
    auto* cancelled = static_cast<RunScriptAction*>(click(
        "Run Script", {{"path", script("long.sh", "echo $$ >> '" + pids.toUtf8() + "'\nwait\n")}}));
    ASSERT_TRUE(waitUntil([&] { return readLines(pids).size() == 2; }));
    const auto group = static_cast<pid_t>(cancelled->processId());
    EXPECT_EQ(::getpgid(group), group);
    cancelled->builtInActionTaskBridge()->taskStatus()->cancel();
    ASSERT_TRUE(waitForIdle());
    for (const QString& pid : readLines(pids)) {
        EXPECT_TRUE(waitUntil([&] { return processGone(pid.toLongLong()); }, 3000))
            << pid.toStdString();
    }

    QFile::remove(pids);
    click("Run Script", {{"path", script("background.sh", "")}});
    ASSERT_TRUE(waitForIdle());
    ASSERT_EQ(readLines(pids).size(), 1);
    const qint64 sleeper = readLines(pids).first().toLongLong();
    // A kill takes a moment to land: give it one.
    EXPECT_FALSE(waitUntil([&] { return processGone(sleeper); }, 1000));
    ::kill(static_cast<pid_t>(sleeper), SIGKILL);
    EXPECT_EQ(finishes, 2);
}

// --- Open URL, Open File, Open Application

TEST(OpenUrlResolver, CompletesAndRefuses)
{
    const std::pair<const char*, const char*> rows[] = {
        {" example.com/a?b=1 ", "https://example.com/a?b=1"},
        {"localhost:8080/x", "https://localhost:8080/x"},
        {"slack://open?team=T1", "slack://open?team=T1"},
        {"mailto:someone@example.com", "mailto:someone@example.com"},
        {"/tmp/page.html", "file:///tmp/page.html"},
        {"", nullptr},
        {"two words", nullptr},
        {"javascript:alert(1)", nullptr},
        {"data:text/html,hi", nullptr},
        {"-bad-.com", nullptr},
    };
    for (const auto& [text, expected] : rows) {
        const auto url = urlFromUserText(QString::fromUtf8(text));
        EXPECT_EQ(url ? url->toString() : QString(), QString::fromUtf8(expected)) << text;
    }
}

TEST_F(BuiltInTest, OpenActionsOpenWhatWasChosenOrSayWhyNot)
{
    const QString file = writeFile("doc/report 1.txt", "hi");
    const QString gone = path("gone.html");
    click("Open URL", {{"url", "example.org"}});
    click("Open URL", {{"url", QString::fromUtf8(QUrl::fromLocalFile(gone).toEncoded())}});
    click("Open File", {{"path", file}});
    click("Open File", {{"path", file + ".gone"}});
    const QString app = writeFile("apps/viewer.desktop", "[Desktop Entry]\n");
    const QVariantMap chosenApp{{"path", app}};
    click("Open Application", chosenApp);
    drop("Open Application", chosenApp, {file, app});
    click("Move to Trash");
    ASSERT_TRUE(waitForIdle());
    launcher->failWith = "no such application";
    click("Open Application", chosenApp);
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(launcher->calls,
              (QList<QStringList>{{"https://example.org"},
                                  {QString::fromUtf8(QUrl::fromLocalFile(file).toEncoded())},
                                  {app},
                                  {app, file, app},
                                  {"trash:///"},
                                  {app}}));
    EXPECT_EQ(bodies(), (QStringList{"'" + gone + "' does not exist.",
                                     "The selected file could not be found.",
                                     QStringLiteral("Error opening application: no such "
                                                    "application")}));
    EXPECT_EQ(finishes, 8);
}

TEST(GioLauncherTest, LaunchesADesktopEntryWithTheFiles)
{
    ensureCoreApplication();
    TestHome home;
    const QString record = home.path() + "/launched.txt";
    const QString entry = home.writeFile(
        "apps/recorder.desktop",
        QByteArray("[Desktop Entry]\nType=Application\nName=Recorder\nExec=/bin/sh -c 'printf "
                   "\"%%s\\\\n\" \"$@\" > ") +
            record.toUtf8() + "' recorder %F\n");
    const QStringList files{home.writeFile("one.txt", "1"), home.writeFile("two.txt", "2")};
    GioLauncher launcher;
    QString error;
    ASSERT_TRUE(launcher.launchApplication(entry, files, &error)) << error.toStdString();
    ASSERT_TRUE(waitUntil([&] { return readLines(record).size() == 2; }, 5000));
    EXPECT_EQ(readLines(record), files);
    EXPECT_FALSE(launcher.launchApplication(home.path() + "/none.desktop", {}, &error));
}

TEST_F(BuiltInTest, MoveToTrashReportsWhatItCannotTrash)
{
    drop("Move to Trash", {}, {path("nothing-here")});
    ASSERT_TRUE(waitForIdle());
    ASSERT_EQ(engine.desktop().notifications.size(), 1);
    EXPECT_EQ(engine.desktop().notifications.first().title, "Move to Trash Failed");
    EXPECT_EQ(finishes, 1);
}

// --- Run Shortcut and Run AppleScript

TEST_F(BuiltInTest, RunShortcutChecksTheNameBeforeRunning)
{
    if (!RunShortcutAction::commandPath().isEmpty()) {
        GTEST_SKIP() << "this system has its own shortcuts command";
    }
    const QVariantMap makeGif{{"shortcut_name", "Make GIF"}};
    runner->runActionWithDragWithGridAction(action("Run Shortcut", makeGif), "some text",
                                            QString());
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(bodies(), QStringList{QStringLiteral(
                            "Error: Could not retrieve available shortcuts. Please try again.")});

    // A stand-in `shortcuts` on PATH that lists two shortcuts and records runs.
    engine.desktop().notifications.clear();
    const QString record = path("runs.txt");
    const QString tool = writeFile(
        "bin/shortcuts",
        QByteArray("#!/bin/sh\nif [ \"$1\" = list ]; then printf 'Make GIF\\nResize\\n'; exit 0; "
                   "fi\necho \"$@\" >> '") +
            record.toUtf8() + "'\n");
    QFile::setPermissions(tool, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QByteArray systemPath = qgetenv("PATH");
    qputenv("PATH", path("bin").toUtf8() + ':' + systemPath);
    const QString file = writeFile("in.png", "x");
    drop("Run Shortcut", {{"shortcut_name", "Old"}}, {file});
    drop("Run Shortcut", makeGif, {file});
    const bool idle = waitForIdle();
    qputenv("PATH", systemPath);
    ASSERT_TRUE(idle);
    EXPECT_EQ(bodies(), QStringList{QStringLiteral("Error: Old could not be found.\nThe shortcut "
                                                   "may have been renamed or deleted.")});
    EXPECT_EQ(readLines(record), QStringList{"run Make GIF --input-path " + file});
    EXPECT_EQ(finishes, 3);
}

TEST_F(BuiltInTest, RunAppleScriptWithoutOsascriptFails)
{
    if (!RunAppleScriptAction::interpreterPath().isEmpty()) {
        GTEST_SKIP() << "this system has osascript";
    }
    click("Run AppleScript", {{"applescript", "display dialog \"hi\""}});
    ASSERT_TRUE(waitForIdle());
    ASSERT_EQ(engine.desktop().notifications.size(), 1);
    EXPECT_EQ(engine.desktop().notifications.first().title, "Run AppleScript Error");
    EXPECT_EQ(finishes, 1);
}

// --- The image actions over the image engine

TEST_F(BuiltInTest, ImageActionsWriteWhereAskedOrSayWhyNot)
{
    // A 2×1 PNG, so no image library is needed to make one.
    const QString png = writeFile(
        "img/photo.png",
        QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAIAAAABCAIAAAB7QOjdAAAADUlEQVR4nGP4zwAE/"
                               "wEHAAH/4iOeWQAAAABJRU5ErkJggg=="));
    QStringList toDropBar;
    engine->dropbarSink.setReceiver({.add = [&](const QStringList& paths) { toDropBar << paths; },
                                     .addToGrid = {},
                                     .remove = {}});
    const QString chosen = path("chosen");
    QDir().mkpath(chosen);
    const auto convert = [&](const char* format, const char* folderOption) {
        drop("Convert Images",
             {{"output_format", QString::fromLatin1(format)},
              {"keep_originals", "1"},
              {"output_folder_option", QString::fromLatin1(folderOption)}},
             {png});
        return waitForIdle(30000);
    };
    engine.windows().setNextFolder(chosen);
    ASSERT_TRUE(convert("webp", "1"));
    EXPECT_TRUE(QFileInfo::exists(chosen + "/photo.webp"));
    EXPECT_TRUE(QFileInfo::exists(png));
    EXPECT_TRUE(toDropBar.isEmpty());
    ASSERT_TRUE(convert("gif", "3"));
    ASSERT_EQ(toDropBar.size(), 1);
    EXPECT_TRUE(toDropBar.first().endsWith("/photo.gif"));
    EXPECT_TRUE(QFileInfo(toDropBar.first()).path().contains("SkActionOutput-"));
    EXPECT_TRUE(QFileInfo::exists(toDropBar.first()));
    engine->dropbarSink.setReceiver({});

    engine.windows().setNextFolder(QString());
    ASSERT_TRUE(convert("png", "1"));
    drop("Resize Images", {{"output_width", "1"}}, {writeFile("notes.txt", "words")});
    ASSERT_TRUE(waitForIdle(30000));
    EXPECT_EQ(bodies(), (QStringList{"Conversion Successful", "Conversion Successful",
                                     "You must choose a destination folder", "No images found"}));
    EXPECT_EQ(finishes, 4);
}

TEST_F(BuiltInTest, ImageActionsRegisterWhatTheyWriteWithTheMonitoredRun)
{
    struct Outputs : FolderMonitorContext {
        std::mutex mutex;
        QStringList paths;
        void registerOutputAtPath(const QString& path) override
        {
            const std::lock_guard lock(mutex);
            paths << path;
        }
    };
    const QString png = writeFile(
        "watched/photo.png",
        QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAIAAAABCAIAAAB7QOjdAAAADUlEQVR4nGP4zwAE/"
                               "wEHAAH/4iOeWQAAAABJRU5ErkJggg=="));
    const auto outputs = std::make_shared<Outputs>();
    runner->runActionWithDragWithGridAction(
        action("Convert Images", {{"output_format", "webp"}, {"keep_originals", "1"}}), urls({png}),
        QString(), outputs);
    ASSERT_TRUE(waitForIdle(30000));
    EXPECT_EQ(outputs->paths, QStringList{path("watched/photo.webp")});
}

} // namespace
