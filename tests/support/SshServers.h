#pragma once

#include <QProcess>
#include <QString>

struct SshServerFaults {
    qint64 dropAfter = -1;  // bytes of file data after which the connection is closed
    qint64 stallAfter = -1; // bytes after which the server stops answering
    QString deny;           // a path component that is refused for writing
};

// A real SSH server for the SFTP tests, on a free loopback port, as the current user, with a
// host key of its own: OpenSSH's sshd (key logins; the served paths are the real ones) or a
// small Paramiko server (password logins, paths inside `root()`, and chosen faults).
class SshServer {
public:
    enum class Kind { OpenSsh, Paramiko };
    using Faults = SshServerFaults;

    SshServer(Kind kind, const QString& folder, const Faults& faults = {});
    ~SshServer();
    SshServer(const SshServer&) = delete;
    SshServer& operator=(const SshServer&) = delete;

    // Starts it and waits until it listens; false with `error()` otherwise.
    bool start();
    void stop();
    // Restarts on the same port with a newly made host key.
    bool replaceHostKey();

    int port() const { return m_port; }
    QString root() const { return m_root; }
    QString clientKey() const; // the private key sshd accepts
    QString hostKey() const;   // the host's private key; ".pub" beside it
    QString error() const { return m_error; }

    static QString user();
    static QString password() { return QStringLiteral("opensesame"); }
    // Runs a program to its end; false unless it exits with 0.
    static bool run(const QString& program, const QStringList& arguments,
                    QByteArray* out = nullptr);

private:
    bool makeKey(const QString& path);
    bool waitForLine(const QByteArray& marker, QByteArray* line);

    Kind m_kind;
    QString m_folder;
    QString m_root;
    Faults m_faults;
    QProcess m_process;
    QByteArray m_output;
    int m_port = 0;
    QString m_error;
};
