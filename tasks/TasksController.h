#pragma once

#include <QList>
#include <QObject>

class NotificationCenter;
class Task;

// The running script tasks. It owns a task from addTask() on and deletes it after removal.
class TasksController : public QObject {
    Q_OBJECT
public:
    explicit TasksController(NotificationCenter& notifications, QObject* parent = nullptr);

    void addTask(Task* task);
    // Cleans the task up, forgets it and, when none is left, posts "SKAllTasksCompleted".
    void removeTask(Task* task);
    bool hasTasks() const { return !m_tasks.isEmpty(); }
    // Ends every running task's processes at once (the application is quitting).
    void terminateAll();
    const QList<Task*>& tasks() const { return m_tasks; }

private:
    NotificationCenter& m_notifications;
    QList<Task*> m_tasks;
};
