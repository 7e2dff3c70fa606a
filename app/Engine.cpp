#include "app/Engine.h"

#include "actions/ActionFileParser.h"
#include "builtin/ActionInfo.h"
#include "builtin/BuiltInActionRunner.h"
#include "core/DesktopServices.h"
#include "core/WindowPresenter.h"
#include "platform/FileSecretStore.h"
#include "platform/Launcher.h"
#include "store/GridDatabase.h"

namespace {

EngineParts withDefaults(EngineParts parts)
{
    if (!parts.windows) {
        parts.windows = std::make_shared<HeadlessWindowPresenter>();
    }
    if (!parts.desktop) {
        parts.desktop = std::make_shared<HeadlessDesktopServices>();
    }
    if (!parts.secrets) {
        parts.secrets = std::make_shared<FileSecretStore>();
    }
    if (!parts.launcher) {
        parts.launcher = std::make_shared<GioLauncher>();
    }
    return parts;
}

} // namespace

Engine::Engine(EngineParts parts)
    : m_parts(withDefaults(std::move(parts)))
    , settings(Settings::defaultFilePath())
    , alerts(m_parts.alerts)
    , windows(*m_parts.windows)
    , desktop(*m_parts.desktop)
    , secrets(*m_parts.secrets)
    , launcher(*m_parts.launcher)
    , actionServer(settings)
    , actionFiles(ActionFileParser::shared(), alerts, windows, notifications)
    , actionDownloader(actionServer, actionFiles, alerts, windows)
    , actionUpdates(actionServer, ActionFileParser::shared(), actionDownloader, alerts, windows)
    , storeContext{settings, notifications, alerts, secrets, icons, storeHooks}
    , debugConsole(windows, alerts)
    , taskStatuses(notifications)
    , tasks(notifications)
    , taskContext{settings, notifications, distributed,  alerts,       windows,     desktop,
                  icons,    tasks,         taskStatuses, debugConsole, recentItems, dropbarSink}
    , events(taskContext, storeHooks)
    , builtInContext{taskContext, launcher}
    , dropbars(std::make_shared<DropbarController>(builtInContext, storeHooks))
    , monitoring(builtInContext, events, monitorJournal)
    , screenshots(taskContext, events)
{
    events.setDropbarDispatcher(dropbars);
    // Tests shorten the wait for a server that never answers.
    bool ok = false;
    const int timeoutMs = qEnvironmentVariableIntValue("SKELVO_ACTION_SERVER_TIMEOUT_MS", &ok);
    if (ok && timeoutMs > 0) {
        actionServer.setTimeoutMs(timeoutMs);
    }
    ActionFileParser::shared().setPresenters(&alerts, &windows);
    GridDatabase::sharedGridDatabase().setContext(&storeContext);
    BuiltInActionRunner::shared()->setContext(&builtInContext);
}

Engine::~Engine()
{
    BuiltInActionRunner::shared()->setContext(nullptr);
    GridDatabase::sharedGridDatabase().setContext(nullptr);
    ActionFileParser::shared().setPresenters(nullptr, nullptr);
}

void Engine::installBuiltInActions()
{
    const std::shared_ptr<BuiltInActionRunner> runner = BuiltInActionRunner::shared();
    provideBuiltInActions(ActionFileParser::shared(),
                          runner->builtInActionCatalog().availableActions());
    events.setBuiltInDispatcher(runner);
}
