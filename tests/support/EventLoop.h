#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QThread>

#include <functional>

// Runs the event loop until `done` holds or the time is up; returns whether it held.
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 10000)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QThread::msleep(1);
    }
    return true;
}

// Runs the event loop for a while (to let timers fire).
inline void spin(int ms)
{
    waitUntil([] { return false; }, ms);
}

// One application object for a whole test program.
inline void ensureCoreApplication()
{
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "skelvo_tests";
        static char* argv[] = {name, nullptr};
        new QCoreApplication(argc, argv);
    }
}
