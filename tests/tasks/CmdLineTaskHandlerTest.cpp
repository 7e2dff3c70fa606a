// Drives the command-line handler over its real socket, as sk does.
#include "tasks/CmdLineTaskHandler.h"

#include "actions/ActionFileParser.h"
#include "actions/OptionSheets.h"
#include "core/CmdLineProtocol.h"
#include "core/SupportPaths.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "tasks/Task.h"
#include "tasks/TasksController.h"
#include "tests/support/EventLoop.h"
#include "tests/support/FakePresenters.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <future>
#include <gtest/gtest.h>
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
        m_home = std::make_unique<TestHome>();
        m_presenters = std::make_unique<FakePresenters>();
        GridDatabase::reopenShared();
        ASSERT_TRUE(GridDatabase::sharedGridDatabase().loadDatabase());
        OptionSheets::registerStandardSheets();
        ActionFileParser::shared() = ActionFileParser(SupportPaths::internalActionsDirectory(),
                                                      SupportPaths::userActionsDirectory());
        m_handler = std::make_unique<CmdLineTaskHandler>();
        ASSERT_TRUE(m_handler->setup(runtime()));
    }
    void TearDown() override
    {
        waitUntil([] { return !TasksController::shared().hasTasks(); }, 5000);
        m_handler.reset();
        GridDatabase::reopenShared();
        m_presenters.reset();
        m_home.reset();
        qputenv("SKELVO_RESOURCES", m_previousResources);
    }
    QString runtime() const { return QDir(m_home->path()).filePath(QStringLiteral("rt")); }

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

    std::unique_ptr<TestHome> m_home;
    std::unique_ptr<FakePresenters> m_presenters;
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

} // namespace

TEST_F(CmdLineTest, UnknownInvalidAndMissingArguments)
{
    EXPECT_EQ(one(req({{"action", QStringLiteral("frobnicate")}})),
              QStringLiteral("Error: Unknown command: frobnicate"));
    EXPECT_EQ(one(req({{"name", QStringLiteral("x")}})),
              QStringLiteral("Error: Invalid command line task notification"));
    EXPECT_EQ(one({}), QStringLiteral("Error: Invalid command line task notification"));
    // Command words are compared exactly.
    EXPECT_EQ(one(req({{"action", QStringLiteral("List")}})),
              QStringLiteral("Error: Unknown command: List"));

    const std::pair<const char*, const char*> rows[] = {
        {"move-action", "Error: Missing action name or category for move-action command."},
        {"cancel", "Error: Missing index for cancel command."},
        {"switch-grid", "Error: Missing grid name for switch-grid command."},
        {"create-grid", "Error: Missing grid name for create-grid command."},
        {"remove-grid", "Error: Missing grid name for remove-grid command."},
        {"add-category", "Error: Missing grid name or category name for add-category command."},
        {"remove-category",
         "Error: Missing grid name or category name for remove-category command."},
        {"grid-settings", "Error: Missing grid name for grid-settings command."},
        {"action-info", "Error: Missing action type for action-info command."},
        {"add-action", "Error: Missing action type for add-action command."},
        {"remove-action", "Error: Missing action name for remove-action command."},
        {"set-icon", "Error: Missing action name for set-icon command."},
    };
    for (const auto& [word, message] : rows) {
        EXPECT_EQ(one(req({{"action", QString::fromLatin1(word)}})), QString::fromUtf8(message))
            << word;
    }
    EXPECT_EQ(one(req({{"action", QStringLiteral("move-action")}, {"name", QStringLiteral("A")}})),
              QStringLiteral("Error: Missing action name or category for move-action command."));
    EXPECT_EQ(one(req({{"action", QStringLiteral("status")}})), QStringLiteral("closed"));
}

TEST_F(CmdLineTest, GridsAndCategories)
{
    EXPECT_EQ(
        one(req({{"action", QStringLiteral("create-grid")}, {"name", QStringLiteral("Work")}})),
        QStringLiteral("Created grid 'Work'"));
    EXPECT_EQ(
        one(req({{"action", QStringLiteral("create-grid")}, {"name", QStringLiteral("Work")}})),
        QStringLiteral("Error: A grid named 'Work' already exists. Grid names must be unique."));
    EXPECT_EQ(one(req({{"action", QStringLiteral("list-grids")}})),
              QStringLiteral(
                  "\nAvailable Skelvo Grids:\n---------------------------\n* Main Grid\n  Work\n"));
    EXPECT_EQ(
        one(req({{"action", QStringLiteral("switch-grid")}, {"name", QStringLiteral("Work")}})),
        QStringLiteral("Switched to grid 'Work'"));
    const QJsonArray grids =
        QJsonDocument::fromJson(
            one(req({{"action", QStringLiteral("list-grids")}, {"json", true}})).toUtf8())
            .array();
    ASSERT_EQ(grids.size(), 2);
    EXPECT_TRUE(grids[1].toObject().value(QStringLiteral("current")).toBool());

    EXPECT_EQ(one(req({{"action", QStringLiteral("add-category")},
                       {"grid", QStringLiteral("Work")},
                       {"category", QStringLiteral("Docs")}})),
              QStringLiteral("Added category 'Docs' to grid 'Work'"));
    one(req({{"action", QStringLiteral("add-category")},
             {"grid", QStringLiteral("Work")},
             {"category", QStringLiteral("Docs")}}));
    EXPECT_EQ(one(req({{"action", QStringLiteral("remove-category")},
                       {"grid", QStringLiteral("Work")},
                       {"category", QStringLiteral("Docs")}})),
              QStringLiteral("Error: Multiple categories named 'Docs' exist in grid 'Work'. Please "
                             "rename categories so "
                             "names are unique within the grid before removing by name."));
    EXPECT_EQ(one(req({{"action", QStringLiteral("remove-category")},
                       {"grid", QStringLiteral("Work")},
                       {"category", QStringLiteral("Nope")}})),
              QStringLiteral("Error: Category 'Nope' not found in grid 'Work'"));
    const QJsonArray categories =
        QJsonDocument::fromJson(one(req({{"action", QStringLiteral("list-categories")},
                                         {"grid", QStringLiteral("Work")},
                                         {"json", true}}))
                                    .toUtf8())
            .array();
    EXPECT_EQ(categories.size(), 2);

    // Removing the current grid switches to another.
    EXPECT_EQ(
        one(req({{"action", QStringLiteral("remove-grid")}, {"name", QStringLiteral("Work")}})),
        QStringLiteral("Removed grid 'Work'. Switched active grid to 'Main Grid'"));
    EXPECT_EQ(
        one(req(
            {{"action", QStringLiteral("remove-grid")}, {"name", QStringLiteral("Main Grid")}})),
        QStringLiteral("Error: Cannot remove grid 'Main Grid'. You must have at least one grid."));
}

TEST_F(CmdLineTest, GridSettingsAreCheckedBeforeAnyChange)
{
    auto settings = [&](std::initializer_list<std::pair<const char*, QVariant>> extra) {
        QVariantMap request = req(extra);
        request.insert(QStringLiteral("action"), QStringLiteral("grid-settings"));
        request.insert(QStringLiteral("grid"), QStringLiteral("Main Grid"));
        return one(request);
    };
    EXPECT_EQ(settings({{"size", 151}}),
              QStringLiteral("Error: size must be greater than 0 and no larger than 150."));
    EXPECT_EQ(settings({{"size", 0}}),
              QStringLiteral("Error: size must be greater than 0 and no larger than 150."));
    EXPECT_EQ(settings({{"cols", 1}, {"size", 80}}),
              QStringLiteral("Error: cols must be 0 (auto) or between 2 and 10."));
    EXPECT_EQ(settings({{"cols", 11}}),
              QStringLiteral("Error: cols must be 0 (auto) or between 2 and 10."));
    EXPECT_DOUBLE_EQ(GridDatabase::sharedGridDatabase().gridSizeForGrid(1), 70.0);
    EXPECT_EQ(settings({{"name", QStringLiteral("  ")}}),
              QStringLiteral("Error: The new grid name cannot be empty."));
    EXPECT_EQ(settings({{"cols", 4}, {"size", 90}, {"switcher", false}}),
              QStringLiteral("Updated grid 'Main Grid': size 90, columns 4, switcher hidden"));
    EXPECT_EQ(GridDatabase::sharedGridDatabase().numColsForGrid(1), 4);
    EXPECT_FALSE(GridDatabase::sharedGridDatabase().gridSwitcherVisibleForGrid(1));
    EXPECT_TRUE(
        settings({}).startsWith(QStringLiteral("Grid 'Main Grid':\n  size: 90\n  columns: 4")));
    EXPECT_EQ(settings({{"name", QStringLiteral("Home")}}),
              QStringLiteral("Updated grid 'Main Grid': renamed to 'Home'"));
    EXPECT_EQ(one(req({{"action", QStringLiteral("list-grids")}})),
              QStringLiteral("\nAvailable Skelvo Grids:\n---------------------------\n* Home\n"));
}

TEST_F(CmdLineTest, StoreWriteFailuresAreErrors)
{
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    ASSERT_EQ(one(req({{"action", QStringLiteral("add-action")},
                       {"type", QStringLiteral("Copy Files")},
                       {"options", QVariantMap{{QStringLiteral("path"), m_home->path()}}}})),
              QStringLiteral("Added action 'Copy Files' (Copy Files) to grid 'Main Grid'"));
    // The column count is refused after the size was written: neither may stay.
    db.runQuery(QStringLiteral("CREATE TRIGGER refuseCols BEFORE UPDATE OF num_cols ON grids "
                               "BEGIN SELECT RAISE(ABORT, 'refused'); END"));
    db.runQuery(QStringLiteral("CREATE TRIGGER refuseActions BEFORE UPDATE ON actions "
                               "BEGIN SELECT RAISE(ABORT, 'refused'); END"));
    const std::pair<QVariantMap, const char*> rows[] = {
        {req({{"action", QStringLiteral("grid-settings")},
              {"grid", QStringLiteral("Main Grid")},
              {"size", 90},
              {"cols", 4}}),
         "Error: Could not save the settings of grid 'Main Grid'"},
        {req({{"action", QStringLiteral("set-icon")},
              {"name", QStringLiteral("Copy Files")},
              {"reset", true}}),
         "Error: Failed to reset the icon of 'Copy Files'"},
    };
    for (const auto& [request, expected] : rows) {
        EXPECT_EQ(one(request), QString::fromUtf8(expected));
    }
    EXPECT_DOUBLE_EQ(db.gridSizeForGrid(1), 70.0);
}

TEST_F(CmdLineTest, AddRunAndRemoveACopyFilesAction)
{
    const QString destination = QDir(m_home->path()).filePath(QStringLiteral("dest"));
    QDir().mkpath(destination);
    const QString source = m_home->writeFile(QStringLiteral("in/report \"final\".txt"), "contents");

    EXPECT_EQ(
        one(req({{"action", QStringLiteral("add-action")},
                 {"type", QStringLiteral("Copy Files")},
                 {"options", QVariantMap{{QStringLiteral("colour"), QStringLiteral("red")}}}})),
        QStringLiteral("Error: Unknown option 'colour' for action type 'Copy Files'. Valid options "
                       "are: path"));
    EXPECT_EQ(one(req({{"action", QStringLiteral("add-action")},
                       {"type", QStringLiteral("No Such Type")}})),
              QStringLiteral("Error: Action type 'No Such Type' not found. Use 'sk "
                             "list-action-types' to see available types."));
    EXPECT_EQ(
        one(req({{"action", QStringLiteral("add-action")},
                 {"type", QStringLiteral("Copy Files")},
                 {"cwd", m_home->path()},
                 {"options", QVariantMap{{QStringLiteral("path"), QStringLiteral("dest")}}}})),
        QStringLiteral("Added action 'Copy Files' (Copy Files) to grid 'Main Grid'"));
    const GridActionPtr stored =
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Copy Files"));
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->extraVariables.value(QStringLiteral("path")).toString(), destination);

    // The request finishes when the task does; the script's result reaches it.
    m_handler->setRunStarter([](const GridActionPtr& action, const QString& event,
                                const QStringList& files, const QString&,
                                std::function<void()> finished) {
        auto* task = new Task;
        task->gridAction = action;
        task->actionFile = action->actionFile();
        task->event = event;
        task->items = files;
        task->variables.insert(QStringLiteral("dragged_type"), QStringLiteral("files"));
        task->completion = std::move(finished);
        task->run();
        return task;
    });
    const auto responses = ask(req({{"action", QStringLiteral("run")},
                                    {"name", QStringLiteral("Copy Files")},
                                    {"files", QStringList{source}}}),
                               30000);
    ASSERT_TRUE(responses);
    EXPECT_TRUE(
        QFileInfo::exists(QDir(destination).filePath(QStringLiteral("report \"final\".txt"))));
    EXPECT_TRUE(QFileInfo::exists(source));

    EXPECT_EQ(one(req({{"action", QStringLiteral("run")}, {"name", QStringLiteral("Nope")}})),
              QStringLiteral("Error: Action 'Nope' not found"));
    EXPECT_EQ(one(req({{"action", QStringLiteral("remove-action")},
                       {"name", QStringLiteral("Copy Files")}})),
              QStringLiteral("Removed action 'Copy Files'"));
    EXPECT_FALSE(
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Copy Files")));
}

TEST_F(CmdLineTest, RunningTasksCanBeListedAndCancelled)
{
    qputenv("SKELVO_RESOURCES", QDir(m_home->path()).filePath(QStringLiteral("res")).toUtf8());
    m_home->writeFile(QStringLiteral("res/Actions/lib/runner.rb"),
                      "load File.read(ARGV[0])[/\\AACTION: \"(.*)\"$/, 1]\n");
    const QString script = m_home->writeFile(
        QStringLiteral("slow.skelvo"),
        "$stdout.sync = true\nprint \"Begin_Message: Waiting\\n\"\nSTDIN.gets\nsleep 60\n");
    m_handler->setRunStarter([script](const GridActionPtr&, const QString&, const QStringList&,
                                      const QString&, std::function<void()> finished) {
        auto* task = new Task;
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
        return CmdLineServer::sendRequest(
            runtime(), QString::fromLatin1(CmdLineProtocol::RunTask),
            req({{"action", QStringLiteral("run")}, {"name", QStringLiteral("Slow")}}), 20000);
    });
    ASSERT_TRUE(waitUntil([] { return TasksController::shared().hasTasks(); }));
    ASSERT_TRUE(waitUntil([&] {
        return one(req({{"action", QStringLiteral("list-running")}}))
            .contains(QStringLiteral("Waiting"));
    }));
    EXPECT_EQ(one(req({{"action", QStringLiteral("list-running")}})),
              QStringLiteral(
                  "\nRunning Skelvo Actions:\n-------------------------\n0: Slow - Waiting\n"));
    EXPECT_EQ(one(req({{"action", QStringLiteral("cancel")}, {"index", 3}})),
              QStringLiteral("3 is out of bounds. Use 'sk list-running' to see running actions."));
    EXPECT_EQ(run.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "the run request is still open";
    EXPECT_EQ(one(req({{"action", QStringLiteral("cancel")}, {"index", 0}})),
              QStringLiteral("Cancelled action 'Slow'"));
    ASSERT_TRUE(waitUntil(
        [&] { return run.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, 10000));
    EXPECT_TRUE(run.get().has_value()) << "a cancelled run still finishes its request";
    ASSERT_TRUE(waitUntil([] { return !TasksController::shared().hasTasks(); }));
    EXPECT_EQ(one(req({{"action", QStringLiteral("list-running")}})),
              QStringLiteral("No actions are currently running."));
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
    EXPECT_EQ(one(req({{"action", QStringLiteral("status")}})), QStringLiteral("closed"));
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
    QFile::setPermissions(m_home->path(), QFileDevice::Permissions(0x7777));
    ::chmod(QDir(runtime()).filePath(QStringLiteral("skelvo.sock")).toUtf8().constData(), 0777);
    const QByteArray path = QDir(runtime()).filePath(QStringLiteral("skelvo.sock")).toUtf8();
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
    EXPECT_EQ(one(req({{"action", QStringLiteral("status")}})), QStringLiteral("closed"));
}
