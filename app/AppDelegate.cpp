#include "app/AppDelegate.h"

#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "builtin/ActionInfo.h"
#include "builtin/BuiltInActionRunner.h"
#include "builtin/BuiltInOptionSchemas.h"
#include "cmdline/CmdLineTaskHandler.h"
#include "core/Log.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "core/Version.h"
#include "events/EventsHandler.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/Task.h"
#include "tasks/TasksController.h"

#include <QDir>
#include <QJsonObject>

namespace {

// A command-line run goes through event dispatch like a drop or a click on the grid.
Task* startGridActionTask(EventsHandler& events, const GridActionPtr& action, const QString& event,
                          const QStringList& files, const QString& text,
                          std::function<void()> finished)
{
    if (event == u"clicked") {
        return events.performActionClick(action, std::move(finished)).task;
    }
    if (!files.isEmpty()) {
        return events.runGridAction(action, files, true, std::move(finished));
    }
    return events.runGridAction(action, text, true, std::move(finished));
}

} // namespace

AppDelegate::AppDelegate(bool headless, EngineParts parts, QObject* parent)
    : QObject(parent)
    , m_headless(headless)
    , m_engine(std::move(parts))
    , m_cmdLineTaskHandler(
          std::make_unique<CmdLineTaskHandler>(m_engine.taskContext, m_engine.events))
{}

AppDelegate::~AppDelegate() = default;

bool AppDelegate::claimInstance(QString* error)
{
    return m_cmdLineTaskHandler->setup(SupportPaths::runtimeDirectory(), error);
}

QString AppDelegate::openArguments(const QStringList& arguments, const QString& cwd)
{
    QStringList absolute;
    for (const QString& argument : arguments) {
        const bool isUrl = argument.contains(QStringLiteral("://"));
        absolute << (isUrl || QDir::isAbsolutePath(argument)
                         ? argument
                         : QDir(cwd).absoluteFilePath(argument));
    }
    // Installing action files and answering skelvo:// URLs come with the action library and
    // the URL scheme; until then they are kept and logged.
    m_pendingArguments << absolute;
    for (const QString& argument : std::as_const(absolute)) {
        Log::info(QStringLiteral("Received %1").arg(argument));
    }
    return QStringLiteral("Skelvo is already running; handed over %1 argument(s)")
        .arg(absolute.size());
}

void AppDelegate::registerDefaultSettings()
{
    m_engine.settings.registerDefaults(QJsonObject{
        {Settings::PlaySounds, true},
        {Settings::KeepTaskDescriptionFiles, false},
        {Settings::DisableSSLVerify, false},
        {Settings::NotificationsEnabled, true},
        {Settings::AutoClosePopOutDropBar, true},
        {Settings::ScreenTopDragEnabled, true},
        {Settings::IncludeDevelopComments, true},
        {Settings::DevelopPreferredLanguage, QStringLiteral("Ruby")},
    });
}

void AppDelegate::applicationDidFinishLaunching()
{
    Log::openLogFile(QDir(SupportPaths::logsDirectory()).filePath(QStringLiteral("skelvo.log")));
    Log::info(QStringLiteral("Skelvo %1 starting%2")
                  .arg(Version::shortVersionString(),
                       m_headless ? QStringLiteral(" headless") : QString()));

    registerDefaultSettings();
    ActionOptionSchemas::registerStandardSchemas();
    registerBuiltInOptionSchemas();
    // Built-in actions: listed by the parser like bundles, run by the shared runner.
    m_engine.installBuiltInActions();
    m_engine.debugConsole.setLogFile(
        QDir(SupportPaths::logsDirectory()).filePath(QStringLiteral("debug-console.log")));

    GridDatabase& database = GridDatabase::sharedGridDatabase();
    m_isFirstLaunch = !database.dbExists();
    database.loadDatabase();
    if (!database.requiredTablesExist()) {
        database.handleDBCorrupt();
    }

    // Working folders for dropped data and Drop Bar text, without what no item refers to.
    SupportPaths::promisedFilesDirectory();
    SupportPaths::savedTextDirectory();
    m_engine.dropbars->removeLeftovers();

    m_engine.monitoring.startEnabledFolders();
    // Start the screenshot drop bar if it is enabled; its settings start and stop it later.
    m_engine.screenshots.start();

    // Scanning once at start-up surfaces broken or duplicate actions early.
    const ActionFileList actions = ActionFileParser::shared().actionFiles();
    Log::info(QStringLiteral("%1 actions available (internal: %2, user: %3)")
                  .arg(actions.size())
                  .arg(ActionFileParser::shared().internalActionsDirectory(),
                       ActionFileParser::shared().userActionsDirectory()));

    m_cmdLineTaskHandler->setRunStarter([this](const GridActionPtr& action, const QString& event,
                                               const QStringList& files, const QString& text,
                                               std::function<void()> finished) {
        return startGridActionTask(m_engine.events, action, event, files, text,
                                   std::move(finished));
    });
    m_cmdLineTaskHandler->setDropbarController(m_engine.dropbars.get());
    m_cmdLineTaskHandler->setFolderMonitoringManager(&m_engine.monitoring);
    m_cmdLineTaskHandler->setHandOverReceiver(
        [this](const QStringList& arguments, const QString& cwd) {
            return openArguments(arguments, cwd);
        });

    m_didFinishStartup = true;
    Log::info(QStringLiteral("Skelvo is running"));
}

void AppDelegate::applicationWillTerminate()
{
    Log::info(QStringLiteral("Skelvo is shutting down"));
    m_engine.monitoring.stopAll();
    m_engine.tasks.terminateAll();
}
