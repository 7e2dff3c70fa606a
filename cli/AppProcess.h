#pragma once

#include <string>
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

} // namespace sk
