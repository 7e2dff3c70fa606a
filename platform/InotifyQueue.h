#pragma once

#include <functional>

struct inotify_event;

namespace InotifyQueue {

// Reads every event queued on the non-blocking inotify descriptor `fd` and hands each to
// `each`; returns when the queue is empty.
void drain(int fd, const std::function<void(const inotify_event&)>& each);

} // namespace InotifyQueue
