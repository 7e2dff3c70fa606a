// Drives the command-line handler over its real socket, as sk does.
#include "cmdline/CmdLineTaskHandler.h"

#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "builtin/BuiltInOptionSchemas.h"
#include "core/CmdLineProtocol.h"
#include "core/SecretStore.h"
#include "core/Settings.h"
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

template <typename T> bool isReady(const std::future<T>& future)
{
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// Sends a request from another thread; the caller serves it while waiting.
std::future<std::optional<QStringList>> sendAsync(const QString& runtime,
                                                  const QVariantMap& request, int timeoutMs = 10000)
{
    return std::async(std::launch::async, [=] {
        return CmdLineServer::sendRequest(runtime, QString::fromLatin1(CmdLineProtocol::RunTask),
                                          request, timeoutMs);
    });
}

QString joined(std::future<std::optional<QStringList>>& reply)
{
    const auto responses = reply.get();
    return responses ? responses->join(u'|') : QStringLiteral("<no finish>");
}

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
        waitUntil([this] { return !(*m_engine)->tasks.hasTasks(); }, 5000);
        m_handler.reset();
        m_engine.reset();
        qputenv("SKELVO_RESOURCES", m_previousResources);
    }
    QString runtime() const { return QDir(m_engine->home().path()).filePath(QStringLiteral("rt")); }

    // The responses joined by '|'.
    QString one(const QVariantMap& request)
    {
        auto reply = sendAsync(runtime(), request);
        waitUntil([&] { return isReady(reply); }, 11000);
        return joined(reply);
    }
    // A runner that only loads the script the description names, so each test action is a
    // plain Ruby script.
    void useScriptRunner()
    {
        qputenv("SKELVO_RESOURCES",
                QDir(m_engine->home().path()).filePath(QStringLiteral("res")).toUtf8());
        m_engine->home().writeFile(
            QStringLiteral("res/Actions/lib/runner.rb"),
            "$stdout.sync = true\nload File.read(ARGV[0])[/\\AACTION: \"(.*)\"$/, 1]\n");
    }
    // Runs each action as the script named after it.
    void runScripts(QMap<QString, QString> scripts)
    {
        m_handler->setRunStarter([this, scripts](const GridActionPtr& action, const QString&,
                                                 const QStringList&, const QString&,
                                                 std::function<void()> finished) {
            auto* task = new Task((*m_engine)->taskContext);
            task->actionFile = std::make_shared<ActionFile>();
            task->actionFile->actionName = action->name;
            task->actionFile->taskPath = scripts.value(action->name);
            task->completion = std::move(finished);
            task->run();
            return task;
        });
    }

    std::unique_ptr<TestEngine> m_engine;
    std::unique_ptr<CmdLineTaskHandler> m_handler;

private:
    QByteArray m_previousResources;
};

// A request from "command|key=value|...": numbers and true/false become numbers and flags.
QVariantMap requestFrom(const char* text)
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
    void writeSecret(const QString&, const QString&, const QByteArray&, Done done) override
    {
        // What add-action has made by the time it stores the secret.
        actionExisted = bool(
            GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Uploader")));
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
    bool actionExisted = false;
    bool failWrites = false;
};

// Connects to the socket at `path` (no allocation: also used in a forked child).
int connectTo(const char* path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Sends raw bytes (half-closing after them when asked) and returns what came back before
// the server closed the connection; none when it did not close within five seconds.
std::optional<QByteArray> exchange(const QByteArray& path, const QByteArray& bytes, bool halfClose)
{
    const int fd = connectTo(path.constData());
    if (fd < 0) {
        return std::nullopt;
    }
    for (qsizetype sent = 0, n = 1; sent < bytes.size() && n > 0; sent += n) {
        n = ::send(fd, bytes.constData() + sent, static_cast<size_t>(bytes.size() - sent),
                   MSG_NOSIGNAL);
    }
    if (halfClose) {
        ::shutdown(fd, SHUT_WR);
    }
    QByteArray received;
    char buffer[4096];
    pollfd readable{fd, POLLIN, 0};
    while (::poll(&readable, 1, 5000) == 1) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            ::close(fd);
            return received;
        }
        received.append(buffer, got);
    }
    ::close(fd);
    return std::nullopt;
}

} // namespace

TEST_F(CmdLineTest, ARunAnswersItsOutcome)
{
    useScriptRunner();
    struct Case {
        const char* name;
        const char* script;
        const char* answer;
    };
    const Case cases[] = {
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
        scripts.insert(name, m_engine->home().writeFile(name + QStringLiteral(".rb"), c.script));
        addGridAction(name);
    }
    runScripts(scripts);
    for (const Case& c : cases) {
        EXPECT_EQ(one(requestFrom((std::string("run|event=clicked|name=") + c.name).c_str())),
                  QString::fromUtf8(c.answer))
            << c.name;
    }

    // Without its runner nothing launches, and the request hears the alert.
    qputenv("SKELVO_RESOURCES",
            QDir(m_engine->home().path()).filePath(QStringLiteral("none")).toUtf8());
    EXPECT_TRUE(one(requestFrom("run|name=Links|event=clicked"))
                    .startsWith(QStringLiteral(
                        "Error: Failed to launch task: Could not find runner.rb at at '")));

    // An action whose header fails validation says so, not that it takes no text.
    installUserAction(QStringLiteral("Broken.skelvo"), "# Skelvo Action Info\n# Name: Broken\n");
    addGridAction(QStringLiteral("Broken"), QStringLiteral("Broken"));
    EXPECT_TRUE(one(requestFrom("run|name=Broken|text=hello"))
                    .startsWith(QStringLiteral(
                        "Error: Action 'Broken' cannot run: its header has problems:\n-")));

    // An action whose bundle is gone starts nothing, and the caller hears why.
    addGridAction(QStringLiteral("Gone"), QStringLiteral("Gone"));
    m_handler->setRunStarter([this](const GridActionPtr& action, const QString&,
                                    const QStringList& files, const QString&,
                                    std::function<void()> finished) {
        return (*m_engine)->events.runGridAction(action, files, true, std::move(finished));
    });
    EXPECT_EQ(one({{QStringLiteral("action"), QStringLiteral("run")},
                   {QStringLiteral("name"), QStringLiteral("Gone")},
                   {QStringLiteral("files"), QStringList{m_engine->home().path()}}}),
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
    QVariantMap addUploader = requestFrom("add-action|type=Uploader");
    addUploader.insert(QStringLiteral("options"),
                       QVariantMap{{QStringLiteral("username"), QStringLiteral("ann")},
                                   {QStringLiteral("password"), QStringLiteral("pw")},
                                   {QStringLiteral("bucket"), QStringLiteral("b")}});
    auto adding = sendAsync(runtime(), addUploader);
    ASSERT_TRUE(waitUntil([&] { return !secrets->pending.empty(); }));
    EXPECT_TRUE(secrets->actionExisted) << "the secret is stored for an action that exists";
    EXPECT_EQ(one(requestFrom("status")), QStringLiteral("closed"));
    secrets->releaseAll();
    ASSERT_TRUE(waitUntil([&] { return isReady(adding); }));
    EXPECT_EQ(joined(adding),
              QStringLiteral("Added action 'Uploader' (Uploader) to grid 'Main Grid'"));

    // A secret that cannot be kept takes the new action out again.
    secrets->failWrites = true;
    addUploader.insert(QStringLiteral("name"), QStringLiteral("Second"));
    auto failing = sendAsync(runtime(), addUploader);
    ASSERT_TRUE(waitUntil([&] {
        secrets->releaseAll();
        return isReady(failing);
    }));
    EXPECT_TRUE(joined(failing).startsWith(QStringLiteral(
        "Error: Could not store the secret for action 'Second': The keyring is locked.")));
    EXPECT_FALSE(
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Second")));
    m_engine->secrets().use(std::make_shared<FileSecretStore>());

    // A run whose script raised an alert the user has not answered yet.
    m_engine->alerts().holdAnswers = true;
    useScriptRunner();
    runScripts(
        {{QStringLiteral("Alerting"),
          m_engine->home().writeFile(
              QStringLiteral("alerting.rb"),
              "puts 'Alert: Look'\nSTDIN.gets\nsleep 0.5\nputs 'Text: done'\nSTDIN.gets\n")}});
    addGridAction(QStringLiteral("Alerting"));
    auto running = sendAsync(runtime(), requestFrom("run|name=Alerting|event=clicked"), 20000);
    ASSERT_TRUE(waitUntil([&] { return !m_engine->alerts().pendingAnswers.isEmpty(); }));
    EXPECT_EQ(one(requestFrom("status")), QStringLiteral("closed"));
    ASSERT_TRUE(waitUntil([&] { return isReady(running); }, 20000));
    EXPECT_EQ(joined(running), QStringLiteral("Look|done"));
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
        {"cancel|index=3", "3 is out of bounds. Use 'sk list-running' to see running actions."},
    };
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    for (const auto& [request, answer] : steps) {
        EXPECT_EQ(one(requestFrom(request)), QString::fromUtf8(answer)) << request;
        if (QByteArray(request).startsWith("switch-grid")) {
            const QJsonArray grids =
                QJsonDocument::fromJson(one(requestFrom("list-grids|json=true")).toUtf8()).array();
            ASSERT_EQ(grids.size(), 2);
            EXPECT_TRUE(grids[1].toObject().value(QStringLiteral("current")).toBool());
        }
        if (QByteArray(request).startsWith("grid-settings|grid=Main Grid|cols=11")) {
            EXPECT_DOUBLE_EQ(db.gridSizeForGrid(1), 70.0);
        }
    }
    EXPECT_EQ(db.numColsForGrid(1), 4);
    EXPECT_FALSE(db.gridSwitcherVisibleForGrid(1));
    EXPECT_TRUE(one(requestFrom("grid-settings|grid=Home"))
                    .startsWith(QStringLiteral("Grid 'Home':\n  size: 90\n  columns: 4")));
}

TEST_F(CmdLineTest, SettingsAreCheckedAgainstTheirTypeAndTheStore)
{
    Settings& settings = (*m_engine)->settings;
    settings.registerDefaults({{Settings::PlaySounds, true}});
    addGridAction(QStringLiteral("Shrink"));
    QStringList changed;
    QObject::connect(&settings, &Settings::changed, [&](const QString& key) { changed << key; });
    const QString shrinkId = QString::number(
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Shrink"))->aId);
    const QString monitorOwned = QStringLiteral(
        "Error: MonitoredFolders is changed with the 'sk monitor' commands; run 'sk monitor' to "
        "see them.");
    const std::pair<const char*, QString> steps[] = {
        {"settings-set|key=PlaySounds|value=maybe",
         "Error: PlaySounds takes true or false (also yes/no, on/off, 1/0), not 'maybe'."},
        {"settings-set|key=PlaySounds|value=Off", "Set PlaySounds to false"},
        {"settings-get|key=PlaySounds", "false"},
        {"settings-reset|key=PlaySounds", "Reset PlaySounds to its default: true"},
        {"settings-reset|key=ScreenshotsFolder",
         "Reset ScreenshotsFolder (it has no default value)"},
        {"settings-get|key=Sounds",
         "Error: Unknown setting 'Sounds'. Run 'sk settings' to see the known settings."},
        {"settings-set|key=playsounds|value=no",
         "Error: Unknown setting 'playsounds'. Run 'sk settings' to see the known settings."},
        {"settings-set|key=ScreenshotsFolder", "Error: Missing value for settings-set command."},
        {"settings-set|key=GridIconSize|value=big",
         "Error: GridIconSize takes a whole number, not 'big'."},
        {"settings-set|key=SelectedGridId|value=9",
         "Error: No grid has the id 9. Run 'sk list-grids --json' to see the grids' ids."},
        {"settings-set|key=SelectedGridId|value=0",
         "Error: SelectedGridId takes an id (a number from 1), not '0'."},
        {"settings-set|key=ScreenshotsTargetGridId|value=Work", "Error: Grid 'Work' not found"},
        {"settings-set|key=ScreenshotsTargetGridId|value=Main Grid",
         "Set ScreenshotsTargetGridId to 1 (Main Grid)"},
        {"settings-set|key=ScreenshotsActionId|value=9999", "Error: No action has the id 9999."},
        {"settings-set|key=ScreenshotsActionId|value=Shrink",
         "Set ScreenshotsActionId to " + shrinkId + " (Shrink)"},
        {"settings-set|key=DevelopPreferredLanguage|value=perl",
         "Error: DevelopPreferredLanguage takes Ruby or Python, not 'perl'."},
        {"settings-set|key=DevelopPreferredLanguage|value=python",
         "Set DevelopPreferredLanguage to Python"},
        {"settings-set|key=MonitoredFolders|value=[]", monitorOwned},
        {"settings-reset|key=MonitoredFolders", monitorOwned},
    };
    for (const auto& [request, answer] : steps) {
        EXPECT_EQ(one(requestFrom(request)), answer) << request;
    }
    EXPECT_EQ(
        changed,
        QStringList({Settings::PlaySounds, Settings::PlaySounds, Settings::ScreenshotsTargetGridId,
                     Settings::ScreenshotsActionId, Settings::DevelopPreferredLanguage}));
    EXPECT_EQ(settings.value(Settings::ScreenshotsTargetGridId), QJsonValue(1));

    // Values written by hand are read by the lenient rule: only "no" is false.
    settings.setValue(Settings::PlaySounds, QStringLiteral("NO"));
    settings.setValue(Settings::KeepTaskDescriptionFiles, QStringLiteral("off"));
    EXPECT_EQ(one(requestFrom("settings-get|key=PlaySounds")), QStringLiteral("false"));
    EXPECT_EQ(one(requestFrom("settings-get|key=KeepTaskDescriptionFiles")),
              QStringLiteral("true"));
    const QJsonArray listed =
        QJsonDocument::fromJson(one(requestFrom("settings|json=true")).toUtf8()).array();
    QJsonObject sounds;
    QStringList keys;
    for (const QJsonValue& entry : listed) {
        keys << entry[QStringLiteral("key")].toString();
        if (keys.last() == Settings::PlaySounds) {
            sounds = entry.toObject();
        }
    }
    EXPECT_TRUE(keys.contains(Settings::ScreenshotsConfirmBeforeAction));
    EXPECT_EQ(sounds.value(QStringLiteral("value")), QJsonValue(false));
    EXPECT_EQ(sounds.value(QStringLiteral("set")), QJsonValue(true));
    const QString text = one(requestFrom("settings"));
    EXPECT_TRUE(text.contains(QStringLiteral("\nAutoClosePopOutDropBar = (not set)  [default]\n")))
        << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("\nScreenshotsTargetGridId = 1 (Main Grid)\n")))
        << text.toStdString();
}

TEST_F(CmdLineTest, MonitorCommandsCheckWhatTheyAreGivenAndChangeTheList)
{
    const QString home = m_engine->home().path();
    ASSERT_TRUE(QDir(home).mkpath(QStringLiteral("Inbox")));
    m_engine->home().writeFile(QStringLiteral("note.txt"), "x");
    addGridAction(QStringLiteral("Shrink"));
    EXPECT_EQ(one(requestFrom("monitor-list")),
              QStringLiteral("Error: Folder Monitor is not available."));
    m_handler->setFolderMonitoringManager(&(*m_engine)->monitoring);

    const QString notMonitored = QStringLiteral(
        "Error: '%1/Other' is not in Folder Monitor. Run 'sk monitor list' to see the monitored "
        "folders.");
    // FOLDER is taken from the caller's folder ("cwd"); "actions" lists names split at ','.
    const std::pair<const char*, QString> steps[] = {
        {"monitor-list", "No folders are monitored. Add one with 'sk monitor add FOLDER --action "
                         "NAME'.\n"},
        {"monitor-add|folder=Inbox", "Error: Give an action to run (--action NAME) or a Drop Bar "
                                     "(--drop-bar GRID) for the new files."},
        {"monitor-add|folder=Nope|actions=Shrink", "Error: The folder '%1/Nope' does not exist."},
        {"monitor-add|folder=note.txt|actions=Shrink", "Error: '%1/note.txt' is not a folder."},
        {"monitor-add|folder=Inbox|actions=Shrink,Grow", "Error: Action 'Grow' not found"},
        {"monitor-add|folder=Inbox|dropBar=Work", "Error: Grid 'Work' not found"},
        {"monitor-add|folder=Inbox|actions=Shrink|dropBar=Main Grid|confirm=true",
         "Added '%1/Inbox' to Folder Monitor: new files run Shrink and go to the Drop Bar of grid "
         "'Main Grid' after confirmation"},
        {"monitor-add|folder=./Inbox/|dropBar=Main Grid",
         "Error: This folder is already in Folder Monitor."},
        {"monitor-disable|folder=Inbox", "Monitoring of '%1/Inbox' disabled"},
        {"monitor-disable|folder=Inbox", "Monitoring of '%1/Inbox' is already disabled"},
        {"monitor-confirm|folder=Inbox", "Error: No files of '%1/Inbox' wait for confirmation."},
        {"monitor-log|folder=Inbox|limit=0", "Error: --limit must be 1 or more."},
        {"monitor-log|folder=Inbox", "No runs of '%1/Inbox' yet.\n"},
        {"monitor-enable|folder=Other", notMonitored},
        {"monitor-remove|folder=Other", notMonitored},
    };
    for (const auto& [row, answer] : steps) {
        QVariantMap request = requestFrom(row);
        request.insert(QStringLiteral("cwd"), home);
        if (request.contains(QStringLiteral("actions"))) {
            request[QStringLiteral("actions")] =
                request.value(QStringLiteral("actions")).toString().split(u',');
        }
        EXPECT_EQ(one(request), QString(answer).replace(QStringLiteral("%1"), home)) << row;
    }

    const QJsonArray listed =
        QJsonDocument::fromJson(one(requestFrom("monitor-list|json=true")).toUtf8()).array();
    ASSERT_EQ(listed.size(), 1);
    const QJsonObject inbox = listed[0].toObject();
    EXPECT_EQ(inbox.value(QStringLiteral("path")).toString(), home + QStringLiteral("/Inbox"));
    EXPECT_EQ(inbox.value(QStringLiteral("state")).toString(), QStringLiteral("disabled"));
    EXPECT_EQ(inbox.value(QStringLiteral("actions"))[0][QStringLiteral("name")].toString(),
              QStringLiteral("Shrink"));
    EXPECT_EQ(inbox.value(QStringLiteral("dropBarGrid"))[QStringLiteral("name")].toString(),
              QStringLiteral("Main Grid"));
    EXPECT_TRUE(inbox.value(QStringLiteral("confirm")).toBool());
    EXPECT_EQ((*m_engine)->settings.value(Settings::MonitoredFolders).toArray().size(), 1);

    QVariantMap remove = requestFrom("monitor-remove|folder=Inbox");
    remove.insert(QStringLiteral("cwd"), home);
    EXPECT_EQ(one(remove), QStringLiteral("Removed '%1/Inbox' from Folder Monitor").arg(home));
    EXPECT_EQ((*m_engine)->settings.value(Settings::MonitoredFolders).toArray().size(), 0);
}

TEST_F(CmdLineTest, StoreWriteFailuresAreErrors)
{
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    addGridAction(QStringLiteral("Copy Files"));
    // The column count is refused after the size was written: neither may stay.
    db.runQuery(QStringLiteral("CREATE TRIGGER refuseCols BEFORE UPDATE OF num_cols ON grids "
                               "BEGIN SELECT RAISE(ABORT, 'refused'); END"));
    db.runQuery(QStringLiteral("CREATE TRIGGER refuseActions BEFORE UPDATE ON actions "
                               "BEGIN SELECT RAISE(ABORT, 'refused'); END"));
    EXPECT_EQ(one(requestFrom("grid-settings|grid=Main Grid|size=90|cols=4")),
              QStringLiteral("Error: Could not save the settings of grid 'Main Grid'"));
    EXPECT_EQ(one(requestFrom("set-icon|name=Copy Files|reset=true")),
              QStringLiteral("Error: Failed to reset the icon of 'Copy Files'"));
    EXPECT_DOUBLE_EQ(db.gridSizeForGrid(1), 70.0);
}

// The socket server alone, answering every request 100 ms later with its action word.
class CmdLineServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        // Short, so the silent cases end quickly, yet long enough for a megabyte to arrive on
        // a loaded machine.
        server.setRequestTimeout(1000);
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
    QByteArray socketPath() const
    {
        return QDir(runtime()).filePath(QStringLiteral("skelvo.sock")).toUtf8();
    }

    // Runs `client` in another thread while this one serves.
    template <typename Client> auto whileServing(Client client)
    {
        auto reply = std::async(std::launch::async, client);
        waitUntil([&] { return isReady(reply); }, 15000);
        return reply.get();
    }

    TestHome home;
    CmdLineServer server;
};

TEST_F(CmdLineServerTest, EveryConnectionIsAnsweredOrDroppedAndServingGoesOn)
{
    const QByteArray status = R"({"name":"SkelvoRunCmdLineTask","userInfo":{"action":"status"}})";
    const QByteArray finish = R"({"name":"SkelvoRunCmdLineFinish"})"
                              "\n";
    struct Case {
        const char* what;
        QByteArray sent;
        bool halfClose;
        QByteArray answerHas; // empty: closed without an answer
    };
    const Case cases[] = {
        {"request, then half-close", status + '\n', true, R"("response":"status")"},
        {"nothing at all", {}, false, {}},
        {"a request without its end", status, false, {}},
        {"not JSON", "this is not json\n", false, "Error: Invalid command line task notification"},
        {"too large", QByteArray(CmdLineProtocol::MaxMessageBytes + 4096, 'x'), false,
         "Error: Request too large"},
    };
    for (const Case& c : cases) {
        const auto answer =
            whileServing([&] { return exchange(socketPath(), c.sent, c.halfClose); });
        ASSERT_TRUE(answer.has_value()) << c.what << ": the server never closed";
        EXPECT_TRUE(answer->contains(c.answerHas)) << c.what << ": " << answer->constData();
        EXPECT_EQ(answer->isEmpty(), c.answerHas.isEmpty()) << c.what;
        EXPECT_TRUE(c.answerHas.isEmpty() || answer->endsWith(finish)) << c.what;
    }
}

TEST_F(CmdLineServerTest, OneInstancePerUserAndOtherUsersAreRefused)
{
    CmdLineServer second;
    EXPECT_FALSE(second.listen(runtime()));
    EXPECT_TRUE(second.anotherInstanceIsRunning());

    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    // Open the way to the socket so that only the peer check stands between.
    for (const QString& path : {runtime(), home.path(), QString::fromUtf8(socketPath())}) {
        ::chmod(QFile::encodeName(path).constData(), 0777);
    }
    const QByteArray path = socketPath();
    LogCapture log;
    const int outcome = whileServing([&] {
        const pid_t child = fork();
        if (child == 0) {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                _exit(3);
            }
            const int fd = connectTo(path.constData());
            if (fd < 0) {
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
    EXPECT_EQ(outcome, 0) << "another user's request must get no answer";
    EXPECT_TRUE(log.contains(QStringLiteral("Refused a command-line connection from user 65534")))
        << log.lines().join(u'\n').toStdString();
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
