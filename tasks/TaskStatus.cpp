#include "tasks/TaskStatus.h"

#include "core/NotificationCenter.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TaskRunner.h"
#include "tasks/TaskStatusController.h"

#include <QTimer>

TaskStatus::TaskStatus(QString iconPath, TaskStatusController& controller,
                       NotificationCenter& notifications)
    : QObject(&controller)
    , m_controller(controller)
    , m_notifications(notifications)
    , m_iconPath(std::move(iconPath))
{}

void TaskStatus::setStatusText(const QString& text)
{
    m_statusText = text;
    Q_EMIT statusTextChanged(text);
}

void TaskStatus::setIndeterminate(bool indeterminate)
{
    m_indeterminate = indeterminate;
    Q_EMIT indeterminateChanged(indeterminate);
}

void TaskStatus::setProgress(double progress)
{
    m_progress = progress;
    Q_EMIT progressChanged(progress);
    m_controller.updateOverallProgress();
}

void TaskStatus::cancel()
{
    if (m_taskFinishing) {
        return;
    }
    if (m_taskRunner) {
        // The handler ends this row without fading; then the process is told to stop.
        if (TaskOutputHandler* handler = m_taskRunner->taskOutputHandler()) {
            handler->completeTaskWithCancel(true);
        }
        m_taskRunner->cancelTask();
        return;
    }
    if (m_builtInCancel) {
        const auto cancelBuiltIn = std::move(m_builtInCancel);
        m_builtInCancel = nullptr;
        cancelBuiltIn();
    }
    finishWithFade(true);
    m_notifications.post(Notifications::TaskShowExitStatus, this,
                         {{QStringLiteral("success"), false}});
}

void TaskStatus::finishWithFade(bool fade)
{
    if (m_taskFinishing) {
        return;
    }
    m_taskFinishing = true;
    Q_EMIT finishing(fade);
    QTimer::singleShot(fade ? FadeDelayMs : 0, this, &TaskStatus::moveTasksUp);
}

void TaskStatus::moveTasksUp()
{
    m_controller.destroyTask(this);
}
