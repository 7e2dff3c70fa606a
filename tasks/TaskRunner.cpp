#include "tasks/TaskRunner.h"

#include "core/AlertHelper.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"
#include "platform/ChildProcess.h"
#include "platform/SystemInfo.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TasksController.h"

#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTimer>

#include <utility>

namespace {

QString architectureSuffix()
{
    return SystemInfo::isArm64() ? QStringLiteral("arm64") : QStringLiteral("x86_64");
}

QString systemExecutable(const QString& name)
{
    // The distribution's interpreter first: version managers put shims earlier on PATH that
    // are shell scripts with opinions about the locale.
    const QString system = QStringLiteral("/usr/bin/") + name;
    if (QFileInfo(system).isExecutable()) {
        return system;
    }
    const QString found = QStandardPaths::findExecutable(name);
    return found.isEmpty() ? name : found;
}

} // namespace

TaskRunner::TaskRunner(Task* task, QObject* parent)
    : QObject(parent)
    , m_task(task)
    , m_context(task->context())
    , m_libPath(SupportPaths::internalLibDirectory())
{}

TaskRunner::~TaskRunner()
{
    terminateNow();
}

void TaskRunner::terminateNow()
{
    m_taskCancelled = true;
    if (m_child) {
        m_child->kill();
    }
}

QString TaskRunner::embeddedRuntime(const QString& libPath, const QString& name,
                                    const QString& executable)
{
    const QString path =
        QStringLiteral("%1/%2/%2_%3/bin/%4").arg(libPath, name, architectureSuffix(), executable);
    return QFileInfo(path).isExecutable() ? path : QString();
}

QString TaskRunner::launchPath() const
{
    const ActionFile* action = m_task ? m_task->actionFile.get() : nullptr;
    if (action && !action->rubyPath.isEmpty()) {
        return action->rubyPath;
    }
    if (action && action->optionsNib == u"AmazonS3Login") {
        return QStringLiteral("/usr/bin/ruby");
    }
    const QString embedded =
        embeddedRuntime(m_libPath, QStringLiteral("ruby"), QStringLiteral("ruby"));
    return embedded.isEmpty() ? systemExecutable(QStringLiteral("ruby")) : embedded;
}

bool TaskRunner::isRunning() const
{
    return m_child && m_child->isRunning();
}

qint64 TaskRunner::processId() const
{
    return m_child ? m_child->processId() : 0;
}

void TaskRunner::run()
{
    if (!m_task || !m_task->actionFile) {
        return;
    }
    m_outputHandler = new TaskOutputHandler(m_task, this, this);
    m_child = new ChildProcess(this);
    m_process = m_child->process();
    // Standard error shares the pipe, so error text reaches the console among the output.
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    m_process->setProgram(launchPath());

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NSUnbufferedIO"), QStringLiteral("NO"));
    environment.insert(QStringLiteral("LC_ALL"), ChildProcess::utf8Locale());
    environment.insert(QStringLiteral("RUBYOPT"), QStringLiteral("-Ku"));
    const ActionFile& action = *m_task->actionFile;
    if (action.isPythonAction) {
        QString python = action.pythonPath;
        if (python.isEmpty()) {
            python =
                embeddedRuntime(m_libPath, QStringLiteral("python"), QStringLiteral("python3"));
        }
        if (python.isEmpty()) {
            python = systemExecutable(QStringLiteral("python3"));
        }
        environment.insert(QStringLiteral("PYTHON_PATH"), python);
        environment.insert(QStringLiteral("PYTHONDONTWRITEBYTECODE"), QStringLiteral("1"));
    }
    m_process->setProcessEnvironment(environment);

    const QString runnerPath = QDir(m_libPath).filePath(QStringLiteral("runner.rb"));
    if (!QFileInfo::exists(runnerPath)) {
        m_context.alerts.showCriticalAlertWithTitle(
            QStringLiteral("Failed to launch task"),
            QStringLiteral("Could not find runner.rb at at '%1'\n\nYou should re-install Skelvo.")
                .arg(runnerPath),
            m_task);
        Log::error(QStringLiteral("runner.rb not found at %1").arg(runnerPath));
        m_context.tasks.removeTask(m_task);
        return;
    }
    m_process->setWorkingDirectory(m_libPath);
    m_process->setArguments({runnerPath, m_task->taskDescriptionPath()});

    connect(m_process, &QProcess::readyReadStandardOutput, this, &TaskRunner::taskDataAvailable);
    m_partialLineTimer.setSingleShot(true);
    connect(&m_partialLineTimer, &QTimer::timeout, this, &TaskRunner::processPendingOutput);
    connect(m_process, &QProcess::finished, this, &TaskRunner::taskCompleted);
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart) {
            return;
        }
        const QString reason = m_process->errorString();
        Log::error(QStringLiteral("Failed to launch task: %1").arg(reason));
        const QPointer<Task> task = m_task; // the alert names the run after its removal
        m_context.tasks.removeTask(m_task);
        m_context.alerts.showCriticalAlertWithTitle(QStringLiteral("Failed to launch task"), reason,
                                                    task);
    });
    m_child->start();
}

void TaskRunner::taskDataAvailable()
{
    m_pending += m_process->readAllStandardOutput();
    // A long line can arrive in several reads; wait a moment for its end so that it is
    // processed (and acknowledged) once. A script that prints without a line break and
    // waits is answered when the moment has passed, and endless output without line breaks
    // once it has piled up.
    if (!m_pending.endsWith('\n') && isRunning() && m_pending.size() <= PartialLineLimitBytes) {
        m_partialLineTimer.start(PartialLineWaitMs);
        return;
    }
    processPendingOutput();
}

void TaskRunner::processPendingOutput()
{
    m_partialLineTimer.stop();
    const QByteArray data = std::exchange(m_pending, {});
    // A lone byte, such as a bare newline, is neither processed nor acknowledged.
    if (data.size() < 2) {
        return;
    }
    // The decoder keeps a character split between two reads until it is whole.
    const QString text = m_decoder.decode(data);
    if (m_outputHandler) {
        m_outputHandler->processOutput(text);
    }
    // A folder question is answered by the chooser instead.
    if (!text.startsWith(QStringLiteral("Select_Folder:"))) {
        writeToChild(QByteArrayLiteral("\n"));
    }
}

void TaskRunner::writeToChild(const QByteArray& bytes)
{
    if (isRunning()) {
        m_process->write(bytes);
    }
}

void TaskRunner::cancelTask()
{
    m_taskCancelled = true;
    if (m_child) {
        m_child->cancel();
    }
}

void TaskRunner::taskCompleted(int exitCode, QProcess::ExitStatus status)
{
    m_pending += m_process->readAllStandardOutput();
    processPendingOutput();
    const bool failed = status == QProcess::CrashExit || exitCode != 0;
    if (failed && !m_taskCancelled && m_outputHandler) {
        m_outputHandler->setTaskFailed(true);
        m_outputHandler->completeTaskWithCancel(false);
        m_outputHandler->sendFinishNotification(
            QStringLiteral("Check Debug Console for error output"));
        m_context.windows.showDebugConsole();
    }
    QTimer::singleShot(CompletionDelayMs, this, &TaskRunner::completeTask);
}

void TaskRunner::completeTask()
{
    if (m_completed) {
        return;
    }
    m_completed = true;
    const QVariantMap userInfo{
        {QStringLiteral("task"), QVariant::fromValue<QObject*>(m_task.data())},
        {QStringLiteral("lastCommand"),
         m_outputHandler ? m_outputHandler->lastCommand() : QString()},
        {QStringLiteral("lastMessage"),
         m_outputHandler ? m_outputHandler->lastMessage() : QString()},
    };
    if (m_outputHandler) {
        m_outputHandler->reportEnd(m_taskCancelled);
    }
    m_context.debugConsole.appendBold(QStringLiteral("\n[Task completed]\n"));
    m_context.notifications.post(Notifications::TaskFinished, this, userInfo);
    m_context.tasks.removeTask(m_task);
    m_context.distributed.post(CmdLineNotifications::Finish, this);
}

Task* TaskRunner::task() const
{
    return m_task;
}
