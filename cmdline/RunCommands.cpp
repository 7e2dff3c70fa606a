#include "builtin/BuiltInAction.h"
#include "builtin/BuiltInActionRunner.h"
#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"
#include "core/Log.h"
#include "events/EventsHandler.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TaskRunner.h"
#include "tasks/TaskStatus.h"
#include "tasks/TasksController.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace CommandSupport;
using namespace GridLookup;

void CmdLineTaskHandler::run(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const QString name = str(request, "name");
    GridActionPtr action;
    for (const PlacedAction& placed : actionsOfGrid(db().selectedGridId())) {
        if (placed.action->name == name) {
            action = placed.action;
            break;
        }
    }
    if (!action) {
        client->respond(QStringLiteral("Error: Action '") + name + QStringLiteral("' not found"));
        return;
    }
    const QStringList files = request.value(QStringLiteral("files")).toStringList();
    const QString text = str(request, "text");
    QString event = str(request, "event");
    if (event.isEmpty()) {
        event = files.isEmpty() && text.isEmpty() ? QStringLiteral("clicked")
                                                  : QStringLiteral("dragged");
    }
    if (!m_runStarter) {
        client->respond(
            QStringLiteral("Error: Actions cannot be run yet; Skelvo is still starting."));
        return;
    }
    // A header that fails validation says why, rather than what the action cannot take.
    if (const ActionFilePtr file = action->actionFile(); file && file->metaValidationFailed) {
        client->respond(QStringLiteral("Error: Action '") + name +
                        QStringLiteral("' cannot run: its header has problems:\n") +
                        file->metaValidationErrors.trimmed());
        return;
    }
    if (event == u"dragged" && !text.isEmpty() &&
        !EventsHandler::canHandleTextDragWithTypes({QStringLiteral("text/plain")}, *action)) {
        bool usableFiles = !files.isEmpty();
        for (const QString& file : files) {
            usableFiles = usableFiles && QFileInfo::exists(file);
        }
        if (!usableFiles || !action->actionFile() ||
            !action->actionFile()->handlesFilesDragType()) {
            client->respond(QStringLiteral("Error: Action '") + name +
                            (files.isEmpty()
                                 ? QStringLiteral("' does not support text input.")
                                 : QStringLiteral("' does not support text input and no valid "
                                                  "file paths were provided.")));
            return;
        }
    }
    if ((action->type == u"Rename & Move Files" || action->type == u"Rename & Copy Files") &&
        m_events.isRenamePromptOpen()) {
        client->respond(
            QStringLiteral("Error: Complete or cancel the current rename dialog before starting "
                           "another rename action."));
        return;
    }
    // The request stays open until its run ends, whichever way it ends, and hears what the
    // run reports meanwhile.
    client->stayOpen();
    const QList<BuiltInAction*> before = BuiltInActionRunner::shared()->runningBuiltInActions();
    QPointer<CmdLineTaskHandler> self(this);
    // Why a run could not start is only logged by dispatch; the caller hears it too.
    QStringList problems;
    const int sink = Log::addSink([&problems](Log::Level level, const QString& message) {
        if (level >= Log::Level::Warning) {
            problems << message;
        }
    });
    Task* task = m_runStarter(action, event, files, text, [self, client] {
        if (self) {
            self->unbind(client);
        }
        client->finish();
    });
    Log::removeSink(sink);
    if (client->isFinished()) {
        return; // it ended while it started
    }
    bool started = task != nullptr;
    if (task) {
        m_runs.insert(task, client);
    }
    // A built-in action answers through its own object.
    for (BuiltInAction* builtIn : BuiltInActionRunner::shared()->runningBuiltInActions()) {
        if (!before.contains(builtIn)) {
            m_runs.insert(builtIn, client);
            started = true;
        }
    }
    const ActionFilePtr file = action->actionFile();
    if (!started && !client->hasFailed() && !(file && file->isSharingService)) {
        client->respond(QStringLiteral("Error: Action '") + name +
                        QStringLiteral("' could not be started") +
                        (problems.isEmpty() ? QStringLiteral(".")
                                            : QStringLiteral(": ") + problems.join(u'\n')));
    }
}

void CmdLineTaskHandler::listRunning(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const QList<Task*>& tasks = m_context.tasks.tasks();
    if (flag(request, "json")) {
        QJsonArray array;
        for (qsizetype i = 0; i < tasks.size(); ++i) {
            const TaskOutputHandler* handler =
                tasks[i]->taskRunner() ? tasks[i]->taskRunner()->taskOutputHandler() : nullptr;
            const TaskStatus* row = handler ? handler->taskStatus() : nullptr;
            QJsonObject entry{{QStringLiteral("index"), i},
                              {QStringLiteral("name"), tasks[i]->actionType()}};
            entry.insert(QStringLiteral("status"), row ? row->statusText() : QString());
            entry.insert(QStringLiteral("progress"), row && !row->isIndeterminate()
                                                         ? QJsonValue(row->progress())
                                                         : QJsonValue());
            array << entry;
        }
        client->respond(json(array));
        return;
    }
    if (tasks.isEmpty()) {
        client->respond(QStringLiteral("No actions are currently running."));
        return;
    }
    QString text = QStringLiteral("\nRunning Skelvo Actions:\n-------------------------\n");
    for (qsizetype i = 0; i < tasks.size(); ++i) {
        const TaskOutputHandler* handler =
            tasks[i]->taskRunner() ? tasks[i]->taskRunner()->taskOutputHandler() : nullptr;
        const TaskStatus* row = handler ? handler->taskStatus() : nullptr;
        text += QStringLiteral("%1: %2").arg(i).arg(tasks[i]->actionType());
        if (row) {
            text += QStringLiteral(" - ") + row->statusText();
            if (!row->isIndeterminate()) {
                text += QStringLiteral(" (%1%)").arg(qRound(row->progress()));
            }
        }
        text += u'\n';
    }
    client->respond(text);
}

void CmdLineTaskHandler::cancel(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const std::optional<qint64> index = integer(request, "index");
    if (!index) {
        client->respond(QStringLiteral("Error: Missing index for cancel command."));
        return;
    }
    const QList<Task*>& tasks = m_context.tasks.tasks();
    if (*index < 0 || *index >= tasks.size()) {
        client->fail(
            QString::number(*index) +
            QStringLiteral(" is out of bounds. Use 'sk list-running' to see running actions."));
        return;
    }
    Task* task = tasks.at(*index);
    const QString name = task->actionType();
    if (TaskRunner* runner = task->taskRunner()) {
        TaskOutputHandler* handler = runner->taskOutputHandler();
        if (handler && handler->taskStatus()) {
            handler->taskStatus()->cancel();
        } else {
            if (handler) {
                handler->completeTaskWithCancel(true);
            }
            runner->cancelTask();
        }
    }
    client->respond(QStringLiteral("Cancelled action '") + name + QStringLiteral("'"));
}
