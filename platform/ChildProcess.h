#pragma once

namespace ChildProcess {

// For QProcess::setChildProcessModifier: runs in the child between fork and exec. Gives it
// a process group of its own, so that a cancel reaches everything it starts, and signal
// handling as a fresh process has it.
void prepareChild();

} // namespace ChildProcess
