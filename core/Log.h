#pragma once

#include <QString>

#include <functional>

// Process-wide logging. Messages go to standard error (and a log file once one is opened);
// tests add a sink to see what was logged.
namespace Log {

enum class Level { Debug, Info, Warning, Error };

using Sink = std::function<void(Level, const QString&)>;

void write(Level level, const QString& message);
inline void debug(const QString& message)
{
    write(Level::Debug, message);
}
inline void info(const QString& message)
{
    write(Level::Info, message);
}
inline void warning(const QString& message)
{
    write(Level::Warning, message);
}
inline void error(const QString& message)
{
    write(Level::Error, message);
}

// Returns a token for removeSink().
int addSink(Sink sink);
void removeSink(int token);

// Appends every message to the file as well; returns false when it cannot be opened.
bool openLogFile(const QString& path);
// Only messages at or above this level reach standard error (the default is Info).
void setStderrLevel(Level level);

} // namespace Log
