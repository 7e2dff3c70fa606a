#pragma once

#include "platform/ChildProcess.h"

#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QStringDecoder>
#include <QTimer>

#include <memory>

class Task;
class TaskOutputHandler;

struct TaskContext;

// Runs one task's script as a child process: picks the interpreter, starts the runner
// script with the task description file, feeds each chunk of output to the output handler
// and acknowledges it on the child's standard input.
class TaskRunner : public QObject {
    Q_OBJECT
public:
    static constexpr int CancelGracePeriodMs = ChildProcess::CancelGracePeriodMs;
    static constexpr int CompletionDelayMs = 200;
    // How long a line without its end may wait for the rest.
    static constexpr int PartialLineWaitMs = 50;
    // How much of a line without its end is kept before it is processed anyway.
    static constexpr qsizetype PartialLineLimitBytes = 64 * 1024;

    explicit TaskRunner(Task* task, QObject* parent = nullptr);
    ~TaskRunner() override;

    // The interpreter that starts the runner script.
    QString launchPath() const;
    QString libPath() const { return m_libPath; }

    // Starts the child; on failure alerts and removes the task from the tasks controller.
    void run();
    // Terminates the child's process group (and kills it after a grace period).
    void cancelTask();
    // Kills the process group without a grace period and reaps the child (quitting).
    void terminateNow();
    bool isCancelled() const { return m_taskCancelled; }
    bool isRunning() const;
    qint64 processId() const;

    TaskOutputHandler* taskOutputHandler() const { return m_outputHandler; }
    Task* task() const;

    // Writes to the child's standard input (the acknowledgement, a chosen folder).
    void writeToChild(const QByteArray& bytes);

    // The interpreter folders bundled with the application for this machine, if present.
    static QString embeddedRuntime(const QString& libPath, const QString& name,
                                   const QString& executable);

private:
    void taskDataAvailable();
    void processPendingOutput();
    void taskCompleted(int exitCode, QProcess::ExitStatus status);
    void completeTask();

    QPointer<Task> m_task;
    const TaskContext& m_context; // the task's
    ChildProcess* m_child = nullptr;
    QProcess* m_process = nullptr;
    TaskOutputHandler* m_outputHandler = nullptr;
    QString m_libPath;
    QStringDecoder m_decoder{QStringDecoder::Utf8};
    QByteArray m_pending;
    QTimer m_partialLineTimer;
    bool m_taskCancelled = false;
    bool m_completed = false;
};
