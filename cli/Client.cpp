#include "cli/Client.h"

#include "cli/AppProcess.h"
#include "cli/Request.h"
#include "core/CmdLineProtocol.h"
#include "core/PrivateFolder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace sk {

namespace {

using Clock = std::chrono::steady_clock;

// How long sk waits for an application that is starting to listen.
constexpr std::chrono::milliseconds StartWait{10000};
constexpr std::chrono::milliseconds RetryInterval{20};

const char* const NotRunningMessage =
    "sk: Skelvo is not running (start it with `skelvo --headless &` or use `sk --start …`)";
const char* const StartLogName = "skelvo-headless.log";

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string joinPath(std::string folder, std::string_view name)
{
    while (folder.size() > 1 && folder.back() == '/') {
        folder.pop_back();
    }
    if (folder.empty()) {
        return std::string(name);
    }
    if (folder != "/") {
        folder += '/';
    }
    return folder + std::string(name);
}

void printLine(std::FILE* stream, const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

class Socket {
public:
    Socket() = default;
    explicit Socket(int fd)
        : m_fd(fd)
    {}
    ~Socket()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Socket(Socket&& other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {}
    Socket& operator=(Socket&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool valid() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
};

// Connects to the socket at `path`; on failure `error` holds the errno.
Socket connectTo(const std::string& path, int& error)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = ENAMETOOLONG;
        return {};
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    for (;;) {
        Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!socket.valid()) {
            error = errno;
            return {};
        }
        if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
            0) {
            return socket;
        }
        error = errno;
        if (error != EINTR) {
            return {};
        }
    }
}

// No socket, or a socket nobody accepts on: the application is not running (yet).
bool notListening(int error)
{
    return error == ENOENT || error == ECONNREFUSED || error == ENOTDIR;
}

// The application holds an open-file-description write lock on its lock file from the moment
// it starts, before it listens: a held lock means it is starting and worth a short wait.
// F_OFD_GETLK only asks, so a starting application never finds sk holding the lock.
bool appIsStarting(const std::string& folder)
{
    const int fd =
        ::open(joinPath(folder, CmdLineProtocol::LockName).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool held = ::fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    ::close(fd);
    return held;
}

// Outcome of trying to reach the application.
struct Waited {
    Socket socket;
    int status = ExitSuccess; // when no socket: the exit status sk ends with
    bool timedOut = false;    // nothing listened in time; nothing was reported yet
};

class Connector {
public:
    explicit Connector(const Session& session)
        : m_session(session)
        , m_folder(runtimeFolder(&m_folderProblem))
        , m_path(joinPath(m_folder, CmdLineProtocol::SocketName))
    {}

    Waited connect()
    {
        if (m_folder.empty()) {
            std::fprintf(stderr, "sk: refusing the runtime folder %s\n", m_folderProblem.c_str());
            return {Socket(), ExitNotRunning};
        }
        int error = 0;
        Socket socket = connectTo(m_path, error);
        if (socket.valid()) {
            return {std::move(socket)};
        }
        if (!notListening(error)) {
            return {Socket(), cannotConnect(error)};
        }
        if (appIsStarting(m_folder)) {
            Waited waited = waitForListener(-1);
            if (!waited.timedOut) {
                return waited;
            }
        }
        if (m_session.startApp) {
            return startAndConnect();
        }
        std::fprintf(stderr, "%s\n", NotRunningMessage);
        return {Socket(), ExitNotRunning};
    }

private:
    int cannotConnect(int error) const
    {
        std::fprintf(stderr, "sk: cannot connect to Skelvo at %s: %s\n", m_path.c_str(),
                     std::strerror(error));
        return ExitNotRunning;
    }

    Waited startAndConnect()
    {
        // The application creates this folder too; sk needs it first for the log.
        std::error_code error;
        std::filesystem::create_directories(m_folder, error);
        ::chmod(m_folder.c_str(), 0700);
        const std::string log = joinPath(m_folder, StartLogName);
        // Never through a link someone else put there.
        const int logFd =
            ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (logFd < 0) {
            std::fprintf(stderr, "sk: cannot open the log %s: %s\n", log.c_str(),
                         std::strerror(errno));
            return {Socket(), ExitAppNotStarted};
        }
        const DetachedApp app = startAppDetached({"--headless"}, logFd);
        ::close(logFd);
        if (app.pid < 0) {
            std::fprintf(stderr,
                         "sk: cannot start the Skelvo application (skelvo beside sk or on PATH): "
                         "%s\n",
                         app.startError.c_str());
            return {Socket(), ExitAppNotStarted};
        }
        Waited waited = waitForListener(app.pid, log);
        if (waited.timedOut) {
            std::fprintf(stderr, "sk: Skelvo did not start listening within %lld seconds; see %s\n",
                         static_cast<long long>(StartWait.count() / 1000), log.c_str());
            waited.status = ExitNotRunning;
        }
        return waited;
    }

    // Retries the connection until the application listens, the time is up or the started
    // process `pid` (-1 for none) fails.
    Waited waitForListener(pid_t pid, const std::string& log = {})
    {
        const auto deadline = Clock::now() + StartWait;
        int error = 0;
        for (;;) {
            Socket socket = connectTo(m_path, error);
            if (socket.valid()) {
                return {std::move(socket)};
            }
            if (!notListening(error)) {
                return {Socket(), cannotConnect(error)};
            }
            int status = 0;
            if (pid > 0 && ::waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                // Exit status 0: it handed over to an instance that is starting; keep waiting.
                if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                    std::fprintf(stderr,
                                 "sk: skelvo --headless ended (%s %d) before it was ready; see "
                                 "%s\n",
                                 WIFEXITED(status) ? "exit status" : "signal",
                                 WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status),
                                 log.c_str());
                    return {Socket(), ExitNotRunning};
                }
            }
            if (Clock::now() >= deadline) {
                return {Socket(), ExitNotRunning, true};
            }
            std::this_thread::sleep_for(RetryInterval);
        }
    }

    const Session& m_session;
    std::string m_folderProblem;
    std::string m_folder;
    std::string m_path;
};

bool sendAll(int fd, std::string_view data)
{
    while (!data.empty()) {
        const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

// The socket's owner is the user who listens on it; anyone else may have put it there.
bool serverIsThisUser(int fd, const std::string& path)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        std::fprintf(stderr, "sk: cannot check who listens at %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return false;
    }
    if (peer.uid != ::getuid()) {
        std::fprintf(stderr, "sk: %s belongs to user %u, not to you; nothing was sent\n",
                     path.c_str(), static_cast<unsigned>(peer.uid));
        return false;
    }
    return true;
}

int connectionLost()
{
    std::fprintf(stderr, "sk: the connection to Skelvo ended before the request finished\n");
    return ExitConnectionLost;
}

// Reads the answers of one request and prints the responses as they arrive.
class Conversation {
public:
    // Returns the exit status once the finish message arrived or the connection ended.
    int run(int fd)
    {
        std::string pending;
        char buffer[65536];
        for (;;) {
            const ssize_t count = ::read(fd, buffer, sizeof buffer);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                // A last message without its newline still counts.
                if (!pending.empty() && handle(pending) && m_finished) {
                    return status();
                }
                return m_failed ? ExitConnectionLost : connectionLost();
            }
            size_t start = pending.size();
            pending.append(buffer, static_cast<size_t>(count));
            size_t lineStart = 0;
            for (size_t end; (end = pending.find('\n', start)) != std::string::npos;
                 start = lineStart = end + 1) {
                if (!handle(std::string_view(pending).substr(lineStart, end - lineStart))) {
                    return ExitConnectionLost;
                }
                if (m_finished) {
                    return status();
                }
            }
            pending.erase(0, lineStart);
        }
    }

private:
    int status() const { return m_errorAnswered ? ExitFailure : ExitSuccess; }

    // Handles one message; false when it cannot be read.
    bool handle(std::string_view line)
    {
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
            return true;
        }
        const nlohmann::json message = nlohmann::json::parse(line, nullptr, false);
        if (message.is_discarded() || !message.is_object()) {
            std::fprintf(stderr, "sk: Skelvo sent a message that is not a JSON object: %.*s\n",
                         static_cast<int>(std::min<size_t>(line.size(), 200)), line.data());
            m_failed = true;
            return false;
        }
        const auto name = message.find("name");
        if (name == message.end() || !name->is_string()) {
            return true;
        }
        if (*name == CmdLineProtocol::Finish) {
            m_finished = true;
        } else if (*name == CmdLineProtocol::Response) {
            print(message);
        }
        // Running, and names a newer application may add, need nothing.
        return true;
    }

    void print(const nlohmann::json& message)
    {
        const auto userInfo = message.find("userInfo");
        if (userInfo == message.end() || !userInfo->is_object()) {
            return;
        }
        const auto response = userInfo->find("response");
        if (response == userInfo->end() || !response->is_string()) {
            return;
        }
        std::string text = response->get<std::string>();
        const auto failed = userInfo->find("failed");
        const bool error =
            text.starts_with("Error: ") ||
            (failed != userInfo->end() && failed->is_boolean() && failed->get<bool>());
        m_errorAnswered = m_errorAnswered || error;
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        printLine(error ? stderr : stdout, text);
    }

    bool m_finished = false;
    bool m_errorAnswered = false;
    bool m_failed = false;
};

} // namespace

std::string runtimeFolder(std::string* problem)
{
    std::string root;
    if (const std::string home = environment("SKELVO_HOME"); !home.empty()) {
        root = joinPath(home, "runtime");
    } else if (const std::string runtime = environment("XDG_RUNTIME_DIR"); !runtime.empty()) {
        root = runtime;
    } else {
        // No session runtime folder (cron, ssh without logind): a per-user folder in the
        // temporary folder, which the application takes with its symbolic links resolved.
        std::string temp = environment("TMPDIR");
        if (temp.empty()) {
            temp = "/tmp";
        }
        char* resolved = ::realpath(temp.c_str(), nullptr);
        temp = resolved ? resolved : ".";
        std::free(resolved);
        root = PrivateFolder::fallbackRuntimeRoot(temp);
        std::string why;
        if (!PrivateFolder::ensure(root, &why)) {
            if (problem) {
                *problem = why;
            }
            return {};
        }
    }
    return joinPath(root, "skelvo");
}

std::string socketPath()
{
    return joinPath(runtimeFolder(), CmdLineProtocol::SocketName);
}

int sendRequest(const nlohmann::json& userInfo, const Session& session)
{
    const std::optional<std::string> line = requestLine(userInfo);
    if (!line) {
        return usageError("an argument is not valid UTF-8 text.");
    }
    Waited connection = Connector(session).connect();
    if (!connection.socket.valid()) {
        return connection.status;
    }
    if (!serverIsThisUser(connection.socket.fd(), socketPath())) {
        return ExitNotRunning;
    }
    if (!sendAll(connection.socket.fd(), *line)) {
        return connectionLost();
    }
    return Conversation().run(connection.socket.fd());
}

} // namespace sk
