#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>

class QNetworkAccessManager;
class QNetworkReply;
class Settings;

// One line of the server's "versions.txt".
struct ManifestEntry {
    QString name;
    QString version;
    QString uniqueId;
    QString md5; // lower-case hex; may be empty
    QString description;
};

// The action server: where add-on actions and their manifest are fetched from, and the one
// way they are fetched (no cached data, the "version" header, a 30 s timeout). The base URL
// is the "ActionServerURL" setting (http, https or file, with an optional path prefix); the
// fixed folder "/actions/skelvo5-actions-zipped/" is appended to it.
class ActionServer : public QObject {
    Q_OBJECT
public:
    static inline const QString ActionsPath = QStringLiteral("/actions/skelvo5-actions-zipped/");
    static constexpr int TimeoutMs = 30000;

    explicit ActionServer(Settings& settings, QObject* parent = nullptr);
    ~ActionServer() override;

    // The configured base URL; invalid when none is set or the setting is not a usable URL.
    QUrl baseUrl() const;
    // The one sentence the add-on commands answer with when no server is configured.
    static QString notConfiguredMessage();

    // base + ActionsPath + name (percent-encoded unless it already is) + ".skbundle" +
    // "?<seconds since 1970>".
    static QUrl actionUrl(const QUrl& base, const QString& name, double secondsSince1970);
    // The name as the user reads it: an already percent-encoded name decoded once.
    static QString decodedName(const QString& name);
    // base + ActionsPath + "versions.txt" + the same query.
    static QUrl manifestUrl(const QUrl& base, double secondsSince1970);

    // Lines with fewer than five tab-separated fields are skipped; fields are trimmed.
    static QList<ManifestEntry> parseManifest(const QString& text);

    // Fetches `url`; `done` gets the body, or an error text ("HTTP error 404", the network
    // error's description, a timeout) with an empty body. Called on the main thread.
    // The returned reply may be aborted to cancel (done is then called with an error).
    using Fetched = std::function<void(const QByteArray& body, const QString& error)>;
    QNetworkReply* fetch(const QUrl& url, Fetched done);

    // Fetches and parses the manifest of the configured server; a failure is logged.
    void fetchManifest(std::function<void(const QList<ManifestEntry>&, const QString& error)> done);

    // How long a request may go without receiving anything (TimeoutMs unless a test shortens
    // it).
    void setTimeoutMs(int ms) { m_timeoutMs = ms; }
    int timeoutMs() const { return m_timeoutMs; }

private:
    Settings& m_settings;
    QNetworkAccessManager* m_network;
    int m_timeoutMs = TimeoutMs;
};
