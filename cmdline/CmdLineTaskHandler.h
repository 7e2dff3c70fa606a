#pragma once

#include "cmdline/CmdLineRequest.h"
#include "core/Identifiers.h"
#include "grid/GridLookup.h"
#include "monitor/MonitoredFolder.h"
#include "platform/CmdLineServer.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QVariantMap>

#include <functional>

namespace SettingsKeys {
struct Key;
}
struct Alert;
class ActionDownloader;
class ActionFilesController;
class ActionServer;
class ActionUpdatesController;
class GridAction;
class DropbarController;
class FolderMonitoringManager;
class EventsHandler;
class Task;
struct TaskContext;

// Answers the requests of the `sk` command-line tool: dispatches each by its command word
// to a command that answers through the request's own context (CmdLineRequest) and
// finishes it exactly once. A "run" request finishes when its task does, and hears what
// the run reports on the way: its result, its failure, the alerts it raises.
class CmdLineTaskHandler : public QObject {
    Q_OBJECT
public:
    // Starts a grid action for a "run" request; returns the task it started, if any, with
    // `finished` as its completion (set before it runs, so no ending is missed). Responses
    // posted meanwhile reach the request.
    using RunStarter = std::function<Task*(const std::shared_ptr<GridAction>& action,
                                           const QString& event, const QStringList& files,
                                           const QString& text, std::function<void()> finished)>;

    // Runs and what they report come from the engine's `context` and `events`.
    CmdLineTaskHandler(const TaskContext& context, EventsHandler& events,
                       QObject* parent = nullptr);
    ~CmdLineTaskHandler() override;

    // Listens on the socket in `runtimeFolder`; false when another instance runs there.
    bool setup(const QString& runtimeFolder, QString* error = nullptr);
    CmdLineServer& server() { return m_server; }

    void setRunStarter(RunStarter starter) { m_runStarter = std::move(starter); }
    // Arguments handed over by a second instance (action files, URLs).
    void setHandOverReceiver(std::function<QString(const QStringList&, const QString&)> receiver)
    {
        m_handOver = std::move(receiver);
    }
    // The Drop Bar that the Drop Bar commands work on; without one they answer with an error.
    void setDropbarController(DropbarController* dropbars) { m_dropbars = dropbars; }
    // The monitored folders the monitor commands work on; without them they answer with an
    // error.
    void setFolderMonitoringManager(FolderMonitoringManager* monitoring)
    {
        m_monitoring = monitoring;
    }
    // The add-on action commands work on these; without them they answer with an error.
    struct ActionLibrary {
        ActionServer* server = nullptr;
        ActionFilesController* installer = nullptr;
        ActionDownloader* downloader = nullptr;
        ActionUpdatesController* updates = nullptr;
    };
    void setActionLibrary(ActionLibrary library) { m_library = library; }
    // Whether the grid window is showing ("status").
    void setGridOpenQuery(std::function<bool()> query) { m_isGridOpen = std::move(query); }

    // Dispatches one request as if it came from `connection` (tests call it directly).
    void handleCmdLineTask(CmdLineServer::ConnectionId connection, const QVariantMap& userInfo);

private:
    using Handler = void (CmdLineTaskHandler::*)(const CmdLineRequestPtr&, const QVariantMap&);

    void requestReceived(CmdLineServer::ConnectionId connection, const QString& name,
                         const QVariantMap& userInfo);
    void distributedPosted(const QString& name, QObject* object, const QVariantMap& userInfo);
    void alertRaised(const Alert& alert);
    // The request that what `source` reports belongs to, if any.
    CmdLineRequestPtr requestFor(const QObject* source) const;
    void unbind(const CmdLineRequestPtr& request);
    // The first grid of that name; answers the request and gives none when there is none.
    std::optional<GridId> findGrid(const CmdLineRequestPtr& client, const QString& name);
    // Sets `gridId` to the grid the request's "grid" names, when it names one; false (and
    // answered) when that grid is not found.
    bool requestedGrid(const CmdLineRequestPtr& client, const QVariantMap& request, GridId& gridId);
    // The one action the request's "name" names (in its "grid", when given); none, and
    // answered, when there is none or more than one. `hint` ends the answer for several.
    std::optional<GridLookup::PlacedAction> requestedAction(const CmdLineRequestPtr& client,
                                                            const QVariantMap& request,
                                                            const QString& hint);

    void list(const CmdLineRequestPtr& client, const QVariantMap& request);
    void moveAction(const CmdLineRequestPtr& client, const QVariantMap& request);
    void run(const CmdLineRequestPtr& client, const QVariantMap& request);
    void testConnection(const CmdLineRequestPtr& client, const std::shared_ptr<GridAction>& action);
    void runWithModifier(const CmdLineRequestPtr& client, const std::shared_ptr<GridAction>& action,
                         const QString& modifier, const QStringList& files);
    void listRunning(const CmdLineRequestPtr& client, const QVariantMap& request);
    void cancel(const CmdLineRequestPtr& client, const QVariantMap& request);
    void status(const CmdLineRequestPtr& client, const QVariantMap& request);
    void listGrids(const CmdLineRequestPtr& client, const QVariantMap& request);
    void switchGrid(const CmdLineRequestPtr& client, const QVariantMap& request);
    void createGrid(const CmdLineRequestPtr& client, const QVariantMap& request);
    void removeGrid(const CmdLineRequestPtr& client, const QVariantMap& request);
    void addCategory(const CmdLineRequestPtr& client, const QVariantMap& request);
    void removeCategory(const CmdLineRequestPtr& client, const QVariantMap& request);
    void listCategories(const CmdLineRequestPtr& client, const QVariantMap& request);
    void gridSettings(const CmdLineRequestPtr& client, const QVariantMap& request);
    void listActionTypes(const CmdLineRequestPtr& client, const QVariantMap& request);
    void actionInfo(const CmdLineRequestPtr& client, const QVariantMap& request);
    void addAction(const CmdLineRequestPtr& client, const QVariantMap& request);
    void removeAction(const CmdLineRequestPtr& client, const QVariantMap& request);
    void setIcon(const CmdLineRequestPtr& client, const QVariantMap& request);
    void notAvailable(const CmdLineRequestPtr& client, const QVariantMap& request);

    // The Drop Bar controller; answers `failure` when there is none.
    DropbarController* dropbarsFor(const CmdLineRequestPtr& client, const char* failure);
    // The stack at the request's "index"; none, and answered, when there is none.
    std::optional<DropbarId> requestedStack(const CmdLineRequestPtr& client,
                                            const QVariantMap& request);
    void addToDropbar(const CmdLineRequestPtr& client, const QVariantMap& request);
    void listDropbarItems(const CmdLineRequestPtr& client, const QVariantMap& request);
    void renameStack(const CmdLineRequestPtr& client, const QVariantMap& request);
    void removeStack(const CmdLineRequestPtr& client, const QVariantMap& request);
    void lockStack(const CmdLineRequestPtr& client, const QVariantMap& request);
    void clearDropbar(const CmdLineRequestPtr& client, const QVariantMap& request);

    // The Folder Monitor; answers with an error when there is none.
    FolderMonitoringManager* monitoringFor(const CmdLineRequestPtr& client);
    // The monitored folder at the request's "folder"; none, and answered, when it is not one.
    std::optional<MonitoredFolder> requestedFolder(const CmdLineRequestPtr& client,
                                                   const QVariantMap& request);
    void listMonitored(const CmdLineRequestPtr& client, const QVariantMap& request);
    void addMonitored(const CmdLineRequestPtr& client, const QVariantMap& request);
    void removeMonitored(const CmdLineRequestPtr& client, const QVariantMap& request);
    void enableMonitored(const CmdLineRequestPtr& client, const QVariantMap& request);
    void confirmMonitored(const CmdLineRequestPtr& client, const QVariantMap& request);
    void monitorLog(const CmdLineRequestPtr& client, const QVariantMap& request);

    // The known setting the request's "key" names; none, and answered, when there is none or
    // (when `changing`) when another command owns it.
    const SettingsKeys::Key* requestedSetting(const CmdLineRequestPtr& client,
                                              const QVariantMap& request, bool changing);
    void listSettings(const CmdLineRequestPtr& client, const QVariantMap& request);
    void getSetting(const CmdLineRequestPtr& client, const QVariantMap& request);
    void setSetting(const CmdLineRequestPtr& client, const QVariantMap& request);
    void resetSetting(const CmdLineRequestPtr& client, const QVariantMap& request);

    // The action library; answers with an error, or that no server is configured when
    // `needsServer`, and gives false when it cannot serve the request.
    bool libraryFor(const CmdLineRequestPtr& client, bool needsServer);
    void listAddonActions(const CmdLineRequestPtr& client, const QVariantMap& request);
    void installAction(const CmdLineRequestPtr& client, const QVariantMap& request);
    void uninstallAction(const CmdLineRequestPtr& client, const QVariantMap& request);
    void updateActions(const CmdLineRequestPtr& client, const QVariantMap& request);

    const TaskContext& m_context;
    EventsHandler& m_events;
    CmdLineServer m_server;
    int m_observer = 0;
    int m_alertObserver = 0;
    // While a command runs synchronously, what it sets off (a task or built-in action that
    // does not know its request yet, an alert of the application) reports to its request.
    // Nothing else is dispatched meanwhile: no engine code runs a nested event loop.
    std::weak_ptr<CmdLineRequest> m_dispatching;
    // What a "run" request started (a task or a built-in action) and the request it answers.
    QHash<const QObject*, CmdLineRequestPtr> m_runs;
    RunStarter m_runStarter;
    std::function<QString(const QStringList&, const QString&)> m_handOver;
    std::function<bool()> m_isGridOpen;
    DropbarController* m_dropbars = nullptr;
    FolderMonitoringManager* m_monitoring = nullptr;
    ActionLibrary m_library;
};
