// Drives the command-line handler over its real socket, as sk does.
#include "cmdline/CmdLineTaskHandler.h"

#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "builtin/BuiltInOptionSchemas.h"
#include "core/CmdLineProtocol.h"
#include "core/SecretStore.h"
#include "core/SupportPaths.h"
#include "events/EventsHandler.h"
#include "platform/FileSecretStore.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "tasks/Task.h"
#include "tasks/TasksController.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class CmdLineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        m_previousResources = qgetenv("SKELVO_RESOURCES");
        m_engine = std::make_unique<TestEngine>();
        ASSERT_TRUE(GridDatabase::sharedGridDatabase().loadDatabase());
        ActionOptionSchemas::registerStandardSchemas();
        ActionFileParser::shared() = ActionFileParser(SupportPaths::internalActionsDirectory(),
                                                      SupportPaths::userActionsDirectory());
        m_handler =
            std::make_unique<CmdLineTaskHandler>((*m_engine)->taskContext, (*m_engine)->events);
        ASSERT_TRUE(m_handler->setup(runtime()));
    }
    void TearDown() override
    {
        waitUntil([this] { return !tasks().hasTasks(); }, 5000);
        m_handler.reset();
        m_engine.reset();
        qputenv("SKELVO_RESOURCES", m_previousResources);
    }
    QString runtime() const { return QDir(m_engine->home().path()).filePath(QStringLiteral("rt")); }

    // Sends a request from another thread while this one serves it; returns the responses
    // (none when the connection ended without a finish).
    std::optional<QStringList> ask(const QVariantMap& request, int timeoutMs = 10000)
    {
        auto reply = std::async(std::launch::async, [&] {
            return CmdLineServer::sendRequest(
                runtime(), QString::fromLatin1(CmdLineProtocol::RunTask), request, timeoutMs);
        });
        waitUntil(
            [&] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
            timeoutMs + 1000);
        return reply.get();
    }
    QString one(const QVariantMap& request)
    {
        const auto responses = ask(request);
        if (!responses) {
            return QStringLiteral("<no finish>");
        }
        return responses->join(u'|');
    }

    TasksController& tasks() { return (*m_engine)->tasks; }

    std::unique_ptr<TestEngine> m_engine;
    std::unique_ptr<CmdLineTaskHandler> m_handler;

private:
    QByteArray m_previousResources;
};

QVariantMap req(std::initializer_list<std::pair<const char*, QVariant>> pairs)
{
    QVariantMap map;
    for (const auto& [key, value] : pairs) {
        map.insert(QString::fromLatin1(key), value);
    }
    return map;
}

// A request from "command|key=value|...": numbers and true/false become numbers and flags.
QVariantMap spec(const char* text)
{
    const QStringList parts = QString::fromUtf8(text).split(u'|');
    QVariantMap map{{QStringLiteral("action"), parts.first()}};
    for (const QString& part : parts.mid(1)) {
        const QString key = part.section(u'=', 0, 0);
        const QString value = part.section(u'=', 1);
        bool isNumber = false;
        const int number = value.toInt(&isNumber);
        map.insert(key, isNumber                                ? QVariant(number)
                        : value == u"true" || value == u"false" ? QVariant(value == u"true")
                                                                : QVariant(value));
    }
    return map;
}

// Runs each action as the script named after it, through a runner that only loads it.
CmdLineTaskHandler::RunStarter scriptStarter(const TaskContext& context,
                                             QMap<QString, QString> scripts)
{
    return [&context, scripts](const GridActionPtr& action, const QString&, const QStringList&,
                               const QString&, std::function<void()> finished) {
        auto* task = new Task(context);
        task->actionFile = std::make_shared<ActionFile>();
        task->actionFile->actionName = action->name;
        task->actionFile->taskPath = scripts.value(action->name);
        task->completion = std::move(finished);
        task->run();
        return task;
    };
}

void installUserAction(const QString& fileName, const QByteArray& contents)
{
    QDir().mkpath(SupportPaths::userActionsDirectory());
    QFile file(QDir(SupportPaths::userActionsDirectory()).filePath(fileName));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(contents);
    file.close();
    ActionFileParser::shared().invalidateActionsCache();
}

void addGridAction(const QString& name, const QString& type = QStringLiteral("Copy Files"))
{
    auto action = std::make_shared<GridAction>();
    action->name = name;
    action->type = type;
    action->categoryId = GridDatabase::sharedGridDatabase().getFirstCategoryIdForSelectedGrid();
    ASSERT_TRUE(action->create());
}

// A secret store whose answers wait until the test releases them.
class HeldSecretStore : public SecretStore {
public:
    void readSecret(const QString&, const QString&, Done done) override
    {
        pending.push_back([done] { done({Status::NotFound, {}, {}}); });
    }
    void writeSecret(const QString& service, const QString&, const QByteArray& secret,
                     Done done) override
    {
        // What add-action has made by the time it stores the secret.
        actionExisted = bool(
            GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Uploader")));
        written << service + u'=' + QString::fromUtf8(secret);
        pending.push_back([done, this] {
            done(failWrites ? Result{Status::Failed, {}, QStringLiteral("The keyring is locked.")}
                            : Result{Status::Ok, {}, {}});
        });
    }
    void deleteSecret(const QString&, const QString&, Done done) override
    {
        pending.push_back([done] { done({Status::NotFound, {}, {}}); });
    }
    void releaseAll()
    {
        while (!pending.empty()) {
            auto next = std::move(pending.front());
            pending.erase(pending.begin());
            next();
        }
    }

    std::vector<std::function<void()>> pending;
    QStringList written;
    bool actionExisted = false;
    bool failWrites = false;
};

} // namespace

TEST_F(CmdLineTest, ARunAnswersItsOutcome)
{
    qputenv("SKELVO_RESOURCES",
            QDir(m_engine->home().path()).filePath(QStringLiteral("res")).toUtf8());
    m_engine->home().writeFile(
        QStringLiteral("res/Actions/lib/runner.rb"),
        "$stdout.sync = true\nload File.read(ARGV[0])[/\\AACTION: \"(.*)\"$/, 1]\n");
    struct Case {
        const char* name;
        const char* script;
        const char* answer;
    };
    const Case cases[] = {
        {"Exits", "$stderr.puts 'boom'\nexit 2\n",
         "Error: Check Debug Console for error output\nboom"},
        {"Fails", "puts 'Fail: Upload refused'\nSTDIN.gets\n", "Error: Upload refused"},
        {"Errs", "puts 'Error_Title: Upload'\nSTDIN.gets\nputs 'Error: Server down'\nSTDIN.gets\n",
         "Error: Upload: Server down"},
        {"Marks", "puts 'Finish_Message: Upload failed'\nSTDIN.gets\n", "Error: Upload failed"},
        {"Links", "puts 'URL: https://example.org/x'\nSTDIN.gets\n", "https://example.org/x"},
        {"Finishes", "puts 'Finish_Message: All done'\nSTDIN.gets\n", "All done"},
    };
    QMap<QString, QString> scripts;
    for (const Case& c : cases) {
        const QString name = QString::fromLatin1(c.name);
        scripts.insert(name,
                       m_engine->home().writeFile(name + QStringLiteral(".skelvo"), c.script));
        addGridAction(name);
    }
    m_handler->setRunStarter(scriptStarter((*m_engine)->taskContext, scripts));
    for (const Case& c : cases) {
        EXPECT_EQ(one(req({{"action", QStringLiteral("run")},
                           {"name", QString::fromLatin1(c.name)},
                           {"event", QStringLiteral("clicked")}})),
                  QString::fromUtf8(c.answer))
            << c.name;
    }

    // Without its runner nothing launches, and the request hears the alert.
    qputenv("SKELVO_RESOURCES",
            QDir(m_engine->home().path()).filePath(QStringLiteral("none")).toUtf8());
    EXPECT_TRUE(one(spec("run|name=Links|event=clicked"))
                    .startsWith(QStringLiteral(
                        "Error: Failed to launch task: Could not find runner.rb at at '")));

    // An action whose header fails validation says so, not that it takes no text.
    installUserAction(QStringLiteral("Broken.skelvo"), "# Skelvo Action Info\n# Name: Broken\n");
    addGridAction(QStringLiteral("Broken"), QStringLiteral("Broken"));
    EXPECT_TRUE(one(spec("run|name=Broken|text=hello"))
                    .startsWith(QStringLiteral(
                        "Error: Action 'Broken' cannot run: its header has problems:\n-")));

    // An action whose bundle is gone starts nothing, and the caller hears why.
    addGridAction(QStringLiteral("Gone"), QStringLiteral("Gone"));
    m_handler->setRunStarter([this](const GridActionPtr& action, const QString&,
                                    const QStringList& files, const QString&,
                                    std::function<void()> finished) {
        return (*m_engine)->events.runGridAction(action, files, true, std::move(finished));
    });
    EXPECT_EQ(one(req({{"action", QStringLiteral("run")},
                       {"name", QStringLiteral("Gone")},
                       {"files", QStringList{m_engine->home().path()}}})),
              QStringLiteral("Error: Action 'Gone' could not be started: Cannot find action with "
                             "type 'Gone' in runGridAction"));
}

TEST_F(CmdLineTest, ARequestWaitingForASecretOrAnAlertLetsOthersBeServed)
{
    registerBuiltInOptionSchemas();
    installUserAction(QStringLiteral("Uploader.skelvo"),
                      "# Skelvo Action Info\n# Name: Uploader\n# Description: d\n"
                      "# Handles: Files\n# Creator: c\n# URL: u\n# OptionsNIB: AmazonS3Login\n");
    auto secrets = std::make_shared<HeldSecretStore>();
    m_engine->secrets().use(secrets);
    const QVariantMap addUploader =
        req({{"action", QStringLiteral("add-action")},
             {"type", QStringLiteral("Uploader")},
             {"options", QVariantMap{{QStringLiteral("username"), QStringLiteral("ann")},
                                     {QStringLiteral("password"), QStringLiteral("pw")},
                                     {QStringLiteral("bucket"), QStringLiteral("b")}}}});
    auto adding = std::async(std::launch::async, [&] {
        return CmdLineServer::sendRequest(runtime(), QString::fromLatin1(CmdLineProtocol::RunTask),
                                          addUploader, 10000);
    });
    ASSERT_TRUE(waitUntil([&] { return !secrets->pending.empty(); }));
    EXPECT_TRUE(secrets->actionExisted) << "the secret is stored for an action that exists";
    EXPECT_EQ(one(spec("status")), QStringLiteral("closed"));
    secrets->releaseAll();
    ASSERT_TRUE(waitUntil(
        [&] { return adding.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    EXPECT_EQ(adding.get().value_or(QStringList{}).join(u'|'),
              QStringLiteral("Added action 'Uploader' (Uploader) to grid 'Main Grid'"));

    // A secret that cannot be kept takes the new action out again.
    secrets->failWrites = true;
    secrets->written.clear();
    auto failing = std::async(std::launch::async, [&] {
        return CmdLineServer::sendRequest(
            runtime(), QString::fromLatin1(CmdLineProtocol::RunTask),
            [&] {
                QVariantMap second = addUploader;
                second.insert(QStringLiteral("name"), QStringLiteral("Second"));
                return second;
            }(),
            10000);
    });
    ASSERT_TRUE(waitUntil([&] { return !secrets->pending.empty(); }));
    secrets->releaseAll();
    ASSERT_TRUE(waitUntil([&] {
        secrets->releaseAll();
        return failing.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    EXPECT_TRUE(
        failing.get()
            .value_or(QStringList{})
            .join(u'|')
            .startsWith(QStringLiteral(
                "Error: Could not store the secret for action 'Second': The keyring is locked.")));
    EXPECT_FALSE(
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Second")));
    m_engine->secrets().use(std::make_shared<FileSecretStore>());

    // A run whose script raised an alert the user has not answered yet.
    m_engine->alerts().holdAnswers = true;
    qputenv("SKELVO_RESOURCES",
            QDir(m_engine->home().path()).filePath(QStringLiteral("res")).toUtf8());
    m_engine->home().writeFile(
        QStringLiteral("res/Actions/lib/runner.rb"),
        "$stdout.sync = true\nload File.read(ARGV[0])[/\\AACTION: \"(.*)\"$/, 1]\n");
    const QString script = m_engine->home().writeFile(
        QStringLiteral("alerting.skelvo"),
        "puts 'Alert: Look'\nSTDIN.gets\nsleep 0.5\nputs 'Text: done'\nSTDIN.gets\n");
    m_handler->setRunStarter(
        scriptStarter((*m_engine)->taskContext, {{QStringLiteral("Alerting"), script}}));
    addGridAction(QStringLiteral("Alerting"));
    auto running = std::async(std::launch::async, [&] {
        return CmdLineServer::sendRequest(runtime(), QString::fromLatin1(CmdLineProtocol::RunTask),
                                          spec("run|name=Alerting|event=clicked"), 20000);
    });
    ASSERT_TRUE(waitUntil([&] { return !m_engine->alerts().pendingAnswers.isEmpty(); }));
    EXPECT_EQ(one(spec("status")), QStringLiteral("closed"));
    ASSERT_TRUE(waitUntil(
        [&] { return running.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
        20000));
    EXPECT_EQ(running.get().value_or(QStringList{}).join(u'|'), QStringLiteral("Look|done"));
}

TEST_F(CmdLineTest, GridsCategoriesAndTheirSettings)
{
    // Each answer in turn; the settings are checked before anything changes.
    const std::pair<const char*, const char*> steps[] = {
        {"create-grid|name=Work", "Created grid 'Work'"},
        {"create-grid|name=Work",
         "Error: A grid named 'Work' already exists. Grid names must be unique."},
        {"list-grids",
         "\nAvailable Skelvo Grids:\n---------------------------\n* Main Grid\n  Work\n"},
        {"switch-grid|name=Work", "Switched to grid 'Work'"},
        {"add-category|grid=Work|category=Docs", "Added category 'Docs' to grid 'Work'"},
        {"add-category|grid=Work|category=Docs", "Added category 'Docs' to grid 'Work'"},
        {"remove-category|grid=Work|category=Docs",
         "Error: Multiple categories named 'Docs' exist in grid 'Work'. Please rename categories "
         "so names are unique within the grid before removing by name."},
        {"remove-category|grid=Work|category=Nope",
         "Error: Category 'Nope' not found in grid 'Work'"},
        {"remove-grid|name=Work", "Removed grid 'Work'. Switched active grid to 'Main Grid'"},
        {"remove-grid|name=Main Grid",
         "Error: Cannot remove grid 'Main Grid'. You must have at least one grid."},
        {"grid-settings|grid=Main Grid|size=151",
         "Error: size must be greater than 0 and no larger than 150."},
        {"grid-settings|grid=Main Grid|size=0",
         "Error: size must be greater than 0 and no larger than 150."},
        {"grid-settings|grid=Main Grid|cols=1|size=80",
         "Error: cols must be 0 (auto) or between 2 and 10."},
        {"grid-settings|grid=Main Grid|cols=11",
         "Error: cols must be 0 (auto) or between 2 and 10."},
        {"grid-settings|grid=Main Grid|name=  ", "Error: The new grid name cannot be empty."},
        {"grid-settings|grid=Main Grid|cols=4|size=90|switcher=false",
         "Updated grid 'Main Grid': size 90, columns 4, switcher hidden"},
        {"grid-settings|grid=Main Grid|name=Home", "Updated grid 'Main Grid': renamed to 'Home'"},
        {"list-grids", "\nAvailable Skelvo Grids:\n---------------------------\n* Home\n"},
        {"add-action|type=No Such Type", "Error: Action type 'No Such Type' not found. Use 'sk "
                                         "list-action-types' to see available types."},
        {"List", "Error: Unknown command: List"}, // command words are compared exactly
    };
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    for (const auto& [request, answer] : steps) {
        EXPECT_EQ(one(spec(request)), QString::fromUtf8(answer)) << request;
        if (QByteArray(request).startsWith("switch-grid")) {
            const QJsonArray grids =
                QJsonDocument::fromJson(one(spec("list-grids|json=true")).toUtf8()).array();
            ASSERT_EQ(grids.size(), 2);
            EXPECT_TRUE(grids[1].toObject().value(QStringLiteral("current")).toBool());
        }
        if (QByteArray(request).startsWith("grid-settings|grid=Main Grid|cols=11")) {
            EXPECT_DOUBLE_EQ(db.gridSizeForGrid(1), 70.0);
        }
    }
    EXPECT_EQ(db.numColsForGrid(1), 4);
    EXPECT_FALSE(db.gridSwitcherVisibleForGrid(1));
    EXPECT_TRUE(one(spec("grid-settings|grid=Home"))
                    .startsWith(QStringLiteral("Grid 'Home':\n  size: 90\n  columns: 4")));
}

TEST_F(CmdLineTest, StoreWriteFailuresAreErrors)
{
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    ASSERT_EQ(
        one(req({{"action", QStringLiteral("add-action")},
                 {"type", QStringLiteral("Copy Files")},
                 {"options", QVariantMap{{QStringLiteral("path"), m_engine->home().path()}}}})),
        QStringLiteral("Added action 'Copy Files' (Copy Files) to grid 'Main Grid'"));
    // The column count is refused after the size was written: neither may stay.
    db.runQuery(QStringLiteral("CREATE TRIGGER refuseCols BEFORE UPDATE OF num_cols ON grids "
                               "BEGIN SELECT RAISE(ABORT, 'refused'); END"));
    db.runQuery(QStringLiteral("CREATE TRIGGER refuseActions BEFORE UPDATE ON actions "
                               "BEGIN SELECT RAISE(ABORT, 'refused'); END"));
    const std::pair<QVariantMap, const char*> rows[] = {
        {spec("grid-settings|grid=Main Grid|size=90|cols=4"),
         "Error: Could not save the settings of grid 'Main Grid'"},
        {spec("set-icon|name=Copy Files|reset=true"),
         "Error: Failed to reset the icon of 'Copy Files'"},
    };
    for (const auto& [request, expected] : rows) {
        EXPECT_EQ(one(request), QString::fromUtf8(expected));
    }
    EXPECT_DOUBLE_EQ(db.gridSizeForGrid(1), 70.0);
}

TEST_F(CmdLineTest, RunningTasksCanBeListedAndCancelled)
{
    qputenv("SKELVO_RESOURCES",
            QDir(m_engine->home().path()).filePath(QStringLiteral("res")).toUtf8());
    m_engine->home().writeFile(QStringLiteral("res/Actions/lib/runner.rb"),
                               "load File.read(ARGV[0])[/\\AACTION: \"(.*)\"$/, 1]\n");
    const QString script = m_engine->home().writeFile(
        QStringLiteral("slow.skelvo"),
        "$stdout.sync = true\nprint \"Begin_Message: Waiting\\n\"\nSTDIN.gets\nsleep 60\n");
    m_handler->setRunStarter([this, script](const GridActionPtr&, const QString&,
                                            const QStringList&, const QString&,
                                            std::function<void()> finished) {
        auto* task = new Task((*m_engine)->taskContext);
        task->actionFile = std::make_shared<ActionFile>();
        task->actionFile->actionName = QStringLiteral("Slow");
        task->actionFile->taskPath = script;
        task->completion = std::move(finished);
        task->run();
        return task;
    });
    auto action = std::make_shared<GridAction>();
    action->name = QStringLiteral("Slow");
    action->type = QStringLiteral("Copy Files");
    action->categoryId = GridDatabase::sharedGridDatabase().getFirstCategoryIdForSelectedGrid();
    ASSERT_TRUE(action->create());

    auto run = std::async(std::launch::async, [&] {
        return CmdLineServer::sendRequest(runtime(), QString::fromLatin1(CmdLineProtocol::RunTask),
                                          spec("run|name=Slow"), 20000);
    });
    ASSERT_TRUE(waitUntil([&] { return tasks().hasTasks(); }));
    ASSERT_TRUE(
        waitUntil([&] { return one(spec("list-running")).contains(QStringLiteral("Waiting")); }));
    EXPECT_EQ(one(spec("cancel|index=3")),
              QStringLiteral("3 is out of bounds. Use 'sk list-running' to see running actions."));
    EXPECT_EQ(run.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "the run request is still open";
    EXPECT_EQ(one(spec("cancel|index=0")), QStringLiteral("Cancelled action 'Slow'"));
    ASSERT_TRUE(waitUntil(
        [&] { return run.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, 10000));
    EXPECT_TRUE(run.get().has_value()) << "a cancelled run still finishes its request";
    ASSERT_TRUE(waitUntil([&] { return !tasks().hasTasks(); }));
    EXPECT_EQ(one(spec("list-running")), QStringLiteral("No actions are currently running."));
}

TEST_F(CmdLineTest, MalformedAndOversizedRequestsAreAnsweredAndServingGoesOn)
{
    auto raw = [&](const QByteArray& bytes) {
        auto reply = std::async(std::launch::async, [&] {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const QByteArray path =
                QDir(runtime()).filePath(QStringLiteral("skelvo.sock")).toUtf8();
            std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
                return QByteArray();
            }
            qsizetype sent = 0;
            while (sent < bytes.size()) {
                const ssize_t n = ::send(fd, bytes.constData() + sent,
                                         static_cast<size_t>(bytes.size() - sent), MSG_NOSIGNAL);
                if (n <= 0) {
                    break;
                }
                sent += n;
            }
            QByteArray answer;
            char buffer[4096];
            ssize_t got;
            while ((got = ::read(fd, buffer, sizeof buffer)) > 0) {
                answer.append(buffer, got);
            }
            ::close(fd);
            return answer;
        });
        waitUntil(
            [&] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
            10000);
        return reply.get();
    };
    const QByteArray garbage = raw("this is not json\n");
    EXPECT_TRUE(garbage.contains("Error: Invalid command line task notification"));
    EXPECT_TRUE(garbage.endsWith("{\"name\":\"SkelvoRunCmdLineFinish\"}\n"));
    const QByteArray huge = raw(QByteArray(CmdLineProtocol::MaxMessageBytes + 4096, 'x'));
    EXPECT_TRUE(huge.contains("Error: Request too large")) << huge.left(200).constData();
    EXPECT_EQ(one(spec("status")), QStringLiteral("closed"));
}

TEST_F(CmdLineTest, OneInstancePerUserAndOtherUsersAreRefused)
{
    CmdLineServer second;
    EXPECT_FALSE(second.listen(runtime()));
    EXPECT_TRUE(second.anotherInstanceIsRunning());

    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    // Open the way to the socket so that only the peer check stands between.
    QFile::setPermissions(runtime(), QFileDevice::Permissions(0x7777));
    QFile::setPermissions(m_engine->home().path(), QFileDevice::Permissions(0x7777));
    ::chmod(QDir(runtime()).filePath(QStringLiteral("skelvo.sock")).toUtf8().constData(), 0777);
    const QByteArray path = QDir(runtime()).filePath(QStringLiteral("skelvo.sock")).toUtf8();
    LogCapture log;
    auto outcome = std::async(std::launch::async, [&] {
        const pid_t child = fork();
        if (child == 0) {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                _exit(3);
            }
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
                _exit(4);
            }
            const char request[] =
                "{\"name\":\"SkelvoRunCmdLineTask\",\"userInfo\":{\"action\":\"status\"}}\n";
            [[maybe_unused]] ssize_t sent = ::send(fd, request, sizeof request - 1, MSG_NOSIGNAL);
            char buffer[256];
            _exit(::read(fd, buffer, sizeof buffer) > 0 ? 1 : 0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    });
    waitUntil(
        [&] { return outcome.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
        10000);
    EXPECT_EQ(outcome.get(), 0) << "another user's request must get no answer";
    EXPECT_TRUE(log.contains(QStringLiteral("Refused a command-line connection from user 65534")))
        << log.lines().join(u'\n').toStdString();
    EXPECT_EQ(one(spec("status")), QStringLiteral("closed"));
}

// The socket server alone, answering every request 100 ms later with its action word.
class CmdLineServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        server.setRequestTimeout(300);
        ASSERT_TRUE(server.listen(runtime()));
        QObject::connect(
            &server, &CmdLineServer::requestReceived, &server,
            [this](CmdLineServer::ConnectionId id, const QString&, const QVariantMap& userInfo) {
                QTimer::singleShot(100, &server, [this, id, userInfo] {
                    server.respond(id, userInfo.value(QStringLiteral("action")).toString());
                    server.finish(id);
                });
            });
    }
    QString runtime() const { return QDir(home.path()).filePath(QStringLiteral("rt")); }

    // Runs `client` in another thread while this one serves.
    template <typename Client> auto whileServing(Client client)
    {
        auto reply = std::async(std::launch::async, client);
        waitUntil(
            [&] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
            15000);
        return reply.get();
    }

    TestHome home;
    CmdLineServer server;
};

TEST_F(CmdLineServerTest, HalfClosedRequestIsServedAndSilentClientsAreDropped)
{
    const QByteArray status = R"({"name":"SkelvoRunCmdLineTask","userInfo":{"action":"status"}})";
    struct Case {
        const char* what;
        QByteArray sent;
        bool halfClose;
        QByteArray answerEnd; // what the answer ends with before the server closes
    };
    const Case cases[] = {
        {"request, then half-close", status + '\n', true,
         R"({"name":"SkelvoRunCmdLineFinish"})"
         "\n"},
        {"nothing at all", {}, false, {}},
        {"a request without its end", status, false, {}},
    };
    const QByteArray path = QDir(runtime()).filePath(QStringLiteral("skelvo.sock")).toUtf8();
    for (const Case& c : cases) {
        const std::optional<QByteArray> answer = whileServing([&]() -> std::optional<QByteArray> {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
                ::send(fd, c.sent.constData(), static_cast<size_t>(c.sent.size()), MSG_NOSIGNAL) !=
                    c.sent.size() ||
                (c.halfClose && ::shutdown(fd, SHUT_WR) != 0)) {
                ::close(fd);
                return std::nullopt;
            }
            QByteArray received;
            char buffer[4096];
            pollfd readable{fd, POLLIN, 0};
            while (::poll(&readable, 1, 5000) == 1) {
                const ssize_t got = ::read(fd, buffer, sizeof buffer);
                if (got <= 0) {
                    ::close(fd);
                    return received; // the server closed the connection
                }
                received.append(buffer, got);
            }
            ::close(fd);
            return std::nullopt;
        });
        ASSERT_TRUE(answer.has_value()) << c.what << ": the server never closed";
        EXPECT_TRUE(answer->endsWith(c.answerEnd)) << c.what << ": " << answer->constData();
        EXPECT_EQ(answer->isEmpty(), c.answerEnd.isEmpty()) << c.what;
    }
}

void ignoreSignal(int) {}

TEST_F(CmdLineServerTest, InterruptedCallsOfTheRequestingSideAreRetried)
{
    struct sigaction action {};
    action.sa_handler = ignoreSignal; // without SA_RESTART: calls fail with EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    std::atomic<bool> done = false;
    std::atomic<pthread_t> requester{};
    auto reply = std::async(std::launch::async, [&] {
        requester = ::pthread_self();
        auto responses = CmdLineServer::sendRequest(
            runtime(), QString::fromLatin1(CmdLineProtocol::RunTask),
            {{QStringLiteral("action"), QStringLiteral("status")}}, 10000);
        done = true;
        return responses;
    });
    // Signals keep arriving while the requester waits for the delayed answer.
    waitUntil(
        [&] {
            if (!done && requester.load() != pthread_t{}) {
                ::pthread_kill(requester.load(), SIGUSR1);
            }
            return done.load();
        },
        15000);
    const std::optional<QStringList> responses = reply.get();
    ::sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(responses, QStringList{QStringLiteral("status")});
}
