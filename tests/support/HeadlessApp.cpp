#include "tests/support/HeadlessApp.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

HeadlessApp::HeadlessApp()
    : m_environment(QProcessEnvironment::systemEnvironment())
{
    const QDir home(m_home.path());
    m_environment.insert(QStringLiteral("SKELVO_HOME"), home.path());
    m_environment.insert(QStringLiteral("SKELVO_RESOURCES"),
                         QStringLiteral(SKELVO_SOURCE_RESOURCES));
    // The desktop's folders (the Trash among them) of this home, not the user's.
    m_environment.insert(QStringLiteral("HOME"), home.path());
    for (const auto& [name, folder] : {std::pair{"XDG_DATA_HOME", ".local/share"},
                                       {"XDG_CONFIG_HOME", ".config"},
                                       {"XDG_CACHE_HOME", ".cache"}}) {
        m_environment.insert(QString::fromLatin1(name), home.filePath(QString::fromLatin1(folder)));
    }
    m_environment.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    m_environment.remove(QStringLiteral("DISPLAY"));
    m_environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    // What it prints is in its log as well.
    m_app.setStandardOutputFile(QProcess::nullDevice());
    m_app.setStandardErrorFile(QProcess::nullDevice());
}

HeadlessApp::~HeadlessApp()
{
    if (m_app.state() != QProcess::NotRunning) {
        stop();
    }
}

bool HeadlessApp::start(const QStringList& arguments)
{
    m_app.setProcessEnvironment(m_environment);
    m_app.setWorkingDirectory(m_home.path());
    m_app.start(QStringLiteral(SKELVO_BINARY),
                QStringList{QStringLiteral("--headless")} + arguments);
    return m_app.waitForStarted(10000) && waitUntil([this] {
               return m_app.state() == QProcess::Running &&
                      sk({QStringLiteral("status")}, {}, 10000).status == 0;
           });
}

bool HeadlessApp::stop()
{
    m_app.terminate();
    if (!m_app.waitForFinished(15000)) {
        m_app.kill();
        m_app.waitForFinished();
        return false;
    }
    return m_app.exitStatus() == QProcess::NormalExit && m_app.exitCode() == 0;
}

SkResult HeadlessApp::sk(const QStringList& arguments, const QString& workingDirectory,
                         int timeoutMs) const
{
    const std::unique_ptr<QProcess> process = startSk(arguments, workingDirectory);
    if (!process->waitForFinished(timeoutMs)) {
        process->kill();
        process->waitForFinished();
        return {};
    }
    // Empty, never null, so that every string check holds for no output.
    return {process->exitStatus() == QProcess::NormalExit ? process->exitCode() : -1,
            QLatin1String("") + QString::fromUtf8(process->readAllStandardOutput()),
            QLatin1String("") + QString::fromUtf8(process->readAllStandardError())};
}

std::unique_ptr<QProcess> HeadlessApp::startSk(const QStringList& arguments,
                                               const QString& workingDirectory) const
{
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(m_environment);
    process->setWorkingDirectory(workingDirectory.isEmpty() ? m_home.path() : workingDirectory);
    process->start(QStringLiteral(SK_BINARY), arguments);
    process->waitForStarted(10000);
    return process;
}

QString HeadlessApp::path(const QString& relative) const
{
    return relative.isEmpty() ? m_home.path() : QDir(m_home.path()).filePath(relative);
}

QString HeadlessApp::writeFile(const QString& relative, const QByteArray& contents) const
{
    const QString file = path(relative);
    QDir().mkpath(QFileInfo(file).absolutePath());
    QFile out(file);
    if (out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        out.write(contents);
    }
    return file;
}

static QString readText(const QString& file)
{
    QFile in(file);
    return in.open(QIODevice::ReadOnly) ? QString::fromUtf8(in.readAll()) : QString();
}

QString HeadlessApp::log() const
{
    return readText(path(QStringLiteral("data/Skelvo/Logs/skelvo.log")));
}

QString HeadlessApp::console() const
{
    return readText(path(QStringLiteral("data/Skelvo/Logs/debug-console.log")));
}

bool HeadlessApp::addScriptAction(const QString& name, const QString& body, bool python,
                                  const QString& extraHeader)
{
    QString header = QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: A test\n"
                                    "# Handles: Files, Text\n# Events: Clicked, Dragged\n"
                                    "# Creator: Tests\n# URL: https://example.org\n%2\n")
                         .arg(name, extraHeader);
    QString code = body;
    QString source;
    if (python) {
        code.replace(QStringLiteral("true"), QStringLiteral("True"))
            .replace(QStringLiteral("false"), QStringLiteral("False"))
            .replace(u'\n', QStringLiteral("\n    "));
        source = QStringLiteral("def dragged(items, variables, helper):\n    %1\n\n\n"
                                "def clicked(variables, helper):\n    dragged(None, variables, "
                                "helper)\n")
                     .arg(code);
    } else {
        source = QStringLiteral("def dragged(items, variables, helper)\n  %1\nend\n\n"
                                "def clicked(variables, helper)\n  dragged(nil, variables, "
                                "helper)\nend\n")
                     .arg(code.replace(u'\n', QStringLiteral("\n  ")));
    }
    writeFile(QStringLiteral("data/Skelvo/Actions/%1.skbundle/action.%2")
                  .arg(name, python ? QStringLiteral("py") : QStringLiteral("rb")),
              (header + source).toUtf8());
    return sk({QStringLiteral("add-action"), name}).status == 0;
}

bool HeadlessApp::waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QThread::msleep(50);
    }
    return true;
}
