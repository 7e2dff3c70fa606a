#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <sys/types.h>
#include <utility>
#include <vector>

// Runs resources/Actions/lib/runner.rb the way Skelvo does (interpreter, working folder,
// environment, arguments) and plays Skelvo's side of the pipe: it reads the child's output
// chunk by chunk and acknowledges or answers each one. Plain POSIX, so that the tests control
// exactly when each acknowledgement is written.
namespace runner_test {

// The shipped library folder (resources/Actions/lib) and the internal actions folder.
QString libFolder();
QString actionsFolder();
QString pythonExecutable();

// A task description file's text, written as Skelvo writes it: ACTION, EVENT, one VARIABLE
// line per variable (raw), then the ITEMS line when there are items, quotes in items escaped
// only for a files drop; no line break at the end.
QByteArray taskDescription(const QString& action, const QString& event,
                           const std::vector<std::pair<QString, QString>>& variables,
                           const QStringList& items = {});
// What Skelvo does to the "path" variable and the rename prompt's names.
QString escapeQuotes(QString text);

struct Chunk {
    bool fromStandardError = false;
    QByteArray data;
};

struct Transcript {
    QList<Chunk> chunks;
    int exitCode = -1; // the exit status, or 128 + signal
    // The standard output chunks (all output when the channels are merged).
    QList<QByteArray> outputChunks() const;
    QByteArray standardError() const;
    // All output lines, in order, without their line breaks.
    QStringList lines() const;
    // The lines that start with "Command: ".
    QStringList commands(const QString& command) const;
};

class RunnerChild {
public:
    struct Options {
        // Standard error on its own pipe (Skelvo shares one pipe for both).
        bool separateStandardError = false;
        // PYTHON_PATH; not set when empty.
        QString pythonPath;
        // Further environment changes; an empty value removes the variable.
        std::vector<std::pair<QString, QString>> environment;
    };

    RunnerChild() = default;
    RunnerChild(const RunnerChild&) = delete;
    RunnerChild& operator=(const RunnerChild&) = delete;
    ~RunnerChild();

    // Starts `ruby <lib>/runner.rb <taskFile>` in the library folder.
    bool start(const QString& taskFile, const Options& options);
    bool start(const QString& taskFile) { return start(taskFile, Options{}); }

    // The next chunk the child wrote, as one read returns it; false when nothing came within
    // the timeout or the output has ended.
    bool nextChunk(Chunk& chunk, int timeoutMs = 20000);
    // True when nothing arrives within the time given.
    bool silentFor(int milliseconds);
    void acknowledge() { writeInput("\n"); }
    void writeInput(const QByteArray& bytes);

    // Acts as Skelvo until the child ends: every chunk of two bytes or more is acknowledged
    // with a newline unless it starts with "Select_Folder:"; each "Select_Folder" line is
    // answered with the next of `folderAnswers` ("0" once they run out).
    Transcript runToEnd(QList<QByteArray> folderAnswers = {}, int timeoutMs = 60000);
    // Waits for the child to end (killing it after the timeout); returns its exit code.
    int waitForExit(int timeoutMs = 20000);

    Transcript& transcript() { return m_transcript; }

private:
    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    int m_error = -1;
    bool m_exited = false;
    Transcript m_transcript;
};

// Runs a task description through the runner and acts as Skelvo until it ends.
Transcript runTask(const QString& taskFile, const RunnerChild::Options& options = {},
                   const QList<QByteArray>& folderAnswers = {});

// Writes a file, creating its folders; returns its path.
QString writeFile(const QString& path, const QByteArray& contents);
QByteArray readFile(const QString& path);

} // namespace runner_test
