#pragma once

#include <QHash>
#include <QSet>
#include <QString>

// Tells which folders changed (entries created, deleted, renamed; the folder itself moved
// or deleted) since it was last asked, through inotify. The kernel queues the events as the
// changes happen, and asking reads that queue at once, so nothing that happened before the
// question is missed, without an event loop.
class FolderChanges {
public:
    FolderChanges();
    ~FolderChanges();
    FolderChanges(const FolderChanges&) = delete;
    FolderChanges& operator=(const FolderChanges&) = delete;

    // False when the folder cannot be watched (then ask the file system each time).
    bool watch(const QString& folder);
    bool isWatched(const QString& folder) const { return m_folders.contains(folder); }
    // The watched folders that changed since the last call; all of them when the kernel's
    // queue overflowed. A folder that went away is no longer watched.
    QSet<QString> takeChanged();

private:
    int m_fd = -1;
    QHash<int, QString> m_watches; // watch descriptor → folder
    QHash<QString, int> m_folders;
};
