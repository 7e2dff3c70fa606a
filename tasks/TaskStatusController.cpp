#include "tasks/TaskStatusController.h"

#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "tasks/TaskStatus.h"

TaskStatusController::TaskStatusController(NotificationCenter& notifications, QObject* parent)
    : QObject(parent)
    , m_notifications(notifications)
{}

TaskStatus* TaskStatusController::newTaskWithIcon(const QString& iconPath)
{
    auto* status = new TaskStatus(iconPath, *this, m_notifications);
    m_taskStatuses << status;
    setProgressAreaHeight(static_cast<int>(m_taskStatuses.size()) * TaskStatus::RowHeight);
    Q_EMIT rowAdded(status);
    status->setStatusText(QStringLiteral("Task %1").arg(m_taskStatuses.size()));
    return status;
}

void TaskStatusController::destroyTask(TaskStatus* status)
{
    const qsizetype index = m_taskStatuses.indexOf(status);
    if (index < 0) {
        return;
    }
    m_taskStatuses.removeAt(index);
    Q_EMIT rowRemoved(status);
    if (index < m_taskStatuses.size()) {
        Q_EMIT rowsMovedUp(index);
    }
    setProgressAreaHeight(static_cast<int>(m_taskStatuses.size()) * TaskStatus::RowHeight);
    status->deleteLater();
}

TaskStatus* TaskStatusController::getTask(qsizetype index) const
{
    if (index < 0 || index >= m_taskStatuses.size()) {
        Log::warning(QStringLiteral("TaskID %1 does not exist").arg(index));
        return nullptr;
    }
    return m_taskStatuses.at(index);
}

qsizetype TaskStatusController::getTaskPosition(const TaskStatus* status) const
{
    return m_taskStatuses.indexOf(const_cast<TaskStatus*>(status));
}

double TaskStatusController::overallProgress() const
{
    if (m_taskStatuses.isEmpty()) {
        return 100.0; // nothing left to wait for
    }
    double sum = 0.0;
    for (const TaskStatus* status : m_taskStatuses) {
        // An indeterminate row counts as complete, so it never holds the figure back.
        sum += status->isIndeterminate() ? 100.0 : status->progress();
    }
    return sum / (static_cast<double>(m_taskStatuses.size()) * 100.0) * 100.0;
}

void TaskStatusController::updateOverallProgress()
{
    if (m_taskStatuses.isEmpty()) {
        return;
    }
    m_notifications.post(Notifications::TasksOverallProgressUpdated, this,
                         {{QStringLiteral("progress"), overallProgress()}});
}

bool TaskStatusController::hasDeterminateTasks() const
{
    for (const TaskStatus* status : m_taskStatuses) {
        if (!status->isIndeterminate()) {
            return true;
        }
    }
    return false;
}

int TaskStatusController::rowTop(qsizetype index)
{
    return static_cast<int>(index) * TaskStatus::RowHeight;
}

void TaskStatusController::redisplayTasks()
{
    Q_EMIT redisplayRequested();
}

void TaskStatusController::setProgressAreaHeight(int height)
{
    m_progressAreaHeight = height;
    Q_EMIT progressAreaHeightChanged(height);
}
