#include "tasks/TaskOutputHandler.h"

#include "core/AlertHelper.h"
#include "core/DesktopServices.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "core/WindowPresenter.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/DropbarSink.h"
#include "tasks/FolderMonitorContext.h"
#include "tasks/RecentItems.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskRunner.h"
#include "tasks/TaskStatus.h"
#include "tasks/TaskStatusController.h"

#include <QDir>
#include <QFileInfo>
#include <QStringDecoder>
#include <QTimer>

namespace {

using Colour = DebugConsoleController::Colour;

const QStringList KnownCommands = {
    QStringLiteral("Determinate"),
    QStringLiteral("Begin_Message"),
    QStringLiteral("Progress"),
    QStringLiteral("Finish_Message"),
    QStringLiteral("Fail"),
    QStringLiteral("URL_Title"),
    QStringLiteral("URL"),
    QStringLiteral("Text"),
    QStringLiteral("Error_Title"),
    QStringLiteral("Error"),
    QStringLiteral("Alert_Title"),
    QStringLiteral("Alert"),
    QStringLiteral("Save_Value_Name"),
    QStringLiteral("Save_Value"),
    QStringLiteral("Remove_Value_Name"),
    QStringLiteral("Output_File"),
    QStringLiteral("Add_Dropbar"),
    QStringLiteral("Complete_Add_Dropbar"),
    QStringLiteral("Select_Folder"),
    QStringLiteral("Notification_AppleScript"),
};

constexpr qsizetype ErrorOutputKeptChars = 4000;

QString truncated(const QString& text, qsizetype length)
{
    return text.size() > length ? text.left(length) + QStringLiteral("…") : text;
}

} // namespace

TaskOutputHandler::TaskOutputHandler(Task* task, TaskRunner* runner, QObject* parent)
    : QObject(parent)
    , m_task(task)
    , m_context(task->context())
    , m_runner(runner)
{}

bool TaskOutputHandler::isKnownCommand(const QString& command)
{
    return KnownCommands.contains(command);
}

QList<TaskOutputHandler::Item> TaskOutputHandler::extractCommands(const QString& chunk)
{
    QList<Item> items;
    const QString trimmed = chunk.trimmed();
    if (trimmed.isEmpty()) {
        return items;
    }
    for (const QString& line : trimmed.split(u'\n')) {
        const QStringList parts = line.split(QStringLiteral(": "));
        if (parts.size() < 2) {
            if (!line.trimmed().isEmpty()) {
                items << Item{{}, {}, line + u'\n', false};
            }
            continue;
        }
        const QString& command = parts.first();
        // Joined with a blank, not ": ": a colon inside the message is lost on purpose.
        QString message = parts.mid(1).join(u' ').trimmed();
        message.replace(QStringLiteral("[;n"), QStringLiteral("\n"));
        if (!command.isEmpty() && !message.isEmpty()) {
            items << Item{command, message, {}, true};
        } else if (!command.isEmpty()) {
            items << Item{{}, {}, command, false};
        } else if (!message.isEmpty()) {
            items << Item{{}, {}, message, false};
        }
    }
    return items;
}

void TaskOutputHandler::processOutput(const QString& text)
{
    if (!m_hasReceivedOutput) {
        m_context.debugConsole.append(QStringLiteral("\n"));
        m_hasReceivedOutput = true;
    }
    for (const Item& item : extractCommands(text)) {
        if (item.isCommand) {
            processCommand(item.command, item.message);
            // "ValueError: boom" is error output that looks like a command.
            if (!isKnownCommand(item.command)) {
                m_errorOutput =
                    (m_errorOutput + item.command + QStringLiteral(": ") + item.message + u'\n')
                        .right(ErrorOutputKeptChars);
            }
        } else {
            // Mostly error output: standard error shares the pipe.
            m_context.debugConsole.append(item.text, Colour::Red);
            m_errorOutput = (m_errorOutput + item.text).right(ErrorOutputKeptChars);
        }
    }
}

void TaskOutputHandler::processCommand(const QString& command, const QString& message)
{
    if (command == u"Determinate") {
        TaskStatus* status = createTaskStatus();
        if (message == u"1") {
            status->setIndeterminate(false);
        } else if (message == u"0") {
            status->setIndeterminate(true);
        } else {
            Log::warning(QStringLiteral("Invalid value for Determinate: - expecting '1' or '0', "
                                        "but got '%1'")
                             .arg(message));
        }
        m_context.notifications.post(Notifications::TasksDeterminateUpdated, this);
    } else if (command == u"Begin_Message") {
        createTaskStatus()->setStatusText(message);
    } else if (command == u"Progress") {
        createTaskStatus()->setProgress(message.toDouble());
    } else if (command == u"Finish_Message") {
        m_finishMessage = message;
        m_taskFailed =
            message.contains(QStringLiteral("error")) || message.contains(QStringLiteral("fail"));
    } else if (command == u"Fail") {
        m_taskFailed = true;
        sendFinishNotification(message);
        completeTaskWithCancel(false);
    } else if (command == u"URL_Title") {
        m_urlTitle = message;
    } else if (command == u"URL") {
        completeTaskWithOutputType(UrlOutput, message);
    } else if (command == u"Text") {
        completeTaskWithOutputType(TextOutput, message);
    } else if (command == u"Error_Title") {
        m_errorTitle = message;
    } else if (command == u"Error") {
        m_taskFailed = true;
        m_failureReported = true; // the alert tells a command-line caller
        if (m_taskStatus) {
            m_taskStatus->cancel();
        }
        QTimer::singleShot(AlertDelayMs, this, [this, message] { showError(message); });
    } else if (command == u"Alert_Title") {
        m_alertTitle = message;
    } else if (command == u"Alert") {
        QTimer::singleShot(AlertDelayMs, this, [this, message] { showAlert(message); });
    } else if (command == u"Save_Value_Name") {
        m_saveValueName = message;
    } else if (command == u"Save_Value") {
        if (!m_saveValueName.isEmpty() && m_task) {
            m_task->setGridActionVariable(m_saveValueName, message);
        }
    } else if (command == u"Remove_Value_Name") {
        if (m_task && m_task->gridActionVariable(message)) {
            m_task->removeGridActionVariable(message);
        }
    } else if (command == u"Output_File") {
        const auto decoded = QByteArray::fromBase64Encoding(
            message.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
        QStringDecoder utf8(QStringDecoder::Utf8);
        const QString path = decoded ? utf8.decode(*decoded) : QString();
        if (decoded && !utf8.hasError() && m_task && m_task->folderMonitorContext) {
            m_task->folderMonitorContext->registerOutputAtPath(path);
        }
    } else if (command == u"Add_Dropbar") {
        m_dropbarAddPaths << message;
    } else if (command == u"Complete_Add_Dropbar") {
        for (const QString& path : std::as_const(m_dropbarAddPaths)) {
            if (!QFileInfo::exists(path)) {
                m_taskFailed = true;
                const QString failure =
                    QStringLiteral("Add to Drop Bar failed. Path at %1 not found").arg(path);
                m_context.debugConsole.append(failure + u'\n', Colour::Red);
                reportFailure(failure);
                completeTaskWithCancel(false);
                return;
            }
        }
        m_context.dropbarSink.addFilePaths(m_dropbarAddPaths);
        m_dropbarAddPaths.clear();
    } else if (command == u"Select_Folder") {
        QPointer<TaskRunner> runner = m_runner;
        m_context.windows.chooseFolder(QStringLiteral("Choose Folder"), message, QDir::homePath(),
                                       [runner](const QString& folder) {
                                           if (runner) {
                                               runner->writeToChild(folder.isEmpty()
                                                                        ? QByteArray("0\n")
                                                                        : folder.toUtf8() + '\n');
                                           }
                                       });
    } else if (command == u"Notification_AppleScript") {
        m_notificationScript = message;
    }
    m_context.debugConsole.append(command + QStringLiteral(": ") + message + u'\n',
                                  isKnownCommand(command) ? Colour::Black : Colour::Red);
    m_lastCommand = command;
    m_lastMessage = message;
}

void TaskOutputHandler::completeTaskWithOutputType(int type, const QString& output)
{
    if (!output.isEmpty() && output != u"0") {
        if (type == UrlOutput) {
            m_url = output;
            m_context.desktop.pasteUrl(output);
        } else {
            m_context.desktop.pasteString(output);
        }
        m_context.distributed.post(CmdLineNotifications::Response, this,
                                   {{QStringLiteral("response"), output}});
        m_answered = true;
        QString label = m_urlTitle;
        if (label.isEmpty() && m_task) {
            const QStringList& items = m_task->items;
            if (m_task->variables.value(QStringLiteral("dragged_type")) == u"files" &&
                !items.isEmpty()) {
                label = QFileInfo(items.first()).fileName();
            } else if (!items.isEmpty() && !items.first().isEmpty()) {
                label = items.first();
            }
        }
        if (label.isEmpty()) {
            label = output;
        }
        const QString type_ = m_task ? m_task->actionType() : QString();
        m_context.recentItems.addItem({output,
                                       QStringLiteral("%1 - %2").arg(truncated(label, 50), type_),
                                       type, m_task ? m_task->actionIconPath() : QString()});
    }
    if (!m_finishMessage.isEmpty()) {
        sendFinishNotification(m_finishMessage);
    }
    if (m_context.settings.boolValue(Settings::PlaySounds)) {
        QTimer::singleShot(SoundDelayMs, this, &TaskOutputHandler::playTaskCompletionSound);
    }
    m_context.distributed.post(CmdLineNotifications::Finish, this);
    completeTaskWithCancel(false);
}

QString TaskOutputHandler::actionWord() const
{
    if (!m_task) {
        return {};
    }
    QString word = m_task->actionType();
    // Dropped with the copy modifier, the moving actions copied instead.
    if (m_task->variables.value(QStringLiteral("OPERATION")) == u"NSDragOperationCopy") {
        if (word == u"Move Files") {
            word = QStringLiteral("Copy Files");
        } else if (word == u"Rename & Move Files") {
            word = QStringLiteral("Rename & Copy Files");
        }
    }
    return word;
}

void TaskOutputHandler::sendFinishNotification(const QString& message)
{
    if (m_hasSentFinishNotification) {
        return;
    }
    const QString status = m_taskFailed ? tr("Failed") : tr("Completed");
    UserNotification notification;
    notification.title = QStringLiteral("%1 %2").arg(tr(actionWord().toUtf8().constData()), status);
    notification.body =
        message == u"URL is now on clipboard" ? tr("URL is now on clipboard") : message;
    notification.imagePath = m_task ? m_task->actionIconPath() : QString();
    if (!m_url.isEmpty()) {
        notification.clickUrl = m_url;
    } else if (m_task) {
        notification.clickUrl =
            m_task->gridActionVariable(QStringLiteral("path")).value_or(QString());
    }
    notification.clickScript = m_notificationScript;
    m_context.desktop.sendNotification(notification);
    m_hasSentFinishNotification = true;
    if (m_taskFailed) {
        reportFailure(message);
    }
}

void TaskOutputHandler::reportFailure(const QString& message)
{
    if (m_failureReported) {
        return;
    }
    m_failureReported = true;
    m_answered = true;
    // A terminal shows no debug console: the script's own error output goes with it.
    QString text = QStringLiteral("Error: ") + message;
    if (!m_errorOutput.trimmed().isEmpty()) {
        text += u'\n' + m_errorOutput.trimmed();
    }
    m_context.distributed.post(CmdLineNotifications::Response, this,
                               {{QStringLiteral("response"), text}});
}

void TaskOutputHandler::reportEnd(bool cancelled)
{
    if (cancelled) {
        return;
    }
    if (m_taskFailed) {
        reportFailure(m_finishMessage.isEmpty() ? QStringLiteral("The action failed")
                                                : m_finishMessage);
    } else if (!m_answered && !m_finishMessage.isEmpty()) {
        m_answered = true;
        m_context.distributed.post(CmdLineNotifications::Response, this,
                                   {{QStringLiteral("response"), m_finishMessage}});
    }
}

void TaskOutputHandler::completeTaskWithCancel(bool cancelled)
{
    if (m_taskStatus) {
        m_taskStatus->finishWithFade(!cancelled);
        m_taskStatus = nullptr;
    }
    m_context.distributed.post(CmdLineNotifications::Finish, this);
    m_context.notifications.post(Notifications::TaskShowExitStatus, this,
                                 {{QStringLiteral("success"), m_taskFailed ? 0 : 1}});
}

TaskStatus* TaskOutputHandler::createTaskStatus()
{
    if (!m_taskStatus) {
        m_taskStatus =
            m_context.taskStatuses.newTaskWithIcon(m_task ? m_task->actionIconPath() : QString());
        m_taskStatus->setTaskRunner(m_runner);
    }
    return m_taskStatus;
}

void TaskOutputHandler::sendShowedAlertNotification()
{
    if (m_task) {
        m_context.notifications.post(
            Notifications::TaskShowedAlert, this,
            {{QStringLiteral("task"), QVariant::fromValue<QObject*>(m_task.data())}});
    }
}

void TaskOutputHandler::showError(const QString& message)
{
    sendShowedAlertNotification();
    m_context.alerts.showCriticalAlertWithTitle(m_errorTitle, message, m_task);
}

void TaskOutputHandler::showAlert(const QString& message)
{
    sendShowedAlertNotification();
    m_context.alerts.showAlertWithTitle(m_alertTitle, message, m_task);
}

void TaskOutputHandler::playTaskCompletionSound()
{
    m_context.desktop.playSound(QStringLiteral("TaskFinished"));
}
