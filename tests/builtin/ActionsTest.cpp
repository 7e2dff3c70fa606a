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

namespace {

// Records what would have been opened instead of opening it.
class FakeLauncher : public Launcher {
public:
    bool openUrl(const QString& url, QString* error) override
    {
        openedUrls << url;
        return answer(error);
    }
    bool launchApplication(const QString& application, const QStringList& filePaths,
                           QString* error) override
    {
        launches << (QStringList{application} + filePaths);
        return answer(error);
    }
    bool answer(QString* error)
    {
        if (error) {
            *error = failWith;
        }
        return failWith.isEmpty();
    }
    QStringList openedUrls;
    QList<QStringList> launches;
    QString failWith;
};

// GLib reads the data folder once per process, so the test Trash is chosen before anything
// asks GLib for it, and nothing reaches the user's own Trash.
QString trashDataHome()
{
    static QTemporaryDir dir;
    static const bool set = [] {
        qputenv("XDG_DATA_HOME", (dir.path() + QStringLiteral("/data")).toUtf8());
        return QDir().mkpath(dir.path() + QStringLiteral("/data"));
    }();
    Q_UNUSED(set);
    return dir.path();
}
const QString TrashRoot = trashDataHome();

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
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
}

bool processGone(qint64 pid)
{
    if (::kill(static_cast<pid_t>(pid), 0) != 0) {
        return true;
    }
    // A zombie that no one has reaped yet no longer runs.
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    return stat.open(QIODevice::ReadOnly) && stat.readAll().contains(") Z ");
}

// A private home, fake presenters and launcher, a fresh runner, and a count of the
// command-line notifications each run posts.
class BuiltInTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        m_engine = std::make_unique<TestEngine>(launcher);
        runner = std::make_shared<BuiltInActionRunner>(&engine().builtInContext);
        m_tokens << engine().distributed.addObserver(CmdLineNotifications::Finish, nullptr,
                                                     [this](const Notification&) { ++finishes; });
        m_tokens << engine().distributed.addObserver(
            CmdLineNotifications::Response, nullptr, [this](const Notification& note) {
                responses << note.userInfo.value(QStringLiteral("response")).toString();
            });
    }
    void TearDown() override
    {
        for (int token : std::as_const(m_tokens)) {
            engine().distributed.removeObserver(token);
        }
        runner.reset();
        spin(50);
        m_engine.reset();
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
        return m_engine->home().writeFile(relativePath, contents);
    }
    QString path(const QString& relative) const
    {
        return m_engine->home().path() + u'/' + relative;
    }
    FakeDesktopServices& desktop() { return m_engine->desktop(); }
    FakeWindowPresenter& windows() { return m_engine->windows(); }
    Engine& engine() { return m_engine->engine(); }
    QStringList bodies()
    {
        QStringList bodies;
        for (const UserNotification& notification : desktop().notifications) {
            bodies << notification.body;
        }
        return bodies;
    }
    bool waitForIdle(int timeoutMs = 10000)
    {
        return waitUntil([this] { return runner->runningBuiltInActions().isEmpty(); }, timeoutMs);
    }

    std::shared_ptr<FakeLauncher> launcher = std::make_shared<FakeLauncher>();
    std::shared_ptr<BuiltInActionRunner> runner;
    int finishes = 0;
    QStringList responses;

private:
    std::unique_ptr<TestEngine> m_engine;
    QList<int> m_tokens;
};

// --- Framework

class ResultAction : public BuiltInAction {
public:
    void runWithClick() override
    {
        returnResult(QStringLiteral("https://example.com/shared"), false);
        finish();
        finish(); // a second call must change nothing
    }
};

TEST_F(BuiltInTest, ResultGoesToClipboardResponseAndRecentItemsAndRunFinishesOnce)
{
    engine().recentItems.clear();
    ResultAction result;
    result.setUp(engine().builtInContext, {},
                 action(QStringLiteral("Uploader"), {}, QStringLiteral("Long name")), {});
    int completions = 0;
    result.completion = [&completions] { ++completions; };
    result.runWithClick();
    EXPECT_EQ(desktop().clipboard, QStringList{QStringLiteral("url:https://example.com/shared")});
    EXPECT_EQ(responses, QStringList{QStringLiteral("https://example.com/shared")});
    ASSERT_EQ(engine().recentItems.items().size(), 1);
    EXPECT_EQ(engine().recentItems.items().first().title,
              QStringLiteral("Long name - https://example.com/shared"));
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, RunnerClosesTheGridAndTracksEachRunUntilItFinishes)
{
    const QString script = writeFile(QStringLiteral("s/wait.sh"), "#!/bin/sh\nsleep 0.5\n");
    BuiltInAction* first = click(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}});
    BuiltInAction* second =
        drop(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}}, {script});
    ASSERT_TRUE(first && second && first != second);
    EXPECT_EQ(runner->runningBuiltInActions(), (QList<BuiltInAction*>{first, second}));
    EXPECT_EQ(windows().gridClosed, 2);
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(finishes, 2);

    int completions = 0;
    EXPECT_EQ(runner->runActionWithClickWithGridAction(action(QStringLiteral("Nope")),
                                                       [&completions] { ++completions; }),
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
    engine().debugConsole.clear();
    int row = 0;
    for (const auto& [script, expected] : rows) {
        desktop().notifications.clear();
        QVariantMap variables;
        if (script) {
            const QString name = QStringLiteral("s%1.sh").arg(++row);
            variables.insert(QStringLiteral("path"),
                             *script ? writeFile(name, script) : path(QStringLiteral("gone.sh")));
        }
        click(QStringLiteral("Run Script"), variables);
        ASSERT_TRUE(waitForIdle());
        EXPECT_EQ(bodies(), QStringList{QString::fromUtf8(expected)});
    }
    EXPECT_EQ(finishes, int(std::size(rows)));
    // The failing script's error output is shown in red in the console.
    bool redError = false;
    for (const DebugConsoleController::Run& run : engine().debugConsole.runs()) {
        redError |= run.colour == DebugConsoleController::Colour::Red &&
                    run.text.contains(QStringLiteral("trouble"));
    }
    EXPECT_TRUE(redError);
    EXPECT_TRUE(engine().debugConsole.text().endsWith(QStringLiteral("\n[Task completed]\n")));
}

TEST_F(BuiltInTest, RunScriptGetsDroppedFilesInOrderWithItsEnvironment)
{
    const QString record = path(QStringLiteral("record.txt"));
    const QString script = writeFile(
        QStringLiteral("scripts/show.sh"),
        "#!/bin/sh\nfor a in \"$@\"; do echo \"arg=$a\"; done > \"$RECORD\"\n"
        "echo \"$SKELVO_INPUT_TYPE:$SKELVO_EVENT:$SKELVO_ACTION_NAME:$SKELVO_KEY_MODIFIER\" >> "
        "\"$RECORD\"\necho \"$SKELVO_TMP_FOLDER:$(pwd)\" >> \"$RECORD\"\n"
        "if read line; then echo stdin=data >> \"$RECORD\"; else echo stdin=empty >> "
        "\"$RECORD\"; fi\n");
    qputenv("RECORD", record.toUtf8());
    const QStringList dropped{writeFile(QStringLiteral("in/c.txt"), "c"),
                              writeFile(QStringLiteral("in/a b.txt"), "a"),
                              writeFile(QStringLiteral("in/b.txt"), "b")};
    runner->runActionWithDragWithGridAction(action(QStringLiteral("Run Script"),
                                                   {{QStringLiteral("path"), script}},
                                                   QStringLiteral("My Script")),
                                            urls(dropped), QStringLiteral("option"));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(readLines(record),
              (QStringList{QStringLiteral("arg=") + dropped[0], QStringLiteral("arg=") + dropped[1],
                           QStringLiteral("arg=") + dropped[2],
                           QStringLiteral("files:dragged:My Script:option"),
                           QDir::tempPath() + u':' + QFileInfo(script).absolutePath(),
                           QStringLiteral("stdin=empty")}));
    EXPECT_EQ(bodies(), QStringList{QStringLiteral("My Script completed.")});

    click(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}});
    ASSERT_TRUE(waitForIdle());
    qunsetenv("RECORD");
    EXPECT_EQ(readLines(record).value(0), QStringLiteral("none:clicked:Run Script:"));
}

TEST_F(BuiltInTest, CancelEndsTheScriptsProcessGroupANormalEndDoesNot)
{
    const QString pids = path(QStringLiteral("pids.txt"));
    const auto script = [&](const char* name, const QByteArray& tail) {
        return writeFile(QString::fromLatin1(name),
                         QByteArray("#!/bin/sh\nsleep 300 &\necho $! >> '") + pids.toUtf8() +
                             "'\n" + tail);
    };
    auto* cancelled = static_cast<RunScriptAction*>(
        click(QStringLiteral("Run Script"),
              {{QStringLiteral("path"),
                script("long.sh", "echo $$ >> '" + pids.toUtf8() + "'\nwait\n")}}));
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
    click(QStringLiteral("Run Script"), {{QStringLiteral("path"), script("background.sh", "")}});
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
    const QString file = writeFile(QStringLiteral("doc/report 1.txt"), "hi");
    const QString gone = path(QStringLiteral("gone.html"));
    click(QStringLiteral("Open URL"), {{QStringLiteral("url"), QStringLiteral("example.org")}});
    click(QStringLiteral("Open URL"),
          {{QStringLiteral("url"), QString::fromUtf8(QUrl::fromLocalFile(gone).toEncoded())}});
    click(QStringLiteral("Open File"), {{QStringLiteral("path"), file}});
    click(QStringLiteral("Open File"), {{QStringLiteral("path"), file + QStringLiteral(".gone")}});
    const QString app = writeFile(QStringLiteral("apps/viewer.desktop"), "[Desktop Entry]\n");
    const QVariantMap chosenApp{{QStringLiteral("path"), app}};
    click(QStringLiteral("Open Application"), chosenApp);
    drop(QStringLiteral("Open Application"), chosenApp, {file, app});
    click(QStringLiteral("Move to Trash"));
    ASSERT_TRUE(waitForIdle());
    launcher->failWith = QStringLiteral("no such application");
    click(QStringLiteral("Open Application"), chosenApp);
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(launcher->openedUrls,
              (QStringList{QStringLiteral("https://example.org"),
                           QString::fromUtf8(QUrl::fromLocalFile(file).toEncoded()),
                           QStringLiteral("trash:///")}));
    EXPECT_EQ(launcher->launches, (QList<QStringList>{{app}, {app, file, app}, {app}}));
    EXPECT_EQ(bodies(),
              (QStringList{QStringLiteral("'") + gone + QStringLiteral("' does not exist."),
                           QStringLiteral("The selected file could not be found."),
                           QStringLiteral("Error opening application: no such "
                                          "application")}));
    EXPECT_EQ(finishes, 8);
}

TEST(GioLauncherTest, LaunchesADesktopEntryWithTheFiles)
{
    ensureCoreApplication();
    TestHome home;
    const QString record = home.path() + QStringLiteral("/launched.txt");
    const QString entry = home.writeFile(
        QStringLiteral("apps/recorder.desktop"),
        QByteArray("[Desktop Entry]\nType=Application\nName=Recorder\nExec=/bin/sh -c 'printf "
                   "\"%%s\\\\n\" \"$@\" > ") +
            record.toUtf8() + "' recorder %F\n");
    const QStringList files{home.writeFile(QStringLiteral("one.txt"), "1"),
                            home.writeFile(QStringLiteral("two.txt"), "2")};
    GioLauncher launcher;
    QString error;
    ASSERT_TRUE(launcher.launchApplication(entry, files, &error)) << error.toStdString();
    ASSERT_TRUE(waitUntil([&] { return readLines(record).size() == 2; }, 5000));
    EXPECT_EQ(readLines(record), files);
    EXPECT_FALSE(
        launcher.launchApplication(home.path() + QStringLiteral("/none.desktop"), {}, &error));
}

// --- Move to Trash

TEST_F(BuiltInTest, MoveToTrashLeavesEntriesThatGioListsAndReportsFailures)
{
    if (QStandardPaths::findExecutable(QStringLiteral("gio")).isEmpty()) {
        GTEST_SKIP() << "gio (libglib2.0-bin) is not installed";
    }
    QDir().mkpath(TrashRoot + QStringLiteral("/drop/folder"));
    QFile note(TrashRoot + QStringLiteral("/drop/note.txt"));
    ASSERT_TRUE(note.open(QIODevice::WriteOnly));
    note.close();
    const QStringList dropped{TrashRoot + QStringLiteral("/drop/note.txt"),
                              TrashRoot + QStringLiteral("/drop/folder")};
    drop(QStringLiteral("Move to Trash"), {}, dropped);
    ASSERT_TRUE(waitForIdle());
    EXPECT_TRUE(desktop().notifications.isEmpty());
    // Listing goes through the desktop's trash:// backend, which needs a session bus.
    QProcess gio;
    const bool ownBus =
        qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS") &&
        !QStandardPaths::findExecutable(QStringLiteral("dbus-run-session")).isEmpty();
    const QStringList list{QStringLiteral("gio"), QStringLiteral("trash"),
                           QStringLiteral("--list")};
    if (ownBus) {
        gio.start(QStringLiteral("dbus-run-session"), QStringList{QStringLiteral("--")} + list);
    } else {
        gio.start(list.first(), list.mid(1));
    }
    ASSERT_TRUE(gio.waitForFinished(10000));
    const QString listing = QString::fromUtf8(gio.readAllStandardOutput());
    for (const QString& path : dropped) {
        EXPECT_FALSE(QFileInfo::exists(path)) << path.toStdString();
        EXPECT_TRUE(listing.contains(path)) << listing.toStdString();
    }

    drop(QStringLiteral("Move to Trash"), {}, {path(QStringLiteral("nothing-here"))});
    ASSERT_TRUE(waitForIdle());
    ASSERT_EQ(desktop().notifications.size(), 1);
    EXPECT_EQ(desktop().notifications.first().title, QStringLiteral("Move to Trash Failed"));
    EXPECT_EQ(finishes, 2);
}

// --- Run Shortcut and Run AppleScript

TEST_F(BuiltInTest, RunShortcutChecksTheNameBeforeRunning)
{
    if (!RunShortcutAction::commandPath().isEmpty()) {
        GTEST_SKIP() << "this system has its own shortcuts command";
    }
    const QVariantMap makeGif{{QStringLiteral("shortcut_name"), QStringLiteral("Make GIF")}};
    runner->runActionWithDragWithGridAction(action(QStringLiteral("Run Shortcut"), makeGif),
                                            QStringLiteral("some text"), QString());
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(bodies(), QStringList{QStringLiteral(
                            "Error: Could not retrieve available shortcuts. Please try again.")});

    // A stand-in `shortcuts` on PATH that lists two shortcuts and records runs.
    desktop().notifications.clear();
    const QString record = path(QStringLiteral("runs.txt"));
    const QString tool = writeFile(
        QStringLiteral("bin/shortcuts"),
        QByteArray("#!/bin/sh\nif [ \"$1\" = list ]; then printf 'Make GIF\\nResize\\n'; exit 0; "
                   "fi\necho \"$@\" >> '") +
            record.toUtf8() + "'\n");
    QFile::setPermissions(tool, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QByteArray systemPath = qgetenv("PATH");
    qputenv("PATH", path(QStringLiteral("bin")).toUtf8() + ':' + systemPath);
    const QString file = writeFile(QStringLiteral("in.png"), "x");
    drop(QStringLiteral("Run Shortcut"), {{QStringLiteral("shortcut_name"), QStringLiteral("Old")}},
         {file});
    drop(QStringLiteral("Run Shortcut"), makeGif, {file});
    const bool idle = waitForIdle();
    qputenv("PATH", systemPath);
    ASSERT_TRUE(idle);
    EXPECT_EQ(bodies(), QStringList{QStringLiteral("Error: Old could not be found.\nThe shortcut "
                                                   "may have been renamed or deleted.")});
    EXPECT_EQ(readLines(record), QStringList{QStringLiteral("run Make GIF --input-path ") + file});
    EXPECT_EQ(finishes, 3);
}

TEST_F(BuiltInTest, RunAppleScriptWithoutOsascriptFails)
{
    if (!RunAppleScriptAction::interpreterPath().isEmpty()) {
        GTEST_SKIP() << "this system has osascript";
    }
    click(QStringLiteral("Run AppleScript"),
          {{QStringLiteral("applescript"), QStringLiteral("display dialog \"hi\"")}});
    ASSERT_TRUE(waitForIdle());
    ASSERT_EQ(desktop().notifications.size(), 1);
    EXPECT_EQ(desktop().notifications.first().title, QStringLiteral("Run AppleScript Error"));
    EXPECT_EQ(finishes, 1);
}

// --- The image actions over the image engine

TEST_F(BuiltInTest, ImageActionsWriteWhereAskedOrSayWhyNot)
{
    // A 2×1 PNG, so no image library is needed to make one.
    const QString png = writeFile(
        QStringLiteral("img/photo.png"),
        QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAIAAAABCAIAAAB7QOjdAAAADUlEQVR4nGP4zwAE/"
                               "wEHAAH/4iOeWQAAAABJRU5ErkJggg=="));
    QStringList toDropBar;
    engine().dropbarSink.setAdder([&](const QStringList& paths) { toDropBar << paths; });
    const QString chosen = path(QStringLiteral("chosen"));
    QDir().mkpath(chosen);
    const auto convert = [&](const char* format, const char* folderOption) {
        drop(QStringLiteral("Convert Images"),
             {{QStringLiteral("output_format"), QString::fromLatin1(format)},
              {QStringLiteral("keep_originals"), QStringLiteral("1")},
              {QStringLiteral("output_folder_option"), QString::fromLatin1(folderOption)}},
             {png});
        return waitForIdle(30000);
    };
    ASSERT_TRUE(convert("jpg", "0"));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("img/photo.jpg"))));
    EXPECT_TRUE(QFileInfo::exists(png));
    windows().setNextFolder(chosen);
    ASSERT_TRUE(convert("webp", "1"));
    EXPECT_TRUE(QFileInfo::exists(chosen + QStringLiteral("/photo.webp")));
    EXPECT_TRUE(toDropBar.isEmpty());
    ASSERT_TRUE(convert("gif", "3"));
    ASSERT_EQ(toDropBar.size(), 1);
    EXPECT_TRUE(toDropBar.first().endsWith(QStringLiteral("/photo.gif")));
    EXPECT_TRUE(QFileInfo(toDropBar.first()).path().contains(QStringLiteral("SkActionOutput-")));
    EXPECT_TRUE(QFileInfo::exists(toDropBar.first()));
    engine().dropbarSink.setAdder({});

    windows().setNextFolder(QString());
    ASSERT_TRUE(convert("png", "1"));
    drop(QStringLiteral("Resize Images"), {{QStringLiteral("output_width"), QStringLiteral("1")}},
         {writeFile(QStringLiteral("notes.txt"), "words")});
    ASSERT_TRUE(waitForIdle(30000));
    EXPECT_EQ(bodies(), (QStringList{QStringLiteral("Conversion Successful"),
                                     QStringLiteral("Conversion Successful"),
                                     QStringLiteral("Conversion Successful"),
                                     QStringLiteral("You must choose a destination folder"),
                                     QStringLiteral("No images found")}));
    EXPECT_EQ(finishes, 5);
}

} // namespace
