#pragma once

#include "monitor/MonitoredFolder.h"

#include <QDateTime>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QUuid>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class EventsHandler;
class FolderMonitoringSession;
class MonitorJournal;
struct BuiltInContext;

// One batch of a monitored folder that waits for the user's confirmation.
struct WaitingBatch {
    QUuid id;
    QStringList paths;
    QList<ActionId> actionIDs;
    QDateTime since;
};

// One run of a folder's actions (or its Drop Bar hand-off) on a batch, for the history.
struct MonitorRun {
    QDateTime time;
    QStringList paths;
    QStringList actions; // the actions' names at the time, in order
    QString outcome;     // "Completed", or the message that stopped the batch
};

// The monitored folders: their list in the settings, a session for each enabled one that
// can be watched, and what the user asks of them. Main thread only.
class FolderMonitoringManager : public QObject {
    Q_OBJECT
public:
    static inline const QString ErrorDomain = QStringLiteral("FolderMonitoring");
    static inline const QString AlreadyMonitoredMessage =
        QStringLiteral("This folder is already in Folder Monitor.");

    enum class State {
        Watching, // inotify
        Polling,  // a network file system, listed every second
        Disabled,
        Missing,   // gone since it was chosen; watched again when it returns
        Unwatched, // could not be opened; `problem` says why
    };
    struct Status {
        MonitoredFolder folder;
        State state = State::Disabled;
        QString problem;
        bool running = false; // an action of a batch is running
        int heldBatches = 0;  // settled while another batch ran
        QList<WaitingBatch> waiting;
    };
    struct Timing { // the watch's intervals (tests shorten them)
        std::chrono::milliseconds settleInterval{2000};
        std::chrono::milliseconds checkInterval{1000};
    };

    FolderMonitoringManager(const BuiltInContext& context, EventsHandler& events,
                            MonitorJournal& journal, QObject* parent = nullptr);
    ~FolderMonitoringManager() override;
    void setTiming(Timing timing) { m_timing = timing; }

    // Start-up: a session for every enabled folder. Before it, nothing is watched.
    void startEnabledFolders();
    // Application quitting: every session stops; the list stays.
    void stopAll();

    QList<MonitoredFolder> folders() const;
    // The folder whose path is `path` (compared after resolving symbolic links and "..").
    std::optional<MonitoredFolder> folderWithPath(const QString& path) const;
    std::optional<Status> status(const QUuid& id) const;

    // Adds and starts it; the bookmark is made here. False with the message in `error`: the
    // folder is already in the list (AlreadyMonitoredMessage) or is not a readable folder.
    bool addFolder(MonitoredFolder folder, QString* error = nullptr);
    bool removeFolder(const QUuid& id);
    bool setFolderEnabled(const QUuid& id, bool enabled);
    // Replaces the entry with the same id and restarts its session.
    bool updateFolder(const MonitoredFolder& folder);

    // Runs the folder's batches that wait for confirmation, oldest first; how many.
    int confirm(const QUuid& id);
    // The folder's last runs, newest first.
    QList<MonitorRun> runs(const QUuid& id, int limit = 20) const;

Q_SIGNALS:
    void foldersChanged();

private:
    // Implementation details are the implementer's; keep the public API above stable.
    struct Entry {
        MonitoredFolder folder;
        std::unique_ptr<FolderMonitoringSession> session;
        State state = State::Disabled;
        QString problem;
    };
    Entry* entry(const QUuid& id) const;
    void load();
    void save();
    // Resolves the folder and starts watching it. `atLaunch`: a catch-up folder takes what
    // arrived while nothing watched; otherwise what is there now is present.
    void startFolder(Entry& entry, bool atLaunch);
    void stopFolder(Entry& entry);
    void folderGone(const QUuid& id);
    void checkMissingFolders();
    void rememberKnownIdentities(const Entry& entry);
    void handleNotificationResponse(const QVariantMap& userInfo);

    const BuiltInContext& m_context;
    EventsHandler& m_events;
    MonitorJournal& m_journal;
    Timing m_timing;
    std::vector<std::unique_ptr<Entry>> m_entries;
    QTimer* m_missingTimer = nullptr;
    int m_responseObserver = 0;
    bool m_started = false;
};
