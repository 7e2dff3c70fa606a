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

class EndToEndTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        app = new HeadlessApp;
        ASSERT_TRUE(app->start());
    }
    static void TearDownTestSuite()
    {
        EXPECT_TRUE(app->stop());
        delete app;
    }
    // Runs sk and checks that it ends with `status`.
    static SkResult sk(const QStringList& arguments, int status = 0)
    {
        const SkResult result = app->sk(arguments);
        EXPECT_EQ(result.status, status) << arguments.join(u' ') << "\n" << result.err;
        return result;
    }

    static inline HeadlessApp* app = nullptr;
};

TEST_F(EndToEndTest, GridsCategoriesAndACopyFilesActionThatRuns)
{
    EXPECT_EQ(sk({QStringLiteral("create-grid"), QStringLiteral("Work")}).out,
              QStringLiteral("Created grid 'Work'\n"));
    EXPECT_EQ(sk({QStringLiteral("switch-grid"), QStringLiteral("Work")}).out,
              QStringLiteral("Switched to grid 'Work'\n"));
    EXPECT_EQ(sk({QStringLiteral("add-category"), QStringLiteral("--grid"), QStringLiteral("Work"),
                  QStringLiteral("Files")})
                  .out,
              QStringLiteral("Added category 'Files' to grid 'Work'\n"));
    QDir(app->path()).mkpath(QStringLiteral("out"));
    sk({QStringLiteral("add-action"), QStringLiteral("Copy Files"), QStringLiteral("--category"),
        QStringLiteral("Files"), QStringLiteral("--options"), QStringLiteral("path=out")});
    const QJsonArray listed =
        QJsonDocument::fromJson(sk({QStringLiteral("list"), QStringLiteral("--json")}).out.toUtf8())
            .array();
    ASSERT_EQ(listed.size(), 1);
    EXPECT_EQ(listed[0][QStringLiteral("category")].toString(), QStringLiteral("Files"));

    // Relative paths are taken from sk's working folder.
    app->writeFile(QStringLiteral("a.txt"), "alpha");
    app->writeFile(QStringLiteral("docs/b.txt"), "beta");
    EXPECT_EQ(sk({QStringLiteral("run"), QStringLiteral("Copy Files"), QStringLiteral("a.txt"),
                  QStringLiteral("docs")})
                  .out,
              QStringLiteral("Copied 2 items to out\n"));
    EXPECT_TRUE(QFileInfo::exists(app->path(QStringLiteral("out/a.txt"))));
    EXPECT_TRUE(QFileInfo::exists(app->path(QStringLiteral("out/docs/b.txt"))));
    EXPECT_TRUE(QFileInfo::exists(app->path(QStringLiteral("a.txt"))));
    sk({QStringLiteral("switch-grid"), QStringLiteral("Main Grid")});
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
        return QStringList{QStringLiteral("request"), QString::fromUtf8(json)};
    };
    const Row rows[] = {
        {{QStringLiteral("run"), QStringLiteral("Nope")},
         1,
         "",
         "Error: Action 'Nope' not found\n"},
        {{QStringLiteral("status")}, 0, "closed\n", ""},
        // Only an answer that starts with "Error: " is a failure.
        {{QStringLiteral("create-grid"), QStringLiteral("Notes. Error: none")},
         0,
         "Created grid 'Notes. Error: none'\n",
         ""},
        {{QStringLiteral("--start"), QStringLiteral("status")}, 0, "closed\n", ""},
        {{QStringLiteral("list-running")}, 0, "No actions are currently running.\n", ""},
        {{QStringLiteral("cancel"), QStringLiteral("first")}, 2, "", "sk: cancel: INDEX must"},
        {{QStringLiteral("frobnicate")}, 2, "", "sk: unknown command 'frobnicate'"},
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
            const QString word = QString::fromUtf8(command.name.data(), command.name.size());
            const SkResult result = app->sk(
                {QStringLiteral("request"), QStringLiteral(R"({"action":"%1"})").arg(word)});
            EXPECT_FALSE(result.err.contains(QStringLiteral("Unknown command"))) << command.name;
        }
    }
}

TEST_F(EndToEndTest, AnswersArriveWhileARunLastsAndItCanBeCancelled)
{
    ASSERT_TRUE(app->addScriptAction(QStringLiteral("Slow"),
                                     QStringLiteral("helper.begin_message(\"Waiting a while\")\n"
                                                    "helper.alert(\"first answer\")\nsleep 120")));
    const auto run = app->startSk({QStringLiteral("run"), QStringLiteral("Slow")});
    QByteArray out;
    EXPECT_TRUE(HeadlessApp::waitUntil([&] {
        run->waitForReadyRead(100);
        out += run->readAllStandardOutput();
        return out.contains('\n');
    }));
    EXPECT_EQ(out, "first answer\n");
    EXPECT_EQ(run->state(), QProcess::Running) << "sk run waits for its task";
    EXPECT_TRUE(sk({QStringLiteral("list-running")})
                    .out.endsWith(QStringLiteral("\n0: Slow - Waiting a while\n")));

    EXPECT_EQ(sk({QStringLiteral("cancel"), QStringLiteral("0")}).out,
              QStringLiteral("Cancelled action 'Slow'\n"));
    ASSERT_TRUE(run->waitForFinished(15000));
    EXPECT_EQ(run->exitCode(), 0);
    EXPECT_TRUE(HeadlessApp::waitUntil([] {
        return app->sk({QStringLiteral("list-running")}).out.startsWith(QStringLiteral("No "));
    }));
}

TEST_F(EndToEndTest, AScriptActionThatFailsMakesSkFail)
{
    ASSERT_TRUE(app->addScriptAction(QStringLiteral("Exits"),
                                     QStringLiteral("$stderr.puts 'disk full'\nexit 2")));
    const SkResult run = sk({QStringLiteral("run"), QStringLiteral("Exits")}, 1);
    EXPECT_EQ(run.out, QString());
    EXPECT_TRUE(run.err.startsWith(QStringLiteral("Error: Check Debug Console for error output\n")))
        << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("disk full"))) << run.err;
}

TEST_F(EndToEndTest, ImageActionsResizeAndConvertRealFiles)
{
    // Real images of each format, made by the image tool that ships with libvips.
    const QStringList formats = {QStringLiteral("png"),  QStringLiteral("jpg"),
                                 QStringLiteral("webp"), QStringLiteral("tif"),
                                 QStringLiteral("gif"),  QStringLiteral("heic")};
    const QDir in(app->path(QStringLiteral("pictures")));
    QDir().mkpath(in.path());
    QDir().mkpath(app->path(QStringLiteral("resized")));
    QStringList files;
    for (const QString& format : formats) {
        files << in.filePath(QStringLiteral("photo-%1.%1").arg(format));
        ASSERT_EQ(QProcess::execute(QStringLiteral("vips"),
                                    {QStringLiteral("xyz"), files.last(), QStringLiteral("800"),
                                     QStringLiteral("600")}),
                  0);
    }
    sk({QStringLiteral("add-action"), QStringLiteral("Resize Images"), QStringLiteral("--options"),
        QStringLiteral("output_width=200"), QStringLiteral("output_folder_option=2"),
        QStringLiteral("path=resized"), QStringLiteral("keep_originals=yes")});
    sk(QStringList{QStringLiteral("run"), QStringLiteral("Resize Images")} + files);
    for (const QString& file : files) {
        QProcess header;
        header.start(QStringLiteral("vipsheader"),
                     {QStringLiteral("-f"), QStringLiteral("width"),
                      app->path(QStringLiteral("resized/") + QFileInfo(file).fileName())});
        ASSERT_TRUE(header.waitForFinished(30000));
        EXPECT_EQ(header.readAllStandardOutput().trimmed(), "200") << file;
        EXPECT_TRUE(QFileInfo::exists(file)) << "originals kept";
    }

    sk({QStringLiteral("add-action"), QStringLiteral("Convert Images"), QStringLiteral("--options"),
        QStringLiteral("output_format=webp")});
    sk({QStringLiteral("run"), QStringLiteral("Convert Images"), files.first()});
    EXPECT_TRUE(in.exists(QStringLiteral("photo-png.webp")))
        << in.entryList(QDir::Files).join(u' ');
}

TEST_F(EndToEndTest, RunScriptAndMoveToTrash)
{
    const QString record = app->path(QStringLiteral("arguments.txt"));
    const QString script = app->writeFile(
        QStringLiteral("scripts/record.sh"),
        QStringLiteral("#!/bin/sh\nprintf '%s|%s|%s|%s|%s' \"$SKELVO_INPUT_TYPE\" \"$#\" \"$1\" "
                       "\"$2\" \"$3\" > '%1'\nexit 2\n")
            .arg(record)
            .toUtf8());
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    sk({QStringLiteral("add-action"), QStringLiteral("Run Script"), QStringLiteral("--options"),
        QStringLiteral("path=") + script});
    const QStringList files = {app->writeFile(QStringLiteral("one.txt"), "1"),
                               app->writeFile(QStringLiteral("two.txt"), "2"),
                               app->writeFile(QStringLiteral("three.txt"), "3")};
    // The script exits 2: a failure for sk, told on standard error.
    const SkResult ran =
        sk(QStringList{QStringLiteral("run"), QStringLiteral("Run Script")} + files, 1);
    EXPECT_EQ(ran.err, QStringLiteral("Error: Script exited with status 2. Check the Action "
                                      "Console for details.\n"));
    QFile recorded(record);
    ASSERT_TRUE(recorded.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(recorded.readAll()),
              QStringLiteral("files|3|%1|%2|%3").arg(files[0], files[1], files[2]));
    // A script that is gone cannot be added.
    EXPECT_TRUE(sk({QStringLiteral("add-action"), QStringLiteral("Run Script"),
                    QStringLiteral("--name"), QStringLiteral("Gone"), QStringLiteral("--options"),
                    QStringLiteral("path=/no/such/script.sh")},
                   1)
                    .err.startsWith(QStringLiteral("Error: ")));

    sk({QStringLiteral("add-action"), QStringLiteral("Move to Trash")});
    const QString doomed = app->writeFile(QStringLiteral("doomed.txt"), "bye");
    sk({QStringLiteral("run"), QStringLiteral("Move to Trash"), doomed});
    EXPECT_FALSE(QFileInfo::exists(doomed));
    EXPECT_TRUE(QFileInfo::exists(
        app->path(QStringLiteral(".local/share/Trash/info/doomed.txt.trashinfo"))));
}

TEST_F(EndToEndTest, ASecondInstanceHandsOverItsArguments)
{
    QProcess second;
    second.setProcessEnvironment(app->environment());
    second.setWorkingDirectory(app->path());
    second.start(QStringLiteral(SKELVO_BINARY),
                 {QStringLiteral("--headless"), QStringLiteral("New.skbundle")});
    ASSERT_TRUE(second.waitForFinished(15000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(second.readAllStandardOutput(),
              "Skelvo is already running; handed over 1 argument(s)\n");
    EXPECT_EQ(app->process().state(), QProcess::Running);
    EXPECT_TRUE(app->log().contains(app->path(QStringLiteral("New.skbundle"))));
}

// With an application of its own, which it ends.
TEST(EndToEndLifecycle, QuittingEndsRunningTasksAndAKilledApplicationIsNotRunning)
{
    HeadlessApp app;
    ASSERT_TRUE(app.start());
    const QString pidFile = app.path(QStringLiteral("script.pid"));
    ASSERT_TRUE(app.addScriptAction(
        QStringLiteral("Sleeper"),
        QStringLiteral("File.write('%1', Process.pid.to_s)\nsleep 120").arg(pidFile)));
    const auto run = app.startSk({QStringLiteral("run"), QStringLiteral("Sleeper")});
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
    const SkResult stale = app.sk({QStringLiteral("status")});
    EXPECT_EQ(stale.status, 3);
    EXPECT_EQ(stale.err, QStringLiteral("sk: Skelvo is not running (start it with `skelvo "
                                        "--headless &` or use `sk --start …`)\n"));
}

} // namespace
