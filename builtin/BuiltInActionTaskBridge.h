#pragma once

#include "builtin/ActionInfo.h"
#include "tasks/TaskStatus.h"

#include <QObject>
#include <QPointer>
#include <QString>

class BuiltInAction;
struct TaskContext;

// Links one run of a built-in action to the progress rows that script tasks use.
class BuiltInActionTaskBridge : public QObject {
    Q_OBJECT
public:
    BuiltInActionTaskBridge(const TaskContext& context, ActionInfo actionInfo,
                            BuiltInAction* actionClass, QObject* parent = nullptr);

    const ActionInfo& actionInfo() const { return m_actionInfo; }
    BuiltInAction* actionClass() const { return m_actionClass; }
    TaskStatus* taskStatus() const { return m_taskStatus; }

    // A row for the grid action joins the running tasks; a cancel on it cancels the action.
    TaskStatus* createTaskStatus();
    void beginProgress(bool determinate);
    void setProgress(int percent);
    void setIndeterminate(bool indeterminate);
    void setStatusText(const QString& text);
    // Ends the row (once) and tells the status item how the run went.
    void completeTaskWithSuccess(bool success);
    // A user notification titled with the action and its outcome (or with `title`).
    void sendFinishNotification(const QString& message, bool success,
                                const QString& title = QString());

private:
    ActionInfo m_actionInfo;
    const TaskContext& m_context;
    QPointer<BuiltInAction> m_actionClass;
    QPointer<TaskStatus> m_taskStatus;
    bool m_completed = false;
};
