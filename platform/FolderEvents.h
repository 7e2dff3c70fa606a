#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// The inotify queue of one folder: which of its entries were created, written, changed,
// moved or removed, and whether the folder itself went away. Reading never blocks.
class FolderEvents {
public:
    enum class Kind { Changed, Removed, MovedFrom, MovedTo };
    struct Event {
        QByteArray name; // the entry's name in the folder, as the file system spells it
        Kind kind = Kind::Changed;
        quint32 cookie = 0; // pairs a MovedFrom with its MovedTo
    };
    struct Batch {
        QList<Event> events;
        bool overflowed = false; // the kernel dropped events: list the folder again
        bool folderGone = false; // deleted, moved or unmounted; the watch has ended
    };

    FolderEvents() = default;
    ~FolderEvents();
    FolderEvents(const FolderEvents&) = delete;
    FolderEvents& operator=(const FolderEvents&) = delete;

    // Starts watching `folder`; false with the system's reason in `error`.
    bool open(const QString& folder, QString* error = nullptr);
    void close();
    // For a QSocketNotifier; -1 when not open.
    int fd() const { return m_fd; }
    // Everything queued so far.
    Batch read();

private:
    int m_fd = -1;
};
