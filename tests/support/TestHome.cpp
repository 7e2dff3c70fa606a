#include "tests/support/TestHome.h"

#include "core/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

TestHome::TestHome()
{
    m_hadHome = qEnvironmentVariableIsSet("SKELVO_HOME");
    m_previousHome = qgetenv("SKELVO_HOME");
    qputenv("SKELVO_HOME", m_dir.path().toUtf8());
}

TestHome::~TestHome()
{
    if (m_hadHome) {
        qputenv("SKELVO_HOME", m_previousHome);
    } else {
        qunsetenv("SKELVO_HOME");
    }
}

QString TestHome::writeFile(const QString& relativePath, const QByteArray& contents) const
{
    const QString full = QDir(m_dir.path()).filePath(relativePath);
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile file(full);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(contents);
    }
    return full;
}

LogCapture::LogCapture()
    : m_token(Log::addSink([this](Log::Level, const QString& message) { m_lines << message; }))
{}

LogCapture::~LogCapture()
{
    Log::removeSink(m_token);
}

bool LogCapture::contains(const QString& text) const
{
    return !m_lines.filter(text).isEmpty();
}
