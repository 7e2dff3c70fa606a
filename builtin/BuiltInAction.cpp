#include "builtin/BuiltInAction.h"

#include "builtin/BuiltInActionTaskBridge.h"
#include "builtin/BuiltInContext.h"
#include "core/DesktopServices.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "tasks/RecentItems.h"
#include "tasks/TaskContext.h"

#include <QTimer>

namespace {

constexpr int SoundDelayMs = 100;

QString truncated(const QString& text, qsizetype length)
{
    return text.size() > length ? text.left(length) + QStringLiteral("…") : text;
}

} // namespace

BuiltInAction::BuiltInAction() = default;
BuiltInAction::~BuiltInAction() = default;

void BuiltInAction::setUp(const BuiltInContext& context, const ActionInfo& actionInfo,
                          const GridActionPtr& gridAction, const QString& keyModifier)
{
    m_context = &context;
    m_actionInfo = actionInfo;
    m_gridAction = gridAction;
    m_keyModifier = keyModifier;
    delete m_bridge;
    m_bridge = new BuiltInActionTaskBridge(context.tasks, actionInfo, this, this);
}

const TaskContext& BuiltInAction::tasks() const
{
    return m_context->tasks;
}

void BuiltInAction::runWithClick()
{
    finish();
}

void BuiltInAction::runWithDraggedUrls(const QList<QUrl>&)
{
    finish();
}

void BuiltInAction::runWithDraggedText(const QString&)
{
    finish();
}

void BuiltInAction::runTestConnection(const ActionFile&, const QVariantMap&)
{
    finish();
}

void BuiltInAction::cancel() {}

void BuiltInAction::finish()
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    if (completion) {
        const std::function<void()> done = std::exchange(completion, nullptr);
        done();
    }
    if (removeFromRunner) {
        const auto remove = std::exchange(removeFromRunner, nullptr);
        remove(this);
    }
    tasks().distributed.post(CmdLineNotifications::Finish, this);
}

QString BuiltInAction::actionName() const
{
    return m_gridAction && !m_gridAction->name.isEmpty() ? m_gridAction->name : m_actionInfo.name;
}

QString BuiltInAction::variable(const QString& key) const
{
    return m_gridAction ? m_gridAction->extraVariables.value(key).toString() : QString();
}

void BuiltInAction::returnResult(const QString& result, bool isText)
{
    if (isText) {
        tasks().desktop.pasteString(result);
    } else {
        tasks().desktop.pasteUrl(result);
    }
    tasks().distributed.post(CmdLineNotifications::Response, this,
                             {{QStringLiteral("response"), result}});
    m_answered = true;
    tasks().recentItems.addItem({result,
                                 QStringLiteral("%1 - %2").arg(truncated(actionName(), 50), result),
                                 isText ? 2 : 1, m_actionInfo.iconPath});
}

void BuiltInAction::failWithMessage(const QString& message, const QString& title)
{
    Log::warning(QStringLiteral("%1: %2").arg(title.isEmpty() ? actionName() : title, message));
    m_bridge->completeTaskWithSuccess(false);
    m_bridge->sendFinishNotification(message, false, title);
    // A command-line caller hears the failure as an error answer.
    tasks().distributed.post(
        CmdLineNotifications::Response, this,
        {{QStringLiteral("response"),
          QStringLiteral("Error: ") +
              (title.isEmpty() ? message : title + QStringLiteral(": ") + message)}});
    finish();
}

void BuiltInAction::succeedWithMessage(const QString& message)
{
    m_bridge->completeTaskWithSuccess(true);
    if (!message.isEmpty()) {
        m_bridge->sendFinishNotification(message, true);
        if (!m_answered) {
            tasks().distributed.post(CmdLineNotifications::Response, this,
                                     {{QStringLiteral("response"), message}});
        }
    }
    finish();
}

void BuiltInAction::playFinishedSoundIfWanted()
{
    if (tasks().settings.boolValue(Settings::PlaySounds)) {
        QTimer::singleShot(SoundDelayMs, [&desktop = tasks().desktop] {
            desktop.playSound(QStringLiteral("TaskFinished"));
        });
    }
}
