#include "platform/UnixSignals.h"

#include "tests/support/EventLoop.h"

#include <QDeadlineTimer>

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A burst of signals far larger than the pipe holds: the handler never blocks, never
// changes the errno of the code it interrupts, and the quit still arrives.
TEST(UnixSignals, ABurstNeitherBlocksNorChangesErrno)
{
    ensureCoreApplication();
    // The handler stays installed for the rest of the process, so the burst runs in a child.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        bool quit = false;
        UnixSignals::quitOnTermination([&quit] { quit = true; });
        for (int i = 0; i < 20000; ++i) {
            errno = EDOM;
            ::raise(SIGHUP);
            if (errno != EDOM) {
                ::_exit(2);
            }
        }
        ::_exit(waitUntil([&quit] { return quit; }, 20000) ? 0 : 3);
    }
    int status = 0;
    QDeadlineTimer deadline(60000);
    pid_t reaped = 0;
    while ((reaped = ::waitpid(child, &status, WNOHANG)) == 0 && !deadline.hasExpired()) {
        QThread::msleep(10);
    }
    if (reaped != child) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        FAIL() << "the signal handler blocked";
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "2: errno changed, 3: no quit";
}

} // namespace
