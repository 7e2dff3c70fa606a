#pragma once

#include "platform/KnownHosts.h"

#include <QString>

#include <atomic>
#include <functional>
#include <memory>

// Who logs in where. With a password set (empty counts when `hasPassword`) it is used; with a
// private key file the key pair and its passphrase; with neither, the SSH agent.
struct SshLogin {
    QString host;
    int port = 22;
    QString user;
    QString password;
    bool hasPassword = false;
    QString privateKey;
    QString publicKey; // may be empty: it is then derived from the private key
    QString passphrase;
};

struct SshTimeouts {
    int connectMs = 15000; // from the first packet to a finished key exchange
    int stallMs = 60000;   // at most this long without any progress afterwards
};

// One SSH connection with an SFTP channel (libssh2, non-blocking underneath so that time-outs
// and cancelling work). Used from one thread; `cancelled` may be set from any thread.
class SshSession {
public:
    enum class Failure { None, Connect, HostKey, Authentication, Stalled, Cancelled, Sftp };
    enum class PathState { Folder, Missing, NotFolder, Failed };
    enum class UploadStep { Open, Write, Rename };
    using Progress = std::function<void(qint64 bytesSent)>;

    SshSession(KnownHosts knownHosts, SshTimeouts timeouts = {},
               const std::atomic_bool* cancelled = nullptr);
    ~SshSession();
    SshSession(const SshSession&) = delete;
    SshSession& operator=(const SshSession&) = delete;

    // Connects, checks the host key (nothing is sent to an unknown-changed server),
    // authenticates and opens the SFTP channel.
    bool open(const SshLogin& login);
    const KnownHosts::Check& hostKey() const { return m_hostKey; }

    PathState stat(const QString& path);
    // Creates the folder and its missing parents.
    bool makeFolders(const QString& path);
    // Writes `localPath` to `remoteFolder`/`name` under a temporary name in that folder and
    // renames it when complete, so the final name never holds a partial file. `progress`
    // hears the bytes the server has acknowledged.
    bool upload(const QString& localPath, const QString& remoteFolder, const QString& name,
                const Progress& progress, UploadStep* failedStep = nullptr);

    // What went wrong last, as a sentence for the user.
    QString error() const { return m_error; }
    Failure failure() const { return m_failure; }
    // The SFTP status code of the last failed request (LIBSSH2_FX_*), 0 when there was none.
    unsigned long sftpStatus() const { return m_sftpStatus; }
    // Whether the server refused the last request for its path: no permission, a missing
    // folder, a read-only file system.
    bool pathRefused() const;

    // The remote path of `name` in `folder` ("" and "." are the login folder).
    static QString joinRemote(const QString& folder, const QString& name);

private:
    struct Private;
    std::unique_ptr<Private> d;
    KnownHosts::Check m_hostKey;
    QString m_error;
    Failure m_failure = Failure::None;
    unsigned long m_sftpStatus = 0;
};
