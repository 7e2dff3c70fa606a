#include "platform/SshSession.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QtEndian>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <libssh2.h>
#include <libssh2_sftp.h>
#include <limits>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int PollSliceMs = 100;
// Data handed to libssh2 per call: it cuts it into SFTP writes and keeps them all in flight,
// so that the channel window, not round trips, bounds the speed.
constexpr qsizetype WriteWindow = 4 * 1024 * 1024;
constexpr qsizetype ReadSize = 1024 * 1024;
constexpr qsizetype BufferSize = 4 * WriteWindow;
constexpr qint64 MinLargeWrite = 64 * 1024;
constexpr qint64 MaxLargeWrite = 255 * 1024;
// A server that ignores the limits request would otherwise hold the upload for the stall time.
constexpr int LimitsReplyMs = 5000;
// Bytes of large writes kept in flight at most: over sshd's 2 MiB channel window they would
// only wait in this process.
constexpr qint64 MaxInFlight = 8 * 1024 * 1024;
// SFTP message types, for the requests sent without libssh2's SFTP layer.
constexpr quint8 SftpOpen = 3, SftpClose = 4, SftpWrite = 6, SftpExtended = 200;
constexpr quint8 SftpStatus = 101, SftpHandle = 102, SftpExtendedReply = 201;

// How many bytes of large writes to keep in flight, after TCP Vegas. A server slower than the
// link lets requests queue in its own buffers, which OpenSSH copies again and again as they
// grow; so the limit grows by a request per round trip while replies come back about as fast
// as the quickest one, and drops to what the round trip needs when they show more than two
// requests waiting at the server. A slow server gets a short queue, a distant one enough in
// flight to cover the round trip.
class InFlightLimit {
public:
    explicit InFlightLimit(qint64 request)
        : m_request(request)
        , m_limit(2 * request)
    {}
    qint64 bytes() const { return m_limit; }
    // A reply that took `rttNs` for a request sent with `inFlight` bytes outstanding.
    void replied(qint64 rttNs, qint64 inFlight)
    {
        m_minRtt = qMin(m_minRtt, rttNs);
        if (rttNs <= 0) {
            return;
        }
        const double queued = double(inFlight) * double(rttNs - m_minRtt) / double(rttNs);
        // Steps of one request per round trip.
        const qint64 step = qMax<qint64>(1, m_request * m_request / m_limit);
        if (queued < double(m_request)) {
            m_limit = qMin(m_limit + step, qMax(MaxInFlight, 2 * m_request));
        } else if (queued > 2.0 * double(m_request)) {
            // Straight down to what the round trip needs, and one request more.
            const double needed = double(inFlight) * double(m_minRtt) / double(rttNs);
            m_limit = qMax(qint64(needed) + m_request, 2 * m_request);
        }
    }

private:
    qint64 m_request;
    qint64 m_limit;
    qint64 m_minRtt = std::numeric_limits<qint64>::max();
};

void initialiseLibrary()
{
    static std::once_flag once;
    std::call_once(once, [] { libssh2_init(0); });
}

QString systemError(int code)
{
    return QString::fromLocal8Bit(std::strerror(code));
}

QString sftpStatusText(unsigned long status)
{
    switch (status) {
    case LIBSSH2_FX_NO_SUCH_FILE:
    case LIBSSH2_FX_NO_SUCH_PATH:
        return QStringLiteral("No such file or folder");
    case LIBSSH2_FX_PERMISSION_DENIED:
    case LIBSSH2_FX_WRITE_PROTECT:
        return QStringLiteral("Permission denied");
    case LIBSSH2_FX_NO_SPACE_ON_FILESYSTEM:
    case LIBSSH2_FX_QUOTA_EXCEEDED:
        return QStringLiteral("No space left on the server");
    case LIBSSH2_FX_FILE_ALREADY_EXISTS:
        return QStringLiteral("The file already exists");
    case LIBSSH2_FX_NOT_A_DIRECTORY:
        return QStringLiteral("Not a folder");
    default:
        return QStringLiteral("The server refused (SFTP status %1)").arg(status);
    }
}

} // namespace

struct SshSession::Private {
    KnownHosts knownHosts;
    SshTimeouts timeouts;
    const std::atomic_bool* cancelled = nullptr;
    QString host;
    int socket = -1;
    LIBSSH2_SESSION* session = nullptr;
    LIBSSH2_SFTP* sftp = nullptr;
    Failure interrupted = Failure::None; // set when a wait ran out or was cancelled

    explicit Private(KnownHosts hosts)
        : knownHosts(std::move(hosts))
    {}

    ~Private()
    {
        if (sftp) {
            libssh2_session_set_blocking(session, 0);
            libssh2_sftp_shutdown(sftp);
        }
        if (session) {
            libssh2_session_disconnect(session, "Bye");
            libssh2_session_free(session);
        }
        if (socket >= 0) {
            ::close(socket);
        }
    }

    bool isCancelled() const { return cancelled && cancelled->load(); }

    // Waits until the socket is ready the way libssh2 asked for, one slice at a time.
    void waitSocket()
    {
        const int directions = libssh2_session_block_directions(session);
        pollfd fd{socket, 0, 0};
        if (directions & LIBSSH2_SESSION_BLOCK_INBOUND) {
            fd.events |= POLLIN;
        }
        if (directions & LIBSSH2_SESSION_BLOCK_OUTBOUND) {
            fd.events |= POLLOUT;
        }
        ::poll(&fd, 1, PollSliceMs);
    }

    // Repeats `step` while libssh2 would block. A stall longer than `limitMs` or a cancel
    // ends the wait (`interrupted` says which) with the would-block result.
    template <class Step> auto retry(Step step, int limitMs) -> decltype(step())
    {
        QElapsedTimer waiting;
        waiting.start();
        for (;;) {
            auto result = step();
            const bool wouldBlock = [&] {
                if constexpr (std::is_pointer_v<decltype(result)>) {
                    return !result && libssh2_session_last_errno(session) == LIBSSH2_ERROR_EAGAIN;
                } else {
                    return result == LIBSSH2_ERROR_EAGAIN;
                }
            }();
            if (!wouldBlock) {
                return result;
            }
            if (isCancelled()) {
                interrupted = Failure::Cancelled;
                return result;
            }
            if (waiting.elapsed() > limitMs) {
                interrupted = Failure::Stalled;
                return result;
            }
            waitSocket();
        }
    }
    template <class Step> auto retry(Step step) { return retry(step, timeouts.stallMs); }

    // SFTP requests written straight onto libssh2's channel: its own writes are cut into
    // 30000-byte requests, and the server's work per request then bounds the speed. Used only
    // while no libssh2 SFTP request is outstanding.
    quint32 nextRequest = 0x40000000; // apart from the numbers libssh2 hands out
    qint64 largeWriteSize = -1;       // what the server accepts per write; 0: unknown

    static void put32(QByteArray& packet, quint32 value)
    {
        const quint32 big = qToBigEndian(value);
        packet.append(reinterpret_cast<const char*>(&big), 4);
    }
    static void putString(QByteArray& packet, const QByteArray& text)
    {
        put32(packet, quint32(text.size()));
        packet += text;
    }
    static quint32 get32(const QByteArray& data, qsizetype at)
    {
        return data.size() >= at + 4 ? qFromBigEndian<quint32>(data.constData() + at) : 0;
    }
    // A request: its length, type and number, then `rest`.
    QByteArray request(quint8 type, const QByteArray& rest, quint32* id)
    {
        *id = nextRequest++;
        QByteArray packet;
        put32(packet, quint32(rest.size() + 5));
        packet += char(type);
        put32(packet, *id);
        return packet + rest;
    }
    int sendRaw(const char* data, qsizetype size)
    {
        LIBSSH2_CHANNEL* channel = libssh2_sftp_get_channel(sftp);
        for (qsizetype done = 0; done < size;) {
            const ssize_t n = retry(
                [&] { return libssh2_channel_write(channel, data + done, size_t(size - done)); });
            if (n < 0) {
                return int(n);
            }
            done += n;
        }
        return 0;
    }
    int readRaw(char* data, qsizetype size, int limitMs)
    {
        LIBSSH2_CHANNEL* channel = libssh2_sftp_get_channel(sftp);
        for (qsizetype done = 0; done < size;) {
            const ssize_t n = retry(
                [&] { return libssh2_channel_read(channel, data + done, size_t(size - done)); },
                limitMs);
            if (n < 0) {
                return int(n);
            }
            if (n == 0) {
                return LIBSSH2_ERROR_CHANNEL_CLOSED;
            }
            done += n;
        }
        return 0;
    }
    // One reply: its type and number, and what follows them in `body`.
    // `firstByteMs` bounds the wait for the reply to begin; the rest may take the stall time.
    int receive(quint8* type, quint32* id, QByteArray* body, int firstByteMs = -1)
    {
        char length[4];
        if (const int result =
                readRaw(length, 4, firstByteMs >= 0 ? firstByteMs : timeouts.stallMs);
            result != 0) {
            return result;
        }
        const quint32 size = qFromBigEndian<quint32>(length);
        if (size < 5 || size > 1024 * 1024) {
            return LIBSSH2_ERROR_SFTP_PROTOCOL;
        }
        body->resize(size);
        if (const int result = readRaw(body->data(), size, timeouts.stallMs); result != 0) {
            return result;
        }
        *type = quint8(body->at(0));
        *id = get32(*body, 1);
        body->remove(0, 5);
        return 0;
    }
    // One request and its reply; `own` says whether the reply answers this request.
    int exchange(quint8 type, const QByteArray& rest, quint8* replyType, QByteArray* reply,
                 bool* own)
    {
        quint32 id = 0;
        quint32 answered = 0;
        const QByteArray packet = request(type, rest, &id);
        int result = sendRaw(packet.constData(), packet.size());
        if (result == 0) {
            result = receive(replyType, &answered, reply);
        }
        *own = result == 0 && answered == id;
        return result;
    }
    // Asks once per connection how large a write the server takes (an OpenSSH extension).
    qint64 largeWrites()
    {
        if (largeWriteSize >= 0) {
            return largeWriteSize;
        }
        largeWriteSize = 0;
        QByteArray name;
        putString(name, QByteArrayLiteral("limits@openssh.com"));
        quint32 id = 0;
        quint32 answered = 0;
        quint8 type = 0;
        QByteArray reply;
        const QByteArray packet = request(SftpExtended, name, &id);
        if (sendRaw(packet.constData(), packet.size()) != 0) {
            return largeWriteSize;
        }
        const int received =
            receive(&type, &answered, &reply, qMin(LimitsReplyMs, timeouts.stallMs));
        if (received == 0 && type == SftpExtendedReply && answered == id && reply.size() >= 24) {
            const qint64 limit = qint64(qFromBigEndian<quint64>(reply.constData() + 16));
            largeWriteSize = limit >= MinLargeWrite ? qMin(limit, MaxLargeWrite) : 0;
        } else if (interrupted == Failure::Stalled) {
            // No answer in time: libssh2's own writes; libssh2 reads a late reply and drops it.
            interrupted = Failure::None;
        }
        return largeWriteSize;
    }

    QString sessionError() const
    {
        char* message = nullptr;
        libssh2_session_last_error(session, &message, nullptr, 0);
        return message ? QString::fromUtf8(message) : QStringLiteral("Unknown error");
    }
};

SshSession::SshSession(KnownHosts knownHosts, SshTimeouts timeouts,
                       const std::atomic_bool* cancelled)
    : d(std::make_unique<Private>(std::move(knownHosts)))
{
    d->timeouts = timeouts;
    d->cancelled = cancelled;
    initialiseLibrary();
}

SshSession::~SshSession() = default;

QString SshSession::joinRemote(const QString& folder, const QString& name)
{
    QString base = folder;
    if (base == u"~" || base.startsWith(QStringLiteral("~/"))) {
        base = base.mid(2); // SFTP paths without a slash start in the login folder
    }
    while (base.size() > 1 && base.endsWith(u'/')) {
        base.chop(1);
    }
    if (base.isEmpty() || base == u".") {
        return name;
    }
    return base.endsWith(u'/') ? base + name : base + u'/' + name;
}

bool SshSession::open(const SshLogin& login)
{
    d->host = login.host;
    const auto fail = [this](Failure failure, const QString& message) {
        m_failure = failure;
        m_error = message;
        return false;
    };
    const auto interruption = [this, &login, fail](const QString& during) {
        if (d->interrupted == Failure::Cancelled) {
            return fail(Failure::Cancelled, QStringLiteral("Cancelled"));
        }
        return fail(Failure::Stalled, QStringLiteral("The server %1 stopped responding %2 (no "
                                                     "answer for %3 seconds).")
                                          .arg(login.host, during)
                                          .arg(d->timeouts.stallMs / 1000.0));
    };

    // --- The connection, within the connect time-out.
    QElapsedTimer connecting;
    connecting.start();
    const auto connectTimedOut = [&] {
        return fail(Failure::Connect, QStringLiteral("Could not connect to %1 port %2 within %3 "
                                                     "seconds.")
                                          .arg(login.host)
                                          .arg(login.port)
                                          .arg(d->timeouts.connectMs / 1000));
    };
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* addresses = nullptr;
    const QByteArray node = login.host.toUtf8();
    const QByteArray service = QByteArray::number(login.port);
    if (const int status = ::getaddrinfo(node.constData(), service.constData(), &hints, &addresses);
        status != 0) {
        return fail(Failure::Connect,
                    QStringLiteral("Could not find the server %1: %2")
                        .arg(login.host, QString::fromLocal8Bit(::gai_strerror(status))));
    }
    int lastError = ETIMEDOUT;
    for (addrinfo* address = addresses; address && d->socket < 0; address = address->ai_next) {
        const int fd =
            ::socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            lastError = errno;
            continue;
        }
        int status = ::connect(fd, address->ai_addr, address->ai_addrlen);
        if (status != 0 && errno == EINPROGRESS) {
            pollfd pending{fd, POLLOUT, 0};
            while ((status = ::poll(&pending, 1, PollSliceMs)) == 0 && !d->isCancelled() &&
                   connecting.elapsed() < d->timeouts.connectMs) {
            }
            int error = status > 0 ? 0 : ETIMEDOUT;
            socklen_t length = sizeof error;
            if (status > 0) {
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
            }
            status = error == 0 ? 0 : -1;
            errno = error;
        }
        if (status == 0) {
            // Requests are small and answered one by one; Nagle would hold each back.
            const int on = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            d->socket = fd;
        } else {
            lastError = errno;
            ::close(fd);
        }
    }
    ::freeaddrinfo(addresses);
    if (d->isCancelled()) {
        return fail(Failure::Cancelled, QStringLiteral("Cancelled"));
    }
    if (d->socket < 0) {
        if (lastError == ETIMEDOUT) {
            return connectTimedOut();
        }
        return fail(Failure::Connect, QStringLiteral("Could not connect to %1 port %2: %3")
                                          .arg(login.host)
                                          .arg(login.port)
                                          .arg(systemError(lastError)));
    }

    d->session = libssh2_session_init();
    if (!d->session) {
        return fail(Failure::Connect, QStringLiteral("Could not start an SSH session."));
    }
    libssh2_session_set_blocking(d->session, 0);
    const QByteArray algorithms =
        d->knownHosts.preferredAlgorithms(login.host, login.port).toUtf8();
    libssh2_session_method_pref(d->session, LIBSSH2_METHOD_HOSTKEY, algorithms.constData());
    const int remaining = qMax(0, d->timeouts.connectMs - int(connecting.elapsed()));
    const int handshake =
        d->retry([&] { return libssh2_session_handshake(d->session, d->socket); }, remaining);
    if (d->interrupted == Failure::Cancelled) {
        return fail(Failure::Cancelled, QStringLiteral("Cancelled"));
    }
    if (d->interrupted == Failure::Stalled) {
        d->interrupted = Failure::None;
        return connectTimedOut();
    }
    if (handshake != 0) {
        return fail(Failure::Connect, QStringLiteral("The SSH handshake with %1 failed: %2")
                                          .arg(login.host, d->sessionError()));
    }

    // --- The server's identity, before any secret or byte of data goes to it.
    m_hostKey = d->knownHosts.verify(d->session, login.host, login.port);
    if (!m_hostKey.accepted()) {
        return fail(Failure::HostKey, m_hostKey.error);
    }

    // --- Authentication.
    const QByteArray user = login.user.toUtf8();
    // Asking for the methods tries "none" first; a server may let the user in on that.
    d->retry(
        [&] { return libssh2_userauth_list(d->session, user.constData(), unsigned(user.size())); });
    if (d->interrupted != Failure::None) {
        return interruption(QStringLiteral("while logging in"));
    }
    const auto refused = [&](const QString& how) {
        return fail(Failure::Authentication, QStringLiteral("Authentication failed: %1 %2 was "
                                                            "not accepted by %3.")
                                                 .arg(how, login.user, login.host));
    };
    if (!libssh2_userauth_authenticated(d->session)) {
        int result = LIBSSH2_ERROR_AUTHENTICATION_FAILED;
        if (login.hasPassword) {
            const QByteArray password = login.password.toUtf8();
            result = d->retry([&] {
                return libssh2_userauth_password_ex(d->session, user.constData(),
                                                    unsigned(user.size()), password.constData(),
                                                    unsigned(password.size()), nullptr);
            });
            if (d->interrupted != Failure::None) {
                return interruption(QStringLiteral("while logging in"));
            }
            if (result != 0) {
                return refused(QStringLiteral("the password for"));
            }
        } else if (!login.privateKey.isEmpty()) {
            if (!QFileInfo(login.privateKey).isFile()) {
                return fail(Failure::Authentication,
                            QStringLiteral("The private key file %1 does not exist.")
                                .arg(login.privateKey));
            }
            if (!login.publicKey.isEmpty() && !QFileInfo(login.publicKey).isFile()) {
                return fail(
                    Failure::Authentication,
                    QStringLiteral("The public key file %1 does not exist.").arg(login.publicKey));
            }
            const QByteArray privateKey = QFile::encodeName(login.privateKey);
            const QByteArray publicKey = QFile::encodeName(login.publicKey);
            const QByteArray passphrase = login.passphrase.toUtf8();
            result = d->retry([&] {
                return libssh2_userauth_publickey_fromfile_ex(
                    d->session, user.constData(), unsigned(user.size()),
                    publicKey.isEmpty() ? nullptr : publicKey.constData(), privateKey.constData(),
                    passphrase.constData());
            });
            if (d->interrupted != Failure::None) {
                return interruption(QStringLiteral("while logging in"));
            }
            if (result == LIBSSH2_ERROR_FILE || result == LIBSSH2_ERROR_METHOD_NOT_SUPPORTED) {
                return fail(Failure::Authentication,
                            QStringLiteral("The key %1 could not be read (wrong passphrase or an "
                                           "unsupported key type): %2")
                                .arg(login.privateKey, d->sessionError()));
            }
            if (result != 0) {
                return refused(QStringLiteral("the key %1 for").arg(login.privateKey));
            }
        } else {
            if (qEnvironmentVariableIsEmpty("SSH_AUTH_SOCK")) {
                return fail(Failure::Authentication,
                            QStringLiteral("No password or SSH key is set for %1, and no SSH agent "
                                           "is running (SSH_AUTH_SOCK is not set).")
                                .arg(login.host));
            }
            LIBSSH2_AGENT* agent = libssh2_agent_init(d->session);
            const auto done = qScopeGuard([agent] {
                libssh2_agent_disconnect(agent);
                libssh2_agent_free(agent);
            });
            if (!agent || libssh2_agent_connect(agent) != 0 ||
                libssh2_agent_list_identities(agent) != 0) {
                return fail(Failure::Authentication,
                            QStringLiteral("The SSH agent could not be reached: %1")
                                .arg(d->sessionError()));
            }
            libssh2_agent_publickey* identity = nullptr;
            libssh2_agent_publickey* previous = nullptr;
            while (result != 0 && libssh2_agent_get_identity(agent, &identity, previous) == 0) {
                result = d->retry(
                    [&] { return libssh2_agent_userauth(agent, user.constData(), identity); });
                if (d->interrupted != Failure::None) {
                    return interruption(QStringLiteral("while logging in"));
                }
                previous = identity;
            }
            if (result != 0) {
                return refused(QStringLiteral("no key of the SSH agent for"));
            }
        }
    }

    d->sftp = d->retry([&] { return libssh2_sftp_init(d->session); });
    if (!d->sftp) {
        if (d->interrupted != Failure::None) {
            return interruption(QStringLiteral("while starting SFTP"));
        }
        return fail(
            Failure::Sftp,
            QStringLiteral("%1 does not offer SFTP: %2").arg(login.host, d->sessionError()));
    }
    return true;
}

bool SshSession::pathRefused() const
{
    return m_sftpStatus == LIBSSH2_FX_PERMISSION_DENIED ||
           m_sftpStatus == LIBSSH2_FX_NO_SUCH_FILE || m_sftpStatus == LIBSSH2_FX_NO_SUCH_PATH ||
           m_sftpStatus == LIBSSH2_FX_WRITE_PROTECT;
}

SshSession::PathState SshSession::stat(const QString& path)
{
    const QByteArray name = path.isEmpty() ? QByteArrayLiteral(".") : path.toUtf8();
    LIBSSH2_SFTP_ATTRIBUTES attributes{};
    const int result = d->retry([&] {
        return libssh2_sftp_stat_ex(d->sftp, name.constData(), unsigned(name.size()),
                                    LIBSSH2_SFTP_STAT, &attributes);
    });
    if (result == 0) {
        const bool folder = (attributes.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) &&
                            LIBSSH2_SFTP_S_ISDIR(attributes.permissions);
        return folder ? PathState::Folder : PathState::NotFolder;
    }
    m_sftpStatus = result == LIBSSH2_ERROR_SFTP_PROTOCOL ? libssh2_sftp_last_error(d->sftp) : 0;
    if (m_sftpStatus == LIBSSH2_FX_NO_SUCH_FILE || m_sftpStatus == LIBSSH2_FX_NO_SUCH_PATH) {
        return PathState::Missing;
    }
    m_failure = d->interrupted != Failure::None ? d->interrupted : Failure::Sftp;
    m_error = m_sftpStatus ? sftpStatusText(m_sftpStatus) : d->sessionError();
    return PathState::Failed;
}

bool SshSession::makeFolders(const QString& path)
{
    const QString folder = joinRemote(path, QString());
    QString prefix = folder.startsWith(u'/') ? QStringLiteral("/") : QString();
    for (const QString& part : folder.split(u'/', Qt::SkipEmptyParts)) {
        prefix += part;
        const PathState state = stat(prefix);
        if (state == PathState::Missing) {
            const QByteArray name = prefix.toUtf8();
            const int result = d->retry([&] {
                return libssh2_sftp_mkdir_ex(d->sftp, name.constData(), unsigned(name.size()),
                                             0755);
            });
            // Someone else may have made it meanwhile.
            if (result != 0 && stat(prefix) != PathState::Folder) {
                m_sftpStatus =
                    result == LIBSSH2_ERROR_SFTP_PROTOCOL ? libssh2_sftp_last_error(d->sftp) : 0;
                m_failure = d->interrupted != Failure::None ? d->interrupted : Failure::Sftp;
                m_error = m_sftpStatus ? sftpStatusText(m_sftpStatus) : d->sessionError();
                return false;
            }
        } else if (state == PathState::NotFolder) {
            m_failure = Failure::Sftp;
            m_error = QStringLiteral("%1 is a file, not a folder").arg(prefix);
            return false;
        } else if (state == PathState::Failed) {
            return false;
        }
        prefix += u'/';
    }
    return true;
}

bool SshSession::upload(const QString& localPath, const QString& remoteFolder, const QString& name,
                        const Progress& progress, UploadStep* failedStep)
{
    const auto fail = [&](UploadStep step, const QString& message) {
        if (failedStep) {
            *failedStep = step;
        }
        m_failure = d->interrupted != Failure::None ? d->interrupted : Failure::Sftp;
        m_error = d->interrupted == Failure::Cancelled ? QStringLiteral("Cancelled")
                  : d->interrupted == Failure::Stalled
                      ? QStringLiteral("The server %1 stopped responding (no progress for %2 "
                                       "seconds).")
                            .arg(d->host)
                            .arg(d->timeouts.stallMs / 1000.0)
                      : message;
        return false;
    };
    const auto protocolError = [&](int result) {
        m_sftpStatus = result == LIBSSH2_ERROR_SFTP_PROTOCOL ? libssh2_sftp_last_error(d->sftp) : 0;
        return m_sftpStatus ? sftpStatusText(m_sftpStatus) : d->sessionError();
    };
    QFile source(localPath);
    if (!source.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        return fail(UploadStep::Open,
                    QStringLiteral("Could not read %1: %2").arg(localPath, source.errorString()));
    }
    const QString suffix = QString::number(QRandomGenerator::global()->generate() & 0xffffff, 36)
                               .rightJustified(5, u'0');
    const QByteArray temporary = joinRemote(remoteFolder, u'.' + name + QStringLiteral(".skelvo-") +
                                                              suffix + QStringLiteral(".part"))
                                     .toUtf8();
    const QByteArray final = joinRemote(remoteFolder, name).toUtf8();

    const auto removeTemporary = [&] {
        if (d->interrupted == Failure::None) {
            d->retry([&] {
                return libssh2_sftp_unlink_ex(d->sftp, temporary.constData(),
                                              unsigned(temporary.size()));
            });
        }
    };
    const auto replyError = [&](int result, quint8 type, const QByteArray& reply) {
        if (result == LIBSSH2_ERROR_CHANNEL_CLOSED) {
            m_sftpStatus = 0;
            return QStringLiteral("The server closed the SFTP channel.");
        }
        if (result == LIBSSH2_ERROR_SOCKET_RECV || result == LIBSSH2_ERROR_SOCKET_SEND ||
            result == LIBSSH2_ERROR_SOCKET_DISCONNECT) {
            m_sftpStatus = 0;
            return QStringLiteral("The connection to %1 was lost (%2).")
                .arg(d->host, d->sessionError());
        }
        if (result != 0) {
            m_sftpStatus = 0;
            return d->sessionError();
        }
        m_sftpStatus = type == SftpStatus ? Private::get32(reply, 0) : 0;
        return m_sftpStatus ? sftpStatusText(m_sftpStatus)
                            : QStringLiteral("The server sent an unexpected SFTP reply (type %1).")
                                  .arg(type);
    };
    // Requests of up to `requestSize` bytes, as many in flight as the write window holds.
    const auto writeLarge = [&](qint64 requestSize) -> bool {
        quint32 answered = 0;
        quint8 type = 0;
        QByteArray reply;
        QByteArray rest;
        Private::putString(rest, temporary);
        Private::put32(rest, LIBSSH2_FXF_WRITE | LIBSSH2_FXF_CREAT | LIBSSH2_FXF_TRUNC);
        Private::put32(rest, LIBSSH2_SFTP_ATTR_PERMISSIONS);
        Private::put32(rest, 0644);
        bool own = false;
        int result = d->exchange(SftpOpen, rest, &type, &reply, &own);
        if (result != 0 || type != SftpHandle || !own) {
            return fail(UploadStep::Open, replyError(result, type, reply));
        }
        QByteArray handle;
        Private::putString(handle, reply.mid(4, Private::get32(reply, 0)));
        const auto closeHandle = [&]() -> QString {
            quint32 closeId = 0;
            const QByteArray closing = d->request(SftpClose, handle, &closeId);
            int closed = d->sendRaw(closing.constData(), closing.size());
            // Replies to writes still in flight come first.
            do {
                if (closed == 0) {
                    closed = d->receive(&type, &answered, &reply);
                }
            } while (closed == 0 && answered != closeId);
            if (closed != 0 || type != SftpStatus || Private::get32(reply, 0) != 0) {
                return replyError(closed, type, reply);
            }
            return QString();
        };

        const qsizetype headerSize = 9 + handle.size() + 12;
        QByteArray packet(headerSize + requestSize, Qt::Uninitialized);
        struct Pending {
            qint64 bytes;
            qint64 sentNs;
            qint64 inFlight;
        };
        QHash<quint32, Pending> pending;
        InFlightLimit limit(requestSize);
        QElapsedTimer clock;
        clock.start();
        qint64 offset = 0;
        qint64 inFlight = 0;
        qint64 acked = 0;
        bool atEnd = false;
        QString error;
        while (error.isEmpty()) {
            while (!atEnd && inFlight < limit.bytes()) {
                const qint64 got = source.read(packet.data() + headerSize, requestSize);
                if (got < 0) {
                    error = QStringLiteral("Could not read %1: %2")
                                .arg(localPath, source.errorString());
                    break;
                }
                if (got == 0) {
                    atEnd = true;
                    break;
                }
                const quint32 writeId = d->nextRequest++;
                char* at = packet.data();
                qToBigEndian(quint32(headerSize - 4 + got), at);
                at[4] = char(SftpWrite);
                qToBigEndian(writeId, at + 5);
                std::memcpy(at + 9, handle.constData(), size_t(handle.size()));
                qToBigEndian(quint64(offset), at + 9 + handle.size());
                qToBigEndian(quint32(got), at + 17 + handle.size());
                if (const int sent = d->sendRaw(at, headerSize + got); sent != 0) {
                    error = replyError(sent, 0, {});
                    break;
                }
                offset += got;
                inFlight += got;
                pending.insert(writeId, {got, clock.nsecsElapsed(), inFlight});
            }
            if (!error.isEmpty() || pending.isEmpty()) {
                break;
            }
            result = d->receive(&type, &answered, &reply);
            if (result != 0 || type != SftpStatus || !pending.contains(answered) ||
                Private::get32(reply, 0) != 0) {
                error = replyError(result, type, reply);
                break;
            }
            const Pending request = pending.take(answered);
            limit.replied(clock.nsecsElapsed() - request.sentNs, request.inFlight);
            const qint64 done = request.bytes;
            inFlight -= done;
            acked += done;
            if (progress) {
                progress(acked);
            }
        }
        if (!error.isEmpty()) {
            if (d->interrupted == Failure::None) {
                closeHandle();
                removeTemporary();
            }
            return fail(UploadStep::Write, error);
        }
        if (const QString closeError = closeHandle(); !closeError.isEmpty()) {
            removeTemporary();
            return fail(UploadStep::Write, closeError);
        }
        return true;
    };
    const auto writeSmall = [&]() -> bool {
        LIBSSH2_SFTP_HANDLE* handle = d->retry([&] {
            return libssh2_sftp_open_ex(d->sftp, temporary.constData(), unsigned(temporary.size()),
                                        LIBSSH2_FXF_WRITE | LIBSSH2_FXF_CREAT | LIBSSH2_FXF_TRUNC,
                                        0644, LIBSSH2_SFTP_OPENFILE);
        });
        if (!handle) {
            return fail(UploadStep::Open, protocolError(LIBSSH2_ERROR_SFTP_PROTOCOL));
        }

        // libssh2 wants the unacknowledged data handed to it again from its first byte, so the
        // buffer keeps it contiguous; it is read into in place and moved to the front only when
        // the end is reached, which keeps the copying to a small part of the data.
        QByteArray buffer(BufferSize, Qt::Uninitialized);
        qsizetype start = 0;
        qsizetype end = 0;
        qint64 sent = 0;
        bool atEnd = false;
        bool ok = true;
        QString writeError;
        while (ok) {
            if (!atEnd && end - start < WriteWindow) {
                if (end + ReadSize > buffer.size()) {
                    std::memmove(buffer.data(), buffer.constData() + start, size_t(end - start));
                    end -= start;
                    start = 0;
                }
                const qint64 got = source.read(buffer.data() + end, ReadSize);
                if (got < 0) {
                    ok = false;
                    writeError = QStringLiteral("Could not read %1: %2")
                                     .arg(localPath, source.errorString());
                    break;
                }
                atEnd = got == 0;
                end += got;
                continue;
            }
            if (end == start) {
                break; // all written and acknowledged
            }
            const ssize_t written = d->retry([&] {
                return libssh2_sftp_write(handle, buffer.constData() + start, size_t(end - start));
            });
            if (written < 0) {
                ok = false;
                writeError = protocolError(int(written));
                break;
            }
            start += written;
            sent += written;
            if (progress) {
                progress(sent);
            }
        }
        // A server that stopped answering would only make the close wait as long again.
        const int closed = d->interrupted != Failure::None
                               ? LIBSSH2_ERROR_TIMEOUT
                               : d->retry([&] { return libssh2_sftp_close_handle(handle); });
        if (!ok || closed != 0) {
            const QString message = ok ? protocolError(closed) : writeError;
            removeTemporary();
            return fail(UploadStep::Write, message);
        }
        return true;
    };
    const qint64 requestSize = d->largeWrites();
    if (d->interrupted != Failure::None) {
        return fail(UploadStep::Open, QString());
    }
    if (!(requestSize > 0 ? writeLarge(requestSize) : writeSmall())) {
        return false;
    }

    if (requestSize > 0) {
        // OpenSSH replaces an existing file atomically with its own rename request.
        QByteArray rest;
        Private::putString(rest, QByteArrayLiteral("posix-rename@openssh.com"));
        Private::putString(rest, temporary);
        Private::putString(rest, final);
        quint8 type = 0;
        QByteArray reply;
        bool own = false;
        const int result = d->exchange(SftpExtended, rest, &type, &reply, &own);
        const quint32 status = Private::get32(reply, 0);
        if (result == 0 && type == SftpStatus && own && status == LIBSSH2_FX_OK) {
            return true;
        }
        if (result != 0 || type != SftpStatus || !own || status != LIBSSH2_FX_OP_UNSUPPORTED) {
            const QString error = replyError(result, type, reply);
            removeTemporary();
            return fail(UploadStep::Rename, error);
        }
    }
    const long flags =
        LIBSSH2_SFTP_RENAME_OVERWRITE | LIBSSH2_SFTP_RENAME_ATOMIC | LIBSSH2_SFTP_RENAME_NATIVE;
    const auto rename = [&] {
        return d->retry([&] {
            return libssh2_sftp_rename_ex(d->sftp, temporary.constData(),
                                          unsigned(temporary.size()), final.constData(),
                                          unsigned(final.size()), flags);
        });
    };
    int renamed = rename();
    QString renameError = renamed != 0 ? protocolError(renamed) : QString();
    if (renamed != 0 && d->interrupted == Failure::None) {
        // Servers of SFTP version 3 ignore the overwrite flag and refuse an existing name:
        // the old file goes first; the new one is complete already.
        const int removed = d->retry([&] {
            return libssh2_sftp_unlink_ex(d->sftp, final.constData(), unsigned(final.size()));
        });
        if (removed == 0) {
            renamed = rename();
            renameError = renamed != 0 ? protocolError(renamed) : QString();
        }
    }
    if (renamed != 0) {
        removeTemporary();
        return fail(UploadStep::Rename, renameError);
    }
    return true;
}
