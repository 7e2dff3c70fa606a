#pragma once

#include "platform/FileBookmark.h"

#include <QDateTime>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <memory>

// What folder monitoring remembers across runs, in its own SQLite file beside the grid
// store: the identities each folder knew (to catch up on what arrived while Skelvo was not
// running), the batches waiting for confirmation, and the history of runs.
class MonitorJournal {
public:
    struct Waiting {
        QUuid batchId;
        QUuid folderId;
        QStringList paths;
        QList<qint64> actionIds;
        QDateTime since;
    };
    struct Run {
        QDateTime time;
        QStringList paths;
        QStringList actions;
        QString outcome;
    };

    // "FolderMonitor.sqlite" in the support folder unless a path is given.
    explicit MonitorJournal(QString path = {});
    ~MonitorJournal();
    MonitorJournal(const MonitorJournal&) = delete;
    MonitorJournal& operator=(const MonitorJournal&) = delete;

    QSet<FileIdentity> knownIdentities(const QUuid& folderId) const;
    bool replaceKnownIdentities(const QUuid& folderId, const QSet<FileIdentity>& identities);
    bool addKnownIdentities(const QUuid& folderId, const QList<FileIdentity>& identities);

    bool addWaiting(const Waiting& batch);
    bool removeWaiting(const QUuid& batchId);
    QList<Waiting> waiting(const QUuid& folderId) const; // oldest first

    // Keeps the last 100 runs of each folder.
    bool addRun(const QUuid& folderId, const Run& run);
    QList<Run> runs(const QUuid& folderId, int limit) const; // newest first

    // Everything the folder left behind (it was removed from the list).
    bool forgetFolder(const QUuid& folderId);

private:
    class Database;
    std::unique_ptr<Database> m_db;
};
