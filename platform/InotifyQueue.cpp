#include "platform/InotifyQueue.h"

#include <cerrno>
#include <sys/inotify.h>
#include <unistd.h>

void InotifyQueue::drain(int fd, const std::function<void(const inotify_event&)>& each)
{
    if (fd < 0) {
        return;
    }
    alignas(inotify_event) char buffer[65536];
    for (;;) {
        const ssize_t length = ::read(fd, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            return; // EAGAIN: drained
        }
        for (ssize_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            each(*event);
        }
    }
}
