#include "tasks/CmdLineTaskHandler.h"

#include "actions/ActionFileParser.h"
#include "actions/OptionSheets.h"
#include "builtin/ActionOptionSchemas.h"
#include "builtin/BuiltInAction.h"
#include "builtin/BuiltInActionRunner.h"
#include "core/AlertHelper.h"
#include "core/CmdLineProtocol.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "events/EventsHandler.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "store/Icons.h"
#include "tasks/Task.h"
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

namespace {

const QString ListRule = QStringLiteral("---------------------------\n");

QString str(const QVariantMap& request, const char* key)
{
    return request.value(QString::fromLatin1(key)).toString();
}

bool has(const QVariantMap& request, const char* key)
{
    const QVariant value = request.value(QString::fromLatin1(key));
    return value.isValid() && !value.isNull() && !value.toString().isEmpty();
}

bool flag(const QVariantMap& request, const char* key)
{
    return request.value(QString::fromLatin1(key)).toBool();
}

std::optional<qint64> integer(const QVariantMap& request, const char* key)
{
    const QVariant value = request.value(QString::fromLatin1(key));
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    if (!value.isValid() || !ok) {
        return std::nullopt;
    }
    return number;
}

QString json(const QJsonArray& array)
{
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Indented)).trimmed();
}

GridDatabase& db()
{
    return GridDatabase::sharedGridDatabase();
}

SqlRows gridsNamed(const QString& name)
{
    SqlRows found;
    for (const SqlRow& grid : db().getGrids()) {
        if (grid.value(QStringLiteral("name")).toString() == name) {
            found << grid;
        }
    }
    return found;
}

QString gridName(GridId gridId)
{
    for (const SqlRow& grid : db().getGrids()) {
        if (grid.value(QStringLiteral("id")).toLongLong() == gridId) {
            return grid.value(QStringLiteral("name")).toString();
        }
    }
    return {};
}

SqlRows categoriesNamed(GridId gridId, const QString& name)
{
    SqlRows found;
    for (const SqlRow& category : db().categoriesForGrid(gridId)) {
        if (category.value(QStringLiteral("name")).toString() == name) {
            found << category;
        }
    }
    return found;
}

struct PlacedAction {
    GridActionPtr action;
    GridId gridId = 0;
    QString grid;
    QString category;
};

QList<PlacedAction> actionsOfGrid(GridId gridId)
{
    QList<PlacedAction> placed;
    const QString grid = gridName(gridId);
    for (const SqlRow& category : db().categoriesForGrid(gridId)) {
        const CategoryId categoryId = category.value(QStringLiteral("id")).toLongLong();
        for (const GridActionPtr& action : db().getActionsForCategoryId(categoryId)) {
            placed << PlacedAction{action, gridId, grid,
                                   category.value(QStringLiteral("name")).toString()};
        }
    }
    return placed;
}

QList<PlacedAction> actionsNamed(const QString& name, std::optional<GridId> inGrid)
{
    QList<PlacedAction> found;
    for (const SqlRow& grid : db().getGrids()) {
        const GridId gridId = grid.value(QStringLiteral("id")).toLongLong();
        if (inGrid && *inGrid != gridId) {
            continue;
        }
        for (const PlacedAction& placed : actionsOfGrid(gridId)) {
            if (placed.action->name == name) {
                found << placed;
            }
        }
    }
    return found;
}

QString gridNamesOf(const QList<PlacedAction>& actions)
{
    QStringList names;
    for (const PlacedAction& placed : actions) {
        names << placed.grid;
    }
    return names.join(QStringLiteral(", "));
}

// The one action of that name (in the grid, when given); answers and gives none when there
// is none or more than one. `hint` ends the answer for several.
std::optional<PlacedAction> singleActionNamed(const QString& name, std::optional<GridId> inGrid,
                                              const QString& hint,
                                              const std::function<void(const QString&)>& respond)
{
    const QList<PlacedAction> found = actionsNamed(name, inGrid);
    if (found.isEmpty()) {
        respond(QStringLiteral("Error: Action '%1' not found").arg(name));
        return std::nullopt;
    }
    if (found.size() > 1) {
        respond(QStringLiteral("Error: Multiple actions named '") + name +
                QStringLiteral("' exist (in grids: ") + gridNamesOf(found) + QStringLiteral(")") +
                hint);
        return std::nullopt;
    }
    return found.first();
}

QString absolutePath(const QString& path, const QString& cwd)
{
    if (path.isEmpty() || QDir::isAbsolutePath(path)) {
        return path;
    }
    return QDir::cleanPath(QDir(cwd.isEmpty() ? QDir::currentPath() : cwd).absoluteFilePath(path));
}

Task* taskOf(QObject* object)
{
    if (auto* handler = qobject_cast<TaskOutputHandler*>(object)) {
        return handler->task();
    }
    if (auto* runner = qobject_cast<TaskRunner*>(object)) {
        return runner->task();
    }
    return qobject_cast<Task*>(object);
}

} // namespace

CmdLineTaskHandler::CmdLineTaskHandler(QObject* parent)
    : QObject(parent)
{
    connect(&m_server, &CmdLineServer::requestReceived, this, &CmdLineTaskHandler::requestReceived);
    m_observer =
        NotificationCenter::distributed().addObserver({}, nullptr, [this](const Notification& n) {
            distributedPosted(n.name, n.object, n.userInfo);
        });
    m_alertObserver = AlertHelper::addObserver([this](const Alert& alert) { alertRaised(alert); });
}

CmdLineTaskHandler::~CmdLineTaskHandler()
{
    AlertHelper::removeObserver(m_alertObserver);
    NotificationCenter::distributed().removeObserver(m_observer);
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
        {"add", &CmdLineTaskHandler::notAvailable},
        {"list-items", &CmdLineTaskHandler::notAvailable},
        {"rename", &CmdLineTaskHandler::notAvailable},
        {"remove", &CmdLineTaskHandler::notAvailable},
        {"lock", &CmdLineTaskHandler::notAvailable},
        {"unlock", &CmdLineTaskHandler::notAvailable},
        {"clear", &CmdLineTaskHandler::notAvailable},
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
        {"list-addon-actions", &CmdLineTaskHandler::notAvailable},
        {"install-action", &CmdLineTaskHandler::notAvailable},
        {"uninstall-action", &CmdLineTaskHandler::notAvailable},
    };
    QPointer<CmdLineServer> server(&m_server);
    auto client = std::make_shared<CmdLineRequest>(
        [server, connection](const QString& text) {
            if (server && server->isOpen(connection)) {
                server->respond(connection, text);
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

void CmdLineTaskHandler::list(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    GridId gridId = db().selectedGridId();
    QString header = QStringLiteral("\nAvailable Skelvo Actions:\n") + ListRule;
    if (has(request, "grid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "grid"));
        if (!gridFound) {
            return;
        }
        gridId = *gridFound;
        header = QStringLiteral("\nActions in grid '") + str(request, "grid") +
                 QStringLiteral("':\n") + ListRule;
    }
    const QList<PlacedAction> actions = actionsOfGrid(gridId);
    if (flag(request, "json")) {
        QJsonArray array;
        for (const PlacedAction& placed : actions) {
            array << QJsonObject{{QStringLiteral("name"), placed.action->name},
                                 {QStringLiteral("type"), placed.action->type},
                                 {QStringLiteral("grid"), placed.grid},
                                 {QStringLiteral("category"), placed.category},
                                 {QStringLiteral("position"), placed.action->position},
                                 {QStringLiteral("servicesKey"), placed.action->servicesKey}};
        }
        client->respond(json(array));
        return;
    }
    if (actions.isEmpty()) {
        client->respond(QStringLiteral("No actions found"));
        return;
    }
    QString text = header;
    for (const PlacedAction& placed : actions) {
        text += QStringLiteral("%1 (%2) in %3\n")
                    .arg(placed.action->name, placed.action->type, placed.category);
    }
    client->respond(text);
}

void CmdLineTaskHandler::moveAction(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "name") || !has(request, "category")) {
        client->respond(
            QStringLiteral("Error: Missing action name or category for move-action command."));
        return;
    }
    const QString name = str(request, "name");
    const QString categoryName = str(request, "category");
    std::optional<GridId> fromGrid;
    if (has(request, "fromGrid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "fromGrid"));
        if (!gridFound) {
            return;
        }
        fromGrid = *gridFound;
    }
    const QList<PlacedAction> found = actionsNamed(name, fromGrid);
    if (found.isEmpty()) {
        client->respond(fromGrid ? QStringLiteral("Error: Action '") + name +
                                       QStringLiteral("' not found in grid '") +
                                       str(request, "fromGrid") + QStringLiteral("'")
                                 : QStringLiteral("Error: Action '%1' not found").arg(name));
        return;
    }
    if (found.size() > 1) {
        client->respond(QStringLiteral("Error: Multiple actions named '") + name +
                        QStringLiteral("' exist (in grids: ") + gridNamesOf(found) +
                        QStringLiteral("). Use --from-grid to specify which one to move."));
        return;
    }
    const PlacedAction& placed = found.first();
    GridId targetGrid = placed.gridId;
    QString targetGridName = placed.grid;
    if (has(request, "grid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "grid"));
        if (!gridFound) {
            return;
        }
        targetGrid = *gridFound;
        targetGridName = str(request, "grid");
    }
    const SqlRows categories = categoriesNamed(targetGrid, categoryName);
    if (categories.isEmpty()) {
        client->respond(QStringLiteral("Error: Category '") + categoryName +
                        QStringLiteral("' not found in grid '") + targetGridName +
                        QStringLiteral("'"));
        return;
    }
    const CategoryId categoryId = categories.first().value(QStringLiteral("id")).toLongLong();
    const std::optional<qint64> position = integer(request, "position");
    if (categoryId == placed.action->categoryId && !position) {
        client->respond(QStringLiteral("Error: Action '") + name +
                        QStringLiteral("' is already in category '") + categoryName +
                        QStringLiteral("'"));
        return;
    }
    const int target = position ? static_cast<int>(qMax<qint64>(0, *position))
                                : db().getNextPositionForCategoryId(categoryId);
    if (!db().moveAction(placed.action->aId, categoryId, target)) {
        client->respond(QStringLiteral("Error: Failed to move action '%1'").arg(name));
        return;
    }
    QString answer = QStringLiteral("Moved action '%1' to category '%2' in grid '%3'")
                         .arg(name, categoryName, targetGridName);
    if (targetGrid != placed.gridId && !placed.action->servicesKey.isEmpty()) {
        GridActionPtr moved = db().getGridActionWithId(placed.action->aId);
        if (moved && !moved->isServicesKeyAvailable(moved->servicesKey)) {
            const QString key = GridAction::defaultServicesKeyForName(moved->name, targetGrid);
            db().updateServicesKeyForActionId(moved->aId, key);
            answer += key.isEmpty() ? QStringLiteral("\nServices key cleared to avoid a conflict.")
                                    : QStringLiteral("\nServices key changed to '") + key +
                                          QStringLiteral("' to avoid a conflict.");
        }
    }
    NotificationCenter::shared().post(Notifications::GridActionPositionsSaved);
    client->respond(answer);
}

void CmdLineTaskHandler::run(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const QString name = str(request, "name");
    GridActionPtr action;
    for (const PlacedAction& placed : actionsOfGrid(db().selectedGridId())) {
        if (placed.action->name == name) {
            action = placed.action;
            break;
        }
    }
    if (!action) {
        client->respond(QStringLiteral("Error: Action '") + name + QStringLiteral("' not found"));
        return;
    }
    const QStringList files = request.value(QStringLiteral("files")).toStringList();
    const QString text = str(request, "text");
    QString event = str(request, "event");
    if (event.isEmpty()) {
        event = files.isEmpty() && text.isEmpty() ? QStringLiteral("clicked")
                                                  : QStringLiteral("dragged");
    }
    if (!m_runStarter) {
        client->respond(
            QStringLiteral("Error: Actions cannot be run yet; Skelvo is still starting."));
        return;
    }
    // A header that fails validation says why, rather than what the action cannot take.
    if (const ActionFilePtr file = action->actionFile(); file && file->metaValidationFailed) {
        client->respond(QStringLiteral("Error: Action '") + name +
                        QStringLiteral("' cannot run: its header has problems:\n") +
                        file->metaValidationErrors.trimmed());
        return;
    }
    if (event == u"dragged" && !text.isEmpty() &&
        !EventsHandler::canHandleTextDragWithTypes({QStringLiteral("text/plain")}, *action)) {
        bool usableFiles = !files.isEmpty();
        for (const QString& file : files) {
            usableFiles = usableFiles && QFileInfo::exists(file);
        }
        if (!usableFiles || !action->actionFile() ||
            !action->actionFile()->handlesFilesDragType()) {
            client->respond(QStringLiteral("Error: Action '") + name +
                            (files.isEmpty()
                                 ? QStringLiteral("' does not support text input.")
                                 : QStringLiteral("' does not support text input and no valid "
                                                  "file paths were provided.")));
            return;
        }
    }
    if ((action->type == u"Rename & Move Files" || action->type == u"Rename & Copy Files") &&
        EventsHandler::shared().isRenamePromptOpen()) {
        client->respond(
            QStringLiteral("Error: Complete or cancel the current rename dialog before starting "
                           "another rename action."));
        return;
    }
    // The request stays open until its run ends, whichever way it ends, and hears what the
    // run reports meanwhile.
    client->stayOpen();
    const QList<BuiltInAction*> before = BuiltInActionRunner::shared()->runningBuiltInActions();
    QPointer<CmdLineTaskHandler> self(this);
    // Why a run could not start is only logged by dispatch; the caller hears it too.
    QStringList problems;
    const int sink = Log::addSink([&problems](Log::Level level, const QString& message) {
        if (level >= Log::Level::Warning) {
            problems << message;
        }
    });
    Task* task = m_runStarter(action, event, files, text, [self, client] {
        if (self) {
            self->unbind(client);
        }
        client->finish();
    });
    Log::removeSink(sink);
    if (client->isFinished()) {
        return; // it ended while it started
    }
    bool started = task != nullptr;
    if (task) {
        m_runs.insert(task, client);
    }
    // A built-in action answers through its own object.
    for (BuiltInAction* builtIn : BuiltInActionRunner::shared()->runningBuiltInActions()) {
        if (!before.contains(builtIn)) {
            m_runs.insert(builtIn, client);
            started = true;
        }
    }
    const ActionFilePtr file = action->actionFile();
    if (!started && !client->hasFailed() && !(file && file->isSharingService)) {
        client->respond(QStringLiteral("Error: Action '") + name +
                        QStringLiteral("' could not be started") +
                        (problems.isEmpty() ? QStringLiteral(".")
                                            : QStringLiteral(": ") + problems.join(u'\n')));
    }
}

void CmdLineTaskHandler::listRunning(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const QList<Task*>& tasks = TasksController::shared().tasks();
    if (flag(request, "json")) {
        QJsonArray array;
        for (qsizetype i = 0; i < tasks.size(); ++i) {
            const TaskOutputHandler* handler =
                tasks[i]->taskRunner() ? tasks[i]->taskRunner()->taskOutputHandler() : nullptr;
            const TaskStatus* row = handler ? handler->taskStatus() : nullptr;
            QJsonObject entry{{QStringLiteral("index"), i},
                              {QStringLiteral("name"), tasks[i]->actionType()}};
            entry.insert(QStringLiteral("status"), row ? row->statusText() : QString());
            entry.insert(QStringLiteral("progress"), row && !row->isIndeterminate()
                                                         ? QJsonValue(row->progress())
                                                         : QJsonValue());
            array << entry;
        }
        client->respond(json(array));
        return;
    }
    if (tasks.isEmpty()) {
        client->respond(QStringLiteral("No actions are currently running."));
        return;
    }
    QString text = QStringLiteral("\nRunning Skelvo Actions:\n-------------------------\n");
    for (qsizetype i = 0; i < tasks.size(); ++i) {
        const TaskOutputHandler* handler =
            tasks[i]->taskRunner() ? tasks[i]->taskRunner()->taskOutputHandler() : nullptr;
        const TaskStatus* row = handler ? handler->taskStatus() : nullptr;
        text += QStringLiteral("%1: %2").arg(i).arg(tasks[i]->actionType());
        if (row) {
            text += QStringLiteral(" - ") + row->statusText();
            if (!row->isIndeterminate()) {
                text += QStringLiteral(" (%1%)").arg(qRound(row->progress()));
            }
        }
        text += u'\n';
    }
    client->respond(text);
}

void CmdLineTaskHandler::cancel(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const std::optional<qint64> index = integer(request, "index");
    if (!index) {
        client->respond(QStringLiteral("Error: Missing index for cancel command."));
        return;
    }
    const QList<Task*>& tasks = TasksController::shared().tasks();
    if (*index < 0 || *index >= tasks.size()) {
        client->respond(
            QString::number(*index) +
            QStringLiteral(" is out of bounds. Use 'sk list-running' to see running actions."));
        return;
    }
    Task* task = tasks.at(*index);
    const QString name = task->actionType();
    if (TaskRunner* runner = task->taskRunner()) {
        TaskOutputHandler* handler = runner->taskOutputHandler();
        if (handler && handler->taskStatus()) {
            handler->taskStatus()->cancel();
        } else {
            if (handler) {
                handler->completeTaskWithCancel(true);
            }
            runner->cancelTask();
        }
    }
    client->respond(QStringLiteral("Cancelled action '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::status(const CmdLineRequestPtr& client, const QVariantMap&)
{
    client->respond(m_isGridOpen && m_isGridOpen() ? QStringLiteral("open")
                                                   : QStringLiteral("closed"));
}

void CmdLineTaskHandler::listGrids(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const GridId current = db().selectedGridId();
    const SqlRows grids = db().getGrids();
    if (flag(request, "json")) {
        QJsonArray array;
        for (const SqlRow& grid : grids) {
            const GridId id = grid.value(QStringLiteral("id")).toLongLong();
            array << QJsonObject{
                {QStringLiteral("id"), id},
                {QStringLiteral("name"), grid.value(QStringLiteral("name")).toString()},
                {QStringLiteral("current"), id == current},
                {QStringLiteral("columns"), db().numColsForGrid(id)},
                {QStringLiteral("size"), db().gridSizeForGrid(id)}};
        }
        client->respond(json(array));
        return;
    }
    QString text = QStringLiteral("\nAvailable Skelvo Grids:\n") + ListRule;
    for (const SqlRow& grid : grids) {
        const bool isCurrent = grid.value(QStringLiteral("id")).toLongLong() == current;
        text += (isCurrent ? QStringLiteral("* ") : QStringLiteral("  ")) +
                grid.value(QStringLiteral("name")).toString() + u'\n';
    }
    client->respond(text);
}

void CmdLineTaskHandler::switchGrid(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "name")) {
        client->respond(QStringLiteral("Error: Missing grid name for switch-grid command."));
        return;
    }
    const QString name = str(request, "name");
    const SqlRows grids = gridsNamed(name);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(name));
        return;
    }
    db().setSelectedGridId(grids.first().value(QStringLiteral("id")).toLongLong());
    NotificationCenter::shared().post(Notifications::GridsChanged);
    client->respond(QStringLiteral("Switched to grid '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::createGrid(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "name")) {
        client->respond(QStringLiteral("Error: Missing grid name for create-grid command."));
        return;
    }
    const QString name = str(request, "name");
    if (!gridsNamed(name).isEmpty()) {
        client->respond(QStringLiteral("Error: A grid named '") + name +
                        QStringLiteral("' already exists. Grid names must be unique."));
        return;
    }
    if (!db().addGridWithName(name)) {
        client->respond(QStringLiteral("Error: Failed to create grid '") + name +
                        QStringLiteral("'"));
        return;
    }
    NotificationCenter::shared().post(Notifications::GridsChanged);
    client->respond(QStringLiteral("Created grid '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::removeGrid(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "name")) {
        client->respond(QStringLiteral("Error: Missing grid name for remove-grid command."));
        return;
    }
    const QString name = str(request, "name");
    const SqlRows grids = gridsNamed(name);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(name));
        return;
    }
    if (grids.size() > 1) {
        client->respond(
            QStringLiteral("Error: Multiple grids named '") + name +
            QStringLiteral(
                "' exist. Please rename grids so names are unique before removing by name."));
        return;
    }
    if (db().getGrids().size() <= 1) {
        client->respond(QStringLiteral("Error: Cannot remove grid '") + name +
                        QStringLiteral("'. You must have at least one grid."));
        return;
    }
    const GridId gridId = grids.first().value(QStringLiteral("id")).toLongLong();
    const bool wasCurrent = db().selectedGridId() == gridId;
    if (!db().deleteGrid(gridId)) {
        client->respond(QStringLiteral("Error: Failed to remove grid '") + name +
                        QStringLiteral("'"));
        return;
    }
    NotificationCenter::shared().post(Notifications::GridsChanged);
    if (wasCurrent) {
        const SqlRows left = db().getGrids();
        const GridId next = left.first().value(QStringLiteral("id")).toLongLong();
        db().setSelectedGridId(next);
        client->respond(QStringLiteral("Removed grid '") + name +
                        QStringLiteral("'. Switched active grid to '") + gridName(next) +
                        QStringLiteral("'"));
        return;
    }
    client->respond(QStringLiteral("Removed grid '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::addCategory(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "grid") || !has(request, "category")) {
        client->respond(
            QStringLiteral("Error: Missing grid name or category name for add-category command."));
        return;
    }
    const QString grid = str(request, "grid");
    const QString category = str(request, "category");
    const SqlRows grids = gridsNamed(grid);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(grid));
        return;
    }
    if (!db().addCategoryWithName(category,
                                  grids.first().value(QStringLiteral("id")).toLongLong())) {
        client->respond(QStringLiteral("Error: Failed to add category '") + category +
                        QStringLiteral("'"));
        return;
    }
    client->respond(QStringLiteral("Added category '") + category + QStringLiteral("' to grid '") +
                    grid + QStringLiteral("'"));
}

void CmdLineTaskHandler::removeCategory(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "grid") || !has(request, "category")) {
        client->respond(QStringLiteral(
            "Error: Missing grid name or category name for remove-category command."));
        return;
    }
    const QString grid = str(request, "grid");
    const QString category = str(request, "category");
    const SqlRows grids = gridsNamed(grid);
    if (grids.isEmpty()) {
        client->respond(QStringLiteral("Error: Grid '%1' not found").arg(grid));
        return;
    }
    const SqlRows found =
        categoriesNamed(grids.first().value(QStringLiteral("id")).toLongLong(), category);
    if (found.isEmpty()) {
        client->respond(QStringLiteral("Error: Category '") + category +
                        QStringLiteral("' not found in grid '") + grid + QStringLiteral("'"));
        return;
    }
    if (found.size() > 1) {
        client->respond(
            QStringLiteral("Error: Multiple categories named '") + category +
            QStringLiteral("' exist in grid '") + grid +
            QStringLiteral("'. Please rename categories so names are unique within the grid before "
                           "removing by name."));
        return;
    }
    if (!db().deleteCategory(found.first().value(QStringLiteral("id")).toLongLong())) {
        client->respond(QStringLiteral("Error: Failed to remove category '") + category +
                        QStringLiteral("'"));
        return;
    }
    client->respond(QStringLiteral("Removed category '") + category +
                    QStringLiteral("' from grid '") + grid + QStringLiteral("'"));
}

void CmdLineTaskHandler::listCategories(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    GridId gridId = db().selectedGridId();
    if (has(request, "grid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "grid"));
        if (!gridFound) {
            return;
        }
        gridId = *gridFound;
    }
    const SqlRows categories = db().categoriesForGrid(gridId);
    if (flag(request, "json")) {
        QJsonArray array;
        for (const SqlRow& category : categories) {
            const CategoryId id = category.value(QStringLiteral("id")).toLongLong();
            array << QJsonObject{
                {QStringLiteral("id"), id},
                {QStringLiteral("name"), category.value(QStringLiteral("name")).toString()},
                {QStringLiteral("position"),
                 category.value(QStringLiteral("display_order")).toInt()},
                {QStringLiteral("actions"), db().getNumActionsForCategoryId(id)}};
        }
        client->respond(json(array));
        return;
    }
    QString text = QStringLiteral("\nSkelvo Grid Categories:\n") + ListRule;
    for (const SqlRow& category : categories) {
        text += category.value(QStringLiteral("name")).toString() +
                QStringLiteral(" (%1 actions)\n")
                    .arg(db().getNumActionsForCategoryId(
                        category.value(QStringLiteral("id")).toLongLong()));
    }
    client->respond(text);
}

void CmdLineTaskHandler::gridSettings(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "grid")) {
        client->respond(QStringLiteral("Error: Missing grid name for grid-settings command."));
        return;
    }
    const QString grid = str(request, "grid");
    const std::optional<GridId> gridFound = findGrid(client, grid);
    if (!gridFound) {
        return;
    }
    const GridId gridId = *gridFound;
    const std::optional<qint64> size = integer(request, "size");
    const std::optional<qint64> cols = integer(request, "cols");
    // Check everything before changing anything.
    if (size && (*size <= 0 || *size > 150)) {
        client->respond(
            QStringLiteral("Error: size must be greater than 0 and no larger than 150."));
        return;
    }
    if (cols && *cols != 0 && (*cols < 2 || *cols > 10)) {
        client->respond(QStringLiteral("Error: cols must be 0 (auto) or between 2 and 10."));
        return;
    }
    const bool changesDropBar = request.contains(QStringLiteral("dropBar"));
    if (changesDropBar && db().categoriesForGrid(gridId).isEmpty()) {
        client->respond(QStringLiteral(
            "Error: Cannot change Drop Bar visibility for a grid with no categories — it "
            "always shows the Drop Bar. Add at least one category first."));
        return;
    }
    const bool renames = request.contains(QStringLiteral("name"));
    const QString newName = str(request, "name").trimmed();
    if (renames && newName.isEmpty()) {
        client->respond(QStringLiteral("Error: The new grid name cannot be empty."));
        return;
    }
    if (renames && newName != grid && !gridsNamed(newName).isEmpty()) {
        client->respond(QStringLiteral("Error: A grid named '") + newName +
                        QStringLiteral("' already exists. Grid names must be unique."));
        return;
    }
    QStringList changes;
    // All changes or none: a failed write rolls back the ones before it.
    SqliteWriteTransaction together = db().writeTransaction();
    bool saved = together.isActive();
    if (size) {
        saved = saved && db().setGridSize(static_cast<double>(*size), gridId);
        changes << QStringLiteral("size %1").arg(*size);
    }
    if (cols) {
        saved = saved && db().setNumCols(static_cast<int>(*cols), gridId);
        changes << (*cols == 0 ? QStringLiteral("columns auto")
                               : QStringLiteral("columns %1").arg(*cols));
    }
    if (changesDropBar) {
        saved = saved && db().setSpecialActionsVisible(flag(request, "dropBar"), gridId);
        changes << (flag(request, "dropBar") ? QStringLiteral("Drop Bar shown")
                                             : QStringLiteral("Drop Bar hidden"));
    }
    if (request.contains(QStringLiteral("switcher"))) {
        saved = saved && db().setGridSwitcherVisible(flag(request, "switcher"), gridId);
        changes << (flag(request, "switcher") ? QStringLiteral("switcher shown")
                                              : QStringLiteral("switcher hidden"));
    }
    if (renames && newName != grid) {
        saved =
            saved && db().updateGrid(
                         gridId, newName,
                         gridsNamed(grid).first().value(QStringLiteral("display_order")).toInt());
        changes << QStringLiteral("renamed to '%1'").arg(newName);
    }
    if (!changes.isEmpty() && !(saved && together.commit())) {
        client->respond(
            QStringLiteral("Error: Could not save the settings of grid '%1'").arg(grid));
        return;
    }
    if (!changes.isEmpty()) {
        NotificationCenter::shared().post(Notifications::GridsChanged);
        client->respond(
            QStringLiteral("Updated grid '%1': %2").arg(grid, changes.join(QStringLiteral(", "))));
        return;
    }
    const int columns = db().numColsForGrid(gridId);
    client->respond(
        QStringLiteral("Grid '%1':\n  size: %2\n  columns: %3\n  Drop Bar: %4\n  switcher: %5")
            .arg(grid)
            .arg(db().gridSizeForGrid(gridId))
            .arg(columns == 0 ? QStringLiteral("auto") : QString::number(columns))
            .arg(db().specialActionsVisibleForGrid(gridId) ? QStringLiteral("shown")
                                                           : QStringLiteral("hidden"))
            .arg(db().gridSwitcherVisibleForGrid(gridId) ? QStringLiteral("shown")
                                                         : QStringLiteral("hidden")));
}

void CmdLineTaskHandler::listActionTypes(const CmdLineRequestPtr& client,
                                         const QVariantMap& request)
{
    ActionFileList types;
    for (const ActionFilePtr& record : ActionFileParser::shared().actionFiles()) {
        if (!record->isSharingService && !record->metaValidationFailed &&
            !record->actionName.contains(QStringLiteral("Template"))) {
            types << record;
        }
    }
    if (flag(request, "json")) {
        QJsonArray array;
        for (const ActionFilePtr& record : types) {
            array << QJsonObject{
                {QStringLiteral("type"), record->actionName},
                {QStringLiteral("description"), record->actionDescription},
                {QStringLiteral("handles"), record->handlesString()},
                {QStringLiteral("events"), QJsonArray::fromStringList(record->events)},
                {QStringLiteral("builtIn"), record->isBuiltInAction},
                {QStringLiteral("options"), record->optionsNib}};
        }
        client->respond(json(array));
        return;
    }
    QString text = QStringLiteral("\nSkelvo Action Types:\n") + ListRule;
    for (const ActionFilePtr& record : types) {
        text += QStringLiteral("%1 (%2)\n").arg(record->actionName, record->handlesString());
    }
    client->respond(text);
}

void CmdLineTaskHandler::actionInfo(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "type")) {
        client->respond(QStringLiteral("Error: Missing action type for action-info command."));
        return;
    }
    const ActionFilePtr record = ActionFileParser::shared().getActionWithType(str(request, "type"));
    if (!record) {
        client->respond(
            QStringLiteral("Error: Action type '") + str(request, "type") +
            QStringLiteral("' not found. Use 'sk list-action-types' to see available types."));
        return;
    }
    QString description = record->actionDescription;
    QString text = QStringLiteral("%1\n%2\n\n").arg(record->actionName, description);
    text += QStringLiteral("Handles: %1\n").arg(record->handlesString());
    QStringList events;
    if (record->handlesClicked()) {
        events << QStringLiteral("clicked");
    }
    if (record->handlesDragged()) {
        events << QStringLiteral("dragged");
    }
    text += QStringLiteral("Events: %1\n").arg(events.join(QStringLiteral(", ")));
    text += record->optionsNib.isEmpty()
                ? QStringLiteral("Options: none\n")
                : QStringLiteral("Options: set in '%1'\n").arg(record->optionsNib);
    text += ActionOptionSchemas::helpText(record->optionsNib);
    if (record->isBuiltInAction) {
        text += QStringLiteral("Built-in action\n");
    } else {
        text += QStringLiteral("Script: %1\n").arg(record->scriptPath());
    }
    client->respond(text);
}

void CmdLineTaskHandler::addAction(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "type")) {
        client->respond(QStringLiteral("Error: Missing action type for add-action command."));
        return;
    }
    if (!db().isOpen() || !db().requiredTablesExist()) {
        client->respond(QStringLiteral("Error: Could not access the actions database."));
        return;
    }
    const QString type = str(request, "type");
    const ActionFilePtr record = ActionFileParser::shared().getActionWithType(type);
    if (!record || record->isSharingService) {
        client->respond(
            QStringLiteral("Error: Action type '") + type +
            QStringLiteral("' not found. Use 'sk list-action-types' to see available types."));
        return;
    }
    const QVariantMap options = request.value(QStringLiteral("options")).toMap();
    if (!options.isEmpty() && record->optionsNib.isEmpty()) {
        client->respond(QStringLiteral("Error: Action type '") + type +
                        QStringLiteral("' does not take configuration options."));
        return;
    }
    const QString cwd = str(request, "cwd");
    // Options are checked against the panel's schema; a built-in's required options are
    // checked even when none are given.
    ValidatedActionOptions validated;
    if (!options.isEmpty() || (record->isBuiltInAction && !record->optionsNib.isEmpty())) {
        QMap<QString, QString> given;
        for (auto it = options.cbegin(); it != options.cend(); ++it) {
            given.insert(it.key(), it.value().toString());
        }
        const auto outcome = ActionOptionSchemas::validate(record->optionsNib, given, cwd, type);
        if (const auto* failure = std::get_if<ActionOptionValidationError>(&outcome)) {
            client->respond(QStringLiteral("Error: ") + failure->message);
            return;
        }
        validated = std::get<ValidatedActionOptions>(outcome);
    }
    GridId gridId = db().selectedGridId();
    QString grid = gridName(gridId);
    if (has(request, "grid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "grid"));
        if (!gridFound) {
            return;
        }
        gridId = *gridFound;
        grid = str(request, "grid");
    }
    CategoryId categoryId = 0;
    if (has(request, "category")) {
        const SqlRows categories = categoriesNamed(gridId, str(request, "category"));
        if (categories.isEmpty()) {
            client->respond(QStringLiteral("Error: Category '") + str(request, "category") +
                            QStringLiteral("' not found in grid '") + grid + QStringLiteral("'"));
            return;
        }
        categoryId = categories.first().value(QStringLiteral("id")).toLongLong();
    } else {
        const SqlRows categories = db().categoriesForGrid(gridId);
        if (categories.isEmpty()) {
            categoryId = db().addCategoryWithName(QStringLiteral("Actions"), gridId);
        } else {
            categoryId = categories.first().value(QStringLiteral("id")).toLongLong();
        }
    }
    auto action = std::make_shared<GridAction>();
    action->type = type;
    action->name = has(request, "name") ? str(request, "name") : type;
    action->categoryId = categoryId;
    action->position = db().getNextPositionForCategoryId(categoryId);
    action->usingDefaultIcon = true;
    action->servicesKey = GridAction::defaultServicesKeyForName(action->name, gridId);
    for (auto it = validated.variables.cbegin(); it != validated.variables.cend(); ++it) {
        action->extraVariables.insert(it.key(), it.value());
    }
    if (has(request, "icon")) {
        QFile icon(absolutePath(str(request, "icon"), cwd));
        if (!icon.open(QIODevice::ReadOnly)) {
            client->respond(
                QStringLiteral("Error: Cannot read icon image '%1'").arg(icon.fileName()));
            return;
        }
        action->icon = icon.readAll();
        action->usingDefaultIcon = false;
    }
    if (!action->create()) {
        client->respond(QStringLiteral("Error: Failed to add action '%1'").arg(action->name));
        return;
    }
    const QString added =
        QStringLiteral("Added action '%1' (%2) to grid '%3'").arg(action->name, type, grid);
    if (!validated.secret && !validated.secondarySecret) {
        client->respond(added);
        return;
    }
    // Secrets go to the secret store, named by the variables of the action that now exists;
    // an action whose secret cannot be kept is taken out again, so nothing is left half-made.
    client->stayOpen();
    auto failed = [client, action](const QString& error) {
        action->remove();
        client->respond(QStringLiteral("Error: Could not store the secret for action '%1': %2")
                            .arg(action->name, error));
        client->finish();
    };
    auto storeSecondary = [client, action, validated, added, failed] {
        auto done = [client, action, added, failed](bool ok, const QString& error) {
            if (!ok) {
                failed(error);
                return;
            }
            // Storing marks blank secrets in the variables.
            if (!action->update()) {
                failed(QStringLiteral("the action could not be saved"));
                return;
            }
            client->respond(added);
            client->finish();
        };
        if (validated.secondarySecret) {
            action->storeSecondaryKeychainPassword(*validated.secondarySecret, done);
        } else {
            done(true, {});
        }
    };
    if (validated.secret) {
        action->storeKeychainPassword(*validated.secret,
                                      [storeSecondary, failed](bool ok, const QString& error) {
                                          if (ok) {
                                              storeSecondary();
                                          } else {
                                              failed(error);
                                          }
                                      });
    } else {
        storeSecondary();
    }
}

void CmdLineTaskHandler::removeAction(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "name")) {
        client->respond(QStringLiteral("Error: Missing action name for remove-action command."));
        return;
    }
    const QString name = str(request, "name");
    std::optional<GridId> inGrid;
    if (has(request, "grid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "grid"));
        if (!gridFound) {
            return;
        }
        inGrid = *gridFound;
    }
    const auto single = singleActionNamed(
        name, inGrid, QStringLiteral(". Use --grid to specify which one to remove."),
        [&client](const QString& text) { client->respond(text); });
    if (!single) {
        return;
    }
    single->action->remove();
    client->respond(QStringLiteral("Removed action '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::setIcon(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!has(request, "name")) {
        client->respond(QStringLiteral("Error: Missing action name for set-icon command."));
        return;
    }
    const bool reset = flag(request, "reset");
    if (!has(request, "icon") && !reset) {
        client->respond(QStringLiteral(
            "Error: Provide an image path or use --reset to restore the default icon."));
        return;
    }
    const QString name = str(request, "name");
    std::optional<GridId> inGrid;
    if (has(request, "grid")) {
        const std::optional<GridId> gridFound = findGrid(client, str(request, "grid"));
        if (!gridFound) {
            return;
        }
        inGrid = *gridFound;
    }
    const auto single =
        singleActionNamed(name, inGrid, QStringLiteral(". Use --grid to specify which one."),
                          [&client](const QString& text) { client->respond(text); });
    if (!single) {
        return;
    }
    const PlacedAction& placed = *single;
    GridAction& action = *placed.action;
    if (reset) {
        action.icon.clear();
        action.usingDefaultIcon = true;
        if (!action.update() || !Icons::shared().deleteIcon(action.aId)) {
            client->respond(QStringLiteral("Error: Failed to reset the icon of '%1'").arg(name));
            return;
        }
        client->respond(QStringLiteral("Reset '") + name +
                        QStringLiteral("' to its default icon in grid '") + placed.grid +
                        QStringLiteral("'"));
        return;
    }
    QFile icon(absolutePath(str(request, "icon"), str(request, "cwd")));
    if (!icon.open(QIODevice::ReadOnly)) {
        client->respond(QStringLiteral("Error: Cannot read icon image '%1'").arg(icon.fileName()));
        return;
    }
    action.icon = icon.readAll();
    action.usingDefaultIcon = false;
    if (!Icons::shared().saveIcon(action.icon, action.aId) || !action.update()) {
        client->respond(QStringLiteral("Error: Failed to set the icon of '%1'").arg(name));
        return;
    }
    client->respond(QStringLiteral("Set custom icon for '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::notAvailable(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    client->respond(QStringLiteral("Error: '%1' is not available in this version of Skelvo.")
                        .arg(str(request, "action")));
}
