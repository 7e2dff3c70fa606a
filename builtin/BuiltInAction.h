#pragma once

#include "builtin/ActionInfo.h"
#include "store/GridAction.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <functional>
#include <memory>

class ActionFile;
class BuiltInActionTaskBridge;
class FolderMonitorContext;
struct BuiltInContext;
struct TaskContext;

// Base of every built-in action; one instance per run. The run operations start the work
// and every run ends with exactly one call of finish(), however it went.
class BuiltInAction : public QObject {
    Q_OBJECT
public:
    BuiltInAction();
    ~BuiltInAction() override;

    // Set by the runner before a run operation is called.
    void setUp(const BuiltInContext& context, const ActionInfo& actionInfo,
               const GridActionPtr& gridAction, const QString& keyModifier);
    const BuiltInContext& context() const { return *m_context; }
    const TaskContext& tasks() const;

    virtual void runWithClick();
    virtual void runWithDraggedUrls(const QList<QUrl>& urls);
    virtual void runWithDraggedText(const QString& text);
    virtual void runTestConnection(const ActionFile& actionFile, const QVariantMap& variables);
    virtual void cancel();

    BuiltInActionTaskBridge* builtInActionTaskBridge() const { return m_bridge; }
    GridActionPtr gridAction() const { return m_gridAction; }
    const ActionInfo& actionInfo() const { return m_actionInfo; }
    QString keyModifier() const { return m_keyModifier; }
    bool isFinished() const { return m_finished; }

    std::function<void()> completion;
    std::shared_ptr<FolderMonitorContext> folderMonitorContext;
    // Called by finish() so that the runner drops the instance.
    std::function<void(BuiltInAction*)> removeFromRunner;

    // The finish step: completion, removal from the runner, "SkelvoRunCmdLineFinish".
    void finish();

protected:
    // The grid action's name, or the catalogue name when the run has no grid action.
    QString actionName() const;
    QString variable(const QString& key) const;
    // Clipboard, command-line response and recent items for a URL or text result.
    void returnResult(const QString& result, bool isText);
    // A failed row, a failure notification with the message (under `title` when given) and
    // the finish step.
    void failWithMessage(const QString& message, const QString& title = QString());
    // A successful row, a notification when there is a message, and the finish step.
    void succeedWithMessage(const QString& message);
    void playFinishedSoundIfWanted();

private:
    const BuiltInContext* m_context = nullptr;
    ActionInfo m_actionInfo;
    // Held strongly: command-line runs hand over grid actions that nothing else keeps.
    GridActionPtr m_gridAction;
    QString m_keyModifier;
    BuiltInActionTaskBridge* m_bridge = nullptr;
    bool m_finished = false;
    bool m_answered = false; // a result went to a command-line caller
};
