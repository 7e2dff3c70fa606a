#include "tasks/TasksController.h"

#include "core/NotificationCenter.h"
#include "tasks/Task.h"
#include "tasks/TaskRunner.h"

TasksController::TasksController(NotificationCenter& notifications, QObject* parent)
    : QObject(parent)
    , m_notifications(notifications)
{}

void TasksController::addTask(Task* task)
{
    if (task && !m_tasks.contains(task)) {
        m_tasks << task;
    }
}

void TasksController::removeTask(Task* task)
{
    if (!task || !m_tasks.contains(task)) {
        return;
    }
    task->cleanup();
    m_tasks.removeOne(task);
    task->deleteLater();
    if (m_tasks.isEmpty()) {
        m_notifications.post(Notifications::AllTasksCompleted, this);
    }
}

void TasksController::terminateAll()
{
    const QList<Task*> running = m_tasks;
    for (Task* task : running) {
        if (TaskRunner* runner = task->taskRunner()) {
            runner->terminateNow();
        }
        removeTask(task);
    }
}
