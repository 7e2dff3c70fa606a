#include "tests/support/SshServers.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int freeLoopbackPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

} // namespace

SshServer::SshServer(Kind kind, const QString& folder, const Faults& faults)
    : m_kind(kind)
    , m_folder(folder)
    , m_root(QDir(folder).filePath(QStringLiteral("root")))
    , m_faults(faults)
{
    QDir().mkpath(m_root);
    m_process.setProcessChannelMode(QProcess::MergedChannels);
}

SshServer::~SshServer()
{
    stop();
}

QString SshServer::user()
{
    const passwd* entry = ::getpwuid(::geteuid());
    return entry ? QString::fromLocal8Bit(entry->pw_name) : qEnvironmentVariable("USER");
}

QString SshServer::clientKey() const
{
    return QDir(m_folder).filePath(QStringLiteral("client_key"));
}

QString SshServer::hostKey() const
{
    return QDir(m_folder).filePath(QStringLiteral("host_key"));
}

bool SshServer::run(const QString& program, const QStringList& arguments, QByteArray* out)
{
    QProcess process;
    process.start(program, arguments);
    const bool ok = process.waitForFinished(30000) &&
                    process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (out) {
        *out = process.readAllStandardOutput();
    }
    return ok;
}

bool SshServer::makeKey(const QString& path)
{
    QFile::remove(path);
    QFile::remove(path + QStringLiteral(".pub"));
    if (!run(QStringLiteral("ssh-keygen"),
             {QStringLiteral("-q"), QStringLiteral("-t"), QStringLiteral("ed25519"),
              QStringLiteral("-N"), QString(), QStringLiteral("-f"), path})) {
        m_error = QStringLiteral("ssh-keygen could not make ") + path;
        return false;
    }
    return true;
}

bool SshServer::waitForLine(const QByteArray& marker, QByteArray* line)
{
    QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired()) {
        m_output += m_process.readAll();
        const qsizetype at = m_output.indexOf(marker);
        if (at >= 0 && m_output.indexOf('\n', at) > at) {
            *line = m_output.mid(at, m_output.indexOf('\n', at) - at);
            return true;
        }
        if (m_process.state() == QProcess::NotRunning) {
            break;
        }
        m_process.waitForReadyRead(200);
    }
    m_error = QStringLiteral("the server did not start: ") + QString::fromUtf8(m_output);
    return false;
}

bool SshServer::start()
{
    if (!QFileInfo::exists(hostKey()) && !makeKey(hostKey())) {
        return false;
    }
    m_output.clear();
    QByteArray line;
    if (m_kind == Kind::Paramiko) {
        QStringList arguments{QDir(QStringLiteral(SKELVO_TEST_SUPPORT_DIR))
                                  .filePath(QStringLiteral("sftp_test_server.py")),
                              QStringLiteral("--root"),
                              m_root,
                              QStringLiteral("--host-key"),
                              hostKey(),
                              QStringLiteral("--user"),
                              user(),
                              QStringLiteral("--password"),
                              password()};
        if (m_faults.dropAfter >= 0) {
            arguments << QStringLiteral("--drop-after") << QString::number(m_faults.dropAfter);
        }
        if (m_faults.stallAfter >= 0) {
            arguments << QStringLiteral("--stall-after") << QString::number(m_faults.stallAfter);
        }
        if (!m_faults.deny.isEmpty()) {
            arguments << QStringLiteral("--deny") << m_faults.deny;
        }
        m_process.start(QStringLiteral("/usr/bin/python3"), arguments);
        if (!waitForLine("PORT ", &line)) {
            return false;
        }
        m_port = line.mid(5).trimmed().toInt();
        return m_port > 0;
    }

    if (!QFileInfo::exists(clientKey()) && !makeKey(clientKey())) {
        return false;
    }
    // sshd started by root needs its privilege separation folder, as its service makes it.
    if (::geteuid() == 0) {
        QDir().mkpath(QStringLiteral("/run/sshd"));
    }
    if (m_port == 0) {
        m_port = freeLoopbackPort();
    }
    const QString config = QDir(m_folder).filePath(QStringLiteral("sshd_config"));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly)) {
        m_error = QStringLiteral("cannot write ") + config;
        return false;
    }
    file.write(QStringLiteral("Port %1\nListenAddress 127.0.0.1\nHostKey %2\n"
                              "AuthorizedKeysFile %3.pub\nStrictModes no\nUsePAM no\n"
                              "PidFile none\nPermitRootLogin prohibit-password\n"
                              "PasswordAuthentication no\nKbdInteractiveAuthentication no\n"
                              "Subsystem sftp internal-sftp\n")
                   .arg(m_port)
                   .arg(hostKey(), clientKey())
                   .toUtf8());
    file.close();
    m_process.start(QStringLiteral("/usr/sbin/sshd"),
                    {QStringLiteral("-D"), QStringLiteral("-e"), QStringLiteral("-f"), config});
    return waitForLine("Server listening on", &line);
}

void SshServer::stop()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }
}

bool SshServer::replaceHostKey()
{
    stop();
    return makeKey(hostKey()) && start();
}
