// The real application, headless in a private home, driven only through the real sk.
#include "cli/Commands.h"
#include "tests/support/HeadlessApp.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <csignal>
#include <gtest/gtest.h>

namespace {

class EndToEndTest : public WithHeadlessApp<EndToEndTest> {
protected:
    // Runs sk and checks that it ends with `status`.
    static SkResult sk(const QStringList& arguments, int status = 0)
    {
        const SkResult result = app->sk(arguments);
        EXPECT_EQ(result.status, status) << arguments.join(u' ') << "\n" << result.err;
        return result;
    }
};

TEST_F(EndToEndTest, GridsCategoriesAndACopyFilesActionThatRuns)
{
    EXPECT_EQ(sk({"create-grid", "Work"}).out, "Created grid 'Work'\n");
    EXPECT_EQ(sk({"switch-grid", "Work"}).out, "Switched to grid 'Work'\n");
    EXPECT_EQ(sk({"add-category", "--grid", "Work", "Files"}).out,
              "Added category 'Files' to grid 'Work'\n");
    QDir(app->path()).mkpath("out");
    sk({"add-action", "Copy Files", "--category", "Files", "--options", "path=out"});
    const QJsonArray listed = QJsonDocument::fromJson(sk({"list", "--json"}).out.toUtf8()).array();
    ASSERT_EQ(listed.size(), 1);
    EXPECT_EQ(listed[0]["category"].toString(), "Files");

    // Relative paths are taken from sk's working folder.
    app->writeFile("a.txt", "alpha");
    app->writeFile("docs/b.txt", "beta");
    EXPECT_EQ(sk({"run", "Copy Files", "a.txt", "docs"}).out, "Copied 2 items to out\n");
    EXPECT_TRUE(QFileInfo::exists(app->path("out/a.txt")));
    EXPECT_TRUE(QFileInfo::exists(app->path("out/docs/b.txt")));
    EXPECT_TRUE(QFileInfo::exists(app->path("a.txt")));
    sk({"switch-grid", "Main Grid"});
}

TEST_F(EndToEndTest, AnswersAndExitStatuses)
{
    struct Row {
        QStringList arguments;
        int status;
        const char* out;
        const char* err; // the start of it
    };
    const auto request = [](const char* json) {
        return QStringList{"request", QString::fromUtf8(json)};
    };
    const Row rows[] = {
        {{"run", "Nope"}, 1, "", "Error: Action 'Nope' not found\n"},
        {{"status"}, 0, "closed\n", ""},
        // Only an answer that starts with "Error: " is a failure.
        {{"create-grid", "Notes. Error: none"}, 0, "Created grid 'Notes. Error: none'\n", ""},
        {{"--start", "status"}, 0, "closed\n", ""},
        {{"list-running"}, 0, "No actions are currently running.\n", ""},
        {{"cancel", "first"}, 2, "", "sk: cancel: INDEX must"},
        // Out of bounds is a failure, though its text does not begin "Error: ".
        {{"cancel", "3"}, 1, "", "3 is out of bounds."},
        {{"frobnicate"}, 2, "", "sk: unknown command 'frobnicate'"},
        {request(R"({"action":"frobnicate"})"), 1, "", "Error: Unknown command: frobnicate\n"},
        {request(R"({"action":"cancel"})"), 1, "", "Error: Missing index for cancel command.\n"},
        {request(R"({})"), 1, "", "Error: Invalid command line task notification\n"},
    };
    for (const Row& row : rows) {
        const SkResult result = sk(row.arguments, row.status);
        EXPECT_EQ(result.out, QString::fromUtf8(row.out)) << row.arguments.join(u' ');
        EXPECT_TRUE(result.err.startsWith(QString::fromUtf8(row.err)))
            << row.arguments.join(u' ') << ": " << result.err;
    }
}

TEST_F(EndToEndTest, TheApplicationKnowsEveryCommandOfTheClient)
{
    for (const sk::Command& command : sk::commands()) {
        if (!command.run) {
            const QString word = QString::fromStdString(sk::requestWord(command));
            const SkResult result =
                app->sk({"request", QStringLiteral(R"({"action":"%1"})").arg(word)});
            EXPECT_FALSE(result.err.contains("Unknown command")) << command.name;
        }
    }
}

TEST_F(EndToEndTest, AnswersArriveWhileARunLastsAndItCanBeCancelled)
{
    ASSERT_TRUE(
        app->addScriptAction("Slow", QStringLiteral("helper.begin_message(\"Waiting a while\")\n"
                                                    "helper.alert(\"first answer\")\nsleep 120")));
    const auto run = app->startSk({"run", "Slow"});
    QByteArray out;
    EXPECT_TRUE(HeadlessApp::waitUntil([&] {
        run->waitForReadyRead(100);
        out += run->readAllStandardOutput();
        return out.contains('\n');
    }));
    EXPECT_EQ(out, "first answer\n");
    EXPECT_EQ(run->state(), QProcess::Running) << "sk run waits for its task";
    EXPECT_TRUE(sk({"list-running"}).out.endsWith("\n0: Slow - Waiting a while\n"));

    EXPECT_EQ(sk({"cancel", "0"}).out, "Cancelled action 'Slow'\n");
    ASSERT_TRUE(run->waitForFinished(15000));
    EXPECT_EQ(run->exitCode(), 0);
    EXPECT_TRUE(
        HeadlessApp::waitUntil([] { return app->sk({"list-running"}).out.startsWith("No "); }));
}

TEST_F(EndToEndTest, AScriptActionThatFailsMakesSkFail)
{
    ASSERT_TRUE(app->addScriptAction("Exits", "$stderr.puts 'disk full'\nexit 2"));
    const SkResult run = sk({"run", "Exits"}, 1);
    EXPECT_EQ(run.out, QString());
    EXPECT_TRUE(run.err.startsWith("Error: Check Debug Console for error output\n")) << run.err;
    EXPECT_TRUE(run.err.contains("disk full")) << run.err;
}

TEST_F(EndToEndTest, ImageActionsResizeAndConvertRealFiles)
{
    // Real images of each format, made by the image tool that ships with libvips.
    const QStringList formats = {"png", "jpg", "webp", "tif", "gif", "heic"};
    const QDir in(app->path("pictures"));
    QDir().mkpath(in.path());
    QDir().mkpath(app->path("resized"));
    QStringList files;
    for (const QString& format : formats) {
        files << in.filePath(QStringLiteral("photo-%1.%1").arg(format));
        ASSERT_EQ(QProcess::execute("vips", {"xyz", files.last(), "800", "600"}), 0);
    }
    sk({"add-action", "Resize Images", "--options", "output_width=200", "output_folder_option=2",
        "path=resized", "keep_originals=yes"});
    sk(QStringList{"run", "Resize Images"} + files);
    for (const QString& file : files) {
        QProcess header;
        header.start("vipsheader",
                     {"-f", "width", app->path("resized/" + QFileInfo(file).fileName())});
        ASSERT_TRUE(header.waitForFinished(30000));
        EXPECT_EQ(header.readAllStandardOutput().trimmed(), "200") << file;
        EXPECT_TRUE(QFileInfo::exists(file)) << "originals kept";
    }

    sk({"add-action", "Convert Images", "--options", "output_format=webp"});
    sk({"run", "Convert Images", files.first()});
    EXPECT_TRUE(in.exists("photo-png.webp")) << in.entryList(QDir::Files).join(u' ');
}

TEST_F(EndToEndTest, RunScriptAndMoveToTrash)
{
    const QString record = app->path("arguments.txt");
    const QString script = app->writeFile(
        "scripts/record.sh",
        QStringLiteral("#!/bin/sh\nread line && input=data || input=empty\nprintf '%s|' "
                       "\"$SKELVO_INPUT_TYPE\" \"$SKELVO_EVENT\" \"$SKELVO_ACTION_NAME\" "
                       "\"$SKELVO_TMP_FOLDER\" \"$(pwd)\" \"$input\" \"$#\" \"$@\" >> '%1'\n"
                       "echo >> '%1'\nexit 2\n")
            .arg(record)
            .toUtf8());
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    sk({"add-action", "Run Script", "--options", "path=" + script});
    const QStringList files = {app->writeFile("one.txt", "1"), app->writeFile("two 2.txt", "2"),
                               app->writeFile("three.txt", "3")};
    // The script exits 2: a failure for sk, told on standard error.
    const SkResult ran = sk(QStringList{"run", "Run Script"} + files, 1);
    EXPECT_EQ(ran.err, QStringLiteral("Error: Script exited with status 2. Check the Action "
                                      "Console for details.\n"));
    sk({"run", "Run Script"}, 1);
    QFile recorded(record);
    ASSERT_TRUE(recorded.open(QIODevice::ReadOnly));
    const QString common =
        "Run Script|" + QDir::tempPath() + '|' + app->path("scripts") + "|empty|";
    EXPECT_EQ(QString::fromUtf8(recorded.readAll()), "files|dragged|" + common + "3|" +
                                                         files.join('|') + "|\nnone|clicked|" +
                                                         common + "0|\n");
    // A script that is gone cannot be added.
    EXPECT_TRUE(
        sk({"add-action", "Run Script", "--name", "Gone", "--options", "path=/no/such/script.sh"},
           1)
            .err.startsWith("Error: "));

    sk({"add-action", "Move to Trash"});
    const QString doomed = app->writeFile("doomed.txt", "bye");
    sk({"run", "Move to Trash", doomed});
    EXPECT_FALSE(QFileInfo::exists(doomed));
    EXPECT_TRUE(QFileInfo::exists(app->path(".local/share/Trash/info/doomed.txt.trashinfo")));
    // The desktop lists it: GIO's trash:// backend, on a session bus of its own.
    QProcess gio;
    gio.setProcessEnvironment(app->environment());
    gio.start("dbus-run-session", {"--", "gio", "trash", "--list"});
    ASSERT_TRUE(gio.waitForFinished(30000));
    EXPECT_TRUE(gio.readAllStandardOutput().contains(doomed.toUtf8()))
        << gio.readAllStandardError().toStdString();
}

TEST_F(EndToEndTest, ASecondInstanceHandsOverItsArguments)
{
    app->writeFile("Downloads/New.skbundle/action.rb",
                   "# Skelvo Action Info\n# Name: New\n# Description: A test\n# Handles: Files\n"
                   "# Creator: Tests\n# URL: https://example.org\n");
    QProcess second;
    second.setProcessEnvironment(app->environment());
    second.setWorkingDirectory(app->path("Downloads"));
    second.start(QStringLiteral(SKELVO_BINARY), {"--headless", "New.skbundle"});
    ASSERT_TRUE(second.waitForFinished(15000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(second.readAllStandardOutput(),
              "Skelvo is already running; handed over 1 argument(s)\n");
    EXPECT_EQ(app->process().state(), QProcess::Running);
    // Made absolute against the second instance's folder, and installed; without a display
    // the single-install alert takes its default answer, "Add to Grid".
    EXPECT_TRUE(HeadlessApp::waitUntil(
        [] { return QFileInfo::exists(app->path("data/Skelvo/Actions/New.skbundle/action.rb")); }));
    EXPECT_TRUE(
        HeadlessApp::waitUntil([] { return app->sk({"list"}).out.contains("New"); }, 10000));
}

// With an application of its own, which it ends.
TEST(EndToEndLifecycle, QuittingEndsRunningTasksAndAKilledApplicationIsNotRunning)
{
    HeadlessApp app;
    ASSERT_TRUE(app.start());
    const QString pidFile = app.path("script.pid");
    ASSERT_TRUE(app.addScriptAction(
        "Sleeper", QStringLiteral("File.write('%1', Process.pid.to_s)\nsleep 120").arg(pidFile)));
    const auto run = app.startSk({"run", "Sleeper"});
    ASSERT_TRUE(HeadlessApp::waitUntil([&] { return QFileInfo(pidFile).size() > 0; }));
    QFile file(pidFile);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const auto script = static_cast<pid_t>(file.readAll().toLongLong());
    ASSERT_GT(script, 0);

    EXPECT_TRUE(app.stop());
    EXPECT_NE(::kill(script, 0), 0) << "the action's process outlived the application";
    ASSERT_TRUE(run->waitForFinished(10000));
    EXPECT_EQ(run->exitCode(), 4) << "the connection ended before the finish";
    EXPECT_EQ(run->readAllStandardError(),
              "sk: the connection to Skelvo ended before the request finished\n");

    // A socket left behind by an application that is gone.
    ASSERT_TRUE(app.start());
    app.process().kill();
    app.process().waitForFinished();
    const SkResult stale = app.sk({"status"});
    EXPECT_EQ(stale.status, 3);
    EXPECT_EQ(stale.err, QStringLiteral("sk: Skelvo is not running (start it with `skelvo "
                                        "--headless &` or use `sk --start …`)\n"));
}

} // namespace
