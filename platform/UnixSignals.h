#pragma once

#include <functional>

namespace UnixSignals {

// Turns SIGTERM, SIGINT and SIGHUP into a call of `handler` on the main event loop, where
// it is safe to shut down cleanly. Call once, after the application object exists.
void quitOnTermination(std::function<void()> handler);

} // namespace UnixSignals
