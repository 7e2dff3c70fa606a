// "SFTP Upload" through the real sk and application against real SSH servers on loopback.
#include "tests/support/HeadlessApp.h"
#include "tests/support/SshServers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace {

const char* const ZipRefusal =
    "You can only drop multiple files or a folder which will be zipped and uploaded.\n\nYou "
    "cannot currently drop multiple folders or a mix of files/folders when zipping.";

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QByteArray randomBytes(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(data.data()), size / 4);
    return data;
}

QString fingerprintOf(const QString& publicKey)
{
    QByteArray out;
    SshServer::run(QStringLiteral("ssh-keygen"), {QStringLiteral("-lf"), publicKey}, &out);
    return QString::fromUtf8(out.split(' ').value(1));
}

// Kills every process below the sshd that was started with `config`, as a dropped connection
// would end them, and leaves that sshd listening.
void cutConnections(const QString& config)
{
    QHash<qint64, qint64> parents;
    QList<qint64> started; // by the test, with `config` on their command lines
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool number = false;
        const qint64 pid = entry.toLongLong(&number);
        if (!number) {
            continue;
        }
        const QString folder = QStringLiteral("/proc/") + entry;
        // "pid (name) state ppid ..."; the name may hold spaces.
        const QByteArray stat = contents(folder + QStringLiteral("/stat"));
        parents.insert(pid, stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(1).toLongLong());
        if (contents(folder + QStringLiteral("/cmdline")).contains(config.toUtf8())) {
            started << pid;
        }
    }
    QList<qint64> below;
    for (const qint64 pid : started) {
        if (!started.contains(parents.value(pid))) {
            below << pid; // the listener itself stays
        }
    }
    for (qsizetype at = 0; at < below.size(); ++at) {
        for (auto it = parents.cbegin(); it != parents.cend(); ++it) {
            if (it.value() == below[at]) {
                below << it.key();
                ::kill(pid_t(it.key()), SIGKILL);
            }
        }
    }
}

class SftpUploadTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        folder = new QTemporaryDir;
        const auto server = [](SshServer::Kind kind, const char* name,
                               SshServer::Faults faults = {}) {
            auto made = std::make_unique<SshServer>(
                kind, QDir(folder->path()).filePath(QString::fromUtf8(name)), faults);
            EXPECT_TRUE(made->start()) << made->error().toStdString();
            return made.release();
        };
        sshd = server(SshServer::Kind::OpenSsh, "sshd");
        paramiko = server(SshServer::Kind::Paramiko, "paramiko", {-1, -1, "locked"});
        dropping = server(SshServer::Kind::Paramiko, "drop", {1 << 20, -1, {}});
        stalling = server(SshServer::Kind::Paramiko, "stall", {-1, 256 << 10, {}});
        QDir(paramiko->root()).mkpath(QStringLiteral("locked"));

        app = new HeadlessApp;
        app->environment().insert(QStringLiteral("SKELVO_SSH_STALL_SECONDS"), QStringLiteral("2"));
        ASSERT_TRUE(app->start());
        // The user already knows sshd, hashed and with its port, as OpenSSH records it.
        const QString knownHosts =
            app->writeFile(QStringLiteral(".ssh/known_hosts"),
                           QStringLiteral("[127.0.0.1]:%1 ").arg(sshd->port()).toUtf8() +
                               contents(sshd->hostKey() + QStringLiteral(".pub")));
        ASSERT_TRUE(SshServer::run(QStringLiteral("ssh-keygen"),
                                   {QStringLiteral("-H"), QStringLiteral("-f"), knownHosts}));

        const QString key = sshd->clientKey();
        const QString up = QDir(sshd->root()).filePath(QStringLiteral("up"));
        const QString login = QStringLiteral("server=127.0.0.1 username=") + SshServer::user();
        const struct {
            const char* name;
            QString options;
        } actions[] = {
            {"Key", login + QStringLiteral(" port=%1 path=%2 path_secondary=%2.pub remote_path=%3 "
                                           "root_url=https://example.com/up/")
                                .arg(sshd->port())
                                .arg(key, up)},
            {"Nested",
             login + QStringLiteral(" port=%1 path=%2 path_secondary=%2.pub remote_path=%3")
                         .arg(sshd->port())
                         .arg(key, QDir(sshd->root()).filePath(QStringLiteral("new/a/b")))},
            {"NoKey", login + QStringLiteral(" port=%1 path=%2/gone path_secondary=%2/gone.pub "
                                             "remote_path=%3")
                                  .arg(sshd->port())
                                  .arg(folder->path(), up)},
            {"Pw", login + QStringLiteral(" port=%1 password=%2 remote_path=pw root_url=https://"
                                          "example.com")
                               .arg(paramiko->port())
                               .arg(SshServer::password())},
            // Another server name: logins to the same server and user share their password.
            {"PwWrong", QStringLiteral("server=localhost username=%1 port=%2 password=wrong "
                                       "remote_path=pw")
                            .arg(SshServer::user())
                            .arg(paramiko->port())},
            {"Locked", login + QStringLiteral(" port=%1 password=%2 remote_path=locked")
                                   .arg(paramiko->port())
                                   .arg(SshServer::password())},
            {"LockedSub", login + QStringLiteral(" port=%1 password=%2 remote_path=locked/sub")
                                      .arg(paramiko->port())
                                      .arg(SshServer::password())},
            {"Drop", login + QStringLiteral(" port=%1 password=%2")
                                 .arg(dropping->port())
                                 .arg(SshServer::password())},
            {"Stall", login + QStringLiteral(" port=%1 password=%2")
                                  .arg(stalling->port())
                                  .arg(SshServer::password())},
        };
        for (const auto& action : actions) {
            const SkResult added =
                app->sk(QStringList{QStringLiteral("add-action"), QStringLiteral("SFTP Upload"),
                                    QStringLiteral("--name"), QString::fromUtf8(action.name),
                                    QStringLiteral("--options")} +
                        action.options.split(u' '));
            ASSERT_EQ(added.status, 0) << added.err;
        }
        app->writeFile(QStringLiteral("files/one file.bin"), randomBytes(3 << 20));
        app->writeFile(QStringLiteral("files/big.bin"), randomBytes(4 << 20));
        // More than the requests in flight at once, and not a whole number of them.
        app->writeFile(QStringLiteral("files/odd.bin"), randomBytes((9 << 20) + 12344));
        // Long enough on loopback to still be under way when the test cuts the connection.
        app->writeFile(QStringLiteral("files/huge.bin"), randomBytes(128 << 20));
        for (const char* name : {"a.txt", "b.txt", "c.txt"}) {
            app->writeFile(QStringLiteral("files/") + QString::fromUtf8(name),
                           QByteArray("contents of ") + name);
        }
        app->writeFile(QStringLiteral("files/dir1/x.txt"), "x");
        app->writeFile(QStringLiteral("files/dir2/y.txt"), "y");
    }

    static void TearDownTestSuite()
    {
        if (app) {
            EXPECT_TRUE(app->stop());
        }
        for (SshServer* server : {sshd, paramiko, dropping, stalling}) {
            delete server;
        }
        delete app;
        delete folder;
    }

    static SkResult run(const QString& action, const QStringList& files,
                        const QStringList& extra = {})
    {
        QStringList arguments{QStringLiteral("run"), action};
        for (const QString& file : files) {
            arguments << app->path(QStringLiteral("files/") + file);
        }
        return app->sk(arguments + extra);
    }

    static inline QTemporaryDir* folder = nullptr;
    static inline HeadlessApp* app = nullptr;
    static inline SshServer* sshd = nullptr;
    static inline SshServer* paramiko = nullptr;
    static inline SshServer* dropping = nullptr;
    static inline SshServer* stalling = nullptr;
};

TEST_F(SftpUploadTest, ConnectionTestsAndTrustOnFirstUse)
{
    const QString marker =
        QStringLiteral("First connection to [127.0.0.1]:%1: its host key ").arg(paramiko->port());
    const struct {
        const char* action;
        int status;
        const char* out;
        const char* err;
    } rows[] = {
        {"Pw", 0, "Connection Successful: SFTP connection succeeded.\n", ""},
        {"Pw", 0, "Connection Successful: SFTP connection succeeded.\n", ""},
        {"PwWrong", 1, "", "Error: Connection Failed: Authentication failed: the password for"},
        {"Key", 0, "Connection Successful: SFTP connection succeeded.\n", ""},
    };
    for (const auto& row : rows) {
        const SkResult result =
            app->sk({QStringLiteral("run"), QString::fromUtf8(row.action),
                     QStringLiteral("--event"), QStringLiteral("test_connection")});
        EXPECT_EQ(result.status, row.status) << row.action << result.err;
        EXPECT_EQ(result.out, QString::fromUtf8(row.out)) << row.action;
        EXPECT_TRUE(result.err.startsWith(QString::fromUtf8(row.err))) << result.err;
    }
    // Recorded once with OpenSSH's fingerprint; sshd was known from the user's hashed entry.
    const QString fingerprint = fingerprintOf(paramiko->hostKey() + QStringLiteral(".pub"));
    ASSERT_TRUE(fingerprint.startsWith(QStringLiteral("SHA256:")));
    EXPECT_EQ(app->console().count(marker + fingerprint + QStringLiteral(" was recorded.")), 1)
        << app->console();
    EXPECT_FALSE(app->console().contains(QStringLiteral("]:%1:").arg(sshd->port())));
}

TEST_F(SftpUploadTest, UploadsAndTheirFailures)
{
    const QString up = QDir(sshd->root()).filePath(QStringLiteral("up"));
    const auto same = [](const QString& remote, const char* local) {
        return contents(remote) == contents(app->path(QStringLiteral("files/") + local));
    };
    const auto unzipped = [](const QString& archive, const char* entry) {
        QByteArray out;
        SshServer::run(QStringLiteral("unzip"),
                       {QStringLiteral("-p"), archive, QString::fromUtf8(entry)}, &out);
        return out;
    };
    const struct {
        const char* action;
        QStringList files;
        bool option;
        int status;
        const char* out; // all of it
        const char* err; // a part of it
        std::function<bool()> remote;
        bool cut = false; // the connection drops once a few MiB have arrived
    } rows[] = {
        {"Key",
         {"one file.bin"},
         false,
         0,
         "https://example.com/up/one%20file.bin\n",
         "",
         [&] {
             return same(up + QStringLiteral("/one file.bin"), "one file.bin") &&
                    app->log().contains(
                        QStringLiteral("Clipboard: https://example.com/up/one%20file.bin"));
         }},
        // Again: the existing file is replaced.
        {"Key",
         {"one file.bin"},
         false,
         0,
         "https://example.com/up/one%20file.bin\n",
         "",
         [&] { return same(up + QStringLiteral("/one file.bin"), "one file.bin"); }},
        {"Key",
         {"odd.bin"},
         false,
         0,
         "https://example.com/up/odd.bin\n",
         "",
         [&] { return same(up + QStringLiteral("/odd.bin"), "odd.bin"); }},
        {"Key",
         {"a.txt", "b.txt"},
         false,
         0,
         "Upload Complete\n",
         "",
         [&] {
             return same(up + QStringLiteral("/a.txt"), "a.txt") &&
                    same(up + QStringLiteral("/b.txt"), "b.txt");
         }},
        {"Key",
         {"a.txt", "b.txt", "c.txt"},
         true,
         0,
         "https://example.com/up/files.zip\n",
         "",
         [&] {
             const QString archive = up + QStringLiteral("/files.zip");
             return unzipped(archive, "a.txt") == "contents of a.txt" &&
                    unzipped(archive, "c.txt") == "contents of c.txt";
         }},
        {"Key",
         {"dir1", "dir2"},
         true,
         1,
         "",
         ZipRefusal,
         [&] { return QDir(up).entryList(QDir::Files).size() == 5; }},
        {"Key",
         {"dir1"},
         true,
         0,
         "https://example.com/up/dir1.zip\n",
         "",
         [&] { return unzipped(up + QStringLiteral("/dir1.zip"), "x.txt") == "x"; }},
        {"Nested",
         {"a.txt"},
         false,
         0,
         "Upload Complete\n",
         "",
         [&] { return same(sshd->root() + QStringLiteral("/new/a/b/a.txt"), "a.txt"); }},
        {"NoKey",
         {"c.txt"},
         false,
         1,
         "",
         "/gone does not exist.",
         [&] { return !QFileInfo::exists(up + QStringLiteral("/c.txt")); }},
        {"Pw",
         {"a.txt"},
         false,
         0,
         "https://example.com/a.txt\n",
         "",
         [&] { return same(paramiko->root() + QStringLiteral("/pw/a.txt"), "a.txt"); }},
        {"PwWrong",
         {"b.txt"},
         false,
         1,
         "",
         "Authentication failed: the password for",
         [&] { return !QFileInfo::exists(paramiko->root() + QStringLiteral("/pw/b.txt")); }},
        {"Locked",
         {"a.txt"},
         false,
         1,
         "",
         "Error: Upload Failed: Failed to create file on remote at 'locked/a.txt'\n\nCheck your "
         "remote path setting is correct",
         [&] { return QDir(paramiko->root() + QStringLiteral("/locked")).isEmpty(); }},
        {"LockedSub",
         {"a.txt"},
         false,
         1,
         "",
         "Error: Create Directory Failed: Failed to create remote directory at path "
         "\"locked/sub\"\n\nCheck your remote path",
         [&] { return QDir(paramiko->root() + QStringLiteral("/locked")).isEmpty(); }},
        {"Drop",
         {"big.bin"},
         false,
         1,
         "",
         "Error: Upload Failed: Failed uploading to 'big.bin'",
         [&] { return !QFileInfo::exists(dropping->root() + QStringLiteral("/big.bin")); }},
        {"Stall",
         {"big.bin"},
         false,
         1,
         "",
         "stopped responding (no progress for 2 seconds)",
         [&] { return !QFileInfo::exists(stalling->root() + QStringLiteral("/big.bin")); }},
        // sshd's own large writes; then the same upload again, in full.
        {"Key",
         {"huge.bin"},
         false,
         1,
         "",
         "Failed uploading to 'UP/huge.bin'\n\nThe connection to 127.0.0.1 was lost (",
         [&] { return !QFileInfo::exists(up + QStringLiteral("/huge.bin")); },
         true},
        {"Key",
         {"huge.bin"},
         false,
         0,
         "https://example.com/up/huge.bin\n",
         "",
         [&] { return same(up + QStringLiteral("/huge.bin"), "huge.bin"); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.action) + " " + row.files.join(u' ').toStdString());
        std::atomic_bool finished = false;
        std::thread cutter([&] {
            const QString config =
                QDir(folder->path()).filePath(QStringLiteral("sshd/sshd_config"));
            while (row.cut && !finished) {
                const QFileInfoList parts = QDir(up).entryInfoList(
                    {QStringLiteral(".huge.bin.skelvo-*.part")}, QDir::Files | QDir::Hidden);
                if (!parts.isEmpty() && parts.first().size() > (4 << 20)) {
                    return cutConnections(config);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        const SkResult result =
            run(QString::fromUtf8(row.action), row.files,
                row.option ? QStringList{QStringLiteral("--modifier"), QStringLiteral("option")}
                           : QStringList{});
        finished = true;
        cutter.join();
        EXPECT_EQ(result.status, row.status) << result.err;
        EXPECT_EQ(result.out, QString::fromUtf8(row.out));
        EXPECT_TRUE(
            result.err.contains(QString::fromUtf8(row.err).replace(QStringLiteral("UP"), up)))
            << result.err;
        EXPECT_TRUE(row.remote());
    }
    // Nothing partial is left under a final name, and the temporary names are hidden.
    EXPECT_EQ(QDir(up).entryList(QDir::Files).size(), 7) << QDir(up).entryList().join(u',');
}

TEST_F(SftpUploadTest, AChangedHostKeyIsRefusedBeforeAnyUpload)
{
    const QString before = fingerprintOf(sshd->hostKey() + QStringLiteral(".pub"));
    ASSERT_TRUE(sshd->replaceHostKey()) << sshd->error();
    const QString after = fingerprintOf(sshd->hostKey() + QStringLiteral(".pub"));
    QFile::remove(QDir(sshd->root()).filePath(QStringLiteral("up/c.txt")));

    const SkResult result = run(QStringLiteral("Key"), {QStringLiteral("c.txt")});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(
        result.err.contains(QStringLiteral("The host key of [127.0.0.1]:%1 has changed: it was %2")
                                .arg(sshd->port())
                                .arg(before)))
        << result.err;
    EXPECT_TRUE(result.err.contains(QStringLiteral("is now ") + after)) << result.err;
    EXPECT_FALSE(QFileInfo::exists(QDir(sshd->root()).filePath(QStringLiteral("up/c.txt"))));
}

} // namespace
