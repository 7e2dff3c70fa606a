#pragma once

#include "tasks/TaskRunner.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>

class NotificationCenter;
class TaskStatusController;

// One progress row: the action's icon, a status text, a progress bar and a cancel button.
// The engine keeps the state; a window draws it from the signals.
class TaskStatus : public QObject {
    Q_OBJECT
public:
    static constexpr int RowHeight = 55;
    static constexpr int FadeDelayMs = 250;

    // Rows are made by their controller (newTaskWithIcon()), which is also their parent.
    TaskStatus(QString iconPath, TaskStatusController& controller,
               NotificationCenter& notifications);

    QString iconPath() const { return m_iconPath; }
    QString statusText() const { return m_statusText; }
    double progress() const { return m_progress; }
    bool isIndeterminate() const { return m_indeterminate; }
    bool isFinishing() const { return m_taskFinishing; }

    void setStatusText(const QString& text);
    void setIndeterminate(bool indeterminate);
    // Percent 0-100; updates the overall progress.
    void setProgress(double progress);

    // The runner of a script run, whose process a cancel ends.
    TaskRunner* taskRunner() const { return m_taskRunner; }
    void setTaskRunner(TaskRunner* runner) { m_taskRunner = runner; }
    // How a built-in action is cancelled; set for built-in runs instead of a runner.
    void setBuiltInCancel(std::function<void()> cancel) { m_builtInCancel = std::move(cancel); }
    bool hasBuiltInAction() const { return static_cast<bool>(m_builtInCancel); }

    // The cancel button.
    void cancel();
    // Ends the row once: fading, the row leaves after a short delay; otherwise at once.
    void finishWithFade(bool fade);

Q_SIGNALS:
    void statusTextChanged(const QString& text);
    void progressChanged(double progress);
    void indeterminateChanged(bool indeterminate);
    // The row starts to go: a window fades it out (or hides it at once).
    void finishing(bool fade);

private:
    void moveTasksUp();

    TaskStatusController& m_controller;
    NotificationCenter& m_notifications;
    QString m_iconPath;
    QString m_statusText;
    double m_progress = 0.0;
    bool m_indeterminate = true;
    bool m_taskFinishing = false;
    QPointer<TaskRunner> m_taskRunner;
    std::function<void()> m_builtInCancel;
};
