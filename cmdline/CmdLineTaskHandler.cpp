#include "cmdline/CmdLineTaskHandler.h"

#include "actions/ActionFileParser.h"
#include "cmdline/CommandSupport.h"
#include "core/AlertHelper.h"
#include "core/CmdLineProtocol.h"
#include "core/NotificationCenter.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TaskRunner.h"
#include "tasks/TaskStatus.h"
#include "tasks/TasksController.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace CommandSupport;
using namespace GridLookup;

CmdLineTaskHandler::CmdLineTaskHandler(const TaskContext& context, EventsHandler& events,
                                       QObject* parent)
    : QObject(parent)
    , m_context(context)
    , m_events(events)
{
    connect(&m_server, &CmdLineServer::requestReceived, this, &CmdLineTaskHandler::requestReceived);
    m_observer = m_context.distributed.addObserver({}, nullptr, [this](const Notification& n) {
        distributedPosted(n.name, n.object, n.userInfo);
    });
    m_alertObserver =
        m_context.alerts.addObserver([this](const Alert& alert) { alertRaised(alert); });
}

CmdLineTaskHandler::~CmdLineTaskHandler()
{
    m_context.alerts.removeObserver(m_alertObserver);
    m_context.distributed.removeObserver(m_observer);
}

bool CmdLineTaskHandler::setup(const QString& runtimeFolder, QString* error)
{
    return m_server.listen(runtimeFolder, error);
}

void CmdLineTaskHandler::requestReceived(CmdLineServer::ConnectionId connection,
                                         const QString& name, const QVariantMap& userInfo)
{
    if (name == QLatin1String(CmdLineProtocol::HandOver)) {
        const QStringList arguments = userInfo.value(QStringLiteral("arguments")).toStringList();
        const QString cwd = userInfo.value(QStringLiteral("cwd")).toString();
        m_server.respond(connection, m_handOver ? m_handOver(arguments, cwd)
                                                : QStringLiteral("Skelvo is already running"));
        m_server.finish(connection);
        return;
    }
    if (name != QLatin1String(CmdLineProtocol::RunTask)) {
        m_server.respond(connection,
                         QStringLiteral("Error: Invalid command line task notification"));
        m_server.finish(connection);
        return;
    }
    handleCmdLineTask(connection, userInfo);
}

void CmdLineTaskHandler::handleCmdLineTask(CmdLineServer::ConnectionId connection,
                                           const QVariantMap& userInfo)
{
    struct Entry {
        const char* word;
        Handler handler;
    };
    static const Entry table[] = {
        {"list", &CmdLineTaskHandler::list},
        {"move-action", &CmdLineTaskHandler::moveAction},
        {"run", &CmdLineTaskHandler::run},
        {"list-running", &CmdLineTaskHandler::listRunning},
        {"cancel", &CmdLineTaskHandler::cancel},
        {"add", &CmdLineTaskHandler::addToDropbar},
        {"list-items", &CmdLineTaskHandler::listDropbarItems},
        {"rename", &CmdLineTaskHandler::renameStack},
        {"remove", &CmdLineTaskHandler::removeStack},
        {"lock", &CmdLineTaskHandler::lockStack},
        {"unlock", &CmdLineTaskHandler::lockStack},
        {"clear", &CmdLineTaskHandler::clearDropbar},
        {"open", &CmdLineTaskHandler::notAvailable},
        {"close", &CmdLineTaskHandler::notAvailable},
        {"open-dropbar", &CmdLineTaskHandler::notAvailable},
        {"close-dropbar", &CmdLineTaskHandler::notAvailable},
        {"status", &CmdLineTaskHandler::status},
        {"list-grids", &CmdLineTaskHandler::listGrids},
        {"switch-grid", &CmdLineTaskHandler::switchGrid},
        {"create-grid", &CmdLineTaskHandler::createGrid},
        {"remove-grid", &CmdLineTaskHandler::removeGrid},
        {"add-category", &CmdLineTaskHandler::addCategory},
        {"remove-category", &CmdLineTaskHandler::removeCategory},
        {"list-categories", &CmdLineTaskHandler::listCategories},
        {"grid-settings", &CmdLineTaskHandler::gridSettings},
        {"list-action-types", &CmdLineTaskHandler::listActionTypes},
        {"action-info", &CmdLineTaskHandler::actionInfo},
        {"add-action", &CmdLineTaskHandler::addAction},
        {"remove-action", &CmdLineTaskHandler::removeAction},
        {"set-icon", &CmdLineTaskHandler::setIcon},
        {"list-addon-actions", &CmdLineTaskHandler::listAddonActions},
        {"install-action", &CmdLineTaskHandler::installAction},
        {"uninstall-action", &CmdLineTaskHandler::uninstallAction},
        {"update-actions", &CmdLineTaskHandler::updateActions},
        {"monitor-list", &CmdLineTaskHandler::listMonitored},
        {"monitor-add", &CmdLineTaskHandler::addMonitored},
        {"monitor-remove", &CmdLineTaskHandler::removeMonitored},
        {"monitor-enable", &CmdLineTaskHandler::enableMonitored},
        {"monitor-disable", &CmdLineTaskHandler::enableMonitored},
        {"monitor-confirm", &CmdLineTaskHandler::confirmMonitored},
        {"monitor-log", &CmdLineTaskHandler::monitorLog},
        {"settings", &CmdLineTaskHandler::listSettings},
        {"settings-get", &CmdLineTaskHandler::getSetting},
        {"settings-set", &CmdLineTaskHandler::setSetting},
        {"settings-reset", &CmdLineTaskHandler::resetSetting},
    };
    QPointer<CmdLineServer> server(&m_server);
    auto client = std::make_shared<CmdLineRequest>(
        [server, connection](const QString& text, bool failed) {
            if (server && server->isOpen(connection)) {
                server->respond(connection, text, failed);
            }
        },
        [server, connection] {
            if (server && server->isOpen(connection)) {
                server->finish(connection);
            }
        });
    const std::weak_ptr<CmdLineRequest> outer = std::exchange(m_dispatching, client);
    // Bundles may have been added to the actions folders since the last scan.
    ActionFileParser::shared().invalidateActionsCache();
    const QVariant word = userInfo.value(QStringLiteral("action"));
    if (userInfo.isEmpty() || word.typeId() != QMetaType::QString || word.toString().isEmpty()) {
        client->respond(QStringLiteral("Error: Invalid command line task notification"));
    } else {
        const Entry* entry = std::find_if(std::begin(table), std::end(table), [&](const Entry& e) {
            return word.toString() == QLatin1String(e.word);
        });
        if (entry == std::end(table)) {
            client->respond(QStringLiteral("Error: Unknown command: ") + word.toString());
        } else {
            (this->*(entry->handler))(client, userInfo);
        }
    }
    m_dispatching = outer;
    if (!client->staysOpen()) {
        client->finish();
    }
}

std::optional<GridId> CmdLineTaskHandler::findGrid(const CmdLineRequestPtr& client,
                                                   const QString& name)
{
    const SqlRows grids = gridsNamed(name);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(name));
        return std::nullopt;
    }
    return grids.first().value(QStringLiteral("id")).toLongLong();
}

bool CmdLineTaskHandler::requestedGrid(const CmdLineRequestPtr& client, const QVariantMap& request,
                                       GridId& gridId)
{
    if (!has(request, "grid")) {
        return true;
    }
    const std::optional<GridId> found = findGrid(client, str(request, "grid"));
    if (found) {
        gridId = *found;
    }
    return found.has_value();
}

std::optional<PlacedAction> CmdLineTaskHandler::requestedAction(const CmdLineRequestPtr& client,
                                                                const QVariantMap& request,
                                                                const QString& hint)
{
    std::optional<GridId> inGrid;
    if (has(request, "grid")) {
        GridId gridId = 0;
        if (!requestedGrid(client, request, gridId)) {
            return std::nullopt;
        }
        inGrid = gridId;
    }
    return singleActionNamed(str(request, "name"), inGrid, hint,
                             [&client](const QString& text) { client->respond(text); });
}

CmdLineRequestPtr CmdLineTaskHandler::requestFor(const QObject* source) const
{
    const QObject* task = taskOf(const_cast<QObject*>(source));
    for (const QObject* key : {task, source}) {
        if (key && m_runs.contains(key)) {
            return m_runs.value(key);
        }
    }
    return m_dispatching.lock();
}

void CmdLineTaskHandler::unbind(const CmdLineRequestPtr& request)
{
    for (auto it = m_runs.begin(); it != m_runs.end();) {
        it = it.value() == request ? m_runs.erase(it) : std::next(it);
    }
}

void CmdLineTaskHandler::distributedPosted(const QString& name, QObject* object,
                                           const QVariantMap& userInfo)
{
    // A run request finishes when its task ends (its completion), not when a step of the
    // run posts a finish on the way.
    if (name != CmdLineNotifications::Response) {
        return;
    }
    if (const CmdLineRequestPtr client = requestFor(object)) {
        client->respond(userInfo.value(QStringLiteral("response")).toString());
    }
}

void CmdLineTaskHandler::alertRaised(const Alert& alert)
{
    const CmdLineRequestPtr client = requestFor(alert.origin);
    if (!client) {
        return;
    }
    QString text = alert.title.isEmpty()     ? alert.message
                   : alert.message.isEmpty() ? alert.title
                                             : alert.title + QStringLiteral(": ") + alert.message;
    if (alert.style != Alert::Style::Informational) {
        text.prepend(QStringLiteral("Error: "));
    }
    client->respond(text);
}

// --- Commands ------------------------------------------------------------------------------

void CmdLineTaskHandler::status(const CmdLineRequestPtr& client, const QVariantMap&)
{
    client->respond(m_isGridOpen && m_isGridOpen() ? QStringLiteral("open")
                                                   : QStringLiteral("closed"));
}

void CmdLineTaskHandler::notAvailable(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    client->respond(QStringLiteral("Error: '%1' is not available in this version of Skelvo.")
                        .arg(str(request, "action")));
}
