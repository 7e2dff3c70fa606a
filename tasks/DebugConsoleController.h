#pragma once

#include <QFile>
#include <QList>
#include <QObject>
#include <QString>

#include <memory>

class AlertHelper;
class Task;
class WindowPresenter;

// The engine side of the debug console: the text of launch headers, protocol lines and
// error output as styled runs, and the last task started so that it can be run again.
// Windows and log files follow the text through the signals.
class DebugConsoleController : public QObject {
    Q_OBJECT
public:
    enum class Colour { Black, Red };

    struct Run {
        QString text;
        Colour colour = Colour::Black;
        bool bold = false;

        bool operator==(const Run&) const = default;
    };

    // The oldest text goes once the console holds more characters than this.
    static constexpr qsizetype DefaultMaximumLength = 4 * 1024 * 1024;

    DebugConsoleController(WindowPresenter& windows, AlertHelper& alerts,
                           QObject* parent = nullptr);
    ~DebugConsoleController() override;

    // Appends text in the colour; text in the style of the last run extends that run.
    void append(const QString& text, Colour colour = Colour::Black, bool bold = false);
    // Bold text in the text colour; it announces a task, so the task controls come on.
    void appendBold(const QString& text);

    QString text() const;
    const QList<Run>& runs() const { return m_runs; }
    void clear();

    qsizetype maximumLength() const { return m_maximumLength; }
    void setMaximumLength(qsizetype length);

    // A copy of the last task started (without path, runner or completion), or none.
    std::shared_ptr<Task> lastRunTask() const { return m_lastRunTask; }
    void setLastRunTask(std::shared_ptr<Task> task);
    // Whether edit-last and re-run-last are available: set once a task has started.
    bool taskControlsEnabled() const { return m_taskControlsEnabled; }

    // Also writes everything appended to this file, so the console can be read headless
    // (bold text is marked with ** and red text with !! at the start of its lines).
    bool setLogFile(const QString& path);

    void showDebugConsole();
    // Runs the last task again if its action still exists; alerts when it does not.
    // Returns the new task (owned by the tasks controller once it runs), or none.
    Task* rerunLast();

Q_SIGNALS:
    void appended(const DebugConsoleController::Run& run);
    void cleared();
    // Leading text was dropped to keep within the maximum length.
    void trimmed();
    void lastRunTaskChanged();

private:
    void trimToMaximum();
    void writeToLog(const Run& run);

    WindowPresenter& m_windows;
    AlertHelper& m_alerts;
    QList<Run> m_runs;
    qsizetype m_length = 0;
    qsizetype m_maximumLength = DefaultMaximumLength;
    std::shared_ptr<Task> m_lastRunTask;
    bool m_taskControlsEnabled = false;
    QFile m_logFile;
};
