#include "tasks/DebugConsoleController.h"

#include "tasks/Task.h"

DebugConsoleController& DebugConsoleController::shared()
{
    static DebugConsoleController* instance = new DebugConsoleController;
    return *instance;
}

DebugConsoleController::DebugConsoleController(QObject* parent)
    : QObject(parent)
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
    Q_EMIT appended(Run{text, colour, bold});
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
