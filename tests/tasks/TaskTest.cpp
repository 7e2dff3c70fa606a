#include "tasks/Task.h"

#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "core/Version.h"
#include "platform/SystemInfo.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/FolderMonitorContext.h"
#include "tests/support/TestEngine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonValue>
#include <QRegularExpression>

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <sys/stat.h>

namespace {

class RecordingMonitorContext : public FolderMonitorContext {
public:
    void registerOutputAtPath(const QString& path) override { outputs << path; }
    QStringList outputs;
};

// The whole test program shares one application object (for the main loop that completions
// are posted to) and one home for the settings and parser singletons; each test then moves
// the support folders into its own TestHome.
class TasksEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        m_home = std::make_unique<TestHome>();
        static int argc = 1;
        static char name[] = "tasks_tests";
        static char* argv[] = {name, nullptr};
        m_application = std::make_unique<QCoreApplication>(argc, argv);
        ActionFileParser::shared();
    }
    void TearDown() override
    {
        m_application.reset();
        m_home.reset();
    }

private:
    std::unique_ptr<TestHome> m_home;
    std::unique_ptr<QCoreApplication> m_application;
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new TasksEnvironment);

// Sets and unsets process environment variables, restoring them afterwards.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    ~ScopedEnvironment()
    {
        for (const auto& [name, value] : m_saved) {
            if (value) {
                qputenv(name.c_str(), *value);
            } else {
                qunsetenv(name.c_str());
            }
        }
    }

    void set(const char* name, const QByteArray& value)
    {
        save(name);
        qputenv(name, value);
    }
    void unset(const char* name)
    {
        save(name);
        qunsetenv(name);
    }

private:
    void save(const char* name)
    {
        if (m_saved.count(name) == 0) {
            m_saved[name] = qEnvironmentVariableIsSet(name)
                                ? std::optional<QByteArray>(qgetenv(name))
                                : std::nullopt;
        }
    }

    std::map<std::string, std::optional<QByteArray>> m_saved;
};

const QString Bullets = QStringLiteral("\u2022\u2022\u2022\u2022");
const QString LoginSheet = QStringLiteral("TaskTestLogin");
const QString TaskPath = QStringLiteral("/actions/Copy.skbundle/Contents/Resources/action.rb");

struct ParsedDescription {
    QStringList lines;
    QMap<QString, QString> variables;
    int variableLines = 0;
};

ParsedDescription parse(const QString& text)
{
    static const QRegularExpression variableLine(
        QStringLiteral("^VARIABLE: \"([^\"]*)\" \"(.*)\"$"));
    ParsedDescription parsed;
    parsed.lines = text.split(QLatin1Char('\n'));
    for (const QString& line : parsed.lines) {
        const auto match = variableLine.match(line);
        if (match.hasMatch()) {
            parsed.variables.insert(match.captured(1), match.captured(2));
            ++parsed.variableLines;
        }
    }
    return parsed;
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
        for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                                 "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
            m_environment.unset(name);
        }
        // Keeps the desktop's own proxy settings of the machine out of the descriptions.
        m_environment.set("XDG_CONFIG_HOME",
                          QDir(m_home.path()).filePath(QStringLiteral("xdg-config")).toUtf8());
        resetShared();
    }

    void TearDown() override
    {
        resetShared();
        ActionOptionSchemas::unregisterSchema(LoginSheet);
    }

    void resetShared()
    {
        m_engine->settings.remove(Settings::DisableSSLVerify);
        m_engine->settings.remove(Settings::KeepTaskDescriptionFiles);
        m_engine->debugConsole.clear();
        m_engine->debugConsole.setLastRunTask(nullptr);
        Task::setRunnerStarter({});
        Task::setIdSource({});
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

    QString tasksFolder() const
    {
        return QDir(SupportPaths::applicationSupportDirectory()).filePath(QStringLiteral("Tasks"));
    }

    TestEngine m_engine;
    TestHome& m_home = m_engine.home();
    ScopedEnvironment m_environment;
    LogCapture m_log;
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
    const ParsedDescription parsed = parse(*text);

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

    ASSERT_EQ(parsed.lines.size(), 2 + expected.size() + 1) << text->toStdString();
    EXPECT_EQ(parsed.lines.first(), QStringLiteral("ACTION: \"%1\"").arg(TaskPath));
    EXPECT_EQ(parsed.lines.at(1), QStringLiteral("EVENT: \"dragged\""));
    EXPECT_EQ(parsed.lines.last(),
              QStringLiteral(R"(ITEMS: "/tmp/a b.txt" "/tmp/say \"hi\".txt")"));
    EXPECT_EQ(parsed.variableLines, expected.size());
    EXPECT_EQ(parsed.variables, expected);
    EXPECT_TRUE(parsed.lines.at(2).startsWith(QStringLiteral("VARIABLE: ")));
    EXPECT_TRUE(text->startsWith(
        QStringLiteral("ACTION: \"%1\"\nEVENT: \"dragged\"\nVARIABLE: ").arg(TaskPath)));
    EXPECT_FALSE(task->generateTaskDescription(true)->contains(QStringLiteral("bookmark")));
}

TEST_F(TaskTest, HowTheFileEnds)
{
    struct Row {
        QStringList items;
        const char* draggedType;
        QString ending;
    };
    // Only dragged files have their quotes escaped; blanks stay inside the quotes; without
    // items the file ends with the last variable line.
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
        auto task = makeTask();
        task->items = row.items;
        if (row.draggedType) {
            task->variables.insert(row.items.isEmpty() ? QStringLiteral("zzz_last")
                                                       : QStringLiteral("dragged_type"),
                                   QString::fromLatin1(row.draggedType));
        }
        const QString text = task->generateTaskDescription(false).value_or(QString());
        EXPECT_TRUE(text.endsWith(row.ending)) << text.toStdString();
    }
}

TEST_F(TaskTest, ConsoleModeMasksSecretsAndTheFileKeepsThem)
{
    // Two of the masked names; the list itself lives in the code.
    const QStringList maskedKeys = {QStringLiteral("api_key"), QStringLiteral("refresh_token")};
    auto task = makeTask();
    for (const QString& key : maskedKeys) {
        task->variables.insert(key, QStringLiteral("real-") + key);
    }
    task->variables.insert(QStringLiteral("folder"), QStringLiteral("/srv/upload"));

    const auto normal = parse(task->generateTaskDescription(false).value_or(QString())).variables;
    const auto console = parse(task->generateTaskDescription(true).value_or(QString())).variables;
    for (const QString& key : maskedKeys) {
        EXPECT_EQ(normal.value(key), QStringLiteral("real-") + key);
        EXPECT_EQ(console.value(key), Bullets) << key.toStdString();
    }
    EXPECT_EQ(console.value(QStringLiteral("folder")), QStringLiteral("/srv/upload"));
    EXPECT_EQ(console.value(QStringLiteral("support_folder")),
              normal.value(QStringLiteral("support_folder")));

    // Masking replaces present keys only and leaves the argument alone.
    const TaskVariables plain = {{QStringLiteral("api_key"), QStringLiteral("k")},
                                 {QStringLiteral("name"), QStringLiteral("n")}};
    const TaskVariables masked = Task::obfuscateVariables(plain);
    EXPECT_EQ(masked, (TaskVariables{{QStringLiteral("api_key"), Bullets},
                                     {QStringLiteral("name"), QStringLiteral("n")}}));
    EXPECT_EQ(plain.value(QStringLiteral("api_key")), QStringLiteral("k"));
}

TEST_F(TaskTest, KeychainPasswordIsBase64InTheFileAndMaskedInTheConsole)
{
    registerLoginSheet(true);
    auto task = makeTask();
    task->actionFile->optionsNib = LoginSheet;
    task->variables.insert(QStringLiteral("password"), QStringLiteral("p\u00e4 ss"));

    const auto normal = parse(task->generateTaskDescription(false).value_or(QString())).variables;
    EXPECT_EQ(normal.value(QStringLiteral("password")), QStringLiteral("cMOkIHNz"));
    EXPECT_EQ(normal.value(QStringLiteral("password_variable")), QStringLiteral("password"));
    const auto console = parse(task->generateTaskDescription(true).value_or(QString())).variables;
    EXPECT_EQ(console.value(QStringLiteral("password")), Bullets);
    EXPECT_EQ(console.value(QStringLiteral("password_variable")), QStringLiteral("password"));
}

TEST_F(TaskTest, KeychainPasswordNeedsTheSheetAndTheVariable)
{
    registerLoginSheet(true);
    auto task = makeTask();
    task->actionFile->optionsNib = LoginSheet;
    auto vars = parse(task->generateTaskDescription(false).value_or(QString())).variables;
    EXPECT_FALSE(vars.contains(QStringLiteral("password_variable")));
    EXPECT_FALSE(vars.contains(QStringLiteral("password")));

    registerLoginSheet(false);
    task->variables.insert(QStringLiteral("password"), QStringLiteral("plain"));
    vars = parse(task->generateTaskDescription(false).value_or(QString())).variables;
    EXPECT_FALSE(vars.contains(QStringLiteral("password_variable")));
    EXPECT_EQ(vars.value(QStringLiteral("password")), QStringLiteral("plain"));
}

TEST_F(TaskTest, ConstantVariablesOverrideTaskVariablesAndFixedOnesOverrideBoth)
{
    registerLoginSheet(false);
    auto task = makeTask();
    task->actionFile->optionsNib = LoginSheet;
    task->variables.insert(QStringLiteral("api_host"), QStringLiteral("from the task"));

    EXPECT_EQ(
        Task::constantVariablesForActionFile(*task->actionFile).value(QStringLiteral("api_host")),
        QStringLiteral("https://api.example.com"));
    const auto vars = parse(task->generateTaskDescription(false).value_or(QString())).variables;
    EXPECT_EQ(vars.value(QStringLiteral("api_host")), QStringLiteral("https://api.example.com"));
    EXPECT_EQ(vars.value(QStringLiteral("tmp_folder")), QDir::tempPath());
}

TEST_F(TaskTest, FlagVariablesAreAbsentWhenFalse)
{
    auto task = makeTask();
    auto vars = [&] {
        return parse(task->generateTaskDescription(false).value_or(QString())).variables;
    };

    struct Row {
        QJsonValue setting;
        bool present;
    };
    const Row rows[] = {{false, false},
                        {QStringLiteral("no"), false},
                        {QStringLiteral("NO"), false},
                        {QStringLiteral("yes"), true},
                        {true, true}};
    for (const Row& row : rows) {
        m_engine->settings.setValue(Settings::DisableSSLVerify, row.setting);
        const auto current = vars();
        EXPECT_EQ(current.contains(QStringLiteral("disable_ssl_verify")), row.present)
            << row.setting.toVariant().toString().toStdString();
        if (row.present) {
            EXPECT_EQ(current.value(QStringLiteral("disable_ssl_verify")), QStringLiteral("1"));
        }
    }
}

TEST_F(TaskTest, ProxyVariablesComeFromTheEnvironment)
{
    auto task = makeTask();
    auto vars = [&] {
        return parse(task->generateTaskDescription(false).value_or(QString())).variables;
    };
    EXPECT_FALSE(vars().contains(QStringLiteral("http_proxy")));
    EXPECT_FALSE(vars().contains(QStringLiteral("https_proxy")));

    m_environment.set("http_proxy", "http://proxy.example.net:3128");
    m_environment.set("HTTPS_PROXY", "http://secure.example.net:3129/");
    EXPECT_EQ(vars().value(QStringLiteral("http_proxy")),
              QStringLiteral("http://proxy.example.net:3128"));
    EXPECT_EQ(vars().value(QStringLiteral("https_proxy")),
              QStringLiteral("https://secure.example.net:3129"));

    // A local proxy serves both kinds of traffic as http_proxy.
    m_environment.unset("http_proxy");
    m_environment.unset("HTTPS_PROXY");
    m_environment.set("all_proxy", "socks5://127.0.0.1:9050");
    EXPECT_EQ(vars().value(QStringLiteral("http_proxy")), QStringLiteral("http://127.0.0.1:9050"));
    EXPECT_FALSE(vars().contains(QStringLiteral("https_proxy")));

    m_environment.set("no_proxy", ProxySettings::httpProbeUrl().host().toUtf8());
    EXPECT_FALSE(vars().contains(QStringLiteral("http_proxy")));
}

// --- Proxy rules -------------------------------------------------------------------------

TEST(TaskProxyVariables, RulesOverProxyEntries)
{
    using Type = ProxyEntry::Type;
    auto entry = [](const char* host, int port, Type type) {
        return ProxyEntry{QString::fromLatin1(host), port, type};
    };
    const QString http = QStringLiteral("http_proxy");
    const QString https = QStringLiteral("https_proxy");

    EXPECT_TRUE(Task::proxyVariables({}, {}).isEmpty());

    auto vars = Task::proxyVariables({entry("proxy", 3128, Type::HTTP)},
                                     {entry("secure", 3129, Type::HTTPS)});
    EXPECT_EQ(vars, (TaskVariables{{http, QStringLiteral("http://proxy:3128")},
                                   {https, QStringLiteral("https://secure:3129")}}));

    // A local host goes to http_proxy even from the https list, whatever its type.
    vars = Task::proxyVariables({}, {entry("127.0.0.1", 8888, Type::HTTPS)});
    EXPECT_EQ(vars, (TaskVariables{{http, QStringLiteral("http://127.0.0.1:8888")}}));
    vars = Task::proxyVariables({entry("localhost", 1080, Type::SOCKS)}, {});
    EXPECT_EQ(vars, (TaskVariables{{http, QStringLiteral("http://localhost:1080")}}));

    // SOCKS and other proxies elsewhere are ignored.
    vars = Task::proxyVariables({entry("socks.example", 1080, Type::SOCKS)},
                                {entry("other.example", 21, Type::Other)});
    EXPECT_TRUE(vars.isEmpty());

    // The first match wins for each key.
    vars = Task::proxyVariables({entry("first", 1, Type::HTTP), entry("localhost", 2, Type::HTTP),
                                 entry("second", 3, Type::HTTP)},
                                {entry("127.0.0.1", 4, Type::HTTPS), entry("s1", 5, Type::HTTPS),
                                 entry("s2", 6, Type::HTTPS)});
    EXPECT_EQ(vars, (TaskVariables{{http, QStringLiteral("http://first:1")},
                                   {https, QStringLiteral("https://s1:5")}}));
    vars =
        Task::proxyVariables({}, {entry("s1", 5, Type::HTTPS), entry("localhost", 7, Type::HTTPS)});
    EXPECT_EQ(vars, (TaskVariables{{http, QStringLiteral("http://localhost:7")},
                                   {https, QStringLiteral("https://s1:5")}}));
    // An HTTP entry of the https list still fills http_proxy when it is free.
    vars = Task::proxyVariables({}, {entry("plain", 8080, Type::HTTP)});
    EXPECT_EQ(vars, (TaskVariables{{http, QStringLiteral("http://plain:8080")}}));

    vars = Task::proxyVariables({entry("::1", 3128, Type::HTTP)}, {});
    EXPECT_EQ(vars.value(http), QStringLiteral("http://[::1]:3128"));
}

TEST(TaskProxyVariables, LocalHostsAreExactlyTwoNames)
{
    EXPECT_TRUE(Task::isLocalProxyHost(QStringLiteral("127.0.0.1")));
    EXPECT_TRUE(Task::isLocalProxyHost(QStringLiteral("localhost")));
    for (const char* host :
         {"", "LOCALHOST", "127.0.0.2", "::1", "localhost.localdomain", " localhost"}) {
        EXPECT_FALSE(Task::isLocalProxyHost(QString::fromLatin1(host))) << host;
    }
    EXPECT_FALSE(Task::isLocalProxyHost(QString()));
}

// --- Paths and writing -------------------------------------------------------------------

TEST_F(TaskTest, AnIdWhoseNameIsTakenIsDrawnAgain)
{
    ASSERT_TRUE(QDir().mkpath(tasksFolder()));
    const QString taken = QDir(tasksFolder()).filePath(QStringLiteral("task-11111"));
    QFile existing(taken);
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.write("theirs");
    existing.close();
    // A link planted at a name is taken too, never written through.
    const QString planted = QDir(m_home.path()).filePath(QStringLiteral("planted"));
    ASSERT_TRUE(QFile::link(planted, QDir(tasksFolder()).filePath(QStringLiteral("task-22222"))));

    const QStringList ids = {QStringLiteral("11111"), QStringLiteral("22222"),
                             QStringLiteral("33333")};
    int draws = 0;
    QFile file;
    QString path;
    QString error;
    ASSERT_TRUE(
        Task::createTaskDescriptionFile(file, &path, &error, [&] { return ids.at(draws++); }));
    EXPECT_EQ(path, QDir(tasksFolder()).filePath(QStringLiteral("task-33333")));
    EXPECT_EQ(draws, 3);
    EXPECT_TRUE(file.isOpen());
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), QByteArray("theirs"));
    EXPECT_FALSE(QFileInfo::exists(planted));
}

TEST_F(TaskTest, NoFreeNameStopsTheRunAndTellsTheUser)
{
    ASSERT_TRUE(QDir().mkpath(tasksFolder()));
    QFile existing(QDir(tasksFolder()).filePath(QStringLiteral("task-11111")));
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.close();
    int draws = 0;
    Task::setIdSource([&] {
        ++draws;
        return QStringLiteral("11111");
    });
    auto task = makeTask();
    int completions = 0;
    task->completion = [&] { ++completions; };
    bool started = false;
    Task::setRunnerStarter([&](Task&) { return started = true; });

    task->run();
    EXPECT_EQ(draws, Task::MaxNameDraws);
    EXPECT_FALSE(started);
    EXPECT_TRUE(task->taskDescriptionPath().isEmpty());
    ASSERT_EQ(m_engine.alerts().alerts.size(), 1);
    EXPECT_EQ(m_engine.alerts().alerts[0].title, QStringLiteral("Failed to launch task"));
    EXPECT_TRUE(m_engine.alerts().alerts[0].message.contains(Task::NoFreeNameError));
    processPostedEvents();
    EXPECT_EQ(completions, 1);
}

TEST_F(TaskTest, DescriptionFilesArePrivateUtf8AndNew)
{
    auto task = makeTask();
    const QString text =
        QStringLiteral("ACTION: \"x\"\nEVENT: \"clicked\"\nVARIABLE: \"k\" \"\u00fc\u2022\"");
    const std::optional<QString> path = task->writeTaskDescriptionFile(text);
    ASSERT_TRUE(path);
    EXPECT_EQ(QFileInfo(*path).absolutePath(), tasksFolder());
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^task-[1-9]{5}$"))
                    .match(QFileInfo(*path).fileName())
                    .hasMatch());

    QFile file(*path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), text.toUtf8());
    struct stat info {};
    ASSERT_EQ(::stat(QFile::encodeName(*path).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    struct stat folderInfo {};
    ASSERT_EQ(::stat(QFile::encodeName(tasksFolder()).constData(), &folderInfo), 0);
    EXPECT_EQ(folderInfo.st_mode & 07777, 0700u);

    const std::optional<QString> second = task->writeTaskDescriptionFile(text);
    ASSERT_TRUE(second);
    EXPECT_NE(*second, *path);

    const qsizetype before = QDir(tasksFolder()).entryList(QDir::Files).size();
    EXPECT_FALSE(task->writeTaskDescriptionFile(std::nullopt));
    EXPECT_EQ(QDir(tasksFolder()).entryList(QDir::Files).size(), before);
}

TEST_F(TaskTest, UnwritableTasksFolderStopsTheRunAndStillCompletes)
{
    // A file where the Tasks folder belongs cannot be replaced by the folder.
    QDir().mkpath(SupportPaths::applicationSupportDirectory());
    QFile blocker(tasksFolder());
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();

    auto task = makeTask();
    int completions = 0;
    task->completion = [&] { ++completions; };
    bool started = false;
    Task::setRunnerStarter([&](Task&) { return started = true; });

    task->run();
    EXPECT_FALSE(started);
    EXPECT_TRUE(task->taskDescriptionPath().isEmpty());
    EXPECT_TRUE(m_log.contains(QStringLiteral("Error creating folder at ") + tasksFolder()));
    EXPECT_TRUE(m_log.contains(QStringLiteral("Error writing task description file ")));
    EXPECT_TRUE(m_engine->debugConsole.text().isEmpty());
    EXPECT_EQ(completions, 0);
    processPostedEvents();
    EXPECT_EQ(completions, 1);
}

// --- Running, console and cleanup ---------------------------------------------------------

TEST_F(TaskTest, RunHandsTheWrittenTaskToTheRunnerAndKeepsACopy)
{
    auto task = makeTask();
    task->items = {QStringLiteral("/tmp/one")};
    task->variables = {{QStringLiteral("dragged_type"), QStringLiteral("files")}};
    task->folderMonitorContext = std::make_shared<RecordingMonitorContext>();
    int completions = 0;
    task->completion = [&] { ++completions; };

    Task* startedTask = nullptr;
    QString pathAtStart;
    bool fileExistedAtStart = false;
    Task::setRunnerStarter([&](Task& started) {
        startedTask = &started;
        pathAtStart = started.taskDescriptionPath();
        fileExistedAtStart = QFileInfo::exists(pathAtStart);
        return true;
    });

    task->run();
    EXPECT_EQ(startedTask, task.get());
    EXPECT_FALSE(pathAtStart.isEmpty());
    EXPECT_TRUE(fileExistedAtStart);
    EXPECT_EQ(task->taskDescriptionPath(), pathAtStart);
    processPostedEvents();
    EXPECT_EQ(completions, 0);

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
    EXPECT_FALSE(QFileInfo::exists(pathAtStart));
    processPostedEvents();
    EXPECT_EQ(completions, 1);
}

TEST_F(TaskTest, RunInvalidatesTheActionsCache)
{
    int scans = 0;
    ActionFileParser& parser = ActionFileParser::shared();
    parser.setSharingServiceProvider([&] {
        ++scans;
        return ActionFileList();
    });
    parser.actionFiles();
    parser.actionFiles();
    EXPECT_EQ(scans, 1);

    Task::setRunnerStarter([](Task&) { return true; });
    auto task = makeTask();
    task->run();
    parser.actionFiles();
    EXPECT_EQ(scans, 2);
    parser.setSharingServiceProvider({});
    task->cleanup();
}

TEST_F(TaskTest, ConsoleHeaderShowsTheMaskedDescription)
{
    auto task = makeTask();
    task->variables = {{QStringLiteral("api_key"), QStringLiteral("real-key")}};
    Task::setRunnerStarter([](Task&) { return true; });
    task->run();

    const QString name = QFileInfo(task->taskDescriptionPath()).fileName();
    ASSERT_TRUE(QRegularExpression(QStringLiteral("^task-[1-9]{5}$")).match(name).hasMatch());
    const QString masked = task->generateTaskDescription(true).value_or(QString());
    EXPECT_TRUE(
        masked.contains(QStringLiteral("VARIABLE: \"api_key\" \"") + Bullets + QLatin1Char('"')));

    const QString bold = QStringLiteral("\n[Launching task with command line: runner.rb ") + name +
                         QStringLiteral("]\n\n");
    const QString black = QStringLiteral("Task description file ") + name +
                          QStringLiteral(":\n\n") + masked + QStringLiteral("\n");
    const auto& runs = m_engine->debugConsole.runs();
    ASSERT_EQ(runs.size(), 2);
    EXPECT_EQ(runs.at(0),
              (DebugConsoleController::Run{bold, DebugConsoleController::Colour::Black, true}));
    EXPECT_EQ(runs.at(1),
              (DebugConsoleController::Run{black, DebugConsoleController::Colour::Black, false}));
    EXPECT_EQ(m_engine->debugConsole.text(), bold + black);

    QFile file(task->taskDescriptionPath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains("VARIABLE: \"api_key\" \"real-key\""));
    task->cleanup();
}

TEST_F(TaskTest, AStarterThatDeclinesTheTaskLeavesItCleanedUp)
{
    int completions = 0;
    auto declined = makeTask();
    declined->completion = [&] { ++completions; };
    QString path;
    Task::setRunnerStarter([&](Task& started) {
        path = started.taskDescriptionPath();
        return false;
    });
    declined->run();
    EXPECT_FALSE(path.isEmpty());
    EXPECT_FALSE(QFileInfo::exists(path));
    processPostedEvents();
    EXPECT_EQ(completions, 1);
}

TEST_F(TaskTest, CompletionRunsOnceAndLater)
{
    auto task = makeTask();
    int completions = 0;
    task->completion = [&] { ++completions; };

    task->finishCompletion();
    EXPECT_FALSE(task->completion);
    task->finishCompletion();
    task->cleanup();
    EXPECT_EQ(completions, 0);
    processPostedEvents();
    EXPECT_EQ(completions, 1);
    task->finishCompletion();
    processPostedEvents();
    EXPECT_EQ(completions, 1);

    // The completion outlives the task that scheduled it.
    auto shortLived = makeTask();
    shortLived->completion = [&] { ++completions; };
    shortLived->finishCompletion();
    shortLived.reset();
    processPostedEvents();
    EXPECT_EQ(completions, 2);
}

TEST_F(TaskTest, CleanupDeletesTheFileUnlessTheUserKeepsThem)
{
    Task::setRunnerStarter([](Task&) { return true; });
    struct Row {
        std::optional<QJsonValue> keep;
        bool kept;
    };
    const Row rows[] = {{std::nullopt, false},
                        {QJsonValue(false), false},
                        {QJsonValue(QStringLiteral("No")), false},
                        {QJsonValue(QStringLiteral("yes")), true},
                        {QJsonValue(true), true}};
    for (const Row& row : rows) {
        if (row.keep) {
            m_engine->settings.setValue(Settings::KeepTaskDescriptionFiles, *row.keep);
        } else {
            m_engine->settings.remove(Settings::KeepTaskDescriptionFiles);
        }
        auto task = makeTask();
        task->run();
        ASSERT_TRUE(QFileInfo::exists(task->taskDescriptionPath()));
        task->cleanup();
        EXPECT_EQ(QFileInfo::exists(task->taskDescriptionPath()), row.kept)
            << (row.keep ? row.keep->toVariant().toString().toStdString() : "unset");
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

// --- Debug console ---------------------------------------------------------------------

TEST(TaskDebugConsole, KeepsStyledRunsAndPlainText)
{
    using Colour = DebugConsoleController::Colour;
    HeadlessWindowPresenter windows;
    AlertHelper alerts;
    DebugConsoleController console(windows, alerts);
    QList<DebugConsoleController::Run> signalled;
    QObject::connect(&console, &DebugConsoleController::appended,
                     [&](const DebugConsoleController::Run& run) { signalled << run; });

    console.appendBold(QStringLiteral("head "));
    console.append(QStringLiteral("one "), Colour::Black);
    console.append(QStringLiteral("two "), Colour::Black);
    console.append(QStringLiteral("oops"), Colour::Red);
    console.append(QString(), Colour::Black);
    console.append(QStringLiteral("!"), Colour::Red, true);

    EXPECT_EQ(console.text(), QStringLiteral("head one two oops!"));
    const QList<DebugConsoleController::Run> expected = {
        {QStringLiteral("head "), Colour::Black, true},
        {QStringLiteral("one two "), Colour::Black, false},
        {QStringLiteral("oops"), Colour::Red, false},
        {QStringLiteral("!"), Colour::Red, true}};
    EXPECT_EQ(console.runs(), expected);
    EXPECT_EQ(signalled.size(), 5);
    EXPECT_EQ(signalled.at(2),
              (DebugConsoleController::Run{QStringLiteral("two "), Colour::Black, false}));

    console.clear();
    EXPECT_TRUE(console.text().isEmpty());
    EXPECT_TRUE(console.runs().isEmpty());
}

TEST(TaskDebugConsole, DropsTheOldestTextBeyondItsLimit)
{
    using Colour = DebugConsoleController::Colour;
    HeadlessWindowPresenter windows;
    AlertHelper alerts;
    DebugConsoleController console(windows, alerts);
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
