#include "builtin/BuiltInAction.h"
#include "builtin/BuiltInActionRunner.h"
#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"
#include "core/Log.h"
#include "events/EventsHandler.h"
#include "events/KeyModifiers.h"
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
    if (event == u"test_connection") {
        testConnection(client, action);
        return;
    }
    const QString modifier = str(request, "modifier").toLower();
    if (!modifier.isEmpty()) {
        runWithModifier(client, action, modifier, files);
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

void CmdLineTaskHandler::testConnection(const CmdLineRequestPtr& client,
                                        const GridActionPtr& action)
{
    const ActionFilePtr file = action->actionFile();
    if (!file || !file->isBuiltInAction || !file->handlesTestConnection()) {
        client->respond(QStringLiteral("Error: Action '") + action->name +
                        QStringLiteral("' has no connection test."));
        return;
    }
    QVariantMap variables;
    for (auto it = action->extraVariables.cbegin(); it != action->extraVariables.cend(); ++it) {
        variables.insert(it.key(), it.value());
    }
    client->stayOpen();
    BuiltInAction* run =
        BuiltInActionRunner::shared()->runActionWithTestConnection(*file, variables);
    if (!run || run->isFinished()) {
        if (!run && !client->hasFailed()) {
            client->respond(QStringLiteral("Error: The connection test of '") + action->name +
                            QStringLiteral("' could not be started."));
        }
        client->finish();
        return;
    }
    m_runs.insert(run, client);
    QPointer<CmdLineTaskHandler> self(this);
    run->completion = [self, client] {
        if (self) {
            self->unbind(client);
        }
        client->finish();
    };
}

// A drop with a modifier key held, which only built-in actions take from the command line.
void CmdLineTaskHandler::runWithModifier(const CmdLineRequestPtr& client,
                                         const GridActionPtr& action, const QString& modifier,
                                         const QStringList& files)
{
    KeyModifiers held;
    held.option = modifier == u"option" || modifier == u"alt";
    held.command = modifier == u"command" || modifier == u"super";
    held.shift = modifier == u"shift";
    held.control = modifier == u"control" || modifier == u"ctrl";
    if (held == KeyModifiers()) {
        client->respond(QStringLiteral("Error: --modifier takes option, command, shift or "
                                       "control, not '") +
                        modifier + u'\'');
        return;
    }
    const ActionFilePtr file = action->actionFile();
    const QString selected = file ? held.selectFor(*file) : QString();
    if (selected.isEmpty()) {
        client->respond(QStringLiteral("Error: Action '") + action->name +
                        QStringLiteral("' does not use the ") + modifier +
                        QStringLiteral(" modifier."));
        return;
    }
    if (!file->isBuiltInAction || files.isEmpty()) {
        client->respond(QStringLiteral("Error: --modifier applies to built-in actions run on "
                                       "files."));
        return;
    }
    QList<QUrl> urls;
    for (const QString& path : files) {
        urls << QUrl::fromLocalFile(path);
    }
    client->stayOpen();
    QPointer<CmdLineTaskHandler> self(this);
    BuiltInAction* run = BuiltInActionRunner::shared()->runActionWithDragWithGridAction(
        action, urls, selected, nullptr, [self, client] {
            if (self) {
                self->unbind(client);
            }
            client->finish();
        });
    if (run && !run->isFinished()) {
        m_runs.insert(run, client);
    } else if (!run && !client->isFinished()) {
        client->respond(QStringLiteral("Error: Action '") + action->name +
                        QStringLiteral("' could not be started."));
        client->finish();
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
