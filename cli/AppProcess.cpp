#include "cli/AppProcess.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace sk {

namespace {

const char* const AppName = "skelvo";

class Pipe {
public:
    Pipe() { m_ok = ::pipe2(m_fds, O_CLOEXEC) == 0; }
    ~Pipe()
    {
        closeRead();
        closeWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    bool ok() const { return m_ok; }
    int readEnd() const { return m_fds[0]; }
    int writeEnd() const { return m_fds[1]; }
    void closeRead() { closeFd(m_fds[0]); }
    void closeWrite() { closeFd(m_fds[1]); }

private:
    static void closeFd(int& fd)
    {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
    int m_fds[2] = {-1, -1};
    bool m_ok = false;
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions;
};

std::string readAll(int fd)
{
    std::string data;
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
            data.append(buffer, static_cast<size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return data;
        }
    }
}

} // namespace

std::string siblingAppPath()
{
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return {};
    }
    const auto candidate = self.parent_path() / AppName;
    if (::access(candidate.c_str(), X_OK) != 0 || std::filesystem::is_directory(candidate, error)) {
        return {};
    }
    return candidate.string();
}

AppRun runApp(const std::vector<std::string>& arguments)
{
    AppRun run;
    const std::string sibling = siblingAppPath();
    const std::string program = sibling.empty() ? AppName : sibling;

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    Pipe output;
    if (!output.ok()) {
        run.startError = std::strerror(errno);
        return run;
    }
    SpawnActions actions;
    posix_spawn_file_actions_adddup2(actions.get(), output.writeEnd(), STDOUT_FILENO);

    pid_t pid = 0;
    // Only a bare name is looked up on PATH; the sibling is run as it is.
    const int spawned =
        sibling.empty()
            ? posix_spawnp(&pid, program.c_str(), actions.get(), nullptr, argv.data(), environ)
            : posix_spawn(&pid, program.c_str(), actions.get(), nullptr, argv.data(), environ);
    output.closeWrite();
    if (spawned != 0) {
        run.startError = std::strerror(spawned);
        return run;
    }
    run.started = true;
    run.output = readAll(output.readEnd());

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            run.exitStatus = 1;
            return run;
        }
    }
    if (WIFSIGNALED(status)) {
        run.signal = WTERMSIG(status);
        run.exitStatus = 128 + run.signal;
    } else {
        run.exitStatus = WEXITSTATUS(status);
    }
    return run;
}

} // namespace sk
