// The built sk where no real application can help: no application at all, a listener that
// misbehaves, an unsafe runtime folder, and the start of an application.
#include "cli/Commands.h"
#include "core/CmdLineProtocol.h"
#include "tests/support/HeadlessApp.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstring>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

const QString NotRunning = QStringLiteral(
    "sk: Skelvo is not running (start it with `skelvo --headless &` or use `sk --start …`)\n");

std::string line(const char* name, const char* response = nullptr)
{
    nlohmann::json message{{"name", name}};
    if (response) {
        message["userInfo"] = {{"response", response}};
    }
    return message.dump() + "\n";
}

// Listens where the application would, as `listenAs` (needs root to differ), and answers one
// connection with `reply`, a few bytes a write; then, when `holdOpen`, keeps the connection
// until sk closes it.
class FakeListener {
public:
    FakeListener(const QString& socketPath, std::string reply, bool holdOpen = false,
                 uid_t listenAs = ::geteuid())
    {
        QDir().mkpath(QFileInfo(socketPath).absolutePath());
        m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.toUtf8().constData(),
                     sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        // For this thread only, as the raw system call does it.
        const uid_t self = ::geteuid();
        ::syscall(SYS_setresuid, -1, listenAs, -1);
        ::listen(m_listener, 4);
        ::syscall(SYS_setresuid, -1, self, -1);
        m_thread = std::thread([this, reply = std::move(reply), holdOpen] {
            pollfd listener{m_listener, POLLIN, 0};
            const int fd =
                ::poll(&listener, 1, 10000) == 1 ? ::accept(m_listener, nullptr, nullptr) : -1;
            char c = 0;
            while (fd >= 0 && ::read(fd, &c, 1) == 1 && c != '\n') {
                m_request += c;
            }
            for (size_t i = 0; fd >= 0 && i < reply.size(); i += 7) {
                ::send(fd, reply.data() + i, std::min<size_t>(7, reply.size() - i), MSG_NOSIGNAL);
                std::this_thread::sleep_for(1ms);
            }
            pollfd closed{fd, POLLIN, 0};
            if (holdOpen) {
                ::poll(&closed, 1, 10000);
            }
            ::close(fd);
        });
    }
    ~FakeListener()
    {
        request();
        ::close(m_listener);
    }
    std::string request()
    {
        if (m_thread.joinable()) {
            m_thread.join();
        }
        return m_request;
    }

private:
    int m_listener = -1;
    std::thread m_thread;
    std::string m_request;
};

TEST(SkClient, ListenerFailuresAndTheFinish)
{
    const char* Running = CmdLineProtocol::Running;
    const char* Response = CmdLineProtocol::Response;
    const char* Finish = CmdLineProtocol::Finish;
    struct Row {
        std::string reply;
        int status;
        QString out;
        QString err;
    };
    const Row rows[] = {
        {"",
         sk::ExitConnectionLost,
         {},
         "sk: the connection to Skelvo ended before the request finished\n"},
        {line(Running) + line(Response, "Copying"), sk::ExitConnectionLost, "Copying\n",
         "sk: the connection to Skelvo ended before the request finished\n"},
        {line(Running) + "this is not json\n" + line(Finish),
         sk::ExitConnectionLost,
         {},
         "sk: Skelvo sent a message that is not a JSON object: this is not json"},
        // sk ends at the finish, not when the connection closes.
        {line(Running) + line(Response, "caf\xc3\xa9 open") + line(Finish) +
             line(Response, "after the finish"),
         sk::ExitSuccess,
         "café open\n",
         {}},
    };
    for (const Row& row : rows) {
        HeadlessApp home;
        FakeListener listener(home.path("runtime/skelvo/skelvo.sock"), row.reply,
                              row.status == sk::ExitSuccess);
        QElapsedTimer timer;
        timer.start();
        const SkResult result = home.sk({"status"});
        EXPECT_LT(timer.elapsed(), 5000);
        EXPECT_EQ(result.status, row.status) << row.reply;
        EXPECT_EQ(result.out, row.out);
        EXPECT_TRUE(result.err.startsWith(row.err)) << result.err;
        EXPECT_EQ(listener.request(),
                  R"({"name":"SkelvoRunCmdLineTask","userInfo":{"action":"status","cwd":")" +
                      QFileInfo(home.path()).canonicalFilePath().toStdString() + "\"}}");
    }
}

TEST(SkClient, ListenerOfAnotherUserIsToldNothing)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to listen as another user";
    }
    HeadlessApp home;
    const QString socket = home.path("runtime/skelvo/skelvo.sock");
    FakeListener listener(socket, line(CmdLineProtocol::Finish), false, 65534);
    const SkResult result = home.sk({"status"});
    EXPECT_EQ(result.status, sk::ExitNotRunning);
    EXPECT_EQ(result.err, QStringLiteral("sk: %1 belongs to user 65534, not to you; nothing was "
                                         "sent\n")
                              .arg(socket));
    EXPECT_EQ(listener.request(), "");
}

TEST(SkClient, WithoutAnApplication)
{
    HeadlessApp home;
    EXPECT_EQ(home.sk({"status"}).err, NotRunning);
    // A lock that nobody holds is not worth a wait.
    home.writeFile("runtime/skelvo/skelvo.lock", {});
    QElapsedTimer timer;
    timer.start();
    const SkResult result = home.sk({"list", "--json"});
    EXPECT_EQ(result.status, sk::ExitNotRunning);
    EXPECT_EQ(result.err, NotRunning);
    EXPECT_LT(timer.elapsed(), 2000);
}

// sk finds the application's socket where it listens: in the runtime folder of the session,
// or else in a private folder named by uid in the temporary folder (its links resolved).
TEST(SkClient, RuntimeFoldersAgreeWithTheApplication)
{
    HeadlessApp app;
    app.environment().remove("SKELVO_HOME");
    ASSERT_TRUE(QFile::link(app.path(), app.path("link")));
    app.environment().insert("TMPDIR", app.path("link"));
    ASSERT_TRUE(app.start());
    const QString root = QStringLiteral("%1/skelvo-runtime-%2")
                             .arg(QFileInfo(app.path()).canonicalFilePath())
                             .arg(::getuid());
    ASSERT_EQ(::chmod(root.toUtf8().constData(), 0755), 0);
    const SkResult refused = app.sk({"status"});
    EXPECT_EQ(refused.status, sk::ExitNotRunning);
    EXPECT_EQ(
        refused.err,
        QStringLiteral("sk: refusing the runtime folder %1: its mode is not 0700\n").arg(root));
    ASSERT_EQ(::chmod(root.toUtf8().constData(), 0700), 0);
    EXPECT_EQ(app.sk({"status"}).out, "closed\n");

    ASSERT_TRUE(app.stop());
    ASSERT_TRUE(QDir(app.path()).mkdir("xdg"));
    app.environment().insert("XDG_RUNTIME_DIR", app.path("xdg"));
    ASSERT_TRUE(app.start());
    EXPECT_TRUE(QFileInfo::exists(app.path("xdg/skelvo/skelvo.sock")));
}

TEST(SkClient, EveryCommandHasHelp)
{
    HeadlessApp home;
    for (const sk::Command& command : sk::commands()) {
        const QString name = QString::fromUtf8(command.name.data(), command.name.size());
        const SkResult help = home.sk({"help", name});
        EXPECT_TRUE(help.out.startsWith("Usage: sk " + name)) << command.name;
        EXPECT_EQ(home.sk({name, "--help"}).out, help.out) << command.name;
    }
}

// --- starting the application ---

// A stand-in for `skelvo` beside a copy of sk: holds the lock as the application does (once
// an earlier stand-in has ended), records how it was started, waits FAKE_SKELVO_DELAY
// seconds before it listens, then answers one request and ends.
const char* const FakeSkelvo = R"(#!/usr/bin/env python3
import fcntl, json, os, socket, struct, sys, time
home = os.environ["SKELVO_HOME"]
folder = os.path.join(home, "runtime", "skelvo")
os.makedirs(folder, exist_ok=True)
lock = open(os.path.join(folder, "skelvo.lock"), "w")
# struct flock: type, whence, start, length (0: the whole file), pid (0 for OFD locks)
fcntl.fcntl(lock, fcntl.F_OFD_SETLKW, struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
with open(os.path.join(home, "started.json"), "w") as f:
    json.dump({"arguments": sys.argv[1:], "pid": os.getpid(), "sid": os.getsid(0),
               "stdin": os.readlink("/proc/self/fd/0")}, f)
print("fake skelvo starting", flush=True)
time.sleep(float(os.environ.get("FAKE_SKELVO_DELAY", "0.3")))
server = socket.socket(socket.AF_UNIX)
server.bind(os.path.join(folder, "skelvo.sock"))
server.listen(1)
server.settimeout(20)
connection, _ = server.accept()
while not connection.recv(65536).endswith(b"\n"):
    pass
for message in ({"name": "SkelvoRunCmdLineRunning"},
                {"name": "SkelvoRunCmdLineResponse", "userInfo": {"response": "closed"}},
                {"name": "SkelvoRunCmdLineFinish"}):
    connection.sendall((json.dumps(message) + "\n").encode())
os.unlink(os.path.join(folder, "skelvo.sock"))
)";

// A folder with a copy of sk and, when given, a `skelvo` beside it.
class Installation {
public:
    explicit Installation(const QByteArray& skelvo = {})
    {
        QFile::copy(QStringLiteral(SK_BINARY), sk());
        if (!skelvo.isEmpty()) {
            QFile file(m_dir.filePath("skelvo"));
            EXPECT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(skelvo);
            file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        }
    }
    QString sk() const { return m_dir.filePath("sk"); }
    QString path() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
};

SkResult runSk(const QString& program, const QStringList& arguments,
               const QProcessEnvironment& environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    process.waitForFinished(30000);
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

nlohmann::json startRecord(const HeadlessApp& home)
{
    QFile file(home.path("started.json"));
    return file.open(QIODevice::ReadOnly)
               ? nlohmann::json::parse(file.readAll().toStdString(), nullptr, false)
               : nlohmann::json();
}

TEST(SkStart, StartsTheApplicationHeadlessInItsOwnSessionOrWaitsForOneStarting)
{
    HeadlessApp home;
    Installation installation(FakeSkelvo);
    const SkResult result = runSk(installation.sk(), {"--start", "status"}, home.environment());
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "closed\n");
    const nlohmann::json started = startRecord(home);
    EXPECT_EQ(started["arguments"], nlohmann::json::array({"--headless"}));
    EXPECT_EQ(started["sid"], started["pid"]) << "a session of its own";
    EXPECT_EQ(started["stdin"], "/dev/null");
    QFile log(home.path("runtime/skelvo/skelvo-headless.log"));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains("fake skelvo starting"));

    // Started by someone else and not listening yet: without --start, a held lock is worth
    // the wait.
    QFile::remove(home.path("started.json"));
    QProcess app;
    home.environment().insert("FAKE_SKELVO_DELAY", "1.0");
    app.setProcessEnvironment(home.environment());
    app.start(installation.path() + "/skelvo", {"--headless"});
    // It records its start once it holds the lock.
    ASSERT_TRUE(HeadlessApp::waitUntil([&] { return startRecord(home).is_object(); }));
    ASSERT_FALSE(QFile::exists(home.path("runtime/skelvo/skelvo.sock")));
    EXPECT_EQ(home.sk({"status"}).out, "closed\n");
    EXPECT_TRUE(app.waitForFinished(10000));
}

TEST(SkStart, ApplicationThatCannotStart)
{
    HeadlessApp home;
    const QString log = home.path("runtime/skelvo/skelvo-headless.log");
    Installation failing("#!/bin/sh\necho cannot open the database >&2\nexit 3\n");
    Installation alone; // and nothing on the PATH
    QProcessEnvironment noPath = home.environment();
    noPath.insert("PATH", alone.path() + "/empty");
    const QStringList start{"--start", "status"};

    SkResult result = runSk(failing.sk(), start, home.environment());
    EXPECT_EQ(result.status, sk::ExitNotRunning);
    EXPECT_EQ(result.err, QStringLiteral("sk: skelvo --headless ended (exit status 3) before it "
                                         "was ready; see %1\n")
                              .arg(log));
    QFile file(log);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "cannot open the database\n");

    result = runSk(alone.sk(), start, noPath);
    EXPECT_EQ(result.status, sk::ExitAppNotStarted);
    EXPECT_EQ(result.err, QStringLiteral("sk: cannot start the Skelvo application (skelvo beside "
                                         "sk or on PATH): No such file or directory\n"));

    // The log is never opened through a link.
    const QString target = home.writeFile("elsewhere.txt", {});
    QFile::remove(log);
    ASSERT_TRUE(QFile::link(target, log));
    result = runSk(failing.sk(), start, home.environment());
    EXPECT_EQ(result.status, sk::ExitAppNotStarted);
    EXPECT_EQ(result.err, QStringLiteral("sk: cannot open the log %1: Too many levels of symbolic "
                                         "links\n")
                              .arg(log));
    EXPECT_EQ(QFileInfo(target).size(), 0);
}

} // namespace
