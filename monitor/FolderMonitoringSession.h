#pragma once

#include "monitor/FolderMonitor.h"
#include "monitor/FolderMonitoringManager.h"
#include "monitor/MonitoredFolder.h"

#include <QObject>
#include <QPointer>
#include <QSet>

#include <deque>
#include <memory>

class EventsHandler;
class FolderMonitorActionContext;
class MonitorJournal;
struct BuiltInContext;

// One enabled folder: its watch, and what happens to each batch of files that settle in it.
// A batch loses the files a monitored run wrote, goes to the folder's Drop Bar at once, and
// runs the folder's actions strictly one after another, each on the whole batch, after the
// user's confirmation when the folder asks for one. Batches that settle while one runs are
// held and run first settled, first run. Main thread only.
class FolderMonitoringSession : public QObject {
    Q_OBJECT
public:
    static inline const QString GridRemovedMessage =
        QStringLiteral("The selected grid was removed. Choose another Drop Bar destination.");
    static inline const QString ActionUnavailableMessage =
        QStringLiteral("A selected action is unavailable. Remove it or choose another action.");
    static inline const QString FileGoneMessage =
        QStringLiteral("A file was moved or removed before all actions could run. Place actions "
                       "that move files last.");
    static inline const QString ActionPathMissingMessage =
        QStringLiteral("An action’s configured file or folder is unavailable. Update the action "
                       "in its grid.");
    static inline const QString CompletedOutcome = QStringLiteral("Completed");
    static inline const QString DropBarRunName = QStringLiteral("Drop Bar");
    static inline const QString ConfirmCategory = QStringLiteral("FolderMonitorRunActionCategory");
    static inline const QString ConfirmButton = QStringLiteral("RunMonitoredFolderActions");
    static inline const QString FolderIdKey = QStringLiteral("monitoredFolderID");
    static inline const QString ActionIdsKey = QStringLiteral("monitoredFolderActionIDs");
    static inline const QString FilePathsKey = QStringLiteral("monitoredFolderFilePaths");
    static inline const QString FilePathKey = QStringLiteral("monitoredFolderFilePath");
    static inline const QString BatchIdKey = QStringLiteral("monitoredFolderBatchID");

    // Batches waiting for confirmation are taken from the journal.
    FolderMonitoringSession(MonitoredFolder folder, const BuiltInContext& context,
                            EventsHandler& events, MonitorJournal& journal,
                            QObject* parent = nullptr);
    ~FolderMonitoringSession() override;

    const MonitoredFolder& folder() const { return m_folder; }

    // Watches the folder as resolved now (its path may have followed a rename). False with the
    // reason in `error`.
    bool start(const MonitoredFolder& folder, FolderMonitor::Options options,
               QString* error = nullptr);
    void stop();
    bool isWatching() const;
    bool isPolling() const;
    // What the watch knows: present at start or delivered since.
    QSet<FileIdentity> knownIdentities() const;

    bool isRunning() const { return m_running != nullptr; }
    int heldBatches() const { return static_cast<int>(m_held.size()); }
    QList<WaitingBatch> waiting() const { return m_waiting; }
    // Runs every waiting batch, oldest first; how many.
    int confirm();
    // Runs one waiting batch; false when there is none with that id.
    bool confirmBatch(const QUuid& batchId);

    // "1 file", "3 files".
    static QString countPhrase(qsizetype count);

public Q_SLOTS:
    // A batch of settled files (identities in the same order, or empty to look them up).
    void handleSettledFiles(const QStringList& paths, const QList<FileIdentity>& identities);

Q_SIGNALS:
    // The watched folder was deleted, moved or unmounted; the watch has stopped.
    void folderGone();
    // Files of a batch were taken (for the catch-up record).
    void filesDelivered(const QList<FileIdentity>& identities);
    void stateChanged();

private:
    struct Batch {
        QStringList paths;
        QList<ActionId> actionIDs;
        QStringList actionNames;
        qsizetype next = 0;
    };

    void handToDropBar(const QStringList& paths);
    void holdForConfirmation(const QStringList& paths);
    void enqueue(const QStringList& paths, const QList<ActionId>& actionIDs);
    void runNext();
    void runNextAction();
    void endBatch(const QString& outcome);
    void record(const QStringList& paths, const QStringList& actions, const QString& outcome);
    void report(const QString& message);
    QString folderName() const;

    MonitoredFolder m_folder;
    const BuiltInContext& m_context;
    EventsHandler& m_events;
    MonitorJournal& m_journal;
    std::unique_ptr<FolderMonitor> m_monitor;

    // Identities written by monitored runs of this folder: never arrivals.
    QSet<FileIdentity> m_outputs;
    std::shared_ptr<FolderMonitorActionContext> m_runContext;
    std::unique_ptr<Batch> m_running;
    std::deque<Batch> m_held;
    QList<WaitingBatch> m_waiting;
};
