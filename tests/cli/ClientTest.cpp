// The built sk against a fake application: a socket server in a thread of the test that
// checks what sk sends and answers as the application would.
#include "cli/Commands.h"
#include "core/CmdLineProtocol.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

QString skBinary()
{
    return QStringLiteral(SK_BINARY);
}

std::string runtimeFolder(const TestHome& home)
{
    return home.path().toStdString() + "/runtime/skelvo";
}

std::string socketPath(const TestHome& home)
{
    return runtimeFolder(home) + "/" + CmdLineProtocol::SocketName;
}

bool sendText(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

void sendMessage(int fd, const nlohmann::json& message)
{
    sendText(fd, message.dump() + "\n");
}

void running(int fd)
{
    sendMessage(fd, {{"name", CmdLineProtocol::Running}});
}

void respond(int fd, const std::string& text)
{
    sendMessage(fd, {{"name", CmdLineProtocol::Response}, {"userInfo", {{"response", text}}}});
}

void finish(int fd)
{
    sendMessage(fd, {{"name", CmdLineProtocol::Finish}});
}

// Listens where the application would and serves one connection in a thread: reads the
// request line, then runs the test's script on the connection and closes it.
class FakeServer {
public:
    using Script = std::function<void(int fd)>;

    // `listenAs`: the user the kernel reports as the listener (needs root to differ).
    explicit FakeServer(std::string path, uid_t listenAs = ::geteuid())
        : m_path(std::move(path))
    {
        QDir().mkpath(QFileInfo(QString::fromStdString(m_path)).absolutePath());
        m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
            << std::strerror(errno);
        // For this thread only, as the raw system call does it.
        const uid_t self = ::geteuid();
        EXPECT_EQ(::syscall(SYS_setresuid, -1, listenAs, -1), 0);
        EXPECT_EQ(::listen(m_listener, 4), 0);
        EXPECT_EQ(::syscall(SYS_setresuid, -1, self, -1), 0);
    }

    ~FakeServer()
    {
        join();
        ::close(m_listener);
        ::unlink(m_path.c_str());
    }

    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    void serve(Script script)
    {
        m_thread = std::thread([this, script = std::move(script)] {
            pollfd listener{m_listener, POLLIN, 0};
            if (::poll(&listener, 1, 15000) != 1) {
                return;
            }
            const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            m_request = readLine(fd);
            script(fd);
            ::close(fd);
        });
    }

    // The request line as received, newline included; waits for the script to end.
    std::string request()
    {
        join();
        return m_request;
    }

    nlohmann::json userInfo()
    {
        const nlohmann::json message = nlohmann::json::parse(request(), nullptr, false);
        if (message.is_discarded() || message.value("name", "") != CmdLineProtocol::RunTask) {
            ADD_FAILURE() << "not a task request: " << m_request;
            return {};
        }
        return message["userInfo"];
    }

    void join()
    {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    static std::string readLine(int fd)
    {
        std::string line;
        char c = 0;
        pollfd readable{fd, POLLIN, 0};
        while (::poll(&readable, 1, 10000) == 1 && ::read(fd, &c, 1) == 1) {
            line += c;
            if (c == '\n') {
                break;
            }
        }
        return line;
    }

    std::string m_path;
    int m_listener = -1;
    std::thread m_thread;
    std::string m_request;
};

struct SkRun {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
    qint64 milliseconds = 0;
};

SkRun runSk(const QStringList& arguments, const QString& workingDirectory = {},
            const QString& program = skBinary(),
            const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    if (!workingDirectory.isEmpty()) {
        process.setWorkingDirectory(workingDirectory);
    }
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    EXPECT_TRUE(process.waitForStarted(10000)) << program.toStdString();
    EXPECT_TRUE(process.waitForFinished(30000)) << arguments.join(u' ').toStdString();
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << arguments.join(u' ').toStdString();
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError(),
            timer.elapsed()};
}

const QByteArray NotRunning =
    "sk: Skelvo is not running (start it with `skelvo --headless &` or use `sk --start …`)\n";

TEST(SkClient, SendsOneRequestLineAndPrintsTheResponses)
{
    TestHome home;
    const QString work = QFileInfo(home.path()).canonicalFilePath();
    QDir(work).mkpath(QStringLiteral("photos"));
    FakeServer server(socketPath(home));
    server.serve([](int fd) {
        running(fd);
        respond(fd, "first");
        respond(fd, "Drop Bar is empty.\n"); // a response with its own newline keeps it
        respond(fd, "\nAvailable Skelvo Actions:\n---------------------------\nCopy");
        finish(fd);
    });

    const SkRun result = runSk({QStringLiteral("run"), QStringLiteral("Copy Files"),
                                QStringLiteral("photos/a.jpg"), QStringLiteral("/abs/b.jpg")},
                               work);
    EXPECT_EQ(result.exitCode, sk::ExitSuccess) << result.err.toStdString();
    EXPECT_EQ(result.out, QByteArray("first\nDrop Bar is empty.\n\nAvailable Skelvo Actions:\n"
                                     "---------------------------\nCopy\n"));
    EXPECT_TRUE(result.err.isEmpty()) << result.err.toStdString();

    const std::string line = server.request();
    ASSERT_FALSE(line.empty());
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line, ended by a newline";
    const nlohmann::json expected = {
        {"action", "run"},
        {"name", "Copy Files"},
        {"event", "dragged"},
        {"files", {work.toStdString() + "/photos/a.jpg", "/abs/b.jpg"}},
        {"cwd", work.toStdString()}};
    EXPECT_EQ(server.userInfo(), expected);
}

TEST(SkClient, ErrorAnswerGoesToStandardErrorAndExitsWithOne)
{
    TestHome home;
    FakeServer server(socketPath(home));
    server.serve([](int fd) {
        running(fd);
        respond(fd, "5 is out of bounds. Use 'sk list-running' to see running actions.");
        respond(fd, "Error: Missing index for cancel command.");
        finish(fd);
    });
    const SkRun result =
        runSk({QStringLiteral("request"), QStringLiteral(R"({"action":"cancel"})")});
    EXPECT_EQ(result.exitCode, sk::ExitFailure);
    EXPECT_EQ(result.out, "5 is out of bounds. Use 'sk list-running' to see running actions.\n");
    EXPECT_EQ(result.err, "Error: Missing index for cancel command.\n");
    EXPECT_EQ(server.userInfo()["action"], "cancel");
    EXPECT_FALSE(server.userInfo().contains("index"));
}

TEST(SkClient, AnswerThatOnlyMentionsAnErrorIsASuccess)
{
    TestHome home;
    FakeServer server(socketPath(home));
    server.serve([](int fd) {
        running(fd);
        respond(fd, "No actions found. Error: none");
        finish(fd);
    });
    const SkRun result = runSk({QStringLiteral("list")});
    EXPECT_EQ(result.exitCode, sk::ExitSuccess);
    EXPECT_EQ(result.out, "No actions found. Error: none\n");
}

TEST(SkClient, ResponsesArePrintedAsTheyArrive)
{
    TestHome home;
    std::promise<void> firstSeen;
    std::future<void> seen = firstSeen.get_future();
    FakeServer server(socketPath(home));
    server.serve([&seen](int fd) {
        running(fd);
        respond(fd, "Copying 1 of 2");
        // The rest only once the test saw the first line printed (or gave up waiting).
        seen.wait_for(15s);
        respond(fd, "Copying 2 of 2");
        finish(fd);
    });

    QProcess process;
    process.start(skBinary(),
                  {QStringLiteral("run"), QStringLiteral("Slow"), QStringLiteral("/a")});
    ASSERT_TRUE(process.waitForStarted(10000));
    QByteArray out;
    QElapsedTimer timer;
    timer.start();
    while (!out.contains("\n") && timer.elapsed() < 10000 && process.waitForReadyRead(10000)) {
        out += process.readAllStandardOutput();
    }
    EXPECT_EQ(out, "Copying 1 of 2\n");
    EXPECT_EQ(process.state(), QProcess::Running) << "sk waits for the finish";
    firstSeen.set_value();
    ASSERT_TRUE(process.waitForFinished(10000));
    out += process.readAllStandardOutput();
    EXPECT_EQ(out, "Copying 1 of 2\nCopying 2 of 2\n");
    EXPECT_EQ(process.exitCode(), sk::ExitSuccess);
}

TEST(SkClient, MessagesSplitAcrossWritesAreReassembled)
{
    TestHome home;
    FakeServer server(socketPath(home));
    server.serve([](int fd) {
        const std::string all = "{\"name\":\"SkelvoRunCmdLineRunning\"}\n"
                                "{\"name\":\"SkelvoRunCmdLineResponse\",\"userInfo\":"
                                "{\"response\":\"caf\xc3\xa9 open\"}}\n"
                                "{\"name\":\"SkelvoRunCmdLineFinish\"}\n";
        for (size_t i = 0; i < all.size(); i += 7) {
            sendText(fd, std::string_view(all).substr(i, 7));
            std::this_thread::sleep_for(2ms);
        }
    });
    const SkRun result = runSk({QStringLiteral("status")});
    EXPECT_EQ(result.exitCode, sk::ExitSuccess) << result.err.toStdString();
    EXPECT_EQ(result.out, "caf\xc3\xa9 open\n");
}

TEST(SkClient, ExitsAtTheFinishWithoutWaitingForTheClose)
{
    TestHome home;
    std::promise<void> done;
    std::future<void> skDone = done.get_future();
    FakeServer server(socketPath(home));
    server.serve([&skDone](int fd) {
        running(fd);
        respond(fd, "closed");
        finish(fd);
        respond(fd, "after the finish");
        skDone.wait_for(10s);
    });
    const SkRun result = runSk({QStringLiteral("status")});
    done.set_value();
    EXPECT_EQ(result.exitCode, sk::ExitSuccess);
    EXPECT_EQ(result.out, "closed\n");
    EXPECT_LT(result.milliseconds, 5000);
}

TEST(SkClient, ConnectionClosedBeforeTheFinishExitsWithFour)
{
    TestHome home;
    for (const bool sayRunning : {false, true}) {
        FakeServer server(socketPath(home));
        server.serve([sayRunning](int fd) {
            if (sayRunning) {
                running(fd);
                respond(fd, "Copying");
            }
        });
        const SkRun result = runSk({QStringLiteral("run"), QStringLiteral("Copy")});
        EXPECT_EQ(result.exitCode, sk::ExitConnectionLost) << sayRunning;
        EXPECT_EQ(result.out, sayRunning ? "Copying\n" : "");
        EXPECT_EQ(result.err, "sk: the connection to Skelvo ended before the request finished\n");
    }
}

TEST(SkClient, UnreadableMessageExitsWithFour)
{
    TestHome home;
    FakeServer server(socketPath(home));
    server.serve([](int fd) {
        running(fd);
        sendText(fd, "this is not json\n");
        finish(fd);
    });
    const SkRun result = runSk({QStringLiteral("status")});
    EXPECT_EQ(result.exitCode, sk::ExitConnectionLost);
    EXPECT_TRUE(result.err.startsWith("sk: Skelvo sent a message that is not a JSON object: this "
                                      "is not json"))
        << result.err.toStdString();
}

TEST(SkClient, NotRunningExitsWithThree)
{
    TestHome home;
    const SkRun missing = runSk({QStringLiteral("status")});
    EXPECT_EQ(missing.exitCode, sk::ExitNotRunning);
    EXPECT_EQ(missing.err, NotRunning);
    EXPECT_TRUE(missing.out.isEmpty());

    // A socket left behind by an application that is gone.
    {
        const std::string path = socketPath(home);
        QDir().mkpath(QString::fromStdString(runtimeFolder(home)));
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ::close(fd);
    }
    const SkRun stale = runSk({QStringLiteral("list"), QStringLiteral("--json")});
    EXPECT_EQ(stale.exitCode, sk::ExitNotRunning);
    EXPECT_EQ(stale.err, NotRunning);
}

TEST(SkClient, RuntimeFallbackIsUsedOnlyWhenItIsAPrivateFolderNamedByUid)
{
    TestHome home;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("SKELVO_HOME"));
    environment.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    environment.insert(QStringLiteral("TMPDIR"), home.path());
    const std::string root = QStringLiteral("%1/skelvo-runtime-%2")
                                 .arg(QFileInfo(home.path()).canonicalFilePath())
                                 .arg(::getuid())
                                 .toStdString();
    for (const mode_t mode : {0700, 0755}) {
        FakeServer server(root + "/skelvo/" + CmdLineProtocol::SocketName);
        ASSERT_EQ(::chmod(root.c_str(), mode), 0);
        server.serve([](int fd) {
            running(fd);
            respond(fd, "open");
            finish(fd);
        });
        const SkRun result = runSk({QStringLiteral("status")}, {}, skBinary(), environment);
        if (mode == 0700) {
            EXPECT_EQ(result.exitCode, sk::ExitSuccess) << result.err.toStdString();
            EXPECT_EQ(result.out, "open\n");
        } else {
            EXPECT_EQ(result.exitCode, sk::ExitNotRunning);
            EXPECT_EQ(result.err.toStdString(),
                      "sk: refusing the runtime folder " + root + ": its mode is not 0700\n");
            // Unblock the server's wait: connect once as the test.
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const std::string path = root + "/skelvo/" + CmdLineProtocol::SocketName;
            std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
            ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
            ::close(fd);
            EXPECT_EQ(server.request(), "") << "sk sent a request into an unsafe folder";
        }
    }
}

TEST(SkClient, ServerOfAnotherUserIsToldNothing)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to listen as another user";
    }
    TestHome home;
    FakeServer server(socketPath(home), 65534);
    server.serve([](int fd) {
        running(fd);
        finish(fd);
    });
    const SkRun result = runSk({QStringLiteral("status")});
    EXPECT_EQ(result.exitCode, sk::ExitNotRunning);
    EXPECT_EQ(result.err.toStdString(), socketPath(home).insert(0, "sk: ") +
                                            " belongs to user 65534, not to you; nothing "
                                            "was sent\n");
    EXPECT_EQ(server.request(), "");
}

TEST(SkClient, LockThatNobodyHoldsDoesNotMakeItWait)
{
    TestHome home;
    home.writeFile(QStringLiteral("runtime/skelvo/skelvo.lock"), {});
    const SkRun result = runSk({QStringLiteral("status")});
    EXPECT_EQ(result.exitCode, sk::ExitNotRunning);
    EXPECT_EQ(result.err, NotRunning);
    EXPECT_LT(result.milliseconds, 2000);
}

TEST(SkClient, UsageErrorsSendNothing)
{
    TestHome home;
    FakeServer server(socketPath(home));
    const SkRun result = runSk({QStringLiteral("cancel"), QStringLiteral("first")});
    EXPECT_EQ(result.exitCode, sk::ExitUsage);
    EXPECT_EQ(result.err, "sk: cancel: INDEX must be a whole number, not 'first'.\n");
    EXPECT_TRUE(result.out.isEmpty());
    const SkRun missing = runSk({QStringLiteral("switch-grid")});
    EXPECT_EQ(missing.exitCode, sk::ExitUsage);
    EXPECT_EQ(missing.err, "sk: switch-grid: needs NAME. Usage: sk switch-grid NAME\n");
    const SkRun raw = runSk({QStringLiteral("request"), QStringLiteral("[]")});
    EXPECT_EQ(raw.exitCode, sk::ExitUsage);
}

TEST(SkClient, EveryCommandHasHelp)
{
    const SkRun overview = runSk({QStringLiteral("--help")});
    EXPECT_EQ(overview.exitCode, 0);
    for (const sk::Command& command : sk::commands()) {
        const QString name = QString::fromUtf8(command.name.data(), command.name.size());
        const SkRun help = runSk({QStringLiteral("help"), name});
        EXPECT_EQ(help.exitCode, 0) << command.name;
        const QByteArray usage = "Usage: sk " + name.toUtf8();
        EXPECT_TRUE(help.out.startsWith(usage)) << help.out.toStdString();
        for (const sk::Option& option : command.options) {
            EXPECT_TRUE(
                help.out.contains("\n  " + QByteArray(option.flag.data(),
                                                      static_cast<qsizetype>(option.flag.size()))))
                << command.name << " " << option.flag;
        }
        const SkRun flag = runSk({name, QStringLiteral("--help")});
        EXPECT_EQ(flag.exitCode, 0) << command.name;
        EXPECT_EQ(flag.out, help.out) << command.name;
        EXPECT_TRUE(overview.out.contains("\n  " + name.toUtf8() + "   ")) << command.name;
    }
}

// --- starting the application ---

// A stand-in for `skelvo`: holds the lock like the application, records how it was started,
// waits FAKE_SKELVO_DELAY seconds before it listens, then answers one request and ends.
const char* const FakeSkelvo = R"(#!/usr/bin/env python3
import fcntl, json, os, socket, struct, sys, time
home = os.environ["SKELVO_HOME"]
folder = os.path.join(home, "runtime", "skelvo")
os.makedirs(folder, exist_ok=True)
lock = open(os.path.join(folder, "skelvo.lock"), "w")
# struct flock: type, whence, start, length (0: the whole file), pid (0 for OFD locks)
fcntl.fcntl(lock, fcntl.F_OFD_SETLK, struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
with open(os.path.join(home, "started.json"), "w") as f:
    json.dump({"arguments": sys.argv[1:], "pid": os.getpid(), "sid": os.getsid(0),
               "stdin": os.readlink("/proc/self/fd/0")}, f)
print("fake skelvo starting", flush=True)
time.sleep(float(os.environ.get("FAKE_SKELVO_DELAY", "0.3")))
path = os.path.join(folder, "skelvo.sock")
server = socket.socket(socket.AF_UNIX)
server.bind(path)
server.listen(1)
server.settimeout(20)
try:
    connection, _ = server.accept()
    data = b""
    while not data.endswith(b"\n"):
        chunk = connection.recv(65536)
        if not chunk:
            break
        data += chunk
    action = json.loads(data)["userInfo"]["action"]
    answer = "closed" if action == "status" else "Error: Unknown command: " + action
    for message in ({"name": "SkelvoRunCmdLineRunning"},
                    {"name": "SkelvoRunCmdLineResponse", "userInfo": {"response": answer}},
                    {"name": "SkelvoRunCmdLineFinish"}):
        connection.sendall((json.dumps(message) + "\n").encode())
    connection.close()
finally:
    os.unlink(path)
)";

// A folder with a copy of sk and, when given, a `skelvo` beside it.
class Installation {
public:
    explicit Installation(const QByteArray& skelvo = {})
    {
        const QString bin = QDir(m_dir.path()).filePath(QStringLiteral("bin"));
        QDir().mkpath(bin);
        m_sk = QDir(bin).filePath(QStringLiteral("sk"));
        EXPECT_TRUE(QFile::copy(skBinary(), m_sk));
        if (!skelvo.isEmpty()) {
            QFile file(QDir(bin).filePath(QStringLiteral("skelvo")));
            EXPECT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(skelvo);
            file.close();
            file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        }
        QDir().mkpath(emptyFolder());
    }

    QString program() const { return m_sk; }
    QString skelvo() const { return QFileInfo(m_sk).absolutePath() + QStringLiteral("/skelvo"); }
    QString emptyFolder() const { return QDir(m_dir.path()).filePath(QStringLiteral("empty")); }

private:
    QTemporaryDir m_dir;
    QString m_sk;
};

bool processGone(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) {
        return true;
    }
    const QByteArray text = stat.readAll();
    const qsizetype close = text.lastIndexOf(')');
    return close < 0 || text.mid(close + 2, 1) == "Z";
}

// Waits for a process the test did not start to end, and ends it if it does not.
void awaitEnd(qint64 pid)
{
    QElapsedTimer timer;
    timer.start();
    while (!processGone(pid) && timer.elapsed() < 5000) {
        std::this_thread::sleep_for(20ms);
    }
    if (!processGone(pid)) {
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        ADD_FAILURE() << "the started application did not end";
    }
}

nlohmann::json readJson(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return nlohmann::json::parse(file.readAll().toStdString(), nullptr, false);
}

TEST(SkStart, StartsTheApplicationHeadlessInItsOwnSessionAndWaitsForIt)
{
    TestHome home;
    Installation installation(FakeSkelvo);
    const SkRun result =
        runSk({QStringLiteral("--start"), QStringLiteral("status")}, {}, installation.program());
    EXPECT_EQ(result.exitCode, sk::ExitSuccess) << result.err.toStdString();
    EXPECT_EQ(result.out, "closed\n");
    EXPECT_TRUE(result.err.isEmpty()) << result.err.toStdString();

    const nlohmann::json started =
        readJson(QDir(home.path()).filePath(QStringLiteral("started.json")));
    ASSERT_TRUE(started.is_object());
    EXPECT_EQ(started["arguments"], nlohmann::json::array({"--headless"}));
    EXPECT_EQ(started["sid"], started["pid"]) << "a session of its own";
    EXPECT_EQ(started["stdin"], "/dev/null");
    QFile log(QString::fromStdString(runtimeFolder(home) + "/skelvo-headless.log"));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains("fake skelvo starting"));
    awaitEnd(started["pid"].get<qint64>());
}

TEST(SkStart, LogIsNeverOpenedThroughALink)
{
    TestHome home;
    Installation installation(FakeSkelvo);
    const QString target = home.writeFile(QStringLiteral("elsewhere.txt"), {});
    QDir().mkpath(QString::fromStdString(runtimeFolder(home)));
    const QString log = QString::fromStdString(runtimeFolder(home) + "/skelvo-headless.log");
    ASSERT_TRUE(QFile::link(target, log));
    const SkRun result =
        runSk({QStringLiteral("--start"), QStringLiteral("status")}, {}, installation.program());
    EXPECT_EQ(result.exitCode, sk::ExitAppNotStarted);
    EXPECT_EQ(result.err.toStdString(), "sk: cannot open the log " + log.toStdString() +
                                            ": Too many levels of symbolic links\n");
    EXPECT_EQ(QFileInfo(target).size(), 0);
    const nlohmann::json started =
        readJson(QDir(home.path()).filePath(QStringLiteral("started.json")));
    if (started.is_object()) {
        awaitEnd(started["pid"].get<qint64>());
    }
}

TEST(SkStart, RunningApplicationIsUsedAsItIs)
{
    TestHome home;
    Installation installation(FakeSkelvo);
    FakeServer server(socketPath(home));
    server.serve([](int fd) {
        running(fd);
        respond(fd, "open");
        finish(fd);
    });
    const SkRun result =
        runSk({QStringLiteral("--start"), QStringLiteral("status")}, {}, installation.program());
    EXPECT_EQ(result.exitCode, sk::ExitSuccess) << result.err.toStdString();
    EXPECT_EQ(result.out, "open\n");
    EXPECT_FALSE(QFile::exists(QDir(home.path()).filePath(QStringLiteral("started.json"))));
}

TEST(SkStart, ApplicationThatFailsToStartIsReported)
{
    TestHome home;
    Installation installation("#!/bin/sh\necho cannot open the database >&2\nexit 3\n");
    const SkRun result =
        runSk({QStringLiteral("--start"), QStringLiteral("status")}, {}, installation.program());
    EXPECT_EQ(result.exitCode, sk::ExitNotRunning);
    const std::string log = runtimeFolder(home) + "/skelvo-headless.log";
    EXPECT_EQ(result.err.toStdString(),
              "sk: skelvo --headless ended (exit status 3) before it was ready; see " + log + "\n");
    EXPECT_LT(result.milliseconds, 5000);
    QFile file(QString::fromStdString(log));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "cannot open the database\n");
}

TEST(SkStart, NoApplicationToStart)
{
    TestHome home;
    Installation installation; // sk alone, and nothing on PATH
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"), installation.emptyFolder());
    const SkRun result = runSk({QStringLiteral("--start"), QStringLiteral("status")}, {},
                               installation.program(), environment);
    EXPECT_EQ(result.exitCode, sk::ExitAppNotStarted);
    EXPECT_EQ(result.err, "sk: cannot start the Skelvo application (skelvo beside sk or on PATH): "
                          "No such file or directory\n");

    const SkRun withoutStart =
        runSk({QStringLiteral("status")}, {}, installation.program(), environment);
    EXPECT_EQ(withoutStart.exitCode, sk::ExitNotRunning);
    EXPECT_EQ(withoutStart.err, NotRunning);
}

TEST(SkStart, WaitsForAnApplicationThatIsStarting)
{
    TestHome home;
    Installation installation(FakeSkelvo);
    QProcess app;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("FAKE_SKELVO_DELAY"), QStringLiteral("1.0"));
    app.setProcessEnvironment(environment);
    app.start(installation.skelvo(), {QStringLiteral("--headless")});
    ASSERT_TRUE(app.waitForStarted(10000));
    // It records its start once it holds the lock.
    const QString started = QDir(home.path()).filePath(QStringLiteral("started.json"));
    QElapsedTimer timer;
    timer.start();
    while (!QFile::exists(started) && timer.elapsed() < 10000) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(QFile::exists(started));
    ASSERT_FALSE(QFile::exists(QString::fromStdString(socketPath(home))));

    // Without --start: a held lock is worth the wait.
    const SkRun result = runSk({QStringLiteral("status")});
    EXPECT_EQ(result.exitCode, sk::ExitSuccess) << result.err.toStdString();
    EXPECT_EQ(result.out, "closed\n");
    EXPECT_TRUE(app.waitForFinished(10000));
}

} // namespace
