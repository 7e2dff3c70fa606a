#include "platform/FolderEvents.h"

#include "platform/InotifyQueue.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

FolderEvents::~FolderEvents()
{
    close();
}

bool FolderEvents::open(const QString& folder, QString* error)
{
    close();
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0 || ::inotify_add_watch(fd, QFile::encodeName(folder).constData(),
                                      IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM |
                                          IN_ATTRIB | IN_MODIFY | IN_DELETE | IN_DELETE_SELF |
                                          IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK) < 0) {
        const int reason = errno;
        if (fd >= 0) {
            ::close(fd);
        }
        if (error) {
            *error = QString::fromLocal8Bit(std::strerror(reason));
        }
        return false;
    }
    m_fd = fd;
    return true;
}

void FolderEvents::close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

FolderEvents::Batch FolderEvents::read()
{
    Batch batch;
    InotifyQueue::drain(m_fd, [&batch](const inotify_event& event) {
        if (event.mask & IN_Q_OVERFLOW) {
            batch.overflowed = true;
            return;
        }
        if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED)) {
            batch.folderGone = true;
            return;
        }
        if (event.len == 0) {
            return;
        }
        Event item;
        item.name = QByteArray(event.name, qsizetype(std::strlen(event.name)));
        item.cookie = event.cookie;
        if (event.mask & IN_DELETE) {
            item.kind = Kind::Removed;
        } else if (event.mask & IN_MOVED_FROM) {
            item.kind = Kind::MovedFrom;
        } else if (event.mask & IN_MOVED_TO) {
            item.kind = Kind::MovedTo;
        }
        batch.events << item;
    });
    return batch;
}
