#include "platform/CmdLineServer.h"

#include "core/CmdLineProtocol.h"
#include "core/Log.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool fillAddress(const QString& path, sockaddr_un& address)
{
    const QByteArray encoded = QFile::encodeName(path);
    if (encoded.size() >= static_cast<qsizetype>(sizeof(address.sun_path))) {
        return false;
    }
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, encoded.constData(), static_cast<size_t>(encoded.size()));
    return true;
}

QByteArray encodeMessage(const QString& name, const QVariantMap& userInfo)
{
    QJsonObject message{{QStringLiteral("name"), name}};
    if (!userInfo.isEmpty()) {
        message.insert(QStringLiteral("userInfo"), QJsonObject::fromVariantMap(userInfo));
    }
    return QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n';
}

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

} // namespace

CmdLineServer::CmdLineServer(QObject* parent)
    : QObject(parent)
{}

CmdLineServer::~CmdLineServer()
{
    const auto ids = m_connections.keys();
    for (ConnectionId id : ids) {
        close(id);
    }
    if (m_listenFd >= 0) {
        ::close(m_listenFd);
        QFile::remove(m_socketPath);
    }
    if (m_lockFd >= 0) {
        ::close(m_lockFd);
    }
}

bool CmdLineServer::listen(const QString& runtimeFolder, QString* error)
{
    auto fail = [error](const QString& why) {
        if (error) {
            *error = why;
        }
        return false;
    };
    if (runtimeFolder.isEmpty()) {
        return fail(QStringLiteral("No private runtime folder"));
    }
    QDir().mkpath(runtimeFolder);
    const QString lockPath =
        QDir(runtimeFolder).filePath(QString::fromLatin1(CmdLineProtocol::LockName));
    m_lockFd = ::open(QFile::encodeName(lockPath).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_lockFd < 0) {
        return fail(QStringLiteral("Cannot open %1: %2").arg(lockPath, errnoText()));
    }
    // The lock, not the socket file, decides who runs: a socket left by a crash is stale. An
    // open-file-description lock, which sk can ask about without taking it.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(m_lockFd, F_OFD_SETLK, &lock) != 0) {
        const int lockError = errno;
        ::close(m_lockFd);
        m_lockFd = -1;
        if (lockError != EAGAIN && lockError != EACCES) {
            return fail(QStringLiteral("Cannot lock %1: %2")
                            .arg(lockPath, QString::fromLocal8Bit(std::strerror(lockError))));
        }
        m_anotherInstance = true;
        return fail(QStringLiteral("Another instance is running"));
    }
    m_socketPath = QDir(runtimeFolder).filePath(QString::fromLatin1(CmdLineProtocol::SocketName));
    sockaddr_un address{};
    if (!fillAddress(m_socketPath, address)) {
        return fail(QStringLiteral("Socket path too long: %1").arg(m_socketPath));
    }
    QFile::remove(m_socketPath);
    m_listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_listenFd < 0) {
        return fail(QStringLiteral("Cannot create socket: %1").arg(errnoText()));
    }
    const mode_t previous = ::umask(0077);
    const int bound = ::bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::umask(previous);
    if (bound != 0 || ::listen(m_listenFd, 64) != 0) {
        const QString why = errnoText();
        ::close(m_listenFd);
        m_listenFd = -1;
        return fail(QStringLiteral("Cannot listen on %1: %2").arg(m_socketPath, why));
    }
    m_acceptNotifier = new QSocketNotifier(m_listenFd, QSocketNotifier::Read, this);
    connect(m_acceptNotifier, &QSocketNotifier::activated, this, &CmdLineServer::acceptConnections);
    return true;
}

void CmdLineServer::acceptConnections()
{
    for (;;) {
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            // A client that gave up while waiting in the queue does not end the others.
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            return;
        }
        if (!peerIsThisUser(fd)) {
            ::close(fd);
            continue;
        }
        const ConnectionId id = m_nextId++;
        Connection& connection = m_connections[id];
        connection.fd = fd;
        connection.readNotifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        connect(connection.readNotifier, &QSocketNotifier::activated, this,
                [this, id] { readFrom(id); });
        connection.writeNotifier = new QSocketNotifier(fd, QSocketNotifier::Write, this);
        connection.writeNotifier->setEnabled(false);
        connect(connection.writeNotifier, &QSocketNotifier::activated, this,
                [this, id] { flush(id); });
        // A client that connects and says nothing must not hold a connection for ever.
        connection.requestTimer = new QTimer(this);
        connection.requestTimer->setSingleShot(true);
        connect(connection.requestTimer, &QTimer::timeout, this, [this, id] {
            Log::warning(QStringLiteral("Dropped a command-line connection that sent no "
                                        "request within %1 ms")
                             .arg(m_requestTimeoutMs));
            close(id);
        });
        connection.requestTimer->start(m_requestTimeoutMs);
    }
}

bool CmdLineServer::peerIsThisUser(int fd) const
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        Log::warning(QStringLiteral("Refused a command-line connection whose credentials cannot "
                                    "be read: %1")
                         .arg(errnoText()));
        return false;
    }
    if (peer.uid != ::getuid()) {
        Log::warning(QStringLiteral("Refused a command-line connection from user %1 (process %2)")
                         .arg(peer.uid)
                         .arg(peer.pid));
        return false;
    }
    return true;
}

void CmdLineServer::readFrom(ConnectionId id)
{
    auto it = m_connections.find(id);
    if (it == m_connections.end()) {
        return;
    }
    char buffer[65536];
    bool ended = false;
    for (;;) {
        const ssize_t got = ::read(it->fd, buffer, sizeof buffer);
        if (got > 0) {
            if (!it->requestSeen) {
                it->input.append(buffer, got);
            }
            if (it->input.size() > CmdLineProtocol::MaxMessageBytes) {
                rejectRequest(id, QStringLiteral("Error: Request too large (more than %1 bytes)")
                                      .arg(CmdLineProtocol::MaxMessageBytes));
                return;
            }
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && errno == EAGAIN) {
            break;
        }
        // End of input (a client may half-close after its request) or an error: nothing
        // more will come, but what came may still be a request to answer.
        ended = true;
        it->readNotifier->setEnabled(false);
        break;
    }
    if (it->requestSeen) {
        return;
    }
    const qsizetype newline = it->input.indexOf('\n');
    if (newline < 0) {
        if (ended) {
            close(id);
        }
        return;
    }
    it->requestSeen = true;
    it->requestTimer->stop();
    const QByteArray line = it->input.left(newline);
    it->input.clear();
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    const QJsonObject message = document.object();
    const QString name = message.value(QStringLiteral("name")).toString();
    if (!document.isObject() || name.isEmpty()) {
        rejectRequest(id, QStringLiteral("Error: Invalid command line task notification"));
        return;
    }
    send(id, QString::fromLatin1(CmdLineProtocol::Running));
    Q_EMIT requestReceived(id, name,
                           message.value(QStringLiteral("userInfo")).toObject().toVariantMap());
}

void CmdLineServer::rejectRequest(ConnectionId id, const QString& message)
{
    auto it = m_connections.find(id);
    if (it == m_connections.end()) {
        return;
    }
    it->requestSeen = true;
    it->requestTimer->stop();
    it->input.clear();
    send(id, QString::fromLatin1(CmdLineProtocol::Running));
    respond(id, message);
    finish(id);
}

void CmdLineServer::send(ConnectionId id, const QString& name, const QVariantMap& userInfo)
{
    auto it = m_connections.find(id);
    if (it == m_connections.end() || it->closing) {
        return;
    }
    it->output += encodeMessage(name, userInfo);
    flush(id);
}

void CmdLineServer::respond(ConnectionId id, const QString& response, bool failed)
{
    QVariantMap userInfo{{QStringLiteral("response"), response}};
    if (failed) {
        userInfo.insert(QStringLiteral("failed"), true);
    }
    send(id, QString::fromLatin1(CmdLineProtocol::Response), userInfo);
}

void CmdLineServer::finish(ConnectionId id)
{
    send(id, QString::fromLatin1(CmdLineProtocol::Finish));
    auto it = m_connections.find(id);
    if (it != m_connections.end()) {
        it->closing = true;
        flush(id);
    }
}

void CmdLineServer::flush(ConnectionId id)
{
    auto it = m_connections.find(id);
    if (it == m_connections.end()) {
        return;
    }
    while (!it->output.isEmpty()) {
        const ssize_t written = ::send(it->fd, it->output.constData(),
                                       static_cast<size_t>(it->output.size()), MSG_NOSIGNAL);
        if (written > 0) {
            it->output.remove(0, written);
            continue;
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && errno == EAGAIN) {
            // The client reads slowly: go on when the socket can take more.
            it->writeNotifier->setEnabled(true);
            return;
        }
        close(id); // the client is gone
        return;
    }
    it->writeNotifier->setEnabled(false);
    if (it->closing) {
        close(id);
    }
}

void CmdLineServer::close(ConnectionId id)
{
    auto it = m_connections.find(id);
    if (it == m_connections.end()) {
        return;
    }
    delete it->readNotifier;
    delete it->writeNotifier;
    // This may run from the timer's own time-out.
    it->requestTimer->stop();
    it->requestTimer->deleteLater();
    ::close(it->fd);
    m_connections.erase(it);
    Q_EMIT connectionClosed(id);
}

std::optional<QStringList> CmdLineServer::sendRequest(const QString& runtimeFolder,
                                                      const QString& name,
                                                      const QVariantMap& userInfo, int timeoutMs)
{
    sockaddr_un address{};
    if (runtimeFolder.isEmpty() ||
        !fillAddress(QDir(runtimeFolder).filePath(QString::fromLatin1(CmdLineProtocol::SocketName)),
                     address)) {
        return std::nullopt;
    }
    QDeadlineTimer deadline(timeoutMs);
    int fd = -1;
    // The running instance may still be starting: try again for a moment, on a fresh
    // socket each time (a failed connect leaves the old one in no state to retry).
    for (;;) {
        fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return std::nullopt;
        }
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
            break;
        }
        ::close(fd);
        if (deadline.hasExpired()) {
            return std::nullopt;
        }
        ::usleep(50000);
    }
    const QByteArray request = encodeMessage(name, userInfo);
    for (qsizetype sent = 0; sent < request.size();) {
        const ssize_t written = ::send(fd, request.constData() + sent,
                                       static_cast<size_t>(request.size() - sent), MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            ::close(fd);
            return std::nullopt;
        }
        sent += written;
    }
    QByteArray input;
    QStringList responses;
    char buffer[4096];
    for (;;) {
        pollfd poller{fd, POLLIN, 0};
        const int ready =
            ::poll(&poller, 1, static_cast<int>(qMax<qint64>(0, deadline.remainingTime())));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            break;
        }
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        input.append(buffer, got);
        qsizetype newline;
        while ((newline = input.indexOf('\n')) >= 0) {
            const QJsonObject message = QJsonDocument::fromJson(input.left(newline)).object();
            input.remove(0, newline + 1);
            const QString messageName = message.value(QStringLiteral("name")).toString();
            if (messageName == QLatin1String(CmdLineProtocol::Response)) {
                responses << message.value(QStringLiteral("userInfo"))
                                 .toObject()
                                 .value(QStringLiteral("response"))
                                 .toString();
            } else if (messageName == QLatin1String(CmdLineProtocol::Finish)) {
                ::close(fd);
                return responses;
            }
        }
    }
    ::close(fd);
    return std::nullopt;
}
