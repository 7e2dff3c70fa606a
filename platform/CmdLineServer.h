#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <optional>

class QSocketNotifier;
class QTimer;

// The application's end of the command-line socket: one instance per user (a lock file in
// the runtime folder), only processes of the same user served, one newline-terminated JSON
// request per connection, answers written back to that connection only.
class CmdLineServer : public QObject {
    Q_OBJECT
public:
    using ConnectionId = quint64;
    // How long a client may take from connecting to the end of its request.
    static constexpr int DefaultRequestTimeoutMs = 10000;

    explicit CmdLineServer(QObject* parent = nullptr);
    ~CmdLineServer() override;

    // Takes the single-instance lock and listens in `runtimeFolder`. False when another
    // instance holds the lock (or the socket cannot be made; `error` says which).
    bool listen(const QString& runtimeFolder, QString* error = nullptr);
    bool anotherInstanceIsRunning() const { return m_anotherInstance; }
    QString socketPath() const { return m_socketPath; }

    // Writes one message to the connection; Finish closes it once everything is written.
    void send(ConnectionId connection, const QString& name, const QVariantMap& userInfo = {});
    // `failed` marks an answer that tells of a failure without beginning "Error: ".
    void respond(ConnectionId connection, const QString& response, bool failed = false);
    void finish(ConnectionId connection);
    bool isOpen(ConnectionId connection) const { return m_connections.contains(connection); }
    void setRequestTimeout(int milliseconds) { m_requestTimeoutMs = milliseconds; }

    // Sends a request to the running instance and waits for its finish (a second instance
    // handing over its arguments). Returns the responses, or none when nobody answered.
    static std::optional<QStringList> sendRequest(const QString& runtimeFolder, const QString& name,
                                                  const QVariantMap& userInfo,
                                                  int timeoutMs = 5000);

Q_SIGNALS:
    // A complete request arrived. "Running" has already been sent.
    void requestReceived(CmdLineServer::ConnectionId connection, const QString& name,
                         const QVariantMap& userInfo);
    void connectionClosed(CmdLineServer::ConnectionId connection);

private:
    struct Connection {
        int fd = -1;
        QByteArray input;
        QByteArray output;
        bool requestSeen = false;
        bool closing = false;
        QSocketNotifier* readNotifier = nullptr;
        QSocketNotifier* writeNotifier = nullptr;
        QTimer* requestTimer = nullptr;
    };

    void acceptConnections();
    void readFrom(ConnectionId id);
    void flush(ConnectionId id);
    void close(ConnectionId id);
    void rejectRequest(ConnectionId id, const QString& message);
    bool peerIsThisUser(int fd) const;

    int m_listenFd = -1;
    int m_lockFd = -1;
    bool m_anotherInstance = false;
    QString m_socketPath;
    QSocketNotifier* m_acceptNotifier = nullptr;
    QHash<ConnectionId, Connection> m_connections;
    ConnectionId m_nextId = 1;
    int m_requestTimeoutMs = DefaultRequestTimeoutMs;
};
