#include "tasks/DebugConsoleController.h"

#include "actions/ActionFileParser.h"
#include "core/AlertHelper.h"
#include "core/WindowPresenter.h"
#include "tasks/Task.h"

DebugConsoleController::DebugConsoleController(WindowPresenter& windows, AlertHelper& alerts,
                                               QObject* parent)
    : QObject(parent)
    , m_windows(windows)
    , m_alerts(alerts)
{}

DebugConsoleController::~DebugConsoleController() = default;

void DebugConsoleController::append(const QString& text, Colour colour, bool bold)
{
    if (text.isEmpty()) {
        return;
    }
    if (!m_runs.isEmpty() && m_runs.last().colour == colour && m_runs.last().bold == bold) {
        m_runs.last().text += text;
    } else {
        m_runs.append(Run{text, colour, bold});
    }
    m_length += text.size();
    const Run run{text, colour, bold};
    writeToLog(run);
    Q_EMIT appended(run);
    trimToMaximum();
}

QString DebugConsoleController::text() const
{
    QString all;
    all.reserve(m_length);
    for (const Run& run : m_runs) {
        all += run.text;
    }
    return all;
}

void DebugConsoleController::clear()
{
    m_runs.clear();
    m_length = 0;
    Q_EMIT cleared();
}

void DebugConsoleController::setMaximumLength(qsizetype length)
{
    m_maximumLength = qMax<qsizetype>(length, 1);
    trimToMaximum();
}

void DebugConsoleController::setLastRunTask(std::shared_ptr<Task> task)
{
    m_lastRunTask = std::move(task);
    Q_EMIT lastRunTaskChanged();
}

void DebugConsoleController::trimToMaximum()
{
    if (m_length <= m_maximumLength) {
        return;
    }
    qsizetype excess = m_length - m_maximumLength;
    while (excess > 0 && !m_runs.isEmpty()) {
        Run& first = m_runs.first();
        if (first.text.size() <= excess) {
            excess -= first.text.size();
            m_length -= first.text.size();
            m_runs.removeFirst();
        } else {
            first.text.remove(0, excess);
            m_length -= excess;
            excess = 0;
        }
    }
    Q_EMIT trimmed();
}

void DebugConsoleController::appendBold(const QString& text)
{
    append(text, Colour::Black, true);
    m_taskControlsEnabled = true;
}

bool DebugConsoleController::setLogFile(const QString& path)
{
    if (m_logFile.isOpen()) {
        m_logFile.close();
    }
    m_logFile.setFileName(path);
    return m_logFile.open(QIODevice::Append);
}

void DebugConsoleController::writeToLog(const Run& run)
{
    if (!m_logFile.isOpen()) {
        return;
    }
    QString text = run.text;
    if (run.bold || run.colour == Colour::Red) {
        const QString mark = run.bold ? QStringLiteral("** ") : QStringLiteral("!! ");
        text.replace(QStringLiteral("\n"), QStringLiteral("\n") + mark);
        text.prepend(mark);
        if (text.endsWith(mark)) {
            text.chop(mark.size());
        }
    }
    m_logFile.write(text.toUtf8());
    m_logFile.flush();
}

void DebugConsoleController::showDebugConsole()
{
    m_windows.showDebugConsole();
}

Task* DebugConsoleController::rerunLast()
{
    if (!m_lastRunTask || !m_lastRunTask->actionFile) {
        return nullptr;
    }
    if (const GridActionPtr& gridAction = m_lastRunTask->gridAction) {
        if (!ActionFileParser::shared().getActionWithType(gridAction->type)) {
            m_alerts.showCriticalAlertWithTitle(
                QStringLiteral("Missing Grid Action"),
                QStringLiteral("The last run grid action could not be found."));
            return nullptr;
        }
        if (gridAction->isReferencedPathMissing()) {
            m_alerts.showCriticalAlertWithTitle(
                QStringLiteral("Missing Path"),
                QStringLiteral("The path referenced by this action could not be found."));
            return nullptr;
        }
    } else if (!ActionFileParser::shared().getActionWithType(
                   m_lastRunTask->actionFile->actionName)) {
        m_alerts.showCriticalAlertWithTitle(
            QStringLiteral("Missing Action Bundle"),
            QStringLiteral("The last run action bundle could not be found."));
        return nullptr;
    }
    Task* task = m_lastRunTask->copy().release();
    // Until the tasks controller takes it, the console holds the task.
    task->setParent(this);
    task->run();
    return task;
}
