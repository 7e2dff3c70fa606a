#include "app/AppDelegate.h"

#include "actions/ActionFileParser.h"
#include "core/Log.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "core/Version.h"
#include "store/GridDatabase.h"
#include "tasks/DebugConsoleController.h"

#include <QDir>
#include <QJsonObject>

AppDelegate::AppDelegate(bool headless, QObject* parent)
    : QObject(parent)
    , m_headless(headless)
{}

void AppDelegate::registerDefaultSettings()
{
    Settings::shared().registerDefaults(QJsonObject{
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
    DebugConsoleController::shared().setLogFile(
        QDir(SupportPaths::logsDirectory()).filePath(QStringLiteral("debug-console.log")));

    GridDatabase& database = GridDatabase::sharedGridDatabase();
    m_isFirstLaunch = !database.dbExists();
    database.loadDatabase();
    if (!database.requiredTablesExist()) {
        database.handleDBCorrupt();
    }

    // Working folders for dropped data and Drop Bar text.
    SupportPaths::promisedFilesDirectory();
    SupportPaths::savedTextDirectory();

    // Scanning once at start-up surfaces broken or duplicate actions early.
    const ActionFileList actions = ActionFileParser::shared().actionFiles();
    Log::info(QStringLiteral("%1 actions available (internal: %2, user: %3)")
                  .arg(actions.size())
                  .arg(ActionFileParser::shared().internalActionsDirectory(),
                       ActionFileParser::shared().userActionsDirectory()));

    m_didFinishStartup = true;
    Log::info(QStringLiteral("Skelvo is running"));
}

void AppDelegate::applicationWillTerminate()
{
    Log::info(QStringLiteral("Skelvo is shutting down"));
}
