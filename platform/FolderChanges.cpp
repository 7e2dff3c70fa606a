#include "platform/FolderChanges.h"

#include "platform/InotifyQueue.h"

#include <QFile>

#include <cerrno>
#include <sys/inotify.h>
#include <unistd.h>

FolderChanges::FolderChanges()
    : m_fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{}

FolderChanges::~FolderChanges()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool FolderChanges::watch(const QString& folder)
{
    if (m_folders.contains(folder)) {
        return true;
    }
    if (m_fd < 0) {
        return false;
    }
    const int wd = ::inotify_add_watch(m_fd, QFile::encodeName(folder).constData(),
                                       IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                           IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
    if (wd < 0) {
        return false;
    }
    m_watches.insert(wd, folder);
    m_folders.insert(folder, wd);
    return true;
}

QSet<QString> FolderChanges::takeChanged()
{
    QSet<QString> changed;
    InotifyQueue::drain(m_fd, [this, &changed](const inotify_event& event) {
        if (event.mask & IN_Q_OVERFLOW) {
            for (const QString& folder : std::as_const(m_watches)) {
                changed.insert(folder);
            }
            return;
        }
        const QString folder = m_watches.value(event.wd);
        if (folder.isEmpty()) {
            return;
        }
        changed.insert(folder);
        // A folder moved or deleted is not followed: its items are looked up again.
        if (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
            ::inotify_rm_watch(m_fd, event.wd);
            m_watches.remove(event.wd);
            m_folders.remove(folder);
        }
    });
    return changed;
}
