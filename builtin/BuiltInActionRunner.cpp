#include "builtin/BuiltInActionRunner.h"

#include "actions/ActionFile.h"
#include "builtin/BuiltInAction.h"
#include "builtin/BuiltInContext.h"
#include "core/Log.h"
#include "core/WindowPresenter.h"
#include "tasks/TaskContext.h"

BuiltInActionRunner::BuiltInActionRunner(const BuiltInContext* context)
    : m_context(context)
{}

BuiltInActionRunner::~BuiltInActionRunner()
{
    for (BuiltInAction* action : std::as_const(m_running)) {
        action->removeFromRunner = nullptr;
        delete action;
    }
}

std::shared_ptr<BuiltInActionRunner> BuiltInActionRunner::shared()
{
    static const std::shared_ptr<BuiltInActionRunner> runner =
        std::make_shared<BuiltInActionRunner>();
    return runner;
}

BuiltInAction* BuiltInActionRunner::getBuiltInActionWithActionInfo(const ActionInfo& info,
                                                                   const GridActionPtr& gridAction,
                                                                   const QString& keyModifier)
{
    BuiltInAction* action = info.actionClass ? info.actionClass() : nullptr;
    if (!action) {
        Log::warning(QStringLiteral("The built-in action \"%1\" is not available in this build")
                         .arg(info.name));
        action = new BuiltInAction();
    }
    if (!m_context) {
        qFatal("A built-in action runs before the engine handed the runner a context");
    }
    action->setUp(*m_context, info, gridAction, keyModifier);
    return action;
}

BuiltInAction* BuiltInActionRunner::start(const GridActionPtr& gridAction,
                                          const QString& keyModifier,
                                          std::function<void()> completion,
                                          std::shared_ptr<FolderMonitorContext> context)
{
    // Built-in actions run with the grid closed.
    if (m_context) {
        m_context->tasks.windows.closeGrid();
    }
    const std::optional<ActionInfo> info =
        gridAction ? m_catalog.getActionWithGridAction(*gridAction) : std::nullopt;
    if (!info) {
        Log::error(QStringLiteral("No built-in action is named \"%1\"")
                       .arg(gridAction ? gridAction->type : QString()));
        if (completion) {
            completion();
        }
        return nullptr;
    }
    BuiltInAction* action = getBuiltInActionWithActionInfo(*info, gridAction, keyModifier);
    action->completion = std::move(completion);
    action->folderMonitorContext = std::move(context);
    action->removeFromRunner = [this](BuiltInAction* finished) {
        removeFinishedBuiltInAction(finished);
    };
    m_running << action;
    return action;
}

BuiltInAction*
BuiltInActionRunner::runActionWithClickWithGridAction(const GridActionPtr& gridAction,
                                                      std::function<void()> completion)
{
    BuiltInAction* action = start(gridAction, QString(), std::move(completion), nullptr);
    if (action) {
        action->runWithClick();
    }
    return action;
}

BuiltInAction* BuiltInActionRunner::runActionWithDragWithGridAction(
    const GridActionPtr& gridAction, const QList<QUrl>& draggedUrls, const QString& keyModifier,
    const std::shared_ptr<FolderMonitorContext>& folderMonitorContext,
    std::function<void()> completion)
{
    BuiltInAction* action =
        start(gridAction, keyModifier, std::move(completion), folderMonitorContext);
    if (action) {
        action->runWithDraggedUrls(draggedUrls);
    }
    return action;
}

BuiltInAction* BuiltInActionRunner::runActionWithDragWithGridAction(
    const GridActionPtr& gridAction, const QString& draggedText, const QString& keyModifier,
    std::function<void()> completion)
{
    BuiltInAction* action = start(gridAction, keyModifier, std::move(completion), nullptr);
    if (action) {
        action->runWithDraggedText(draggedText);
    }
    return action;
}

BuiltInAction* BuiltInActionRunner::runActionWithTestConnection(const ActionFile& actionFile,
                                                                const QVariantMap& variables)
{
    auto gridAction = std::make_shared<GridAction>();
    gridAction->type = actionFile.actionName;
    gridAction->name = actionFile.actionName;
    for (auto it = variables.cbegin(); it != variables.cend(); ++it) {
        gridAction->extraVariables.insert(it.key(), it.value());
    }
    const std::optional<ActionInfo> info = m_catalog.getActionWithName(actionFile.actionName);
    if (!info) {
        return nullptr;
    }
    BuiltInAction* action = getBuiltInActionWithActionInfo(*info, gridAction, QString());
    action->removeFromRunner = [this](BuiltInAction* finished) {
        removeFinishedBuiltInAction(finished);
    };
    m_running << action;
    action->runTestConnection(actionFile, variables);
    return action;
}

void BuiltInActionRunner::removeFinishedBuiltInAction(BuiltInAction* action)
{
    if (m_running.removeOne(action)) {
        // The instance may still be on the stack that called its finish step.
        action->deleteLater();
    }
}

void BuiltInActionRunner::runActionWithDrag(const GridActionPtr& gridAction,
                                            const QList<QUrl>& draggedUrls,
                                            const QString& keyModifier,
                                            const std::shared_ptr<FolderMonitorContext>& context,
                                            std::function<void()> completion)
{
    runActionWithDragWithGridAction(gridAction, draggedUrls, keyModifier, context,
                                    std::move(completion));
}

void BuiltInActionRunner::runActionWithDrag(const GridActionPtr& gridAction,
                                            const QString& draggedText, const QString& keyModifier,
                                            std::function<void()> completion)
{
    runActionWithDragWithGridAction(gridAction, draggedText, keyModifier, std::move(completion));
}

void BuiltInActionRunner::runActionWithClick(const GridActionPtr& gridAction,
                                             std::function<void()> completion)
{
    runActionWithClickWithGridAction(gridAction, std::move(completion));
}
