#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace sk {

// The outcome of running the Skelvo application once.
struct AppRun {
    bool started = false;
    std::string startError; // why it could not be started
    std::string output;     // everything it wrote to standard output
    int exitStatus = 0;     // its exit status, or 128 + the signal that ended it
    int signal = 0;         // the signal that ended it, 0 when it exited
};

// The `skelvo` executable beside this program's own, or empty when there is none.
std::string siblingAppPath();

// Runs `skelvo ARGUMENTS` (found beside sk, else on PATH) to completion and collects its
// standard output; standard input and error are shared with sk.
AppRun runApp(const std::vector<std::string>& arguments);

// A Skelvo application started in the background.
struct DetachedApp {
    pid_t pid = -1;         // its process id; -1 when it could not be started
    std::string startError; // why it could not be started
};

// Starts `skelvo ARGUMENTS` (found as runApp finds it) in a session of its own, so that it
// outlives sk and the terminal's signals, with standard input from /dev/null and its output
// going to `logFd` (opened for appending); does not wait for it. The caller may reap it with
// waitpid.
DetachedApp startAppDetached(const std::vector<std::string>& arguments, int logFd);

} // namespace sk
