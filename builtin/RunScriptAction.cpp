#include "builtin/RunScriptAction.h"

#include "builtin/BuiltInActionTaskBridge.h"
#include "platform/ChildProcess.h"
#include "tasks/DebugConsoleController.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTimer>

#include <csignal>
#include <unistd.h>

namespace {

using Colour = DebugConsoleController::Colour;

constexpr int KillGraceMs = 2000;

const QString ConfigurationErrorTitle = QStringLiteral("Run Script configuration error");

QString quotedCommandLine(const QString& program, const QStringList& arguments)
{
    QStringList parts{u'"' + program + u'"'};
    for (const QString& argument : arguments) {
        parts << u'"' + argument + u'"';
    }
    return parts.join(u' ');
}

} // namespace

RunScriptAction::~RunScriptAction()
{
    if (m_process && m_process->state() != QProcess::NotRunning) {
        m_process->disconnect(this);
        killGroup(SIGKILL);
        m_process->waitForFinished(1000);
    }
}

QStringList RunScriptAction::shebangCommand(const QString& scriptPath)
{
    QFile file(scriptPath);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    const QString line = QString::fromUtf8(file.readLine(4096)).trimmed();
    if (!line.startsWith(QStringLiteral("#!"))) {
        return {};
    }
    // Like the kernel: the interpreter, then at most one argument with everything after it.
    const QString rest = line.mid(2).trimmed();
    const qsizetype space = rest.indexOf(QRegularExpression(QStringLiteral("\\s")));
    if (space < 0) {
        return rest.isEmpty() ? QStringList() : QStringList{rest};
    }
    return {rest.left(space), rest.mid(space + 1).trimmed()};
}

qint64 RunScriptAction::processId() const
{
    return m_pid;
}

void RunScriptAction::runWithClick()
{
    run({}, false);
}

void RunScriptAction::runWithDraggedUrls(const QList<QUrl>& urls)
{
    QStringList paths;
    for (const QUrl& url : urls) {
        if (url.isLocalFile()) {
            paths << url.toLocalFile();
        }
    }
    run(paths, true);
}

void RunScriptAction::run(const QStringList& filePaths, bool dragged)
{
    BuiltInActionTaskBridge* bridge = builtInActionTaskBridge();
    const QString path = variable(GridAction::PathVariable);
    if (path.isEmpty()) {
        failWithMessage(QStringLiteral("No script has been selected for this action."),
                        ConfigurationErrorTitle);
        return;
    }
    const QFileInfo script(path);
    if (!script.exists()) {
        failWithMessage(QStringLiteral("The selected script could not be found."),
                        ConfigurationErrorTitle);
        return;
    }
    if (!script.isFile()) {
        failWithMessage(QStringLiteral("The selected script must be a file."));
        return;
    }
    if (!script.isReadable()) {
        failWithMessage(QStringLiteral("The selected script is not readable."));
        return;
    }
    const QStringList shebang = shebangCommand(path);
    if (shebang.isEmpty()) {
        failWithMessage(QStringLiteral("The selected script needs a shebang on its first line, "
                                       "such as #!/bin/zsh or #!/usr/bin/env python3."));
        return;
    }
    const QString interpreter = shebang.first();
    const QFileInfo interpreterInfo(interpreter);
    if (!interpreterInfo.isFile() || !interpreterInfo.isExecutable()) {
        failWithMessage(
            QStringLiteral("The interpreter at %1 could not be executed.").arg(interpreter));
        return;
    }
    const QStringList arguments =
        shebang.mid(1) + QStringList{script.absoluteFilePath()} + filePaths;

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("SKELVO_EVENT"),
                       dragged ? QStringLiteral("dragged") : QStringLiteral("clicked"));
    environment.insert(QStringLiteral("SKELVO_INPUT_TYPE"), dragged && !filePaths.isEmpty()
                                                                ? QStringLiteral("files")
                                                                : QStringLiteral("none"));
    environment.insert(QStringLiteral("SKELVO_ACTION_NAME"), actionName());
    environment.insert(QStringLiteral("SKELVO_KEY_MODIFIER"), keyModifier());
    environment.insert(QStringLiteral("SKELVO_TMP_FOLDER"), QDir::tempPath());

    m_process = new QProcess(this);
    m_process->setProgram(interpreter);
    m_process->setArguments(arguments);
    m_process->setProcessEnvironment(environment);
    m_process->setWorkingDirectory(script.absolutePath());
    m_process->setStandardInputFile(QProcess::nullDevice());
    m_process->setChildProcessModifier(ChildProcess::prepareChild);
    connect(m_process, &QProcess::readyReadStandardOutput, this,
            [this] { readOutput(QProcess::StandardOutput); });
    connect(m_process, &QProcess::readyReadStandardError, this,
            [this] { readOutput(QProcess::StandardError); });
    connect(m_process, &QProcess::finished, this, &RunScriptAction::processFinished);

    bridge->createTaskStatus();
    bridge->beginProgress(false);
    bridge->setStatusText(QStringLiteral("Running %1...").arg(actionName()));
    DebugConsoleController::shared().append(
        QStringLiteral("\n[Launching script with command line: %1]\n")
            .arg(quotedCommandLine(interpreter, arguments)));

    m_process->start();
    if (!m_process->waitForStarted(5000)) {
        const QString error = m_process->errorString();
        DebugConsoleController::shared().append(
            QStringLiteral("Failed to launch script: %1\n").arg(error), Colour::Red);
        m_process->disconnect(this);
        m_process->deleteLater();
        failWithMessage(QStringLiteral("The script could not be launched: %1").arg(error));
        return;
    }
    m_pid = m_process->processId();
}

void RunScriptAction::readOutput(QProcess::ProcessChannel channel)
{
    if (!m_process) {
        return;
    }
    m_process->setReadChannel(channel);
    const QByteArray data = m_process->readAll();
    if (channel == QProcess::StandardError) {
        DebugConsoleController::shared().append(m_stderrDecoder.decode(data), Colour::Red);
    } else {
        DebugConsoleController::shared().append(m_stdoutDecoder.decode(data));
    }
}

void RunScriptAction::processFinished(int exitCode, QProcess::ExitStatus status)
{
    readOutput(QProcess::StandardOutput);
    readOutput(QProcess::StandardError);
    // Whatever the script left behind in its group goes with it.
    killGroup(SIGKILL);
    m_pid = 0;
    DebugConsoleController::shared().append(QStringLiteral("\n[Task completed]\n"));
    if (m_process) {
        m_process->deleteLater();
    }
    if (m_cancelled) {
        finish();
        return;
    }
    playFinishedSoundIfWanted();
    if (status == QProcess::NormalExit && exitCode == 0) {
        succeedWithMessage(QStringLiteral("%1 completed.").arg(actionName()));
        return;
    }
    const QString exitText =
        status == QProcess::NormalExit ? QString::number(exitCode) : m_process->errorString();
    failWithMessage(
        QStringLiteral("Script exited with status %1. Check the Action Console for details.")
            .arg(exitText));
}

void RunScriptAction::killGroup(int signal)
{
    if (m_pid > 0) {
        ::kill(-static_cast<pid_t>(m_pid), signal);
    }
}

void RunScriptAction::cancel()
{
    if (!m_process || m_process->state() == QProcess::NotRunning || m_cancelled) {
        return;
    }
    m_cancelled = true;
    killGroup(SIGTERM);
    // A group that ignores the polite request is ended after a short grace period.
    QPointer<QProcess> process = m_process;
    const qint64 pid = m_pid;
    QTimer::singleShot(KillGraceMs, this, [process, pid] {
        if (process && process->state() != QProcess::NotRunning && pid > 0) {
            ::kill(-static_cast<pid_t>(pid), SIGKILL);
        }
    });
}
