#include "core/Log.h"

#include <QDateTime>
#include <QFile>
#include <QMutex>

#include <cstdio>
#include <map>

namespace {

struct LogState {
    QMutex mutex;
    std::map<int, Log::Sink> sinks;
    int nextToken = 1;
    QFile file;
    Log::Level stderrLevel = Log::Level::Info;
};

LogState& state()
{
    static LogState s;
    return s;
}

const char* levelName(Log::Level level)
{
    switch (level) {
    case Log::Level::Debug:
        return "debug";
    case Log::Level::Info:
        return "info";
    case Log::Level::Warning:
        return "warning";
    case Log::Level::Error:
        return "error";
    }
    return "?";
}

} // namespace

namespace Log {

void write(Level level, const QString& message)
{
    LogState& s = state();
    std::map<int, Sink> sinks;
    {
        QMutexLocker lock(&s.mutex);
        const QByteArray line = QDateTime::currentDateTime().toString(Qt::ISODateWithMs).toUtf8() +
                                " skelvo " + levelName(level) + ": " + message.toUtf8() + "\n";
        if (level >= s.stderrLevel) {
            std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
        }
        if (s.file.isOpen()) {
            s.file.write(line);
            s.file.flush();
        }
        sinks = s.sinks;
    }
    // Sinks run unlocked so that one may log or remove itself.
    for (const auto& [token, sink] : sinks) {
        sink(level, message);
    }
}

int addSink(Sink sink)
{
    LogState& s = state();
    QMutexLocker lock(&s.mutex);
    const int token = s.nextToken++;
    s.sinks.emplace(token, std::move(sink));
    return token;
}

void removeSink(int token)
{
    LogState& s = state();
    QMutexLocker lock(&s.mutex);
    s.sinks.erase(token);
}

bool openLogFile(const QString& path)
{
    LogState& s = state();
    QMutexLocker lock(&s.mutex);
    if (s.file.isOpen()) {
        s.file.close();
    }
    s.file.setFileName(path);
    return s.file.open(QIODevice::Append | QIODevice::Text);
}

void setStderrLevel(Level level)
{
    LogState& s = state();
    QMutexLocker lock(&s.mutex);
    s.stderrLevel = level;
}

} // namespace Log
