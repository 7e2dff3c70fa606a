#pragma once

#include <QObject>
#include <QProcess>
#include <QString>

// A child process in a process group of its own (the task runner, "Run Script"), with
// signal handling as a fresh process has it. The group is signalled only by cancel() and
// when this object goes while the child still runs (quitting); after a normal exit whatever
// the child deliberately started keeps running.
class ChildProcess : public QObject {
    Q_OBJECT
public:
    // How long a cancelled group has to end before it is killed.
    static constexpr int CancelGracePeriodMs = 2000;

    explicit ChildProcess(QObject* parent = nullptr);
    ~ChildProcess() override;

    // Set program, arguments, environment and channels here before start().
    QProcess* process() const { return m_process; }

    void start();
    bool isRunning() const { return m_process->state() != QProcess::NotRunning; }
    // The child's process id, which is also its group's id; 0 before the start.
    qint64 processId() const { return m_groupId; }

    // Asks the group to end and kills what is left of it after the grace period.
    void cancel();
    // Kills the group at once and reaps the child (quitting: the event loop that would
    // report its end has stopped, and no zombie may be left).
    void kill();

    // The locale children run in: "en_US.UTF-8" where it is installed, else "C.UTF-8"
    // (a missing locale makes shells print warnings into the output). Checked once.
    static QString utf8Locale();

private:
    void signalGroup(int signal);

    QProcess* m_process;
    qint64 m_groupId = 0;
};
