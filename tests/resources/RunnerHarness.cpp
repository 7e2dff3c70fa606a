#include "tests/resources/RunnerHarness.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace runner_test {

namespace {

// The child may grow its pipe to 1 MiB; one read takes whatever it holds, as Skelvo's does.
constexpr qsizetype ReadSize = 4 * 1024 * 1024;

QString resourcesFolder()
{
    const QByteArray configured = qgetenv("SKELVO_RESOURCES");
    if (!configured.isEmpty()) {
        return QString::fromLocal8Bit(configured);
    }
    return QFileInfo(QStringLiteral(__FILE__))
        .absoluteDir()
        .filePath(QStringLiteral("../../resources"));
}

void closeDescriptor(int& fd)
{
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

std::vector<QByteArray> environmentFor(const RunnerChild::Options& options)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // What the task runner adds to the application's environment.
    environment.insert(QStringLiteral("NSUnbufferedIO"), QStringLiteral("NO"));
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("en_US.UTF-8"));
    environment.insert(QStringLiteral("RUBYOPT"), QStringLiteral("-Ku"));
    environment.remove(QStringLiteral("PYTHON_PATH"));
    if (!options.pythonPath.isEmpty()) {
        environment.insert(QStringLiteral("PYTHON_PATH"), options.pythonPath);
        environment.insert(QStringLiteral("PYTHONDONTWRITEBYTECODE"), QStringLiteral("1"));
    }
    for (const auto& [name, value] : options.environment) {
        if (value.isEmpty()) {
            environment.remove(name);
        } else {
            environment.insert(name, value);
        }
    }
    std::vector<QByteArray> result;
    for (const QString& entry : environment.toStringList()) {
        result.push_back(entry.toLocal8Bit());
    }
    return result;
}

} // namespace

QString libFolder()
{
    return QDir::cleanPath(resourcesFolder() + QStringLiteral("/Actions/lib"));
}

QString actionsFolder()
{
    return QDir::cleanPath(resourcesFolder() + QStringLiteral("/Actions"));
}

QString pythonExecutable()
{
    // The system's interpreter, not a version manager's wrapper script that may be first on
    // the PATH.
    const QString system = QStringLiteral("/usr/bin/python3");
    return QFileInfo(system).isExecutable()
               ? system
               : QStandardPaths::findExecutable(QStringLiteral("python3"));
}

QString escapeQuotes(QString text)
{
    return text.replace(QLatin1Char('"'), QLatin1String("\\\""));
}

QByteArray taskDescription(const QString& action, const QString& event,
                           const std::vector<std::pair<QString, QString>>& variables,
                           const QStringList& items)
{
    bool filesDrop = false;
    QString block;
    for (const auto& [key, value] : variables) {
        if (key == QLatin1String("dragged_type") && value == QLatin1String("files")) {
            filesDrop = true;
        }
        block += QStringLiteral("VARIABLE: \"%1\" \"%2\"\n").arg(key, value);
    }
    QString itemsLine;
    if (!items.isEmpty()) {
        itemsLine = QStringLiteral("ITEMS: ");
        for (const QString& item : items) {
            itemsLine +=
                QLatin1Char('"') + (filesDrop ? escapeQuotes(item) : item) + QStringLiteral("\" ");
        }
        itemsLine = itemsLine.trimmed();
    } else {
        block = block.trimmed();
    }
    return (QStringLiteral("ACTION: \"%1\"\nEVENT: \"%2\"\n").arg(action, event) + block +
            itemsLine)
        .toUtf8();
}

QList<QByteArray> Transcript::outputChunks() const
{
    QList<QByteArray> result;
    for (const Chunk& chunk : chunks) {
        if (!chunk.fromStandardError) {
            result << chunk.data;
        }
    }
    return result;
}

QByteArray Transcript::standardError() const
{
    QByteArray result;
    for (const Chunk& chunk : chunks) {
        if (chunk.fromStandardError) {
            result += chunk.data;
        }
    }
    return result;
}

QStringList Transcript::lines() const
{
    QByteArray all;
    for (const QByteArray& chunk : outputChunks()) {
        all += chunk;
    }
    QStringList result = QString::fromUtf8(all).split(QLatin1Char('\n'));
    if (!result.isEmpty() && result.last().isEmpty()) {
        result.removeLast();
    }
    return result;
}

QStringList Transcript::commands(const QString& command) const
{
    QStringList result;
    const QString prefix = command + QStringLiteral(": ");
    for (const QString& line : lines()) {
        if (line.startsWith(prefix)) {
            result << line;
        }
    }
    return result;
}

RunnerChild::~RunnerChild()
{
    if (m_pid > 0 && !m_exited) {
        ::kill(-m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    closeDescriptor(m_input);
    closeDescriptor(m_output);
    closeDescriptor(m_error);
}

bool RunnerChild::start(const QString& taskFile, const Options& options)
{
    // A child that has ended must not take the test down when it is acknowledged.
    ::signal(SIGPIPE, SIG_IGN);

    const QString ruby = QStandardPaths::findExecutable(QStringLiteral("ruby"));
    if (ruby.isEmpty()) {
        return false;
    }
    const QByteArray program = ruby.toLocal8Bit();
    const QByteArray runner = QDir(libFolder()).filePath(QStringLiteral("runner.rb")).toLocal8Bit();
    const QByteArray task = taskFile.toLocal8Bit();
    const QByteArray folder = libFolder().toLocal8Bit();
    const std::vector<QByteArray> environment = environmentFor(options);

    std::vector<char*> argv{const_cast<char*>(program.constData()),
                            const_cast<char*>(runner.constData()),
                            const_cast<char*>(task.constData()), nullptr};
    std::vector<char*> envp;
    for (const QByteArray& entry : environment) {
        envp.push_back(const_cast<char*>(entry.constData()));
    }
    envp.push_back(nullptr);

    int input[2];
    int output[2];
    int error[2] = {-1, -1};
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) {
        return false;
    }
    if (options.separateStandardError && ::pipe2(error, O_CLOEXEC) != 0) {
        return false;
    }

    m_pid = ::fork();
    if (m_pid == 0) {
        ::setpgid(0, 0);
        ::dup2(input[0], 0);
        ::dup2(output[1], 1);
        ::dup2(options.separateStandardError ? error[1] : output[1], 2);
        if (::chdir(folder.constData()) != 0) {
            ::_exit(126);
        }
        ::execve(program.constData(), argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(input[0]);
    ::close(output[1]);
    if (error[1] >= 0) {
        ::close(error[1]);
    }
    m_input = input[1];
    m_output = output[0];
    m_error = error[0];
    return m_pid > 0;
}

bool RunnerChild::nextChunk(Chunk& chunk, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (m_output >= 0 || m_error >= 0) {
        pollfd fds[2] = {{m_output, POLLIN, 0}, {m_error, POLLIN, 0}};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            return false;
        }
        const int ready = ::poll(fds, 2, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        for (int index = 0; index < 2; ++index) {
            if (fds[index].fd < 0 || fds[index].revents == 0) {
                continue;
            }
            int& fd = index == 0 ? m_output : m_error;
            QByteArray data(ReadSize, Qt::Uninitialized);
            const ssize_t count = ::read(fd, data.data(), static_cast<size_t>(data.size()));
            if (count <= 0) {
                closeDescriptor(fd);
                continue;
            }
            data.truncate(count);
            chunk.fromStandardError = index == 1;
            chunk.data = data;
            m_transcript.chunks << chunk;
            return true;
        }
    }
    return false;
}

bool RunnerChild::silentFor(int milliseconds)
{
    pollfd fds[2] = {{m_output, POLLIN, 0}, {m_error, POLLIN, 0}};
    return ::poll(fds, 2, milliseconds) == 0;
}

void RunnerChild::writeInput(const QByteArray& bytes)
{
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(m_input, bytes.constData() + written,
                                      static_cast<size_t>(bytes.size() - written));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return; // the child has gone
        }
        written += count;
    }
}

Transcript RunnerChild::runToEnd(QList<QByteArray> folderAnswers, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    Chunk chunk;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0 || !nextChunk(chunk, static_cast<int>(left))) {
            break;
        }
        if (chunk.data.size() < 2) {
            continue;
        }
        if (!chunk.data.startsWith("Select_Folder:")) {
            acknowledge();
        }
        for (const QByteArray& line : chunk.data.split('\n')) {
            if (line.startsWith("Select_Folder: ")) {
                writeInput((folderAnswers.isEmpty() ? QByteArray("0") : folderAnswers.takeFirst()) +
                           '\n');
            }
        }
    }
    m_transcript.exitCode = waitForExit();
    return m_transcript;
}

int RunnerChild::waitForExit(int timeoutMs)
{
    if (m_exited) {
        return m_transcript.exitCode;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (true) {
        const pid_t done = ::waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(-m_pid, SIGKILL);
            ::waitpid(m_pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    m_exited = true;
    closeDescriptor(m_input);
    m_transcript.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return m_transcript.exitCode;
}

Transcript runTask(const QString& taskFile, const RunnerChild::Options& options,
                   const QList<QByteArray>& folderAnswers)
{
    RunnerChild child;
    if (!child.start(taskFile, options)) {
        return {};
    }
    return child.runToEnd(folderAnswers);
}

QString writeFile(const QString& path, const QByteArray& contents)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        file.write(contents);
    }
    return path;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace runner_test
