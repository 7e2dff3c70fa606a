#include "tasks/Task.h"

#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "core/Version.h"
#include "platform/SystemInfo.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/FolderMonitorContext.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonValue>
#include <QRegularExpression>

#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>

namespace {

const QString Bullets = QStringLiteral("\u2022\u2022\u2022\u2022");
const QString LoginSheet = QStringLiteral("TaskTestLogin");
const QString TaskPath = QStringLiteral("/actions/Copy.skbundle/Contents/Resources/action.rb");
const QRegularExpression TaskFileName(QStringLiteral("^task-[1-9]{5}$"));

// The VARIABLE lines of a description, by name.
QMap<QString, QString> variablesOf(const std::optional<QString>& text)
{
    static const QRegularExpression line(QStringLiteral("^VARIABLE: \"([^\"]*)\" \"(.*)\"$"),
                                         QRegularExpression::MultilineOption);
    QMap<QString, QString> variables;
    for (auto it = line.globalMatch(text.value_or(QString())); it.hasNext();) {
        const auto match = it.next();
        variables.insert(match.captured(1), match.captured(2));
    }
    return variables;
}

void processPostedEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

class TaskTest : public testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        // Neither the machine's proxy variables nor its desktop's proxy settings.
        for (const char* name :
             {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY",
              "no_proxy", "NO_PROXY", "XDG_CONFIG_HOME"}) {
            m_savedEnvironment.emplace_back(name, qEnvironmentVariableIsSet(name)
                                                      ? std::optional(qgetenv(name))
                                                      : std::nullopt);
            qunsetenv(name);
        }
        qputenv("XDG_CONFIG_HOME", (m_engine.home().path() + QStringLiteral("/xdg")).toUtf8());
    }
    void TearDown() override
    {
        for (const auto& [name, value] : m_savedEnvironment) {
            if (value) {
                qputenv(name, *value);
            } else {
                qunsetenv(name);
            }
        }
        Task::setRunnerStarter({});
        Task::setIdSource({});
        ActionOptionSchemas::unregisterSchema(LoginSheet);
    }

    std::unique_ptr<Task> makeTask()
    {
        auto task = std::make_unique<Task>(m_engine->taskContext);
        task->actionFile = std::make_shared<ActionFile>();
        task->actionFile->actionName = QStringLiteral("Copy");
        task->actionFile->taskPath = TaskPath;
        task->event = QStringLiteral("dragged");
        return task;
    }
    static void registerLoginSheet(bool needsKeychain)
    {
        OptionSchema sheet;
        sheet.name = LoginSheet;
        sheet.needsKeychainStorage = needsKeychain;
        sheet.keychainPasswordKey = QStringLiteral("password");
        sheet.constantVariables = {
            {QStringLiteral("api_host"), QStringLiteral("https://api.example.com")},
            {QStringLiteral("tmp_folder"), QStringLiteral("/nowhere")}};
        ActionOptionSchemas::registerSchema(sheet);
    }
    static QString tasksFolder()
    {
        return SupportPaths::applicationSupportDirectory() + QStringLiteral("/Tasks");
    }
    // Runs a task whose start fails for the reason the test set up: no runner starts, the
    // user is told, and the completion still runs, later.
    void expectRunStopsAndCompletes()
    {
        auto task = makeTask();
        int completions = 0;
        task->completion = [&] { ++completions; };
        bool started = false;
        Task::setRunnerStarter([&](Task&) { return started = true; });
        task->run();
        EXPECT_FALSE(started);
        EXPECT_TRUE(task->taskDescriptionPath().isEmpty());
        EXPECT_EQ(completions, 0);
        processPostedEvents();
        EXPECT_EQ(completions, 1);
    }

    TestEngine m_engine;
    LogCapture m_log;
    std::vector<std::pair<const char*, std::optional<QByteArray>>> m_savedEnvironment;
};

// --- Building the description ------------------------------------------------------------

TEST_F(TaskTest, FullDescriptionOfKnownTask)
{
    auto task = makeTask();
    task->items = {QStringLiteral("/tmp/a b.txt"), QStringLiteral("/tmp/say \"hi\".txt")};
    task->variables = {{QStringLiteral("dragged_type"), QStringLiteral("files")},
                       {QStringLiteral("OPERATION"), QStringLiteral("copy")},
                       {QStringLiteral("note"), QStringLiteral("a \"quoted\" value")},
                       {QStringLiteral("scoped_bookmark"), QStringLiteral("bookmark-data")}};
    const std::optional<QString> text = task->generateTaskDescription(false);
    ASSERT_TRUE(text);
    QMap<QString, QString> expected = {
        {QStringLiteral("dragged_type"), QStringLiteral("files")},
        {QStringLiteral("OPERATION"), QStringLiteral("copy")},
        {QStringLiteral("note"), QStringLiteral("a \"quoted\" value")},
        {QStringLiteral("support_folder"), SupportPaths::applicationSupportDirectory()},
        {QStringLiteral("tmp_folder"), QDir::tempPath()},
        {QStringLiteral("app_version"), Version::shortVersionString()},
        {QStringLiteral("os_version"), SystemInfo::osVersion()},
    };
    if (SystemInfo::isArm64()) {
        expected.insert(QStringLiteral("apple_silicon"), QStringLiteral("1"));
    }
    const QStringList lines = text->split(u'\n');
    ASSERT_EQ(lines.size(), 2 + expected.size() + 1) << text->toStdString();
    EXPECT_EQ(lines[0], QStringLiteral("ACTION: \"%1\"").arg(TaskPath));
    EXPECT_EQ(lines[1], QStringLiteral("EVENT: \"dragged\""));
    EXPECT_EQ(lines.last(), QStringLiteral(R"(ITEMS: "/tmp/a b.txt" "/tmp/say \"hi\".txt")"));
    EXPECT_EQ(variablesOf(text), expected);
    EXPECT_FALSE(task->generateTaskDescription(true)->contains(QStringLiteral("bookmark")));

    // Only dragged files have their quotes escaped; blanks stay inside the quotes; without
    // items the file ends with the last variable line.
    struct Row {
        QStringList items;
        const char* draggedType;
        QString ending;
    };
    const Row rows[] = {
        {{QStringLiteral("say \"hi\""), QStringLiteral("plain")},
         "files",
         QStringLiteral("\"\nITEMS: \"say \\\"hi\\\"\" \"plain\"")},
        {{QStringLiteral("say \"hi\"")}, "text", QStringLiteral("\"\nITEMS: \"say \"hi\"\"")},
        {{QStringLiteral("say \"hi\"")}, nullptr, QStringLiteral("\"\nITEMS: \"say \"hi\"\"")},
        {{QStringLiteral(" padded ")}, "files", QStringLiteral("\"\nITEMS: \" padded \"")},
        {{}, "value ", QStringLiteral("\nVARIABLE: \"zzz_last\" \"value \"")},
    };
    for (const Row& row : rows) {
        auto other = makeTask();
        other->items = row.items;
        if (row.draggedType) {
            other->variables.insert(row.items.isEmpty() ? QStringLiteral("zzz_last")
                                                        : QStringLiteral("dragged_type"),
                                    QString::fromLatin1(row.draggedType));
        }
        const QString ending = other->generateTaskDescription(false).value_or(QString());
        EXPECT_TRUE(ending.endsWith(row.ending)) << ending.toStdString();
    }
}

TEST_F(TaskTest, ConsoleModeMasksSecretsAndTheFileKeepsThem)
{
    auto task = makeTask();
    // Two of the masked names; the list itself lives in the code.
    task->variables = {{QStringLiteral("api_key"), QStringLiteral("k")},
                       {QStringLiteral("refresh_token"), QStringLiteral("t")},
                       {QStringLiteral("folder"), QStringLiteral("/srv/upload")}};
    // Console first: masking must leave the task's own variables alone.
    const auto console = variablesOf(task->generateTaskDescription(true));
    const auto normal = variablesOf(task->generateTaskDescription(false));
    EXPECT_EQ(normal.value(QStringLiteral("api_key")), QStringLiteral("k"));
    EXPECT_EQ(normal.value(QStringLiteral("refresh_token")), QStringLiteral("t"));
    EXPECT_EQ(console.value(QStringLiteral("api_key")), Bullets);
    EXPECT_EQ(console.value(QStringLiteral("refresh_token")), Bullets);
    EXPECT_EQ(console.value(QStringLiteral("folder")), QStringLiteral("/srv/upload"));
    EXPECT_EQ(console.size(), normal.size()) << "only present keys are masked";
}

TEST_F(TaskTest, TheLoginSheetsPasswordAndConstants)
{
    struct Row {
        bool needsKeychain;
        const char* password; // set on the task, or none
        const char* written;  // in the file, or none
        bool named;           // password_variable is there
    };
    const Row rows[] = {{true, "p\u00e4 ss", "cMOkIHNz", true},
                        {true, nullptr, nullptr, false},
                        {false, "plain", "plain", false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.needsKeychain);
        registerLoginSheet(row.needsKeychain);
        auto task = makeTask();
        task->actionFile->optionsNib = LoginSheet;
        task->variables.insert(QStringLiteral("api_host"), QStringLiteral("from the task"));
        if (row.password) {
            task->variables.insert(QStringLiteral("password"), QString::fromUtf8(row.password));
        }
        const auto vars = variablesOf(task->generateTaskDescription(false));
        EXPECT_EQ(vars.value(QStringLiteral("password")), QString::fromUtf8(row.written));
        EXPECT_EQ(vars.contains(QStringLiteral("password_variable")), row.named);
        // The sheet's constants win over the task's variables; the fixed ones win over both.
        EXPECT_EQ(vars.value(QStringLiteral("api_host")),
                  QStringLiteral("https://api.example.com"));
        EXPECT_EQ(vars.value(QStringLiteral("tmp_folder")), QDir::tempPath());
        if (row.named) {
            const auto console = variablesOf(task->generateTaskDescription(true));
            EXPECT_EQ(console.value(QStringLiteral("password")), Bullets);
            EXPECT_EQ(console.value(QStringLiteral("password_variable")),
                      QStringLiteral("password"));
        }
    }
}

TEST_F(TaskTest, TruthySettingsAddTheFlagAndKeepTheFiles)
{
    Task::setRunnerStarter([](Task&) { return true; });
    const std::pair<std::optional<QJsonValue>, bool> rows[] = {
        {std::nullopt, false},         {false, false}, {QStringLiteral("no"), false},
        {QStringLiteral("NO"), false}, {true, true},   {QStringLiteral("yes"), true}};
    for (const auto& [setting, on] : rows) {
        SCOPED_TRACE(setting ? setting->toVariant().toString().toStdString() : "unset");
        for (const QString& key :
             {Settings::DisableSSLVerify, Settings::KeepTaskDescriptionFiles}) {
            if (setting) {
                m_engine->settings.setValue(key, *setting);
            } else {
                m_engine->settings.remove(key);
            }
        }
        auto task = makeTask();
        EXPECT_EQ(variablesOf(task->generateTaskDescription(false))
                      .value(QStringLiteral("disable_ssl_verify"), QStringLiteral("absent")),
                  on ? QStringLiteral("1") : QStringLiteral("absent"));
        task->run();
        ASSERT_TRUE(QFileInfo::exists(task->taskDescriptionPath()));
        task->cleanup();
        EXPECT_EQ(QFileInfo::exists(task->taskDescriptionPath()), on);
    }
    EXPECT_FALSE(m_log.contains(QStringLiteral("Error deleting task description file")));

    m_engine->settings.remove(Settings::KeepTaskDescriptionFiles);
    auto task = makeTask();
    task->run();
    ASSERT_TRUE(QFile::remove(task->taskDescriptionPath()));
    task->cleanup();
    EXPECT_TRUE(m_log.contains(QStringLiteral("Error deleting task description file with path (") +
                               task->taskDescriptionPath() + QStringLiteral("): ")));
}

TEST_F(TaskTest, ProxyVariablesComeFromTheEnvironment)
{
    qputenv("http_proxy", "http://proxy.example.net:3128");
    qputenv("HTTPS_PROXY", "http://secure.example.net:3129/");
    const auto vars = variablesOf(makeTask()->generateTaskDescription(false));
    EXPECT_EQ(vars.value(QStringLiteral("http_proxy")),
              QStringLiteral("http://proxy.example.net:3128"));
    EXPECT_EQ(vars.value(QStringLiteral("https_proxy")),
              QStringLiteral("https://secure.example.net:3129"));
}

TEST(TaskProxyVariables, RulesOverProxyEntries)
{
    using Type = ProxyEntry::Type;
    const auto entry = [](const char* host, int port, Type type) {
        return ProxyEntry{QString::fromLatin1(host), port, type};
    };
    struct Row {
        ProxyEntryList http;
        ProxyEntryList https;
        const char* httpProxy; // "" for none
        const char* httpsProxy;
    };
    const Row rows[] = {
        {{}, {}, "", ""},
        {{entry("proxy", 3128, Type::HTTP)},
         {entry("secure", 3129, Type::HTTPS)},
         "http://proxy:3128",
         "https://secure:3129"},
        // A local host goes to http_proxy even from the https list, whatever its type.
        {{}, {entry("127.0.0.1", 8888, Type::HTTPS)}, "http://127.0.0.1:8888", ""},
        {{entry("localhost", 1080, Type::SOCKS)}, {}, "http://localhost:1080", ""},
        // SOCKS and other proxies elsewhere are ignored.
        {{entry("socks.example", 1080, Type::SOCKS)}, {entry("other", 21, Type::Other)}, "", ""},
        // The first match wins for each key.
        {{entry("first", 1, Type::HTTP), entry("localhost", 2, Type::HTTP)},
         {entry("127.0.0.1", 4, Type::HTTPS), entry("s1", 5, Type::HTTPS),
          entry("s2", 6, Type::HTTPS)},
         "http://first:1",
         "https://s1:5"},
        {{},
         {entry("s1", 5, Type::HTTPS), entry("localhost", 7, Type::HTTPS)},
         "http://localhost:7",
         "https://s1:5"},
        // An HTTP entry of the https list still fills http_proxy when it is free.
        {{}, {entry("plain", 8080, Type::HTTP)}, "http://plain:8080", ""},
        {{entry("::1", 3128, Type::HTTP)}, {}, "http://[::1]:3128", ""},
    };
    for (const Row& row : rows) {
        TaskVariables expected;
        for (const auto& [key, value] :
             {std::pair{"http_proxy", row.httpProxy}, std::pair{"https_proxy", row.httpsProxy}}) {
            if (*value) {
                expected.insert(QString::fromLatin1(key), QString::fromLatin1(value));
            }
        }
        EXPECT_EQ(Task::proxyVariables(row.http, row.https), expected) << row.httpProxy;
    }
    // Local hosts are exactly two names.
    for (const char* host : {"127.0.0.1", "localhost", "", "LOCALHOST", "127.0.0.2", "::1",
                             "localhost.localdomain", " localhost"}) {
        EXPECT_EQ(Task::isLocalProxyHost(QString::fromLatin1(host)),
                  host == std::string_view("127.0.0.1") || host == std::string_view("localhost"))
            << host;
    }
}

// --- Paths and writing -------------------------------------------------------------------

TEST_F(TaskTest, AnIdWhoseNameIsTakenIsDrawnAgainAndNoFreeNameStopsTheRun)
{
    const QString taken = m_engine.home().writeFile(
        QDir(m_engine.home().path()).relativeFilePath(tasksFolder() + "/task-11111"), "theirs");
    // A link planted at a name is taken too, never written through.
    const QString planted = m_engine.home().path() + QStringLiteral("/planted");
    ASSERT_TRUE(QFile::link(planted, tasksFolder() + QStringLiteral("/task-22222")));
    const QStringList ids = {QStringLiteral("11111"), QStringLiteral("22222"),
                             QStringLiteral("33333")};
    int draws = 0;
    QFile file;
    QString path;
    QString error;
    ASSERT_TRUE(
        Task::createTaskDescriptionFile(file, &path, &error, [&] { return ids.at(draws++); }));
    EXPECT_EQ(path, tasksFolder() + QStringLiteral("/task-33333"));
    EXPECT_EQ(draws, 3);
    EXPECT_TRUE(file.isOpen());
    QFile existing(taken);
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), QByteArray("theirs"));
    EXPECT_FALSE(QFileInfo::exists(planted));

    draws = 0;
    Task::setIdSource([&] {
        ++draws;
        return QStringLiteral("11111");
    });
    expectRunStopsAndCompletes();
    EXPECT_EQ(draws, Task::MaxNameDraws);
    ASSERT_EQ(m_engine.alerts().alerts.size(), 1);
    EXPECT_EQ(m_engine.alerts().alerts[0].title, QStringLiteral("Failed to launch task"));
    EXPECT_TRUE(m_engine.alerts().alerts[0].message.contains(Task::NoFreeNameError));
}

TEST_F(TaskTest, DescriptionFilesArePrivateUtf8AndNew)
{
    auto task = makeTask();
    const QString text = QStringLiteral("ACTION: \"x\"\nVARIABLE: \"k\" \"\u00fc\u2022\"");
    const std::optional<QString> path = task->writeTaskDescriptionFile(text);
    ASSERT_TRUE(path);
    EXPECT_EQ(QFileInfo(*path).absolutePath(), tasksFolder());
    QFile file(*path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), text.toUtf8());
    for (const auto& [name, mode] : {std::pair{*path, 0600u}, std::pair{tasksFolder(), 0700u}}) {
        struct stat info {};
        ASSERT_EQ(::stat(QFile::encodeName(name).constData(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, mode) << name.toStdString();
    }
    EXPECT_TRUE(task->writeTaskDescriptionFile(text));
    EXPECT_FALSE(task->writeTaskDescriptionFile(std::nullopt));
    EXPECT_EQ(QDir(tasksFolder()).entryList(QDir::Files).size(), 2);
}

TEST_F(TaskTest, UnwritableTasksFolderStopsTheRunAndStillCompletes)
{
    // A file where the Tasks folder belongs cannot be replaced by the folder.
    m_engine.home().writeFile(QDir(m_engine.home().path()).relativeFilePath(tasksFolder()),
                              "blocker");
    expectRunStopsAndCompletes();
    EXPECT_TRUE(m_log.contains(QStringLiteral("Error creating folder at ") + tasksFolder()));
    EXPECT_TRUE(m_log.contains(QStringLiteral("Error writing task description file ")));
    EXPECT_TRUE(m_engine->debugConsole.text().isEmpty());
}

// --- Running, console and cleanup ---------------------------------------------------------

TEST_F(TaskTest, RunHandsTheWrittenTaskToTheRunnerShowsItAndKeepsACopy)
{
    struct Context : FolderMonitorContext {
        void registerOutputAtPath(const QString&) override {}
    };
    int scans = 0;
    ActionFileParser& parser = ActionFileParser::shared();
    parser.setSharingServiceProvider([&] {
        ++scans;
        return ActionFileList();
    });
    parser.actionFiles();
    parser.actionFiles();
    EXPECT_EQ(scans, 1);

    auto task = makeTask();
    task->items = {QStringLiteral("/tmp/one")};
    task->variables = {{QStringLiteral("api_key"), QStringLiteral("real-key")}};
    task->folderMonitorContext = std::make_shared<Context>();
    int completions = 0;
    task->completion = [&] { ++completions; };
    Task* startedTask = nullptr;
    bool fileExistedAtStart = false;
    Task::setRunnerStarter([&](Task& started) {
        startedTask = &started;
        fileExistedAtStart = QFileInfo::exists(started.taskDescriptionPath());
        return true;
    });
    task->run();
    EXPECT_EQ(startedTask, task.get());
    EXPECT_TRUE(fileExistedAtStart);
    const QString path = task->taskDescriptionPath();
    const QString name = QFileInfo(path).fileName();
    EXPECT_TRUE(TaskFileName.match(name).hasMatch()) << name.toStdString();
    parser.actionFiles();
    EXPECT_EQ(scans, 2) << "a run rescans the actions";
    parser.setSharingServiceProvider({});
    processPostedEvents();
    EXPECT_EQ(completions, 0);

    // The console shows the masked description; the file keeps the secret.
    const QString masked = task->generateTaskDescription(true).value_or(QString());
    EXPECT_TRUE(masked.contains(QStringLiteral("VARIABLE: \"api_key\" \"") + Bullets + u'"'));
    const QString bold =
        QStringLiteral("\n[Launching task with command line: runner.rb %1]\n\n").arg(name);
    const QString black = QStringLiteral("Task description file %1:\n\n%2\n").arg(name, masked);
    using Run = DebugConsoleController::Run;
    EXPECT_EQ(m_engine->debugConsole.runs(),
              (QList<Run>{{bold, DebugConsoleController::Colour::Black, true},
                          {black, DebugConsoleController::Colour::Black, false}}));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains("VARIABLE: \"api_key\" \"real-key\""));

    const std::shared_ptr<Task> last = m_engine->debugConsole.lastRunTask();
    ASSERT_TRUE(last);
    EXPECT_NE(last.get(), task.get());
    EXPECT_EQ(last->items, task->items);
    EXPECT_TRUE(last->taskDescriptionPath().isEmpty());
    EXPECT_FALSE(last->completion);
    // The copy's variables are its own.
    task->variables.insert(QStringLiteral("later"), QStringLiteral("x"));
    EXPECT_FALSE(last->variables.contains(QStringLiteral("later")));

    task->cleanup();
    EXPECT_FALSE(QFileInfo::exists(path));
    processPostedEvents();
    EXPECT_EQ(completions, 1);

    // A starter that declines the task leaves it cleaned up.
    auto declined = makeTask();
    declined->completion = [&] { ++completions; };
    Task::setRunnerStarter([&](Task&) { return false; });
    declined->run();
    EXPECT_FALSE(declined->taskDescriptionPath().isEmpty());
    EXPECT_FALSE(QFileInfo::exists(declined->taskDescriptionPath()));
    processPostedEvents();
    EXPECT_EQ(completions, 2);
}

TEST_F(TaskTest, CompletionRunsOnceLaterAndOutlivesTheTask)
{
    auto task = makeTask();
    int completions = 0;
    task->completion = [&] { ++completions; };
    task->finishCompletion();
    task->finishCompletion();
    task->cleanup();
    EXPECT_EQ(completions, 0);
    task.reset();
    processPostedEvents();
    EXPECT_EQ(completions, 1);
}

TEST(TaskDebugConsole, KeepsStyledRunsWithinItsLimit)
{
    using Colour = DebugConsoleController::Colour;
    using Run = DebugConsoleController::Run;
    HeadlessWindowPresenter windows;
    AlertHelper alerts;
    DebugConsoleController console(windows, alerts);
    QList<Run> signalled;
    QObject::connect(&console, &DebugConsoleController::appended,
                     [&](const Run& run) { signalled << run; });
    console.appendBold(QStringLiteral("head "));
    console.append(QStringLiteral("one "), Colour::Black);
    console.append(QStringLiteral("two "), Colour::Black);
    console.append(QStringLiteral("oops"), Colour::Red);
    console.append(QString(), Colour::Black);
    console.append(QStringLiteral("!"), Colour::Red, true);
    EXPECT_EQ(console.text(), QStringLiteral("head one two oops!"));
    EXPECT_EQ(console.runs(), (QList<Run>{{QStringLiteral("head "), Colour::Black, true},
                                          {QStringLiteral("one two "), Colour::Black, false},
                                          {QStringLiteral("oops"), Colour::Red, false},
                                          {QStringLiteral("!"), Colour::Red, true}}));
    EXPECT_EQ(signalled.size(), 5);
    EXPECT_EQ(signalled.at(2), (Run{QStringLiteral("two "), Colour::Black, false}));
    console.clear();
    EXPECT_TRUE(console.text().isEmpty());
    EXPECT_TRUE(console.runs().isEmpty());

    // Beyond its limit the oldest text goes.
    console.setMaximumLength(10);
    console.append(QStringLiteral("abcd"), Colour::Black);
    console.append(QStringLiteral("efgh"), Colour::Red);
    console.append(QStringLiteral("ijkl"), Colour::Black);
    EXPECT_EQ(console.text(), QStringLiteral("cdefghijkl"));
    ASSERT_EQ(console.runs().size(), 3);
    EXPECT_EQ(console.runs().first().text, QStringLiteral("cd"));
    console.append(QStringLiteral("0123456789XY"), Colour::Red);
    EXPECT_EQ(console.text(), QStringLiteral("23456789XY"));
    EXPECT_EQ(console.runs().size(), 1);
    console.append(QStringLiteral("z"), Colour::Red);
    EXPECT_EQ(console.text(), QStringLiteral("3456789XYz"));
}

} // namespace
