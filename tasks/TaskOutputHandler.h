#pragma once

#include "tasks/Task.h"
#include "tasks/TaskStatus.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

class TaskRunner;

struct TaskContext;

// Reads a running script's output: splits each chunk into protocol commands and plain
// text, carries the commands out, echoes everything to the debug console and finishes the
// task with its result, notification and status broadcasts.
class TaskOutputHandler : public QObject {
    Q_OBJECT
public:
    enum OutputType { UrlOutput = 1, TextOutput = 2 };

    // One piece of a chunk: a command with its message, or plain text.
    struct Item {
        QString command;
        QString message;
        QString text;
        bool isCommand = false;

        bool operator==(const Item&) const = default;
    };

    static constexpr int AlertDelayMs = 200;
    static constexpr int SoundDelayMs = 100;

    TaskOutputHandler(Task* task, TaskRunner* runner, QObject* parent = nullptr);

    static QList<Item> extractCommands(const QString& chunk);
    static bool isKnownCommand(const QString& command);

    void processOutput(const QString& text);
    void processCommand(const QString& command, const QString& message);
    void completeTaskWithOutputType(int type, const QString& output);
    void sendFinishNotification(const QString& message);
    void completeTaskWithCancel(bool cancelled);
    TaskStatus* createTaskStatus();
    void showError(const QString& message);
    void showAlert(const QString& message);
    // The run has ended: a command-line caller that heard neither a result nor a failure
    // gets the finish message, or the failure when the run failed without saying why.
    void reportEnd(bool cancelled);

    Task* task() const { return m_task; }
    TaskStatus* taskStatus() const { return m_taskStatus; }
    bool taskFailed() const { return m_taskFailed; }
    void setTaskFailed(bool failed) { m_taskFailed = failed; }
    bool hasSentFinishNotification() const { return m_hasSentFinishNotification; }
    QString lastCommand() const { return m_lastCommand; }
    QString lastMessage() const { return m_lastMessage; }
    QString finishMessage() const { return m_finishMessage; }
    QString url() const { return m_url; }
    QStringList dropbarAddPaths() const { return m_dropbarAddPaths; }

private:
    void sendShowedAlertNotification();
    void playTaskCompletionSound();
    QString actionWord() const;
    // Tells a waiting command-line caller that the run failed, once.
    void reportFailure(const QString& message);

    QPointer<Task> m_task;
    const TaskContext& m_context; // the task's
    QPointer<TaskRunner> m_runner;
    QPointer<TaskStatus> m_taskStatus;
    bool m_taskFailed = false;
    bool m_hasReceivedOutput = false;
    bool m_hasSentFinishNotification = false;
    QString m_urlTitle;
    QString m_errorTitle;
    QString m_alertTitle;
    QString m_saveValueName;
    QString m_finishMessage;
    QString m_notificationScript;
    QString m_url;
    QString m_lastCommand;
    QString m_lastMessage;
    QStringList m_dropbarAddPaths;
    // What a command-line caller has heard; the tail of the script's error output.
    bool m_failureReported = false;
    bool m_answered = false;
    QString m_errorOutput;
};
