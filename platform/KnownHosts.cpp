#include "platform/KnownHosts.h"

#include "core/SupportPaths.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageAuthenticationCode>

#include <libssh2.h>
#include <memory>

namespace {

// The host-key algorithms libssh2 can check, in OpenSSH's order of preference.
const QStringList DefaultAlgorithms{QStringLiteral("ssh-ed25519"),
                                    QStringLiteral("ecdsa-sha2-nistp256"),
                                    QStringLiteral("ecdsa-sha2-nistp384"),
                                    QStringLiteral("ecdsa-sha2-nistp521"),
                                    QStringLiteral("rsa-sha2-512"),
                                    QStringLiteral("rsa-sha2-256"),
                                    QStringLiteral("ssh-rsa"),
                                    QStringLiteral("ssh-dss")};

QStringList algorithmsOfType(const QString& type)
{
    if (type == u"ssh-rsa") {
        return {QStringLiteral("rsa-sha2-512"), QStringLiteral("rsa-sha2-256"),
                QStringLiteral("ssh-rsa")};
    }
    return {type};
}

int knownHostKeyType(int hostKeyType)
{
    switch (hostKeyType) {
    case LIBSSH2_HOSTKEY_TYPE_RSA:
        return LIBSSH2_KNOWNHOST_KEY_SSHRSA;
    case LIBSSH2_HOSTKEY_TYPE_DSS:
        return LIBSSH2_KNOWNHOST_KEY_SSHDSS;
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_256:
        return LIBSSH2_KNOWNHOST_KEY_ECDSA_256;
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_384:
        return LIBSSH2_KNOWNHOST_KEY_ECDSA_384;
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_521:
        return LIBSSH2_KNOWNHOST_KEY_ECDSA_521;
    case LIBSSH2_HOSTKEY_TYPE_ED25519:
        return LIBSSH2_KNOWNHOST_KEY_ED25519;
    default:
        return LIBSSH2_KNOWNHOST_KEY_UNKNOWN;
    }
}

using Hosts = std::unique_ptr<LIBSSH2_KNOWNHOSTS, decltype(&libssh2_knownhost_free)>;

// Line by line, so that one entry libssh2 cannot read (a certificate authority, a security
// key) does not hide the entries after it.
Hosts readHosts(LIBSSH2_SESSION* session, const QString& path)
{
    Hosts hosts(libssh2_knownhost_init(session), &libssh2_knownhost_free);
    QFile file(path);
    if (!hosts || !file.open(QIODevice::ReadOnly)) {
        return hosts;
    }
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (line.isEmpty() || line.startsWith('#') || line.startsWith('@')) {
            continue;
        }
        libssh2_knownhost_readline(hosts.get(), line.constData(), size_t(line.size()),
                                   LIBSSH2_KNOWNHOST_FILE_OPENSSH);
    }
    return hosts;
}

} // namespace

KnownHosts::KnownHosts(QString userFile, QString ownFile)
    : m_userFile(std::move(userFile))
    , m_ownFile(std::move(ownFile))
{}

KnownHosts KnownHosts::standard()
{
    return KnownHosts(
        QDir::home().filePath(QStringLiteral(".ssh/known_hosts")),
        QDir(SupportPaths::applicationSupportDirectory()).filePath(QStringLiteral("known_hosts")));
}

QString KnownHosts::hostEntry(const QString& host, int port)
{
    const QString name = host.toLower();
    return port == 22 ? name : QStringLiteral("[%1]:%2").arg(name).arg(port);
}

QString KnownHosts::fingerprint(const QByteArray& keyBlob)
{
    return QStringLiteral("SHA256:") +
           QString::fromLatin1(QCryptographicHash::hash(keyBlob, QCryptographicHash::Sha256)
                                   .toBase64(QByteArray::OmitTrailingEquals));
}

QStringList KnownHosts::recordedTypes(const QString& path, const QString& entry)
{
    QStringList types;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return types;
    }
    const QByteArray name = entry.toUtf8();
    while (!file.atEnd()) {
        const QList<QByteArray> fields = file.readLine().simplified().split(' ');
        if (fields.size() < 3 || fields[0].startsWith('#') || fields[0].startsWith('@')) {
            continue;
        }
        bool matches = false;
        if (fields[0].startsWith("|1|")) {
            // Hashed: HMAC-SHA1 of the name, keyed with the salt.
            const QList<QByteArray> parts = fields[0].split('|');
            matches = parts.size() == 4 &&
                      QMessageAuthenticationCode::hash(name, QByteArray::fromBase64(parts[2]),
                                                       QCryptographicHash::Sha1) ==
                          QByteArray::fromBase64(parts[3]);
        } else {
            for (const QByteArray& pattern : fields[0].split(',')) {
                matches = matches || pattern.toLower() == name;
            }
        }
        if (matches && !types.contains(QString::fromLatin1(fields[1]))) {
            types << QString::fromLatin1(fields[1]);
        }
    }
    return types;
}

QString KnownHosts::preferredAlgorithms(const QString& host, int port) const
{
    const QString entry = hostEntry(host, port);
    QStringList preferred;
    for (const QString& type : recordedTypes(m_userFile, entry) + recordedTypes(m_ownFile, entry)) {
        for (const QString& algorithm : algorithmsOfType(type)) {
            if (DefaultAlgorithms.contains(algorithm) && !preferred.contains(algorithm)) {
                preferred << algorithm;
            }
        }
    }
    for (const QString& algorithm : DefaultAlgorithms) {
        if (!preferred.contains(algorithm)) {
            preferred << algorithm;
        }
    }
    return preferred.join(u',');
}

KnownHosts::Check KnownHosts::verify(LIBSSH2_SESSION* session, const QString& host, int port) const
{
    Check check;
    size_t length = 0;
    int type = 0;
    const char* key = libssh2_session_hostkey(session, &length, &type);
    if (!key) {
        check.error = QStringLiteral("The server %1 sent no host key.").arg(host);
        return check;
    }
    const QByteArray blob(key, qsizetype(length));
    check.fingerprint = fingerprint(blob);
    const QString entry = hostEntry(host, port);
    const QByteArray name = entry.toUtf8();
    const int typeMask =
        LIBSSH2_KNOWNHOST_TYPE_PLAIN | LIBSSH2_KNOWNHOST_KEYENC_RAW | knownHostKeyType(type);

    for (const QString& file : {m_userFile, m_ownFile}) {
        const Hosts hosts = readHosts(session, file);
        if (!hosts) {
            check.error = QStringLiteral("Could not read the known hosts.");
            return check;
        }
        libssh2_knownhost* found = nullptr;
        const int result = libssh2_knownhost_checkp(hosts.get(), name.constData(), -1, key, length,
                                                    typeMask, &found);
        if (result == LIBSSH2_KNOWNHOST_CHECK_MATCH) {
            check.verdict = Verdict::Known;
            return check;
        }
        if (result == LIBSSH2_KNOWNHOST_CHECK_MISMATCH) {
            check.verdict = Verdict::Changed;
            check.knownFingerprint =
                found && found->key ? fingerprint(QByteArray::fromBase64(found->key)) : QString();
            check.error = QStringLiteral("The host key of %1 has changed: it was %2 (in %3) and "
                                         "is now %4. Nothing was uploaded. If the server's key "
                                         "was replaced on purpose, remove its old entry from %3.")
                              .arg(entry, check.knownFingerprint, file, check.fingerprint);
            return check;
        }
    }
    const QStringList otherTypes =
        recordedTypes(m_userFile, entry) + recordedTypes(m_ownFile, entry);
    if (!otherTypes.isEmpty()) {
        check.verdict = Verdict::OtherType;
        check.error = QStringLiteral("The server %1 presented a host key (%2) of a type not "
                                     "recorded for it (known: %3). Nothing was uploaded.")
                          .arg(entry, check.fingerprint, otherTypes.join(QStringLiteral(", ")));
        return check;
    }

    // Trust on first use: the key goes into the own file.
    const Hosts own = readHosts(session, m_ownFile);
    libssh2_knownhost* added = nullptr;
    char line[8192];
    size_t lineLength = 0;
    QFile file(m_ownFile);
    QDir().mkpath(QFileInfo(m_ownFile).absolutePath());
    if (libssh2_knownhost_addc(own.get(), name.constData(), nullptr, key, length, nullptr, 0,
                               typeMask, &added) != 0 ||
        libssh2_knownhost_writeline(own.get(), added, line, sizeof line, &lineLength,
                                    LIBSSH2_KNOWNHOST_FILE_OPENSSH) != 0 ||
        !file.open(QIODevice::Append) ||
        file.write(line, qint64(lineLength)) != qint64(lineLength)) {
        check.error =
            QStringLiteral("Could not record the host key of %1 in %2.").arg(entry, m_ownFile);
        return check;
    }
    check.verdict = Verdict::Recorded;
    return check;
}
