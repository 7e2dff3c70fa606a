#include "monitor/FolderMonitoringSession.h"

#include "builtin/BuiltInContext.h"
#include "core/AlertHelper.h"
#include "core/DesktopServices.h"
#include "core/Log.h"
#include "events/EventsHandler.h"
#include "monitor/FolderMonitorActionContext.h"
#include "store/GridDatabase.h"
#include "store/MonitorJournal.h"
#include "tasks/DropbarSink.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QFileInfo>

namespace {

GridDatabase& db()
{
    return GridDatabase::sharedGridDatabase();
}

bool gridExists(GridId gridId)
{
    const SqlRows grids = db().getGrids();
    return std::any_of(grids.cbegin(), grids.cend(), [gridId](const SqlRow& row) {
        return row.value(QStringLiteral("id")).toLongLong() == gridId;
    });
}

bool isReadableFile(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() && info.isReadable();
}

} // namespace

FolderMonitoringSession::FolderMonitoringSession(MonitoredFolder folder,
                                                 const BuiltInContext& context,
                                                 EventsHandler& events, MonitorJournal& journal,
                                                 QObject* parent)
    : QObject(parent)
    , m_folder(std::move(folder))
    , m_context(context)
    , m_events(events)
    , m_journal(journal)
{
    for (const MonitorJournal::Waiting& saved : m_journal.waiting(m_folder.id)) {
        m_waiting.append({saved.batchId, saved.paths, saved.actionIds, saved.since});
    }
}

FolderMonitoringSession::~FolderMonitoringSession()
{
    stop();
}

bool FolderMonitoringSession::start(const MonitoredFolder& folder, FolderMonitor::Options options,
                                    QString* error)
{
    stop();
    m_folder = folder;
    m_monitor = std::make_unique<FolderMonitor>(m_folder.path, std::move(options));
    connect(m_monitor.get(), &FolderMonitor::filesSettled, this,
            &FolderMonitoringSession::handleSettledFiles);
    connect(m_monitor.get(), &FolderMonitor::folderGone, this,
            &FolderMonitoringSession::folderGone);
    if (!m_monitor->start(error)) {
        m_monitor.reset();
        return false;
    }
    return true;
}

void FolderMonitoringSession::stop()
{
    if (m_monitor) {
        m_monitor->disconnect(this);
        m_monitor.reset();
    }
}

bool FolderMonitoringSession::isWatching() const
{
    return m_monitor && m_monitor->isRunning();
}

bool FolderMonitoringSession::isPolling() const
{
    return isWatching() && m_monitor->isPolling();
}

QSet<FileIdentity> FolderMonitoringSession::knownIdentities() const
{
    return m_monitor ? m_monitor->knownIdentities() : QSet<FileIdentity>();
}

QString FolderMonitoringSession::countPhrase(qsizetype count)
{
    return count == 1 ? QStringLiteral("%1 file").arg(count)
                      : QStringLiteral("%1 files").arg(count);
}

QString FolderMonitoringSession::folderName() const
{
    const QString name = QDir(m_folder.path).dirName();
    return name.isEmpty() ? m_folder.path : name;
}

// --- A batch arrives

void FolderMonitoringSession::handleSettledFiles(const QStringList& paths,
                                                 const QList<FileIdentity>& identities)
{
    QList<std::optional<FileIdentity>> known;
    if (identities.size() == paths.size()) {
        for (const FileIdentity& identity : identities) {
            known.append(identity);
        }
    } else {
        known = FileIdentity::ofAll(paths);
    }
    // The running action may still be writing; what it registered so far counts too.
    const QSet<FileIdentity> running =
        m_runContext ? m_runContext->outputs() : QSet<FileIdentity>();
    QStringList arrived;
    QList<FileIdentity> delivered;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        const std::optional<FileIdentity>& identity = known.at(i);
        if (identity && (m_outputs.remove(*identity) || running.contains(*identity))) {
            continue;
        }
        arrived.append(paths.at(i));
        if (identity) {
            delivered.append(*identity);
        }
    }
    if (!delivered.isEmpty()) {
        Q_EMIT filesDelivered(delivered);
    }
    if (arrived.isEmpty()) {
        return;
    }
    Log::info(QStringLiteral("Folder Monitor: %1 arrived in %2")
                  .arg(countPhrase(arrived.size()), m_folder.path));
    // The Drop Bar takes the files at once; the confirmation is about actions only.
    if (m_folder.dropBarGridID) {
        handToDropBar(arrived);
    }
    if (m_folder.actionIDs.isEmpty()) {
        return;
    }
    if (m_folder.confirmBeforeActions) {
        holdForConfirmation(arrived);
    } else {
        enqueue(arrived, m_folder.actionIDs);
    }
}

void FolderMonitoringSession::handToDropBar(const QStringList& paths)
{
    const GridId gridId = *m_folder.dropBarGridID;
    if (!gridExists(gridId)) {
        report(GridRemovedMessage);
        record(paths, {DropBarRunName}, GridRemovedMessage);
        return;
    }
    QPointer<FolderMonitoringSession> self = this;
    m_context.tasks.dropbarSink.addFilePathsToGrid(
        paths, gridId, [self, paths](bool added, DropbarId) {
            if (self) {
                self->record(paths, {DropBarRunName},
                             added ? CompletedOutcome
                                   : QStringLiteral("The files could not be added to the Drop "
                                                    "Bar."));
            }
        });
}

void FolderMonitoringSession::holdForConfirmation(const QStringList& paths)
{
    const WaitingBatch batch{QUuid::createUuid(), paths, m_folder.actionIDs,
                             QDateTime::currentDateTimeUtc()};
    m_waiting.append(batch);
    if (!m_journal.addWaiting({batch.id, m_folder.id, batch.paths, batch.actionIDs, batch.since})) {
        Log::warning(QStringLiteral("Folder Monitor: the waiting batch of %1 could not be saved; "
                                    "it is kept until Skelvo quits")
                         .arg(m_folder.path));
    }
    QVariantList actionIds;
    for (const ActionId actionId : batch.actionIDs) {
        actionIds.append(actionId);
    }
    const QString count = countPhrase(paths.size());
    UserNotification notification;
    notification.title = QStringLiteral("%1 waiting in %2").arg(count, folderName());
    notification.body = QStringLiteral("Run the selected actions on %1 that arrived in %2?")
                            .arg(count, folderName());
    notification.category = ConfirmCategory;
    notification.actions = {{ConfirmButton, QStringLiteral("Run Actions")}};
    notification.userInfo = {{FolderIdKey, m_folder.id.toString(QUuid::WithoutBraces)},
                             {ActionIdsKey, actionIds},
                             {FilePathsKey, paths},
                             {BatchIdKey, batch.id.toString(QUuid::WithoutBraces)}};
    if (paths.size() == 1) {
        notification.userInfo.insert(FilePathKey, paths.first());
    }
    m_context.tasks.desktop.sendNotification(notification);
    Q_EMIT stateChanged();
}

int FolderMonitoringSession::confirm()
{
    int confirmed = 0;
    while (!m_waiting.isEmpty() && confirmBatch(m_waiting.first().id)) {
        ++confirmed;
    }
    return confirmed;
}

bool FolderMonitoringSession::confirmBatch(const QUuid& batchId)
{
    const auto it = std::find_if(m_waiting.begin(), m_waiting.end(),
                                 [&](const WaitingBatch& batch) { return batch.id == batchId; });
    if (it == m_waiting.end()) {
        return false;
    }
    const WaitingBatch batch = *it;
    m_waiting.erase(it);
    m_journal.removeWaiting(batch.id);
    enqueue(batch.paths, batch.actionIDs);
    return true;
}

// --- Running

void FolderMonitoringSession::enqueue(const QStringList& paths, const QList<ActionId>& actionIDs)
{
    m_held.push_back(Batch{paths, actionIDs, {}, 0});
    if (!m_running) {
        runNext();
    } else {
        Q_EMIT stateChanged();
    }
}

void FolderMonitoringSession::runNext()
{
    if (m_running || m_held.empty()) {
        return;
    }
    m_running = std::make_unique<Batch>(std::move(m_held.front()));
    m_held.pop_front();
    Q_EMIT stateChanged();
    runNextAction();
}

void FolderMonitoringSession::runNextAction()
{
    Batch& batch = *m_running;
    if (batch.next >= batch.actionIDs.size()) {
        endBatch(CompletedOutcome);
        return;
    }
    const GridActionPtr action = db().getGridActionWithId(batch.actionIDs.at(batch.next));
    if (!action) {
        endBatch(ActionUnavailableMessage);
        return;
    }
    batch.actionNames.append(action->name);
    if (!std::all_of(batch.paths.cbegin(), batch.paths.cend(), isReadableFile)) {
        endBatch(FileGoneMessage);
        return;
    }
    if (action->isReferencedPathMissing()) {
        endBatch(ActionPathMissingMessage);
        return;
    }
    ++batch.next;
    QPointer<FolderMonitoringSession> self = this;
    m_runContext = std::make_shared<FolderMonitorActionContext>(
        m_folder.path, [self](const QSet<FileIdentity>& outputs) {
            if (self) {
                self->m_outputs.unite(outputs);
            }
        });
    // The next action starts only from the previous one's completion.
    m_events.runMonitoredAction(action, batch.paths, m_runContext, [self] {
        if (self) {
            self->m_runContext.reset();
            self->runNextAction();
        }
    });
}

void FolderMonitoringSession::endBatch(const QString& outcome)
{
    const std::unique_ptr<Batch> batch = std::move(m_running);
    if (outcome != CompletedOutcome) {
        report(outcome);
    }
    record(batch->paths, batch->actionNames, outcome);
    Q_EMIT stateChanged();
    runNext();
}

void FolderMonitoringSession::record(const QStringList& paths, const QStringList& actions,
                                     const QString& outcome)
{
    m_journal.addRun(m_folder.id, {QDateTime::currentDateTimeUtc(), paths, actions, outcome});
}

void FolderMonitoringSession::report(const QString& message)
{
    Log::warning(QStringLiteral("Folder Monitor: %1: %2").arg(m_folder.path, message));
    m_context.tasks.alerts.showAlertWithTitle(QStringLiteral("Folder Monitor"), message);
}
