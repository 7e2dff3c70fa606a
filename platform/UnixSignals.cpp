#include "platform/UnixSignals.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = {-1, -1};

void onSignal(int signal)
{
    // Only async-signal-safe work here: the event loop reads the byte. The write end does
    // not block, so a burst of signals that fills the pipe only drops the extra bytes (one
    // waiting byte is enough to quit), and the interrupted code keeps its errno.
    const int savedErrno = errno;
    const char byte = static_cast<char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(g_signalPipe[0], &byte, 1);
    errno = savedErrno;
}

} // namespace

namespace UnixSignals {

void quitOnTermination(std::function<void()> handler)
{
    if (g_signalPipe[0] >= 0 ||
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, g_signalPipe) != 0) {
        return;
    }
    auto* notifier = new QSocketNotifier(g_signalPipe[1], QSocketNotifier::Read);
    QObject::connect(notifier, &QSocketNotifier::activated, notifier,
                     [handler = std::move(handler)] {
                         char bytes[64];
                         while (::read(g_signalPipe[1], bytes, sizeof bytes) > 0) {
                         }
                         handler();
                     });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        sigaction(sig, &action, nullptr);
    }
}

} // namespace UnixSignals
