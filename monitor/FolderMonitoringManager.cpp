#include "monitor/FolderMonitoringManager.h"

#include "builtin/BuiltInContext.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "monitor/FolderMonitoringSession.h"
#include "monitor/MonitoredFolderAccess.h"
#include "store/MonitorJournal.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QFileInfo>

namespace {

constexpr int MissingCheckMilliseconds = 1000;

// Marks a catch-up record as taken, so that a folder that was empty when Skelvo stopped is
// told apart from one that was never recorded. No file has device and inode 0.
const FileIdentity RecordedMarker{0, 0};

QString comparablePath(const QString& path)
{
    const QFileInfo info(path);
    const QString canonical = info.canonicalFilePath();
    return canonical.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : canonical;
}

} // namespace

FolderMonitoringManager::FolderMonitoringManager(const BuiltInContext& context,
                                                 EventsHandler& events, MonitorJournal& journal,
                                                 QObject* parent)
    : QObject(parent)
    , m_context(context)
    , m_events(events)
    , m_journal(journal)
    , m_missingTimer(new QTimer(this))
{
    m_missingTimer->setInterval(MissingCheckMilliseconds);
    connect(m_missingTimer, &QTimer::timeout, this, &FolderMonitoringManager::checkMissingFolders);
    m_responseObserver = m_context.tasks.notifications.addObserver(
        Notifications::UserNotificationResponse, nullptr,
        [this](const Notification& note) { handleNotificationResponse(note.userInfo); });
    load();
}

FolderMonitoringManager::~FolderMonitoringManager()
{
    m_context.tasks.notifications.removeObserver(m_responseObserver);
    stopAll();
}

void FolderMonitoringManager::load()
{
    m_entries.clear();
    for (MonitoredFolder& folder : MonitoredFolder::listFromJson(
             m_context.tasks.settings.value(Settings::MonitoredFolders))) {
        auto added = std::make_unique<Entry>();
        added->folder = std::move(folder);
        m_entries.push_back(std::move(added));
    }
}

void FolderMonitoringManager::save()
{
    m_context.tasks.settings.setValue(Settings::MonitoredFolders,
                                      MonitoredFolder::listToJson(folders()));
    Q_EMIT foldersChanged();
}

FolderMonitoringManager::Entry* FolderMonitoringManager::entry(const QUuid& id) const
{
    for (const auto& candidate : m_entries) {
        if (candidate->folder.id == id) {
            return candidate.get();
        }
    }
    return nullptr;
}

// --- Starting and stopping

void FolderMonitoringManager::startEnabledFolders()
{
    // Another process (`sk settings`) may have changed the list since the engine was made.
    if (!m_started) {
        m_context.tasks.settings.reload();
        load();
    }
    m_started = true;
    for (const auto& each : m_entries) {
        startFolder(*each, true);
    }
}

void FolderMonitoringManager::stopAll()
{
    m_started = false;
    m_missingTimer->stop();
    for (const auto& each : m_entries) {
        stopFolder(*each);
    }
}

void FolderMonitoringManager::startFolder(Entry& entry, bool atLaunch)
{
    stopFolder(entry);
    entry.problem.clear();
    if (!entry.folder.isEnabled) {
        entry.state = State::Disabled;
        return;
    }
    MonitoredFolder& folder = entry.folder;
    const MonitoredFolderAccess access = MonitoredFolderAccess::open(folder);
    if (!access.isAvailable()) {
        entry.state = State::Missing;
        entry.problem = QStringLiteral("The folder %1 is missing.").arg(folder.path);
        Log::warning(QStringLiteral("Folder Monitor: %1").arg(entry.problem));
        m_missingTimer->start();
        return;
    }
    bool resetKnown = !atLaunch;
    if (access.outcome() != MonitoredFolderAccess::Outcome::Same || folder.bookmark.isEmpty()) {
        folder.path = access.path();
        folder.bookmark = access.bookmark();
        // What a replaced folder's predecessor held says nothing about the new one.
        resetKnown = resetKnown || access.outcome() == MonitoredFolderAccess::Outcome::Replaced;
        save();
    }
    FolderMonitor::Options options;
    options.settleInterval = m_timing.settleInterval;
    options.checkInterval = m_timing.checkInterval;
    if (folder.catchUpOnStart && !resetKnown) {
        QSet<FileIdentity> known = m_journal.knownIdentities(folder.id);
        if (known.remove(RecordedMarker)) {
            options.knownBefore = std::move(known);
        }
    }
    if (!entry.session) {
        entry.session =
            std::make_unique<FolderMonitoringSession>(folder, m_context, m_events, m_journal);
        const QUuid id = folder.id;
        // Queued: the watch that reports it must not be torn down inside its own signal.
        connect(
            entry.session.get(), &FolderMonitoringSession::folderGone, this,
            [this, id] { folderGone(id); }, Qt::QueuedConnection);
        connect(entry.session.get(), &FolderMonitoringSession::filesDelivered, this,
                [this, id](const QList<FileIdentity>& identities) {
                    const Entry* delivered = this->entry(id);
                    if (delivered && delivered->folder.catchUpOnStart) {
                        m_journal.addKnownIdentities(id, identities);
                    }
                });
    }
    QString error;
    if (!entry.session->start(folder, options, &error)) {
        const bool gone = !QFileInfo(folder.path).isDir();
        entry.state = gone ? State::Missing : State::Unwatched;
        entry.problem = error;
        Log::error(
            QStringLiteral("Folder Monitor: unable to watch %1: %2").arg(folder.path, error));
        if (gone) {
            m_missingTimer->start();
        }
        return;
    }
    entry.state = entry.session->isPolling() ? State::Polling : State::Watching;
    rememberKnownIdentities(entry);
}

void FolderMonitoringManager::stopFolder(Entry& entry)
{
    if (entry.session) {
        rememberKnownIdentities(entry);
        entry.session->stop();
    }
    if (entry.state == State::Watching || entry.state == State::Polling) {
        entry.state = State::Disabled;
    }
}

void FolderMonitoringManager::rememberKnownIdentities(const Entry& entry)
{
    if (!entry.folder.catchUpOnStart || !entry.session || !entry.session->isWatching()) {
        return;
    }
    QSet<FileIdentity> known = entry.session->knownIdentities();
    known.insert(RecordedMarker);
    m_journal.replaceKnownIdentities(entry.folder.id, known);
}

void FolderMonitoringManager::folderGone(const QUuid& id)
{
    Entry* gone = entry(id);
    if (!gone || !gone->session || gone->state == State::Missing) {
        return;
    }
    gone->session->stop();
    gone->state = State::Missing;
    gone->problem = QStringLiteral("The folder %1 is missing.").arg(gone->folder.path);
    Log::warning(QStringLiteral("Folder Monitor: %1").arg(gone->problem));
    m_missingTimer->start();
    Q_EMIT foldersChanged();
}

void FolderMonitoringManager::checkMissingFolders()
{
    bool stillMissing = false;
    for (const auto& each : m_entries) {
        if (each->state != State::Missing || !each->folder.isEnabled) {
            continue;
        }
        if (QFileInfo(each->folder.path).isDir() ||
            MonitoredFolderAccess::open(each->folder).isAvailable()) {
            Log::info(QStringLiteral("Folder Monitor: %1 is back").arg(each->folder.path));
            startFolder(*each, false);
            Q_EMIT foldersChanged();
        }
        stillMissing = stillMissing || each->state == State::Missing;
    }
    if (!stillMissing) {
        m_missingTimer->stop();
    }
}

// --- The list

QList<MonitoredFolder> FolderMonitoringManager::folders() const
{
    QList<MonitoredFolder> list;
    for (const auto& each : m_entries) {
        list.append(each->folder);
    }
    return list;
}

std::optional<MonitoredFolder> FolderMonitoringManager::folderWithPath(const QString& path) const
{
    const QString wanted = comparablePath(path);
    for (const auto& each : m_entries) {
        if (comparablePath(each->folder.path) == wanted) {
            return each->folder;
        }
    }
    return std::nullopt;
}

std::optional<FolderMonitoringManager::Status>
FolderMonitoringManager::status(const QUuid& id) const
{
    const Entry* found = entry(id);
    if (!found) {
        return std::nullopt;
    }
    Status status;
    status.folder = found->folder;
    status.state = found->folder.isEnabled ? found->state : State::Disabled;
    status.problem = found->problem;
    if (found->session) {
        status.running = found->session->isRunning();
        status.heldBatches = found->session->heldBatches();
        status.waiting = found->session->waiting();
    } else {
        for (const MonitorJournal::Waiting& saved : m_journal.waiting(id)) {
            status.waiting.append({saved.batchId, saved.paths, saved.actionIds, saved.since});
        }
    }
    return status;
}

bool FolderMonitoringManager::addFolder(MonitoredFolder folder, QString* error)
{
    const QFileInfo info(folder.path);
    if (!info.isDir() || !info.isReadable()) {
        if (error) {
            *error = QStringLiteral("%1 is not a readable folder.").arg(folder.path);
        }
        return false;
    }
    if (folderWithPath(folder.path)) {
        if (error) {
            *error = AlreadyMonitoredMessage;
        }
        return false;
    }
    folder.path = comparablePath(folder.path);
    if (folder.id.isNull()) {
        folder.id = QUuid::createUuid();
    }
    QString bookmarkError;
    const std::optional<QByteArray> bookmark = FileBookmark::create(folder.path, &bookmarkError);
    if (!bookmark) {
        if (error) {
            *error = bookmarkError;
        }
        return false;
    }
    folder.bookmark = *bookmark;
    // A new entry starts from nothing the journal may hold under its id.
    m_journal.forgetFolder(folder.id);
    auto added = std::make_unique<Entry>();
    added->folder = std::move(folder);
    Entry& entryRef = *added;
    m_entries.push_back(std::move(added));
    save();
    if (m_started) {
        startFolder(entryRef, false);
    }
    return true;
}

bool FolderMonitoringManager::removeFolder(const QUuid& id)
{
    const auto it = std::find_if(m_entries.begin(), m_entries.end(),
                                 [&](const auto& each) { return each->folder.id == id; });
    if (it == m_entries.end()) {
        return false;
    }
    (*it)->session.reset();
    m_entries.erase(it);
    m_journal.forgetFolder(id);
    save();
    return true;
}

bool FolderMonitoringManager::setFolderEnabled(const QUuid& id, bool enabled)
{
    Entry* found = entry(id);
    if (!found) {
        return false;
    }
    found->folder.isEnabled = enabled;
    save();
    if (!enabled) {
        stopFolder(*found);
        found->session.reset();
        found->state = State::Disabled;
    } else if (m_started) {
        startFolder(*found, false);
    }
    return true;
}

bool FolderMonitoringManager::updateFolder(const MonitoredFolder& folder)
{
    Entry* found = entry(folder.id);
    if (!found) {
        return false;
    }
    stopFolder(*found);
    found->session.reset();
    found->folder = folder;
    save();
    if (m_started) {
        startFolder(*found, false);
    }
    return true;
}

// --- Confirmation and history

int FolderMonitoringManager::confirm(const QUuid& id)
{
    Entry* found = entry(id);
    if (!found) {
        return 0;
    }
    if (!found->session) {
        // A disabled folder's waiting batches still run when the user asks.
        found->session = std::make_unique<FolderMonitoringSession>(found->folder, m_context,
                                                                   m_events, m_journal);
    }
    return found->session->confirm();
}

QList<MonitorRun> FolderMonitoringManager::runs(const QUuid& id, int limit) const
{
    QList<MonitorRun> runs;
    for (const MonitorJournal::Run& run : m_journal.runs(id, limit)) {
        runs.append({run.time, run.paths, run.actions, run.outcome});
    }
    return runs;
}

void FolderMonitoringManager::handleNotificationResponse(const QVariantMap& userInfo)
{
    if (userInfo.value(Notifications::NotificationActionIdentifierKey).toString() !=
        FolderMonitoringSession::ConfirmButton) {
        return;
    }
    Entry* found =
        entry(QUuid::fromString(userInfo.value(FolderMonitoringSession::FolderIdKey).toString()));
    if (!found || !found->session) {
        return;
    }
    const QUuid batchId =
        QUuid::fromString(userInfo.value(FolderMonitoringSession::BatchIdKey).toString());
    if (!found->session->confirmBatch(batchId)) {
        Log::info(QStringLiteral("Folder Monitor: the confirmed batch of %1 has already run")
                      .arg(found->folder.path));
    }
}
