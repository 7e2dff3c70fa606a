#pragma once

#include "core/Identifiers.h"
#include "platform/CmdLineServer.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QVariantMap>

#include <functional>

class GridAction;
class Task;

// Answers the requests of the `sk` command-line tool: dispatches each by its command word,
// answers with response texts and finishes it exactly once. A "run" request finishes when
// its task does.
class CmdLineTaskHandler : public QObject {
    Q_OBJECT
public:
    // Starts a grid action for a "run" request; returns the task it started, if any, with
    // `finished` as its completion (set before it runs, so no ending is missed). Responses
    // posted meanwhile reach the request.
    using RunStarter = std::function<Task*(const std::shared_ptr<GridAction>& action,
                                           const QString& event, const QStringList& files,
                                           const QString& text, std::function<void()> finished)>;

    explicit CmdLineTaskHandler(QObject* parent = nullptr);
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
    // Whether the grid window is showing ("status").
    void setGridOpenQuery(std::function<bool()> query) { m_isGridOpen = std::move(query); }

    // Dispatches one request as if it came from `connection` (tests call it directly).
    void handleCmdLineTask(CmdLineServer::ConnectionId connection, const QVariantMap& userInfo);

private:
    using Handler = void (CmdLineTaskHandler::*)(const QVariantMap&);

    void requestReceived(CmdLineServer::ConnectionId connection, const QString& name,
                         const QVariantMap& userInfo);
    void distributedPosted(const QString& name, QObject* object, const QVariantMap& userInfo);
    void respond(const QString& text);
    // The first grid of that name; answers the request and gives none when there is none.
    std::optional<GridId> findGrid(const QString& name);
    void finishRequest(CmdLineServer::ConnectionId connection);

    void list(const QVariantMap& request);
    void moveAction(const QVariantMap& request);
    void run(const QVariantMap& request);
    void listRunning(const QVariantMap& request);
    void cancel(const QVariantMap& request);
    void status(const QVariantMap& request);
    void listGrids(const QVariantMap& request);
    void switchGrid(const QVariantMap& request);
    void createGrid(const QVariantMap& request);
    void removeGrid(const QVariantMap& request);
    void addCategory(const QVariantMap& request);
    void removeCategory(const QVariantMap& request);
    void listCategories(const QVariantMap& request);
    void gridSettings(const QVariantMap& request);
    void listActionTypes(const QVariantMap& request);
    void actionInfo(const QVariantMap& request);
    void addAction(const QVariantMap& request);
    void removeAction(const QVariantMap& request);
    void setIcon(const QVariantMap& request);
    void notAvailable(const QVariantMap& request);

    CmdLineServer m_server;
    int m_observer = 0;
    // The request being dispatched: whatever is posted meanwhile belongs to it.
    CmdLineServer::ConnectionId m_current = 0;
    bool m_currentFinishes = true;
    // What a "run" request started (a task or a built-in action) and the request it answers.
    QHash<const QObject*, CmdLineServer::ConnectionId> m_runs;
    RunStarter m_runStarter;
    std::function<QString(const QStringList&, const QString&)> m_handOver;
    std::function<bool()> m_isGridOpen;
};
