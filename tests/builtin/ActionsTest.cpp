#include "builtin/BuiltInActionTaskBridge.h"
#include "builtin/OpenUrlAction.h"
#include "builtin/RunAppleScriptAction.h"
#include "builtin/RunScriptAction.h"
#include "builtin/RunShortcutAction.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/DropbarSink.h"
#include "tasks/RecentItems.h"
#include "tasks/TaskStatus.h"
#include "tasks/TaskStatusController.h"
#include "tests/builtin/BuiltInTestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <csignal>

namespace {

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
    ActionInfo info;
    info.name = QStringLiteral("Uploader");
    auto action = std::make_unique<ResultAction>();
    action->setUp(engine().builtInContext, info,
                  gridAction(QStringLiteral("Uploader"), {},
                             QStringLiteral("An upload action with a very long name indeed")),
                  QString());
    int completions = 0;
    action->completion = [&completions] { ++completions; };
    action->runWithClick();
    EXPECT_EQ(desktop().clipboard, QStringList{QStringLiteral("url:https://example.com/shared")});
    EXPECT_EQ(responses, QStringList{QStringLiteral("https://example.com/shared")});
    ASSERT_EQ(engine().recentItems.items().size(), 1);
    EXPECT_EQ(engine().recentItems.items().first().title,
              QStringLiteral("An upload action with a very long name indeed - "
                             "https://example.com/shared"));
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, RunnerClosesTheGridAndTracksTheInstanceUntilItFinishes)
{
    const QString script = writeFile(QStringLiteral("s/wait.sh"), "#!/bin/sh\nsleep 0.5\n");
    BuiltInAction* first = runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}}));
    BuiltInAction* second = runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}}),
        urls({script}), QString());
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(runner->runningBuiltInActions(), (QList<BuiltInAction*>{first, second}));
    EXPECT_EQ(windows().gridClosed, 2);
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(finishes, 2);
}

TEST_F(BuiltInTest, AnUnknownBuiltInStartsNothingButCompletes)
{
    int completions = 0;
    EXPECT_EQ(runner->runActionWithClickWithGridAction(gridAction(QStringLiteral("Nope")),
                                                       [&completions] { ++completions; }),
              nullptr);
    EXPECT_EQ(completions, 1);
    EXPECT_TRUE(runner->runningBuiltInActions().isEmpty());
}

// --- Run Script

TEST_F(BuiltInTest, RunScriptWithoutAScriptFails)
{
    runner->runActionWithClickWithGridAction(gridAction(QStringLiteral("Run Script")));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral("No script has been selected for this action.")});
    EXPECT_EQ(desktop().notifications.first().title,
              QStringLiteral("Run Script configuration error"));
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, RunScriptWithAMissingScriptFails)
{
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"),
                   {{QStringLiteral("path"), homePath() + QStringLiteral("/gone.sh")}}));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral("The selected script could not be found.")});
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, RunScriptRefusesAMissingInterpreterAndAMissingShebang)
{
    const QString odd = writeFile(QStringLiteral("odd.sh"), "#!/no/such/interpreter -x\necho\n");
    const QString plain = writeFile(QStringLiteral("plain.sh"), "echo hello\n");
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), odd}}));
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), plain}}));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(notificationBodies(),
              (QStringList{QStringLiteral("The interpreter at /no/such/interpreter could not be "
                                          "executed."),
                           QStringLiteral("The selected script needs a shebang on its first line, "
                                          "such as #!/bin/zsh or #!/usr/bin/env python3.")}));
    EXPECT_EQ(finishes, 2);
}

TEST_F(BuiltInTest, RunScriptExitingWithTwoFailsWithItsStatus)
{
    const QString script =
        writeFile(QStringLiteral("fail.sh"), "#!/bin/sh\necho out\necho trouble >&2\nexit 2\n");
    engine().debugConsole.clear();
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}}));
    EXPECT_EQ(engine().taskStatuses.taskStatuses().last()->statusText(),
              QStringLiteral("Running Run Script..."));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral(
                  "Script exited with status 2. Check the Action Console for details.")});
    EXPECT_EQ(desktop().notifications.first().title, QStringLiteral("Run Script Failed"));
    EXPECT_EQ(finishes, 1);
    const QString console = engine().debugConsole.text();
    EXPECT_TRUE(
        console.contains(QStringLiteral("\n[Launching script with command line: \"/bin/sh\" \"") +
                         script + QStringLiteral("\"]")));
    EXPECT_TRUE(console.contains(QStringLiteral("out\n")));
    EXPECT_TRUE(console.endsWith(QStringLiteral("\n[Task completed]\n")));
    bool redError = false;
    for (const DebugConsoleController::Run& run : engine().debugConsole.runs()) {
        redError |= run.colour == DebugConsoleController::Colour::Red &&
                    run.text.contains(QStringLiteral("trouble"));
    }
    EXPECT_TRUE(redError);
}

TEST_F(BuiltInTest, RunScriptGetsThreeDroppedFilesInOrderWithItsEnvironment)
{
    const QString record = homePath() + QStringLiteral("/record.txt");
    const QString script = writeFile(
        QStringLiteral("scripts/show.sh"),
        "#!/bin/sh\nfor a in \"$@\"; do echo \"arg=$a\"; done > \"$RECORD\"\n"
        "echo \"type=$SKELVO_INPUT_TYPE\" >> \"$RECORD\"\necho \"event=$SKELVO_EVENT\" >> "
        "\"$RECORD\"\necho \"name=$SKELVO_ACTION_NAME\" >> \"$RECORD\"\n"
        "echo \"modifier=$SKELVO_KEY_MODIFIER\" >> \"$RECORD\"\n"
        "echo \"tmp=$SKELVO_TMP_FOLDER\" >> \"$RECORD\"\necho \"cwd=$(pwd)\" >> \"$RECORD\"\n"
        "if read line; then echo stdin=data >> \"$RECORD\"; else echo stdin=empty >> "
        "\"$RECORD\"; fi\n");
    qputenv("RECORD", record.toUtf8());
    const QStringList dropped{writeFile(QStringLiteral("in/c.txt"), "c"),
                              writeFile(QStringLiteral("in/a b.txt"), "a"),
                              writeFile(QStringLiteral("in/b.txt"), "b")};
    runner->runActionWithDragWithGridAction(gridAction(QStringLiteral("Run Script"),
                                                       {{QStringLiteral("path"), script}},
                                                       QStringLiteral("My Script")),
                                            urls(dropped), QStringLiteral("option"));
    ASSERT_TRUE(waitForIdle());
    qunsetenv("RECORD");
    EXPECT_EQ(
        readLines(record),
        (QStringList{QStringLiteral("arg=") + dropped.at(0), QStringLiteral("arg=") + dropped.at(1),
                     QStringLiteral("arg=") + dropped.at(2), QStringLiteral("type=files"),
                     QStringLiteral("event=dragged"), QStringLiteral("name=My Script"),
                     QStringLiteral("modifier=option"), QStringLiteral("tmp=") + QDir::tempPath(),
                     QStringLiteral("cwd=") + QFileInfo(script).absolutePath(),
                     QStringLiteral("stdin=empty")}));
    EXPECT_EQ(notificationBodies(), QStringList{QStringLiteral("My Script completed.")});
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, RunScriptClickedHasNoInput)
{
    const QString record = homePath() + QStringLiteral("/click.txt");
    const QString script =
        writeFile(QStringLiteral("click.sh"),
                  QByteArray("#!/bin/sh\necho \"$#:$SKELVO_INPUT_TYPE:$SKELVO_EVENT\" > '") +
                      record.toUtf8() + "'\n");
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}}));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(readLines(record), QStringList{QStringLiteral("0:none:clicked")});
}

TEST_F(BuiltInTest, CancellingRunScriptEndsItsWholeProcessGroup)
{
    const QString pids = homePath() + QStringLiteral("/pids.txt");
    const QString script =
        writeFile(QStringLiteral("long.sh"), QByteArray("#!/bin/sh\nsleep 300 &\necho $! > '") +
                                                 pids.toUtf8() + "'\necho $$ >> '" + pids.toUtf8() +
                                                 "'\nwait\n");
    BuiltInAction* action = runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}}));
    ASSERT_TRUE(waitUntil([&] { return readLines(pids).size() == 2; }));
    TaskStatus* row = action->builtInActionTaskBridge()->taskStatus();
    ASSERT_NE(row, nullptr);
    row->cancel();
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(finishes, 1);
    for (const QString& pid : readLines(pids)) {
        EXPECT_TRUE(waitUntil([&] { return processGone(pid.toLongLong()); }, 3000))
            << pid.toStdString();
    }
}

TEST_F(BuiltInTest, RunScriptLeavesWhatItStartedRunningAfterANormalEnd)
{
    const QString pids = homePath() + QStringLiteral("/background.txt");
    const QString script =
        writeFile(QStringLiteral("background.sh"),
                  QByteArray("#!/bin/sh\nsleep 30 &\necho $! > '") + pids.toUtf8() + "'\n");
    auto* action = static_cast<RunScriptAction*>(runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run Script"), {{QStringLiteral("path"), script}})));
    ASSERT_NE(action, nullptr);
    // The parent made the group too: a cancel at once would reach it.
    const auto group = static_cast<pid_t>(action->processId());
    EXPECT_EQ(::getpgid(group), group);
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(notificationBodies(), QStringList{QStringLiteral("Run Script completed.")});
    ASSERT_EQ(readLines(pids).size(), 1);
    const qint64 sleeper = readLines(pids).first().toLongLong();
    // A kill takes a moment to land: give it one.
    EXPECT_FALSE(waitUntil([&] { return processGone(sleeper); }, 1000));
    ::kill(static_cast<pid_t>(sleeper), SIGKILL);
}

// --- Open URL, Open File, Open Application

TEST(OpenUrlResolver, CompletesAndRefusesAsDocumented)
{
    EXPECT_EQ(OpenUrlAction::resolve(QStringLiteral(" example.com/a?b=1 ")),
              QUrl(QStringLiteral("https://example.com/a?b=1")));
    EXPECT_EQ(OpenUrlAction::resolve(QStringLiteral("localhost:8080/x")),
              QUrl(QStringLiteral("https://localhost:8080/x")));
    EXPECT_EQ(OpenUrlAction::resolve(QStringLiteral("slack://open?team=T1")),
              QUrl(QStringLiteral("slack://open?team=T1")));
    EXPECT_EQ(OpenUrlAction::resolve(QStringLiteral("mailto:someone@example.com")),
              QUrl(QStringLiteral("mailto:someone@example.com")));
    EXPECT_EQ(OpenUrlAction::resolve(QStringLiteral("/tmp/page.html")),
              QUrl::fromLocalFile(QStringLiteral("/tmp/page.html")));
    EXPECT_FALSE(OpenUrlAction::resolve(QStringLiteral("")));
    EXPECT_FALSE(OpenUrlAction::resolve(QStringLiteral("two words")));
    EXPECT_FALSE(OpenUrlAction::resolve(QStringLiteral("javascript:alert(1)")));
    EXPECT_FALSE(OpenUrlAction::resolve(QStringLiteral("data:text/html,hi")));
    EXPECT_FALSE(OpenUrlAction::resolve(QStringLiteral("-bad-.com")));
}

TEST_F(BuiltInTest, OpenUrlOpensTheResolvedUrl)
{
    runner->runActionWithClickWithGridAction(gridAction(
        QStringLiteral("Open URL"), {{QStringLiteral("url"), QStringLiteral("example.org")}}));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(launcher->openedUrls, QStringList{QStringLiteral("https://example.org")});
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, OpenUrlWithAMissingFileFailsWithoutOpening)
{
    const QString gone = homePath() + QStringLiteral("/gone.html");
    runner->runActionWithClickWithGridAction(gridAction(
        QStringLiteral("Open URL"),
        {{QStringLiteral("url"), QString::fromUtf8(QUrl::fromLocalFile(gone).toEncoded())}}));
    ASSERT_TRUE(waitForIdle());
    EXPECT_TRUE(launcher->openedUrls.isEmpty());
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral("'") + gone + QStringLiteral("' does not exist.")});
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, OpenFileOpensTheChosenFile)
{
    const QString file = writeFile(QStringLiteral("doc/report 1.txt"), "hi");
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Open File"), {{QStringLiteral("path"), file}}));
    runner->runActionWithClickWithGridAction(gridAction(
        QStringLiteral("Open File"), {{QStringLiteral("path"), file + QStringLiteral(".gone")}}));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(launcher->openedUrls,
              QStringList{QString::fromUtf8(QUrl::fromLocalFile(file).toEncoded())});
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral("The selected file could not be found.")});
    EXPECT_EQ(finishes, 2);
}

TEST_F(BuiltInTest, OpenApplicationLaunchesWithTheDroppedFilesInOneRequest)
{
    const QString app = writeFile(QStringLiteral("apps/viewer.desktop"), "[Desktop Entry]\n");
    const QStringList files{writeFile(QStringLiteral("x.png"), "x"),
                            writeFile(QStringLiteral("y.png"), "y")};
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Open Application"), {{QStringLiteral("path"), app}}));
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Open Application"), {{QStringLiteral("path"), app}}),
        urls(files), QString());
    launcher->failWith = QStringLiteral("no such application");
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Open Application"), {{QStringLiteral("path"), app}}));
    ASSERT_TRUE(waitForIdle());
    ASSERT_EQ(launcher->launches.size(), 3);
    EXPECT_EQ(launcher->launches.at(0).application, app);
    EXPECT_TRUE(launcher->launches.at(0).files.isEmpty());
    EXPECT_EQ(launcher->launches.at(1).files, files);
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral("Error opening application: no such application")});
    EXPECT_EQ(finishes, 3);
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

QString trashDataHome()
{
    // GLib reads the data folder once per process, so one is chosen for the whole program.
    static QTemporaryDir dir;
    static const bool set = [] {
        qputenv("XDG_DATA_HOME", (dir.path() + QStringLiteral("/data")).toUtf8());
        return QDir().mkpath(dir.path() + QStringLiteral("/data"));
    }();
    Q_UNUSED(set);
    return dir.path();
}

// Before anything in the program asks GLib for the data folder, so nothing reaches the
// user's own Trash.
const QString TrashRoot = trashDataHome();

TEST_F(BuiltInTest, MoveToTrashLeavesTrashInfoEntriesThatGioLists)
{
    const QString root = trashDataHome();
    if (QStandardPaths::findExecutable(QStringLiteral("gio")).isEmpty()) {
        GTEST_SKIP() << "gio (libglib2.0-bin) is not installed";
    }
    QDir().mkpath(root + QStringLiteral("/drop/folder"));
    QFile file(root + QStringLiteral("/drop/note.txt"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    const QStringList dropped{root + QStringLiteral("/drop/note.txt"),
                              root + QStringLiteral("/drop/folder")};
    runner->runActionWithDragWithGridAction(gridAction(QStringLiteral("Move to Trash")),
                                            urls(dropped), QString());
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(finishes, 1);
    EXPECT_TRUE(desktop().notifications.isEmpty());
    for (const QString& path : dropped) {
        EXPECT_FALSE(QFileInfo::exists(path)) << path.toStdString();
    }
    const QString trash = root + QStringLiteral("/data/Trash");
    EXPECT_TRUE(QFileInfo::exists(trash + QStringLiteral("/info/note.txt.trashinfo")));
    EXPECT_TRUE(QFileInfo::exists(trash + QStringLiteral("/info/folder.trashinfo")));

    // Listing goes through the desktop's trash:// backend, which needs a session bus.
    QProcess gio;
    const bool ownBus =
        qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS") &&
        !QStandardPaths::findExecutable(QStringLiteral("dbus-run-session")).isEmpty();
    if (ownBus) {
        gio.start(QStringLiteral("dbus-run-session"),
                  {QStringLiteral("--"), QStringLiteral("gio"), QStringLiteral("trash"),
                   QStringLiteral("--list")});
    } else {
        gio.start(QStringLiteral("gio"), {QStringLiteral("trash"), QStringLiteral("--list")});
    }
    ASSERT_TRUE(gio.waitForFinished(10000));
    const QString listing = QString::fromUtf8(gio.readAllStandardOutput());
    for (const QString& path : dropped) {
        EXPECT_TRUE(listing.contains(path)) << listing.toStdString();
    }
}

TEST_F(BuiltInTest, MoveToTrashReportsWhatCouldNotBeTrashed)
{
    trashDataHome();
    runner->runActionWithDragWithGridAction(gridAction(QStringLiteral("Move to Trash")),
                                            urls({homePath() + QStringLiteral("/nothing-here")}),
                                            QString());
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(desktop().notifications.size(), 1);
    EXPECT_EQ(desktop().notifications.first().title, QStringLiteral("Move to Trash Failed"));
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, ClickingMoveToTrashOpensTheTrash)
{
    runner->runActionWithClickWithGridAction(gridAction(QStringLiteral("Move to Trash")));
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(launcher->openedUrls, QStringList{QStringLiteral("trash:///")});
    EXPECT_EQ(finishes, 1);
}

// --- Run Shortcut and Run AppleScript where their commands are missing

TEST_F(BuiltInTest, RunShortcutWithoutTheShortcutsCommandFails)
{
    if (!RunShortcutAction::commandPath().isEmpty()) {
        GTEST_SKIP() << "this system has a shortcuts command";
    }
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Run Shortcut"),
                   {{QStringLiteral("shortcut_name"), QStringLiteral("Make GIF")}}),
        QStringLiteral("some text"), QString());
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral(
                  "Error: Could not retrieve available shortcuts. Please try again.")});
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, RunShortcutChecksTheNameBeforeRunning)
{
    // A stand-in `shortcuts` on PATH that lists two shortcuts and records runs.
    const QString record = homePath() + QStringLiteral("/runs.txt");
    const QString bin = homePath() + QStringLiteral("/bin");
    const QString tool = writeFile(
        QStringLiteral("bin/shortcuts"),
        QByteArray("#!/bin/sh\nif [ \"$1\" = list ]; then printf 'Make GIF\\nResize\\n'; exit 0; "
                   "fi\necho \"$@\" >> '") +
            record.toUtf8() + "'\n");
    QFile::setPermissions(tool,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    if (RunShortcutAction::commandPath() == QStringLiteral("/usr/bin/shortcuts")) {
        GTEST_SKIP() << "this system has its own shortcuts command";
    }
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", bin.toUtf8() + ':' + path);
    const QString file = writeFile(QStringLiteral("in.png"), "x");
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Run Shortcut"),
                   {{QStringLiteral("shortcut_name"), QStringLiteral("Old Name")}}),
        urls({file}), QString());
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Run Shortcut"),
                   {{QStringLiteral("shortcut_name"), QStringLiteral("Make GIF")}}),
        urls({file}), QString());
    const bool idle = waitForIdle();
    qputenv("PATH", path);
    ASSERT_TRUE(idle);
    EXPECT_EQ(notificationBodies(),
              QStringList{QStringLiteral("Error: Old Name could not be found.\nThe shortcut may "
                                         "have been renamed or deleted.")});
    EXPECT_EQ(readLines(record), QStringList{QStringLiteral("run Make GIF --input-path ") + file});
    EXPECT_EQ(finishes, 2);
}

TEST_F(BuiltInTest, RunAppleScriptWithoutOsascriptFails)
{
    if (!RunAppleScriptAction::interpreterPath().isEmpty()) {
        GTEST_SKIP() << "this system has osascript";
    }
    runner->runActionWithClickWithGridAction(
        gridAction(QStringLiteral("Run AppleScript"),
                   {{QStringLiteral("applescript"), QStringLiteral("display dialog \"hi\"")}}));
    ASSERT_TRUE(waitForIdle());
    ASSERT_EQ(desktop().notifications.size(), 1);
    EXPECT_EQ(desktop().notifications.first().title, QStringLiteral("Run AppleScript Error"));
    EXPECT_EQ(finishes, 1);
}

} // namespace

// --- The image actions over the image engine

// A 2×1 PNG, so no image library is needed to make one.
const QByteArray TinyPng =
    QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAIAAAABCAIAAAB7QOjdAAAADUlEQVR4nGP4zwAE/"
                           "wEHAAH/4iOeWQAAAABJRU5ErkJggg==");

TEST_F(BuiltInTest, ConvertImagesWritesNextToTheOriginalAndKeepsItWhenAsked)
{
    const QString png = writeFile(QStringLiteral("img/photo.png"), TinyPng);
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Convert Images"),
                   {{QStringLiteral("output_format"), QStringLiteral("jpg")},
                    {QStringLiteral("keep_originals"), QStringLiteral("1")},
                    {QStringLiteral("output_folder_option"), QStringLiteral("0")}}),
        urls({png}), QString());
    ASSERT_TRUE(waitForIdle(30000));
    EXPECT_EQ(notificationBodies(), QStringList{QStringLiteral("Conversion Successful")});
    EXPECT_TRUE(QFileInfo::exists(homePath() + QStringLiteral("/img/photo.jpg")));
    EXPECT_TRUE(QFileInfo::exists(png));
    EXPECT_EQ(finishes, 1);
}

TEST_F(BuiltInTest, ImageActionsReportMissingImagesAndAMissingFolderChoice)
{
    const QString text = writeFile(QStringLiteral("notes.txt"), "words");
    const QString png = writeFile(QStringLiteral("img/photo.png"), TinyPng);
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Resize Images"),
                   {{QStringLiteral("output_width"), QStringLiteral("1")}}),
        urls({text}), QString());
    windows().setNextFolder(QString());
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Resize Images"),
                   {{QStringLiteral("output_width"), QStringLiteral("1")},
                    {QStringLiteral("output_folder_option"), QStringLiteral("1")}}),
        urls({png}), QString());
    ASSERT_TRUE(waitForIdle(30000));
    EXPECT_EQ(notificationBodies(),
              (QStringList{QStringLiteral("No images found"),
                           QStringLiteral("You must choose a destination folder")}));
    EXPECT_EQ(finishes, 2);
}

TEST_F(BuiltInTest, ImageOutputsGoToTheChosenFolderOrToTheDropBar)
{
    QStringList dropped;
    engine().dropbarSink.setAdder([&](const QStringList& paths) { dropped << paths; });
    const QString png = writeFile(QStringLiteral("img/photo.png"), TinyPng);
    const QString chosen = homePath() + QStringLiteral("/chosen");
    QDir().mkpath(chosen);
    windows().setNextFolder(chosen);
    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Convert Images"),
                   {{QStringLiteral("output_format"), QStringLiteral("webp")},
                    {QStringLiteral("keep_originals"), QStringLiteral("1")},
                    {QStringLiteral("output_folder_option"), QStringLiteral("1")}}),
        urls({png}), QString());
    ASSERT_TRUE(waitForIdle(30000));
    EXPECT_TRUE(QFileInfo::exists(chosen + QStringLiteral("/photo.webp")));
    EXPECT_TRUE(dropped.isEmpty());

    runner->runActionWithDragWithGridAction(
        gridAction(QStringLiteral("Convert Images"),
                   {{QStringLiteral("output_format"), QStringLiteral("jpg")},
                    {QStringLiteral("keep_originals"), QStringLiteral("1")},
                    {QStringLiteral("output_folder_option"), QStringLiteral("3")}}),
        urls({png}), QString());
    ASSERT_TRUE(waitForIdle(30000));
    ASSERT_EQ(dropped.size(), 1);
    EXPECT_TRUE(dropped.first().endsWith(QStringLiteral("/photo.jpg")));
    EXPECT_TRUE(
        QFileInfo(dropped.first()).absolutePath().contains(QStringLiteral("SkActionOutput-")));
    EXPECT_TRUE(QFileInfo::exists(dropped.first()));
    EXPECT_EQ(finishes, 2);
    engine().dropbarSink.setAdder({});
}
