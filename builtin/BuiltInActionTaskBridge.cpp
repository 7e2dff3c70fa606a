#include "builtin/BuiltInActionTaskBridge.h"

#include "builtin/BuiltInAction.h"
#include "core/DesktopServices.h"
#include "core/NotificationCenter.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskStatus.h"
#include "tasks/TaskStatusController.h"

BuiltInActionTaskBridge::BuiltInActionTaskBridge(const TaskContext& context, ActionInfo actionInfo,
                                                 BuiltInAction* actionClass, QObject* parent)
    : QObject(parent)
    , m_actionInfo(std::move(actionInfo))
    , m_context(context)
    , m_actionClass(actionClass)
{}

TaskStatus* BuiltInActionTaskBridge::createTaskStatus()
{
    if (!m_taskStatus && !m_completed) {
        m_taskStatus = m_context.taskStatuses.newTaskWithIcon(m_actionInfo.iconPath);
        QPointer<BuiltInAction> action = m_actionClass;
        m_taskStatus->setBuiltInCancel([action] {
            if (action) {
                action->cancel();
            }
        });
    }
    return m_taskStatus;
}

void BuiltInActionTaskBridge::beginProgress(bool determinate)
{
    if (TaskStatus* status = createTaskStatus()) {
        status->setIndeterminate(!determinate);
        status->setProgress(0);
    }
}

void BuiltInActionTaskBridge::setProgress(int percent)
{
    if (m_taskStatus) {
        m_taskStatus->setProgress(qBound(0, percent, 100));
    }
    m_context.notifications.post(Notifications::TasksStatusItemAnimationAdvance, this);
}

void BuiltInActionTaskBridge::setIndeterminate(bool indeterminate)
{
    if (m_taskStatus) {
        m_taskStatus->setIndeterminate(indeterminate);
    }
}

void BuiltInActionTaskBridge::setStatusText(const QString& text)
{
    if (m_taskStatus) {
        m_taskStatus->setStatusText(text);
    }
}

void BuiltInActionTaskBridge::completeTaskWithSuccess(bool success)
{
    if (m_completed) {
        return;
    }
    m_completed = true;
    if (m_taskStatus) {
        m_taskStatus->finishWithFade(true);
        m_taskStatus = nullptr;
    }
    m_context.notifications.post(Notifications::TaskShowExitStatus, this,
                                 {{QStringLiteral("success"), success ? 1 : 0}});
}

void BuiltInActionTaskBridge::sendFinishNotification(const QString& message, bool success,
                                                     const QString& title)
{
    UserNotification notification;
    notification.title =
        !title.isEmpty()
            ? title
            : QStringLiteral("%1 %2").arg(m_actionInfo.name, success ? QStringLiteral("Completed")
                                                                     : QStringLiteral("Failed"));
    notification.body = message;
    notification.imagePath = m_actionInfo.iconPath;
    m_context.desktop.sendNotification(notification);
}
