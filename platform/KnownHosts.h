#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

using LIBSSH2_SESSION = struct _LIBSSH2_SESSION;

// The host keys of SSH servers: the user's OpenSSH known_hosts (plain, hashed and [host]:port
// entries) is read, and Skelvo's own file records servers met for the first time.
class KnownHosts {
public:
    KnownHosts(QString userFile, QString ownFile);
    // ~/.ssh/known_hosts and "known_hosts" in the support folder.
    static KnownHosts standard();

    // How a host is written in known_hosts files: "host", or "[host]:port" off port 22.
    static QString hostEntry(const QString& host, int port);
    // "SHA256:" and the unpadded base64 of the key's digest, as OpenSSH prints it.
    static QString fingerprint(const QByteArray& keyBlob);

    // The host-key algorithms to offer the server: those already recorded for the host first,
    // so that its known key is the one checked.
    QString preferredAlgorithms(const QString& host, int port) const;

    enum class Verdict { Known, Recorded, Changed, OtherType, Failed };
    struct Check {
        Verdict verdict = Verdict::Failed;
        QString fingerprint;      // the key the server presented
        QString knownFingerprint; // the recorded one, when it changed
        QString error;            // a sentence for the user unless the key is accepted
        bool accepted() const { return verdict == Verdict::Known || verdict == Verdict::Recorded; }
    };
    // Checks the key the session's server presented after the handshake, and records it in
    // the own file when neither file knows the host.
    Check verify(LIBSSH2_SESSION* session, const QString& host, int port) const;

private:
    // Key types ("ssh-ed25519", ...) the file records for the host.
    static QStringList recordedTypes(const QString& file, const QString& entry);

    QString m_userFile;
    QString m_ownFile;
};
