#pragma once

#include <QList>
#include <QObject>
#include <QString>

class NotificationCenter;
class TaskStatus;

// The ordered progress rows (top to bottom in order of creation) and the overall progress
// that drives the tray icon.
class TaskStatusController : public QObject {
    Q_OBJECT
public:
    explicit TaskStatusController(NotificationCenter& notifications, QObject* parent = nullptr);

    // A new row at the bottom, labelled "Task <n>".
    TaskStatus* newTaskWithIcon(const QString& iconPath);
    void destroyTask(TaskStatus* status);

    TaskStatus* getTask(qsizetype index) const; // none (and a log line) when out of range
    qsizetype getTaskPosition(const TaskStatus* status) const; // -1 when not listed
    const QList<TaskStatus*>& taskStatuses() const { return m_taskStatuses; }

    // Indeterminate rows count as complete.
    void updateOverallProgress();
    double overallProgress() const;

    bool hasTasks() const { return !m_taskStatuses.isEmpty(); }
    bool hasDeterminateTasks() const;
    qsizetype numTasks() const { return m_taskStatuses.size(); }
    int progressAreaHeight() const { return m_progressAreaHeight; }
    // Top of a row inside the progress area.
    static int rowTop(qsizetype index);
    void redisplayTasks();

Q_SIGNALS:
    void progressAreaHeightChanged(int height);
    void rowAdded(TaskStatus* status);
    // Rows below `fromIndex` moved up one row.
    void rowsMovedUp(qsizetype fromIndex);
    void rowRemoved(TaskStatus* status);
    void redisplayRequested();

private:
    void setProgressAreaHeight(int height);

    NotificationCenter& m_notifications;
    QList<TaskStatus*> m_taskStatuses;
    int m_progressAreaHeight = 0;
};
