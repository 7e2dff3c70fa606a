#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A real HTTP server on 127.0.0.1 (Python's http.server) serving a folder. Requests under
// "/hang/" are never answered. The server stops with the object.
class HttpTestServer {
public:
    explicit HttpTestServer(QString root);
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    // Starts the server and waits for its port; false when it did not start.
    bool start();
    quint16 port() const { return m_port; }
    // "http://127.0.0.1:PORT" followed by `path`.
    QString url(const QString& path = {}) const;
    // Each request so far as "PATH<TAB>version header".
    QStringList requests() const;

private:
    QString m_root;
    QTemporaryDir m_logDir;
    QProcess m_process;
    quint16 m_port = 0;
};
