#include "actions/ActionServer.h"

#include "core/Log.h"
#include "core/Settings.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QSharedPointer>
#if QT_CONFIG(ssl)
#include <QSslConfiguration>
#include <QSslSocket>
#endif

namespace {

// base's path without its trailing slashes, then the fixed folder and the file name.
QUrl urlInActionsFolder(const QUrl& base, const QString& fileName, double secondsSince1970)
{
    QUrl url(base);
    QString prefix = base.path(QUrl::FullyDecoded);
    while (prefix.endsWith(u'/')) {
        prefix.chop(1);
    }
    url.setPath(prefix + ActionServer::ActionsPath + fileName, QUrl::DecodedMode);
    url.setQuery(QString::asprintf("%.0f", secondsSince1970));
    url.setFragment(QString());
    return url;
}

double nowSeconds()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

} // namespace

ActionServer::ActionServer(Settings& settings, QObject* parent)
    : QObject(parent)
    , m_settings(settings)
    , m_network(new QNetworkAccessManager(this))
{}

ActionServer::~ActionServer() = default;

QUrl ActionServer::baseUrl() const
{
    const QString text = m_settings.stringValue(Settings::ActionServerURL).trimmed();
    if (text.isEmpty()) {
        return {};
    }
    // A plain absolute path names a shared folder.
    if (text.startsWith(u'/')) {
        return QUrl::fromLocalFile(text);
    }
    const QUrl url(text, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || url.isRelative()) {
        return {};
    }
    if ((scheme == u"http" || scheme == u"https") && !url.host().isEmpty()) {
        return url;
    }
    if (scheme == u"file" && url.isLocalFile()) {
        return url;
    }
    return {};
}

QString ActionServer::notConfiguredMessage()
{
    return QStringLiteral("No action server is configured; set one with: sk settings set "
                          "ActionServerURL URL (an http, https or file URL).");
}

QString ActionServer::decodedName(const QString& name)
{
    // A name whose every "%" starts an escape was already encoded.
    static const QRegularExpression escape(QStringLiteral("%[0-9A-Fa-f]{2}"));
    static const QRegularExpression barePercent(QStringLiteral("%(?![0-9A-Fa-f]{2})"));
    const bool encoded = name.contains(escape) && !name.contains(barePercent);
    return encoded ? QUrl::fromPercentEncoding(name.toUtf8()) : name;
}

QUrl ActionServer::actionUrl(const QUrl& base, const QString& name, double secondsSince1970)
{
    // The URL encodes the decoded name exactly once.
    return urlInActionsFolder(base, decodedName(name) + QStringLiteral(".skbundle"),
                              secondsSince1970);
}

QUrl ActionServer::manifestUrl(const QUrl& base, double secondsSince1970)
{
    return urlInActionsFolder(base, QStringLiteral("versions.txt"), secondsSince1970);
}

QList<ManifestEntry> ActionServer::parseManifest(const QString& text)
{
    QList<ManifestEntry> entries;
    static const QRegularExpression lineBreak(QStringLiteral("\r\n|\r|\n"));
    for (const QString& line : text.trimmed().split(lineBreak, Qt::SkipEmptyParts)) {
        const QStringList fields = line.split(u'\t');
        if (fields.size() < 5 || fields.at(0).trimmed().isEmpty()) {
            continue;
        }
        entries.append({fields.at(0).trimmed(), fields.at(1).trimmed(), fields.at(2).trimmed(),
                        fields.at(3).trimmed().toLower(), fields.at(4).trimmed()});
    }
    return entries;
}

QNetworkReply* ActionServer::fetch(const QUrl& url, Fetched done)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setRawHeader("version", "5");
    request.setTransferTimeout(m_timeoutMs);
#if QT_CONFIG(ssl)
    if (url.scheme().compare(u"https", Qt::CaseInsensitive) == 0 &&
        m_settings.boolValue(Settings::DisableSSLVerify)) {
        QSslConfiguration ssl = request.sslConfiguration();
        ssl.setPeerVerifyMode(QSslSocket::VerifyNone);
        request.setSslConfiguration(ssl);
    }
#endif
    QNetworkReply* reply = m_network->get(request);

    // Qt reports its transfer timeout as a cancellation; the time since the last progress
    // tells it from an abort by the caller.
    struct Progress {
        QElapsedTimer sinceLast;
        qint64 received = 0;
    };
    auto progress = QSharedPointer<Progress>::create();
    progress->sinceLast.start();
    connect(reply, &QNetworkReply::downloadProgress, reply, [progress](qint64 received) {
        if (received > progress->received) {
            progress->received = received;
            progress->sinceLast.restart();
        }
    });
    const int timeoutMs = m_timeoutMs;
    connect(reply, &QNetworkReply::finished, this,
            [reply, url, timeoutMs, progress, done = std::move(done)] {
                reply->deleteLater();
                const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
                const bool isHttp = url.scheme().startsWith(u"http", Qt::CaseInsensitive);
                QString error;
                if (isHttp && status.isValid() && (status.toInt() < 200 || status.toInt() >= 300)) {
                    error = QString::asprintf("HTTP error %ld", static_cast<long>(status.toInt()));
                } else if (reply->error() == QNetworkReply::OperationCanceledError &&
                           progress->sinceLast.elapsed() >= timeoutMs * 9 / 10) {
                    error = QStringLiteral("The action server did not answer within %1 seconds.")
                                .arg(timeoutMs / 1000.0);
                } else if (reply->error() == QNetworkReply::ContentNotFoundError && !isHttp) {
                    error = QStringLiteral("File not found: %1").arg(url.toLocalFile());
                } else if (reply->error() != QNetworkReply::NoError) {
                    error = reply->errorString();
                }
                if (!error.isEmpty()) {
                    done({}, error);
                } else {
                    done(reply->readAll(), {});
                }
            });
    return reply;
}

void ActionServer::fetchManifest(
    std::function<void(const QList<ManifestEntry>&, const QString& error)> done)
{
    const QUrl base = baseUrl();
    if (!base.isValid()) {
        done({}, notConfiguredMessage());
        return;
    }
    const QUrl url = manifestUrl(base, nowSeconds());
    fetch(url, [url, done = std::move(done)](const QByteArray& body, const QString& error) {
        if (!error.isEmpty()) {
            Log::error(QStringLiteral("Error downloading manifest with URL %1\n%2")
                           .arg(url.toString(), error));
            done({}, error);
            return;
        }
        done(parseManifest(QString::fromUtf8(body)), {});
    });
}
