#pragma once

#include "builtin/BuiltInActionCatalog.h"
#include "events/BuiltInDispatcher.h"

#include <QList>
#include <QUrl>
#include <QVariantMap>

#include <functional>
#include <memory>

class ActionFile;
class BuiltInAction;
struct BuiltInContext;

// Creates and tracks the running instances of built-in actions. Main thread only.
class BuiltInActionRunner : public BuiltInDispatcher {
public:
    explicit BuiltInActionRunner(const BuiltInContext* context = nullptr);
    ~BuiltInActionRunner() override;

    static std::shared_ptr<BuiltInActionRunner> shared();
    // What the runs report to; the engine hands in its own at start-up (not owned). A run
    // needs one.
    void setContext(const BuiltInContext* context) { m_context = context; }

    const BuiltInActionCatalog& builtInActionCatalog() const { return m_catalog; }
    const QList<BuiltInAction*>& runningBuiltInActions() const { return m_running; }

    // Each returns the started instance, or null when the grid action is not a built-in.
    BuiltInAction* runActionWithClickWithGridAction(const GridActionPtr& gridAction,
                                                    std::function<void()> completion = {});
    BuiltInAction* runActionWithDragWithGridAction(
        const GridActionPtr& gridAction, const QList<QUrl>& draggedUrls, const QString& keyModifier,
        const std::shared_ptr<FolderMonitorContext>& folderMonitorContext = nullptr,
        std::function<void()> completion = {});
    BuiltInAction* runActionWithDragWithGridAction(const GridActionPtr& gridAction,
                                                   const QString& draggedText,
                                                   const QString& keyModifier,
                                                   std::function<void()> completion = {});
    BuiltInAction* runActionWithTestConnection(const ActionFile& actionFile,
                                               const QVariantMap& variables);

    // A fresh instance of the entry's class (the base class when the build lacks it).
    BuiltInAction* getBuiltInActionWithActionInfo(const ActionInfo& info,
                                                  const GridActionPtr& gridAction,
                                                  const QString& keyModifier);
    void removeFinishedBuiltInAction(BuiltInAction* action);

    // BuiltInDispatcher
    void runActionWithDrag(const GridActionPtr& gridAction, const QList<QUrl>& draggedUrls,
                           const QString& keyModifier,
                           const std::shared_ptr<FolderMonitorContext>& context,
                           std::function<void()> completion) override;
    void runActionWithDrag(const GridActionPtr& gridAction, const QString& draggedText,
                           const QString& keyModifier, std::function<void()> completion) override;
    void runActionWithClick(const GridActionPtr& gridAction,
                            std::function<void()> completion) override;

private:
    BuiltInAction* start(const GridActionPtr& gridAction, const QString& keyModifier,
                         std::function<void()> completion,
                         std::shared_ptr<FolderMonitorContext> context);

    const BuiltInContext* m_context;
    BuiltInActionCatalog m_catalog;
    QList<BuiltInAction*> m_running;
};
