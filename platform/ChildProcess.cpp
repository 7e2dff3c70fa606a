#include "platform/ChildProcess.h"

#include <csignal>
#include <unistd.h>

namespace ChildProcess {

void prepareChild()
{
    ::setpgid(0, 0);
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig != SIGKILL && sig != SIGSTOP) {
            ::sigaction(sig, &action, nullptr);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

} // namespace ChildProcess
