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
#include "core/WindowPresenter.h"
#include "events/EventsHandler.h"
#include "grid/GridPlacement.h"
#include "platform/PropertyList.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/Task.h"
#include "tasks/TasksController.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QUrl>

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
    if (m_didFinishStartup) {
        handleArguments(absolute);
    } else {
        m_pendingArguments << absolute;
    }
    return QStringLiteral("Skelvo is already running; handed over %1 argument(s)")
        .arg(absolute.size());
}

void AppDelegate::handleArguments(const QStringList& arguments)
{
    QStringList files;
    for (const QString& argument : arguments) {
        if (argument.startsWith(QStringLiteral("file://"))) {
            files << QUrl(argument).toLocalFile();
        } else if (argument.contains(QStringLiteral("://"))) {
            handleURLEvent(argument);
        } else {
            files << argument;
        }
    }
    if (!files.isEmpty()) {
        openActionFileURLs(files);
    }
}

void AppDelegate::openActionFileURLs(const QStringList& paths)
{
    for (const QString& path : paths) {
        const QString extension = QFileInfo(path).suffix().toLower();
        if (extension != u"skbundle" && extension != u"skelvo") {
            Log::info(QStringLiteral("Not an action file, not installed: %1").arg(path));
        }
    }
    m_engine.actionFiles.addActionBundlesOrScripts(paths);
}

QString AppDelegate::shareDirectory()
{
    return QDir(SupportPaths::applicationSupportDirectory()).filePath(QStringLiteral("Share"));
}

void AppDelegate::handleURLEvent(const QString& url)
{
    static const QString scheme = QStringLiteral("skelvo://");
    if (url == u"skelvo://openviashare") {
        openViaShare();
        return;
    }
    if (!url.startsWith(scheme)) {
        Log::info(QStringLiteral("handleURLEvent received an invalid URL: %1").arg(url));
        return;
    }
    QString name = QUrl::fromPercentEncoding(url.mid(scheme.size()).toUtf8());
    // Browsers and launchers may add a slash to a URL without a path.
    if (name.endsWith(u'/')) {
        name.chop(1);
    }
    m_engine.actionDownloader.downloadAction(name);
    m_engine.windows.openSettingsPage(QStringLiteral("Add-on Actions"));
}

void AppDelegate::openViaShare()
{
    const QDir folder(shareDirectory());
    const QStringList files =
        PropertyList::readStringArray(folder.filePath(QStringLiteral("sharedfiles.plist")));
    const QStringList texts =
        PropertyList::readStringArray(folder.filePath(QStringLiteral("sharedtext.plist")));
    if (files.isEmpty() && texts.isEmpty()) {
        return;
    }
    m_engine.windows.openGridWithPasteboard(files, files.isEmpty() ? texts : QStringList());
}

void AppDelegate::addInstalledActionToGrid(const ActionFilePtr& record)
{
    const GridId gridId = GridDatabase::sharedGridDatabase().selectedGridId();
    const GridActionPtr placed = GridPlacement::placeAction(record->actionName, gridId);
    if (!placed) {
        Log::error(QStringLiteral("Could not add the installed action %1 to the grid")
                       .arg(record->actionName));
        return;
    }
    // An action with settings of its own is configured before its first run.
    if (!record->skipConfig && !record->optionsNib.isEmpty()) {
        m_engine.windows.showEditWindowForAction(placed->aId);
    }
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
    m_cmdLineTaskHandler->setActionLibrary({&m_engine.actionServer, &m_engine.actionFiles,
                                            &m_engine.actionDownloader, &m_engine.actionUpdates});
    m_engine.actionFiles.setAddToGrid(
        [this](const ActionFilePtr& record) { addInstalledActionToGrid(record); });
    m_cmdLineTaskHandler->setHandOverReceiver(
        [this](const QStringList& arguments, const QString& cwd) {
            return openArguments(arguments, cwd);
        });

    m_didFinishStartup = true;
    Log::info(QStringLiteral("Skelvo is running"));
    // Action files and URLs that arrived while starting, once each.
    if (!m_pendingArguments.isEmpty()) {
        handleArguments(std::exchange(m_pendingArguments, {}));
    }
}

void AppDelegate::applicationWillTerminate()
{
    Log::info(QStringLiteral("Skelvo is shutting down"));
    m_engine.monitoring.stopAll();
    m_engine.tasks.terminateAll();
}
