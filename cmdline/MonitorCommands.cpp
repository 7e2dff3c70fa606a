// The Folder Monitor commands: monitor-list, monitor-add, monitor-remove, monitor-enable,
// monitor-disable, monitor-confirm, monitor-log. A folder is named by its path, made
// absolute against the caller's folder.
#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"
#include "monitor/FolderMonitoringManager.h"
#include "store/GridAction.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace CommandSupport;

namespace {

using State = FolderMonitoringManager::State;

QString stateWord(State state)
{
    switch (state) {
    case State::Watching:
        return QStringLiteral("watching");
    case State::Polling:
        return QStringLiteral("polling");
    case State::Disabled:
        return QStringLiteral("disabled");
    case State::Missing:
        return QStringLiteral("missing");
    case State::Unwatched:
        return QStringLiteral("not watched");
    }
    return {};
}

QString filesCount(qsizetype count)
{
    return count == 1 ? QStringLiteral("1 file") : QStringLiteral("%1 files").arg(count);
}

QString batchesCount(qsizetype count)
{
    return count == 1 ? QStringLiteral("1 batch") : QStringLiteral("%1 batches").arg(count);
}

// The action's name now; null when it was removed from its grid.
QJsonValue actionName(ActionId id)
{
    const GridActionPtr action = db().getGridActionWithId(id);
    return action ? QJsonValue(action->name) : QJsonValue();
}

QString actionNames(const QList<ActionId>& ids)
{
    QStringList names;
    for (const ActionId id : ids) {
        const QJsonValue name = actionName(id);
        names << (name.isNull() ? QStringLiteral("(removed action %1)").arg(id) : name.toString());
    }
    return names.join(QStringLiteral(", "));
}

QString gridShown(GridId id)
{
    const QString name = GridLookup::gridName(id);
    return name.isEmpty() ? QStringLiteral("(removed grid %1)").arg(id) : u'\'' + name + u'\'';
}

QString yesNo(bool value)
{
    return value ? QStringLiteral("yes") : QStringLiteral("no");
}

QString timeText(const QDateTime& time)
{
    return time.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

QJsonObject statusJson(const FolderMonitoringManager::Status& status)
{
    const MonitoredFolder& folder = status.folder;
    QJsonArray actions;
    for (const ActionId id : folder.actionIDs) {
        actions << QJsonObject{{QStringLiteral("id"), id},
                               {QStringLiteral("name"), actionName(id)}};
    }
    QJsonValue dropBar;
    if (folder.dropBarGridID) {
        const QString name = GridLookup::gridName(*folder.dropBarGridID);
        dropBar = QJsonObject{{QStringLiteral("id"), *folder.dropBarGridID},
                              {QStringLiteral("name"), name.isEmpty() ? QJsonValue() : name}};
    }
    QJsonArray waiting;
    for (const WaitingBatch& batch : status.waiting) {
        waiting << QJsonObject{{QStringLiteral("since"), batch.since.toUTC().toString(Qt::ISODate)},
                               {QStringLiteral("files"), QJsonArray::fromStringList(batch.paths)}};
    }
    static const QString States[] = {QStringLiteral("watching"), QStringLiteral("polling"),
                                     QStringLiteral("disabled"), QStringLiteral("missing"),
                                     QStringLiteral("unwatched")};
    return {{QStringLiteral("id"), folder.id.toString(QUuid::WithoutBraces)},
            {QStringLiteral("path"), folder.path},
            {QStringLiteral("enabled"), folder.isEnabled},
            {QStringLiteral("state"), States[static_cast<int>(status.state)]},
            {QStringLiteral("problem"), status.problem.isEmpty() ? QJsonValue() : status.problem},
            {QStringLiteral("actions"), actions},
            {QStringLiteral("dropBarGrid"), dropBar},
            {QStringLiteral("confirm"), folder.confirmBeforeActions},
            {QStringLiteral("catchUp"), folder.catchUpOnStart},
            {QStringLiteral("running"), status.running},
            {QStringLiteral("heldBatches"), status.heldBatches},
            {QStringLiteral("waiting"), waiting}};
}

QString statusText(const FolderMonitoringManager::Status& status)
{
    const MonitoredFolder& folder = status.folder;
    QString text = folder.path + QStringLiteral(" [") + stateWord(status.state) +
                   (status.problem.isEmpty() ? QString() : QStringLiteral(": ") + status.problem) +
                   QStringLiteral("]\n");
    if (!folder.actionIDs.isEmpty()) {
        text += QStringLiteral("    actions: ") + actionNames(folder.actionIDs) + u'\n';
    }
    if (folder.dropBarGridID) {
        text += QStringLiteral("    Drop Bar of grid ") + gridShown(*folder.dropBarGridID) + u'\n';
    }
    text += QStringLiteral("    confirm before actions: %1, catch up at start: %2\n")
                .arg(yesNo(folder.confirmBeforeActions), yesNo(folder.catchUpOnStart));
    if (status.running || status.heldBatches > 0) {
        text += QStringLiteral("    ") +
                (status.running ? QStringLiteral("running") : QStringLiteral("not running")) +
                QStringLiteral(", %1 held\n").arg(batchesCount(status.heldBatches));
    }
    for (const WaitingBatch& batch : status.waiting) {
        text += QStringLiteral("    waiting for confirmation since %1: %2\n")
                    .arg(timeText(batch.since), filesCount(batch.paths.size()));
        for (const QString& path : batch.paths) {
            text += QStringLiteral("        ") + path + u'\n';
        }
    }
    return text;
}

} // namespace

FolderMonitoringManager* CmdLineTaskHandler::monitoringFor(const CmdLineRequestPtr& client)
{
    if (!m_monitoring) {
        client->respond(QStringLiteral("Error: Folder Monitor is not available."));
    }
    return m_monitoring;
}

std::optional<MonitoredFolder> CmdLineTaskHandler::requestedFolder(const CmdLineRequestPtr& client,
                                                                   const QVariantMap& request)
{
    if (!monitoringFor(client) || !given(client, request, {"folder"}, "folder")) {
        return std::nullopt;
    }
    const QString path = absolutePath(str(request, "folder"), str(request, "cwd"));
    std::optional<MonitoredFolder> folder = m_monitoring->folderWithPath(path);
    if (!folder) {
        client->respond(QStringLiteral("Error: '") + path +
                        QStringLiteral("' is not in Folder Monitor. Run 'sk monitor list' to see "
                                       "the monitored folders."));
    }
    return folder;
}

void CmdLineTaskHandler::listMonitored(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!monitoringFor(client)) {
        return;
    }
    QList<FolderMonitoringManager::Status> statuses;
    for (const MonitoredFolder& folder : m_monitoring->folders()) {
        if (const auto status = m_monitoring->status(folder.id)) {
            statuses << *status;
        }
    }
    if (flag(request, "json")) {
        QJsonArray array;
        for (const auto& status : std::as_const(statuses)) {
            array << statusJson(status);
        }
        client->respond(QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact)));
        return;
    }
    if (statuses.isEmpty()) {
        client->respond(QStringLiteral("No folders are monitored. Add one with 'sk monitor add "
                                       "FOLDER --action NAME'.\n"));
        return;
    }
    QString text = QStringLiteral("\nFolder Monitor:\n") + ListRule;
    for (const auto& status : std::as_const(statuses)) {
        text += statusText(status);
    }
    client->respond(text);
}

void CmdLineTaskHandler::addMonitored(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!monitoringFor(client) || !given(client, request, {"folder"}, "folder")) {
        return;
    }
    const QString path = absolutePath(str(request, "folder"), str(request, "cwd"));
    const QFileInfo info(path);
    if (!info.exists()) {
        client->respond(QStringLiteral("Error: The folder '%1' does not exist.").arg(path));
        return;
    }
    if (!info.isDir()) {
        client->respond(QStringLiteral("Error: '%1' is not a folder.").arg(path));
        return;
    }
    const QStringList actionNames = request.value(QStringLiteral("actions")).toStringList();
    if (actionNames.isEmpty() && !has(request, "dropBar")) {
        client->respond(QStringLiteral(
            "Error: Give an action to run (--action NAME) or a Drop Bar (--drop-bar GRID) for "
            "the new files."));
        return;
    }
    MonitoredFolder folder;
    folder.id = QUuid::createUuid();
    folder.path = path;
    folder.confirmBeforeActions = flag(request, "confirm");
    folder.catchUpOnStart = flag(request, "catchUp");
    std::optional<GridId> inGrid;
    if (has(request, "grid")) {
        GridId gridId = 0;
        if (!requestedGrid(client, request, gridId)) {
            return;
        }
        inGrid = gridId;
    }
    QStringList names;
    for (const QString& name : actionNames) {
        const auto placed =
            singleActionNamed(name, inGrid, QStringLiteral(". Use --grid to specify which one."),
                              [&client](const QString& text) { client->respond(text); });
        if (!placed) {
            return;
        }
        folder.actionIDs << placed->action->aId;
        names << placed->action->name;
    }
    if (has(request, "dropBar")) {
        const std::optional<GridId> grid = findGrid(client, str(request, "dropBar"));
        if (!grid) {
            return;
        }
        folder.dropBarGridID = *grid;
    }
    QString error;
    if (!m_monitoring->addFolder(folder, &error)) {
        client->respond(QStringLiteral("Error: ") + error);
        return;
    }
    QStringList what;
    if (!names.isEmpty()) {
        what << QStringLiteral("run ") + names.join(QStringLiteral(", "));
    }
    if (folder.dropBarGridID) {
        what << QStringLiteral("go to the Drop Bar of grid ") + gridShown(*folder.dropBarGridID);
    }
    client->respond(
        QStringLiteral("Added '%1' to Folder Monitor: new files %2%3")
            .arg(path, what.join(QStringLiteral(" and ")),
                 folder.confirmBeforeActions ? QStringLiteral(" after confirmation") : QString()));
}

void CmdLineTaskHandler::removeMonitored(const CmdLineRequestPtr& client,
                                         const QVariantMap& request)
{
    const std::optional<MonitoredFolder> folder = requestedFolder(client, request);
    if (!folder) {
        return;
    }
    if (!m_monitoring->removeFolder(folder->id)) {
        client->respond(QStringLiteral("Error: '%1' could not be removed from Folder Monitor.")
                            .arg(folder->path));
        return;
    }
    client->respond(QStringLiteral("Removed '%1' from Folder Monitor").arg(folder->path));
}

void CmdLineTaskHandler::enableMonitored(const CmdLineRequestPtr& client,
                                         const QVariantMap& request)
{
    const std::optional<MonitoredFolder> folder = requestedFolder(client, request);
    if (!folder) {
        return;
    }
    const bool enable = str(request, "action") == u"monitor-enable";
    const QString word = enable ? QStringLiteral("enabled") : QStringLiteral("disabled");
    if (folder->isEnabled == enable) {
        client->respond(QStringLiteral("Monitoring of '%1' is already %2").arg(folder->path, word));
        return;
    }
    if (!m_monitoring->setFolderEnabled(folder->id, enable)) {
        client->respond(
            QStringLiteral("Error: Monitoring of '%1' could not be %2.").arg(folder->path, word));
        return;
    }
    client->respond(QStringLiteral("Monitoring of '%1' %2").arg(folder->path, word));
}

void CmdLineTaskHandler::confirmMonitored(const CmdLineRequestPtr& client,
                                          const QVariantMap& request)
{
    const std::optional<MonitoredFolder> folder = requestedFolder(client, request);
    if (!folder) {
        return;
    }
    qsizetype files = 0;
    if (const auto status = m_monitoring->status(folder->id)) {
        for (const WaitingBatch& batch : status->waiting) {
            files += batch.paths.size();
        }
    }
    const int batches = m_monitoring->confirm(folder->id);
    if (batches == 0) {
        client->respond(
            QStringLiteral("Error: No files of '%1' wait for confirmation.").arg(folder->path));
        return;
    }
    client->respond(QStringLiteral("Confirmed %1 (%2) of '%3'; the actions run now")
                        .arg(batchesCount(batches), filesCount(files), folder->path));
}

void CmdLineTaskHandler::monitorLog(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const std::optional<qint64> limit = integer(request, "limit");
    if (request.contains(QStringLiteral("limit")) && (!limit || *limit < 1)) {
        client->respond(QStringLiteral("Error: --limit must be 1 or more."));
        return;
    }
    const std::optional<MonitoredFolder> folder = requestedFolder(client, request);
    if (!folder) {
        return;
    }
    const QList<MonitorRun> runs = m_monitoring->runs(
        folder->id, static_cast<int>(std::min<qint64>(limit.value_or(20), 10000)));
    if (flag(request, "json")) {
        QJsonArray array;
        for (const MonitorRun& run : runs) {
            array << QJsonObject{
                {QStringLiteral("time"), run.time.toUTC().toString(Qt::ISODate)},
                {QStringLiteral("files"), QJsonArray::fromStringList(run.paths)},
                {QStringLiteral("actions"), QJsonArray::fromStringList(run.actions)},
                {QStringLiteral("outcome"), run.outcome}};
        }
        client->respond(QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact)));
        return;
    }
    if (runs.isEmpty()) {
        client->respond(QStringLiteral("No runs of '%1' yet.\n").arg(folder->path));
        return;
    }
    QString text = QStringLiteral("\nRuns of '%1', newest first:\n").arg(folder->path) + ListRule;
    for (const MonitorRun& run : runs) {
        text += QStringLiteral("%1  %2  %3: %4\n")
                    .arg(timeText(run.time), filesCount(run.paths.size()),
                         run.actions.isEmpty() ? QStringLiteral("Drop Bar")
                                               : run.actions.join(QStringLiteral(", ")),
                         run.outcome);
        for (const QString& path : run.paths) {
            text += QStringLiteral("    ") + path + u'\n';
        }
    }
    client->respond(text);
}
