#include "builtin/RunScriptAction.h"

#include "builtin/BuiltInActionTaskBridge.h"
#include "platform/ChildProcess.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QRegularExpression>

namespace {

using Colour = DebugConsoleController::Colour;

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

// A script still running goes with its action (the child process kills its group).
RunScriptAction::~RunScriptAction() = default;

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
    return m_child && m_child->isRunning() ? m_child->processId() : 0;
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

    m_child = new ChildProcess(this);
    QProcess* process = m_child->process();
    process->setProgram(interpreter);
    process->setArguments(arguments);
    process->setProcessEnvironment(environment);
    process->setWorkingDirectory(script.absolutePath());
    process->setStandardInputFile(QProcess::nullDevice());
    connect(process, &QProcess::readyReadStandardOutput, this,
            [this] { readOutput(QProcess::StandardOutput); });
    connect(process, &QProcess::readyReadStandardError, this,
            [this] { readOutput(QProcess::StandardError); });
    connect(process, &QProcess::finished, this, &RunScriptAction::processFinished);
    connect(process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            failedToStart();
        }
    });

    bridge->createTaskStatus();
    bridge->beginProgress(false);
    bridge->setStatusText(QStringLiteral("Running %1...").arg(actionName()));
    tasks().debugConsole.append(QStringLiteral("\n[Launching script with command line: %1]\n")
                                    .arg(quotedCommandLine(interpreter, arguments)));

    m_child->start();
}

void RunScriptAction::failedToStart()
{
    const QString error = m_child->process()->errorString();
    tasks().debugConsole.append(QStringLiteral("Failed to launch script: %1\n").arg(error),
                                Colour::Red);
    m_child->process()->disconnect(this);
    m_child->deleteLater();
    failWithMessage(QStringLiteral("The script could not be launched: %1").arg(error));
}

void RunScriptAction::readOutput(QProcess::ProcessChannel channel)
{
    if (!m_child) {
        return;
    }
    QProcess* process = m_child->process();
    process->setReadChannel(channel);
    const QByteArray data = process->readAll();
    if (channel == QProcess::StandardError) {
        tasks().debugConsole.append(m_stderrDecoder.decode(data), Colour::Red);
    } else {
        tasks().debugConsole.append(m_stdoutDecoder.decode(data));
    }
}

void RunScriptAction::processFinished(int exitCode, QProcess::ExitStatus status)
{
    readOutput(QProcess::StandardOutput);
    readOutput(QProcess::StandardError);
    tasks().debugConsole.append(QStringLiteral("\n[Task completed]\n"));
    const QString errorText = m_child->process()->errorString();
    m_child->deleteLater();
    if (m_cancelled) {
        finish();
        return;
    }
    playFinishedSoundIfWanted();
    if (status == QProcess::NormalExit && exitCode == 0) {
        succeedWithMessage(QStringLiteral("%1 completed.").arg(actionName()));
        return;
    }
    const QString exitText = status == QProcess::NormalExit ? QString::number(exitCode) : errorText;
    failWithMessage(
        QStringLiteral("Script exited with status %1. Check the Action Console for details.")
            .arg(exitText));
}

void RunScriptAction::cancel()
{
    if (!m_child || !m_child->isRunning() || m_cancelled) {
        return;
    }
    m_cancelled = true;
    m_child->cancel();
}
