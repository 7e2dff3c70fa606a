// Starts the real application headless in a private home and drives it only through the
// real sk, as a user's terminal would.
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <gtest/gtest.h>

namespace {

struct Outcome {
    int status = -1;
    QString out;
    QString err;
};

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_environment = QProcessEnvironment::systemEnvironment();
        m_environment.insert(QStringLiteral("SKELVO_HOME"), home.path());
        m_environment.insert(QStringLiteral("SKELVO_RESOURCES"),
                             QStringLiteral(SKELVO_SOURCE_RESOURCES));
        // The desktop's Trash of this home, not the user's.
        m_environment.insert(QStringLiteral("HOME"), home.path());
        m_environment.insert(QStringLiteral("XDG_DATA_HOME"),
                             QDir(home.path()).filePath(QStringLiteral(".local/share")));
        m_environment.remove(QStringLiteral("DISPLAY"));
        m_environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
        m_app.setProcessEnvironment(m_environment);
        m_app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_app.start(QStringLiteral(SKELVO_BINARY), {QStringLiteral("--headless")});
        ASSERT_TRUE(m_app.waitForStarted());
        for (int i = 0; i < 100 && trySk({QStringLiteral("status")}).status != 0; ++i) {
            QThread::msleep(100);
        }
        ASSERT_EQ(sk({QStringLiteral("status")}).out, QStringLiteral("closed\n"));
    }
    void TearDown() override
    {
        m_app.terminate();
        EXPECT_TRUE(m_app.waitForFinished(10000));
        EXPECT_EQ(m_app.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(m_app.exitCode(), 0);
    }

    // Runs sk and checks that it ends with `expectedStatus`.
    Outcome sk(const QStringList& arguments, int expectedStatus = 0, int timeoutMs = 30000)
    {
        const Outcome outcome = trySk(arguments, timeoutMs);
        EXPECT_EQ(outcome.status, expectedStatus)
            << "sk " << arguments.join(u' ').toStdString() << "\n"
            << outcome.err.toStdString();
        return outcome;
    }
    // Runs sk whatever its exit status (waiting for the application to listen).
    Outcome trySk(const QStringList& arguments, int timeoutMs = 30000)
    {
        QProcess process;
        process.setProcessEnvironment(m_environment);
        process.setWorkingDirectory(home.path());
        process.start(QStringLiteral(SK_BINARY), arguments);
        if (!process.waitForFinished(timeoutMs)) {
            process.kill();
            process.waitForFinished();
            return {};
        }
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }
    QString userActions() const
    {
        return QDir(home.path()).filePath(QStringLiteral("data/Skelvo/Actions"));
    }

    TestHome home;
    QProcessEnvironment m_environment;
    QProcess m_app;
};

} // namespace

TEST_F(EndToEndTest, GridsCategoriesAndACopyFilesActionThatRuns)
{
    EXPECT_EQ(sk({QStringLiteral("create-grid"), QStringLiteral("Work")}).out,
              QStringLiteral("Created grid 'Work'\n"));
    EXPECT_EQ(sk({QStringLiteral("switch-grid"), QStringLiteral("Work")}).out,
              QStringLiteral("Switched to grid 'Work'\n"));
    const Outcome added = sk({QStringLiteral("add-category"), QStringLiteral("--grid"),
                              QStringLiteral("Work"), QStringLiteral("Files")});
    EXPECT_EQ(added.out, QStringLiteral("Added category 'Files' to grid 'Work'\n"))
        << added.err.toStdString();

    QDir(home.path()).mkpath(QStringLiteral("out"));
    const Outcome action = sk({QStringLiteral("add-action"), QStringLiteral("Copy Files"),
                               QStringLiteral("--category"), QStringLiteral("Files"),
                               QStringLiteral("--options"), QStringLiteral("path=out")});
    EXPECT_EQ(action.status, 0) << action.err.toStdString();
    const QJsonArray listed =
        QJsonDocument::fromJson(sk({QStringLiteral("list"), QStringLiteral("--json")}).out.toUtf8())
            .array();
    ASSERT_EQ(listed.size(), 1);
    EXPECT_EQ(listed[0][QStringLiteral("category")].toString(), QStringLiteral("Files"));

    home.writeFile(QStringLiteral("a.txt"), "alpha");
    home.writeFile(QStringLiteral("docs/b.txt"), "beta");
    const Outcome run = sk({QStringLiteral("run"), QStringLiteral("Copy Files"),
                            QStringLiteral("a.txt"), QStringLiteral("docs")});
    EXPECT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_TRUE(QFileInfo::exists(QDir(home.path()).filePath(QStringLiteral("out/a.txt"))));
    EXPECT_TRUE(QFileInfo::exists(QDir(home.path()).filePath(QStringLiteral("out/docs/b.txt"))));
    EXPECT_TRUE(QFileInfo::exists(QDir(home.path()).filePath(QStringLiteral("a.txt"))));

    const Outcome missing = sk({QStringLiteral("run"), QStringLiteral("Nope")}, 1);
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, QStringLiteral("Error: Action 'Nope' not found\n"));
}

TEST_F(EndToEndTest, ASlowScriptActionIsCancelledFromTheCommandLine)
{
    home.writeFile(QStringLiteral("data/Skelvo/Actions/Slow.skbundle/action.rb"),
                   "# Skelvo Action Info\n# Name: Slow\n# Description: Waits\n# Events: Clicked\n"
                   "# Creator: Tests\n# URL: https://example.org\n\n"
                   "def clicked(variables, helper)\n  helper.begin_message('Waiting a while')\n  "
                   "sleep 120\nend\n");
    ASSERT_EQ(sk({QStringLiteral("add-action"), QStringLiteral("Slow")}).status, 0);

    QProcess run;
    run.setProcessEnvironment(m_environment);
    run.start(QStringLiteral(SK_BINARY), {QStringLiteral("run"), QStringLiteral("Slow")});
    ASSERT_TRUE(run.waitForStarted());
    QString running;
    for (int i = 0; i < 100 && !running.contains(QStringLiteral("Waiting a while")); ++i) {
        QThread::msleep(100);
        running = trySk({QStringLiteral("list-running")}).out;
    }
    EXPECT_TRUE(running.contains(QStringLiteral("0: Slow - Waiting a while")))
        << running.toStdString();
    EXPECT_EQ(run.state(), QProcess::Running) << "sk run waits for its task";

    EXPECT_EQ(sk({QStringLiteral("cancel"), QStringLiteral("0")}).out,
              QStringLiteral("Cancelled action 'Slow'\n"));
    ASSERT_TRUE(run.waitForFinished(15000));
    EXPECT_EQ(run.exitCode(), 0);
    Outcome after;
    for (int i = 0; i < 50; ++i) {
        after = trySk({QStringLiteral("list-running")});
        if (after.out.contains(QStringLiteral("No actions"))) {
            break;
        }
        QThread::msleep(100);
    }
    EXPECT_EQ(after.out, QStringLiteral("No actions are currently running.\n"));
}

TEST_F(EndToEndTest, AScriptActionThatFailsMakesSkFail)
{
    home.writeFile(QStringLiteral("data/Skelvo/Actions/Exits.skbundle/action.rb"),
                   "# Skelvo Action Info\n# Name: Exits\n# Description: Fails\n# Events: Clicked\n"
                   "# Creator: Tests\n# URL: https://example.org\n\n"
                   "def clicked(variables, helper)\n  $stderr.puts 'disk full'\n  exit 2\nend\n");
    sk({QStringLiteral("add-action"), QStringLiteral("Exits")});
    const Outcome run = sk({QStringLiteral("run"), QStringLiteral("Exits")}, 1);
    EXPECT_EQ(run.out, QString());
    EXPECT_TRUE(run.err.startsWith(QStringLiteral("Error: Check Debug Console for error output\n")))
        << run.err.toStdString();
    EXPECT_TRUE(run.err.contains(QStringLiteral("disk full"))) << run.err.toStdString();
}

TEST_F(EndToEndTest, QuittingEndsRunningTasks)
{
    const QString pidFile = QDir(home.path()).filePath(QStringLiteral("script.pid"));
    home.writeFile(
        QStringLiteral("data/Skelvo/Actions/Sleeper.skbundle/action.rb"),
        QStringLiteral("# Skelvo Action Info\n# Name: Sleeper\n# Description: Sleeps\n"
                       "# Events: Clicked\n# Creator: Tests\n# URL: https://example.org\n\n"
                       "def clicked(variables, helper)\n  File.write('%1', Process.pid.to_s)\n"
                       "  helper.begin_message('Sleeping')\n  sleep 120\nend\n")
            .arg(pidFile)
            .toUtf8());
    ASSERT_EQ(sk({QStringLiteral("add-action"), QStringLiteral("Sleeper")}).status, 0);
    QProcess run;
    run.setProcessEnvironment(m_environment);
    run.start(QStringLiteral(SK_BINARY), {QStringLiteral("run"), QStringLiteral("Sleeper")});
    for (int i = 0; i < 100 && QFileInfo(pidFile).size() == 0; ++i) {
        QThread::msleep(100);
    }
    QFile file(pidFile);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const pid_t script = static_cast<pid_t>(file.readAll().toLongLong());
    ASSERT_GT(script, 0);
    EXPECT_EQ(::kill(script, 0), 0);

    m_app.terminate();
    ASSERT_TRUE(m_app.waitForFinished(10000));
    EXPECT_EQ(m_app.exitCode(), 0);
    EXPECT_NE(::kill(script, 0), 0) << "the action's process outlived the application";
    ASSERT_TRUE(run.waitForFinished(10000));
    EXPECT_NE(run.exitCode(), 0) << "sk reports that the connection ended before the finish";
    // TearDown expects a running application.
    m_app.start(QStringLiteral(SKELVO_BINARY), {QStringLiteral("--headless")});
    ASSERT_TRUE(m_app.waitForStarted());
    for (int i = 0; i < 100 && trySk({QStringLiteral("status")}).status != 0; ++i) {
        QThread::msleep(100);
    }
}

TEST_F(EndToEndTest, ImageActionsResizeAndConvertRealFilesThroughSk)
{
    // Real images of each format, made by the image tool that ships with libvips.
    const QString in = QDir(home.path()).filePath(QStringLiteral("pictures"));
    QDir().mkpath(in);
    const QStringList formats = {QStringLiteral("png"),  QStringLiteral("jpg"),
                                 QStringLiteral("webp"), QStringLiteral("tif"),
                                 QStringLiteral("gif"),  QStringLiteral("heic")};
    QStringList files;
    for (const QString& format : formats) {
        const QString file = QDir(in).filePath(QStringLiteral("photo-%1.%1").arg(format));
        QProcess vips;
        vips.start(QStringLiteral("vips"),
                   {QStringLiteral("xyz"), file, QStringLiteral("800"), QStringLiteral("600")});
        ASSERT_TRUE(vips.waitForFinished(30000));
        ASSERT_EQ(vips.exitCode(), 0) << vips.readAllStandardError().toStdString();
        files << file;
    }
    const QString out = QDir(home.path()).filePath(QStringLiteral("resized"));
    QDir().mkpath(out);
    Outcome added = sk({QStringLiteral("add-action"), QStringLiteral("Resize Images"),
                        QStringLiteral("--options"), QStringLiteral("output_width=200"),
                        QStringLiteral("output_folder_option=2"), QStringLiteral("path=resized"),
                        QStringLiteral("keep_originals=yes")});
    ASSERT_EQ(added.status, 0) << added.err.toStdString();
    const Outcome resized =
        sk(QStringList{QStringLiteral("run"), QStringLiteral("Resize Images")} + files, 0, 120000);
    EXPECT_EQ(resized.status, 0) << resized.err.toStdString();
    for (const QString& format : formats) {
        const QString written = QDir(out).filePath(QStringLiteral("photo-%1.%1").arg(format));
        QProcess header;
        header.start(QStringLiteral("vipsheader"),
                     {QStringLiteral("-f"), QStringLiteral("width"), written});
        ASSERT_TRUE(header.waitForFinished(30000));
        EXPECT_EQ(QString::fromUtf8(header.readAllStandardOutput()).trimmed(),
                  QStringLiteral("200"))
            << written.toStdString();
        EXPECT_TRUE(QFileInfo::exists(QDir(in).filePath(QStringLiteral("photo-%1.%1").arg(format))))
            << "originals kept";
    }

    added = sk({QStringLiteral("add-action"), QStringLiteral("Convert Images"),
                QStringLiteral("--options"), QStringLiteral("output_format=webp")});
    ASSERT_EQ(added.status, 0) << added.err.toStdString();
    const Outcome converted =
        sk({QStringLiteral("run"), QStringLiteral("Convert Images"), files.first()}, 0, 60000);
    EXPECT_EQ(converted.status, 0) << converted.err.toStdString();
    EXPECT_TRUE(QFileInfo::exists(QDir(in).filePath(QStringLiteral("photo-png.webp"))))
        << QDir(in).entryList(QDir::Files).join(u' ').toStdString() << converted.out.toStdString();
}

TEST_F(EndToEndTest, RunScriptAndMoveToTrashThroughSk)
{
    const QString record = QDir(home.path()).filePath(QStringLiteral("arguments.txt"));
    const QString script = home.writeFile(
        QStringLiteral("scripts/record.sh"),
        QStringLiteral(
            "#!/bin/sh\nprintf '%s|%s|%s|%s|%s' \"$SKELVO_INPUT_TYPE\" \"$#\" \"$1\" \"$2\" "
            "\"$3\" > '%1'\nexit 2\n")
            .arg(record)
            .toUtf8());
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const Outcome added = sk({QStringLiteral("add-action"), QStringLiteral("Run Script"),
                              QStringLiteral("--options"), QStringLiteral("path=") + script});
    ASSERT_EQ(added.status, 0) << added.err.toStdString();
    const QStringList files = {home.writeFile(QStringLiteral("one.txt"), "1"),
                               home.writeFile(QStringLiteral("two.txt"), "2"),
                               home.writeFile(QStringLiteral("three.txt"), "3")};
    // The script exits 2: a failure for sk, told on standard error.
    const Outcome ran =
        sk(QStringList{QStringLiteral("run"), QStringLiteral("Run Script")} + files, 1);
    EXPECT_EQ(ran.out, QString());
    EXPECT_EQ(ran.err,
              QStringLiteral("Error: Script exited with status 2. Check the Action Console "
                             "for details.\n"));
    QFile recorded(record);
    ASSERT_TRUE(recorded.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(recorded.readAll()),
              QStringLiteral("files|3|%1|%2|%3").arg(files[0], files[1], files[2]));
    // A script that is gone cannot be added.
    const Outcome missing =
        sk({QStringLiteral("add-action"), QStringLiteral("Run Script"), QStringLiteral("--name"),
            QStringLiteral("Gone"), QStringLiteral("--options"),
            QStringLiteral("path=/no/such/script.sh")},
           1);
    EXPECT_TRUE(missing.err.startsWith(QStringLiteral("Error: "))) << missing.err.toStdString();

    ASSERT_EQ(sk({QStringLiteral("add-action"), QStringLiteral("Move to Trash")}).status, 0);
    const QString doomed = home.writeFile(QStringLiteral("doomed.txt"), "bye");
    const Outcome trashed = sk({QStringLiteral("run"), QStringLiteral("Move to Trash"), doomed});
    EXPECT_EQ(trashed.status, 0) << trashed.err.toStdString();
    EXPECT_FALSE(QFileInfo::exists(doomed));
    const QDir info(QDir(home.path()).filePath(QStringLiteral(".local/share/Trash/info")));
    EXPECT_TRUE(info.exists(QStringLiteral("doomed.txt.trashinfo")))
        << info.entryList().join(u' ').toStdString();
}

TEST_F(EndToEndTest, ApplicationMessagesForBadRequests)
{
    const std::pair<const char*, const char*> rows[] = {
        {R"({"action":"frobnicate"})", "Error: Unknown command: frobnicate"},
        {R"({"action":"cancel"})", "Error: Missing index for cancel command."},
        {R"({"action":"move-action"})",
         "Error: Missing action name or category for move-action command."},
        {R"({"action":"switch-grid"})", "Error: Missing grid name for switch-grid command."},
        {R"({"action":"create-grid"})", "Error: Missing grid name for create-grid command."},
        {R"({"action":"remove-grid"})", "Error: Missing grid name for remove-grid command."},
        {R"({"action":"add-category"})",
         "Error: Missing grid name or category name for add-category command."},
        {R"({"action":"remove-category"})",
         "Error: Missing grid name or category name for remove-category command."},
        {R"({"action":"grid-settings"})", "Error: Missing grid name for grid-settings command."},
        {R"({"action":"action-info"})", "Error: Missing action type for action-info command."},
        {R"({"action":"add-action"})", "Error: Missing action type for add-action command."},
        {R"({"action":"remove-action"})", "Error: Missing action name for remove-action command."},
        {R"({"action":"set-icon"})", "Error: Missing action name for set-icon command."},
        {R"({})", "Error: Invalid command line task notification"},
    };
    for (const auto& [request, message] : rows) {
        const Outcome outcome = sk({QStringLiteral("request"), QString::fromUtf8(request)}, 1);
        EXPECT_EQ(outcome.err, QString::fromUtf8(message) + u'\n') << request;
    }
    sk({QStringLiteral("frobnicate")}, 2);
}

TEST_F(EndToEndTest, ASecondInstanceHandsOverItsArguments)
{
    QProcess second;
    second.setProcessEnvironment(m_environment);
    second.setWorkingDirectory(home.path());
    second.start(QStringLiteral(SKELVO_BINARY),
                 {QStringLiteral("--headless"), QStringLiteral("New.skbundle")});
    ASSERT_TRUE(second.waitForFinished(15000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(second.readAllStandardOutput()),
              QStringLiteral("Skelvo is already running; handed over 1 argument(s)\n"));
    EXPECT_EQ(m_app.state(), QProcess::Running);
    QFile log(QDir(home.path()).filePath(QStringLiteral("data/Skelvo/Logs/skelvo.log")));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains(
        QDir(home.path()).filePath(QStringLiteral("New.skbundle")).toUtf8()));
}
