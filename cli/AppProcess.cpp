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

class SpawnAttributes {
public:
    SpawnAttributes() { posix_spawnattr_init(&m_attributes); }
    ~SpawnAttributes() { posix_spawnattr_destroy(&m_attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &m_attributes; }

private:
    posix_spawnattr_t m_attributes;
};

// The program to run and its arguments. Only a bare name is looked up on PATH; the sibling
// is run as it is.
struct AppCommand {
    std::string program;
    bool searchPath = false;
    std::vector<std::string> arguments;

    int spawn(pid_t* pid, const posix_spawn_file_actions_t* actions,
              const posix_spawnattr_t* attributes)
    {
        std::vector<char*> argv;
        argv.push_back(program.data());
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        return searchPath
                   ? posix_spawnp(pid, program.c_str(), actions, attributes, argv.data(), environ)
                   : posix_spawn(pid, program.c_str(), actions, attributes, argv.data(), environ);
    }
};

AppCommand appCommand(const std::vector<std::string>& arguments)
{
    const std::string sibling = siblingAppPath();
    return {sibling.empty() ? std::string(AppName) : sibling, sibling.empty(), arguments};
}

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
    AppCommand command = appCommand(arguments);

    Pipe output;
    if (!output.ok()) {
        run.startError = std::strerror(errno);
        return run;
    }
    SpawnActions actions;
    posix_spawn_file_actions_adddup2(actions.get(), output.writeEnd(), STDOUT_FILENO);

    pid_t pid = 0;
    const int spawned = command.spawn(&pid, actions.get(), nullptr);
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

DetachedApp startAppDetached(const std::vector<std::string>& arguments, int logFd)
{
    DetachedApp app;
    AppCommand command = appCommand(arguments);

    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(actions.get(), logFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), STDOUT_FILENO, STDERR_FILENO);

    // A session of its own: the terminal's Ctrl-C and hang-up do not reach it.
    SpawnAttributes attributes;
    posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSID);

    const int spawned = command.spawn(&app.pid, actions.get(), attributes.get());
    if (spawned != 0) {
        app.pid = -1;
        app.startError = std::strerror(spawned);
    }
    return app;
}

} // namespace sk
