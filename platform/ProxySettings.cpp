#include "platform/ProxySettings.h"

#include "core/Log.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QTextStream>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <gio/gio.h>

namespace {

const QString ProbeHost = QStringLiteral("www.example.com");

const char* const ProxyVariableNames[] = {"http_proxy", "https_proxy", "all_proxy"};

// The keys of one section of an ini-style file, with KDE's "[$e]"-style key flags removed.
QMap<QString, QString> readIniSection(const QString& path, const QString& section)
{
    QMap<QString, QString> values;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return values;
    }
    QTextStream stream(&file);
    bool inSection = false;
    QString line;
    while (stream.readLineInto(&line)) {
        line = line.trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        if (line.startsWith(QLatin1Char('['))) {
            const qsizetype end = line.indexOf(QLatin1Char(']'));
            inSection = end > 0 && line.mid(1, end - 1) == section;
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (!inSection || equals <= 0) {
            continue;
        }
        QString key = line.left(equals).trimmed();
        const qsizetype flags = key.indexOf(QLatin1Char('['));
        if (flags > 0) {
            key = key.left(flags);
        }
        values.insert(key, line.mid(equals + 1).trimmed());
    }
    return values;
}

} // namespace

ProxySettings::ProxySettings(QProcessEnvironment environment)
    : m_environment(std::move(environment))
{}

ProxySettings ProxySettings::system()
{
    return ProxySettings(QProcessEnvironment::systemEnvironment());
}

QUrl ProxySettings::httpProbeUrl()
{
    return QUrl(QStringLiteral("http://") + ProbeHost + '/');
}

QUrl ProxySettings::httpsProbeUrl()
{
    return QUrl(QStringLiteral("https://") + ProbeHost + '/');
}

ProxyEntryList ProxySettings::proxiesForUrl(const QUrl& url) const
{
    if (environmentNamesProxies()) {
        return environmentProxies(url);
    }
    if (auto kde = kdeProxies(url)) {
        return *kde;
    }
    return resolverProxies(url);
}

ProxyEntryList ProxySettings::resolverProxies(const QUrl& url)
{
    GError* error = nullptr;
    gchar** uris = g_proxy_resolver_lookup(g_proxy_resolver_get_default(),
                                           url.toEncoded().constData(), nullptr, &error);
    ProxyEntryList entries;
    if (!uris) {
        Log::warning(QStringLiteral("No proxy answer for %1: %2")
                         .arg(url.toString(), QString::fromUtf8(error->message)));
        g_error_free(error);
        return entries;
    }
    const bool https = url.scheme() == QLatin1String("https");
    // "direct://" has no host and gives no entry; GNOME names one socks proxy three times.
    for (gchar** uri = uris; *uri; ++uri) {
        const auto entry = parseProxy(QString::fromUtf8(*uri), https);
        if (entry && !entries.contains(*entry)) {
            entries << *entry;
        }
    }
    g_strfreev(uris);
    return entries;
}

QString ProxySettings::variable(const QString& lowerName) const
{
    // Lower case first, as curl and most tools read them.
    const QString lower = m_environment.value(lowerName).trimmed();
    if (!lower.isEmpty()) {
        return lower;
    }
    return m_environment.value(lowerName.toUpper()).trimmed();
}

bool ProxySettings::environmentNamesProxies() const
{
    for (const char* name : ProxyVariableNames) {
        if (!variable(QString::fromLatin1(name)).isEmpty()) {
            return true;
        }
    }
    return false;
}

ProxyEntryList ProxySettings::environmentProxies(const QUrl& url) const
{
    ProxyEntryList entries;
    if (isExempt(url.host(), variable(QStringLiteral("no_proxy")))) {
        return entries;
    }
    const bool https = url.scheme() == QLatin1String("https");
    const QString specific =
        variable(https ? QStringLiteral("https_proxy") : QStringLiteral("http_proxy"));
    for (const QString& text : {specific, variable(QStringLiteral("all_proxy"))}) {
        if (const auto entry = parseProxy(text, https)) {
            entries << *entry;
        }
    }
    return entries;
}

QString ProxySettings::kioslavercPath() const
{
    QString configHome = m_environment.value(QStringLiteral("XDG_CONFIG_HOME"));
    if (configHome.isEmpty() || !QDir::isAbsolutePath(configHome)) {
        const QString home = m_environment.value(QStringLiteral("HOME"));
        if (home.isEmpty()) {
            return {};
        }
        configHome = QDir(home).filePath(QStringLiteral(".config"));
    }
    return QDir(configHome).filePath(QStringLiteral("kioslaverc"));
}

std::optional<ProxyEntryList> ProxySettings::kdeProxies(const QUrl& url) const
{
    enum KdeProxyType { Manual = 1, EnvironmentVariables = 4 };

    const QString path = kioslavercPath();
    if (path.isEmpty()) {
        return std::nullopt;
    }
    const QMap<QString, QString> settings = readIniSection(path, QStringLiteral("Proxy Settings"));
    const int type = settings.value(QStringLiteral("ProxyType")).toInt();
    if (type != Manual && type != EnvironmentVariables) {
        return std::nullopt;
    }
    ProxyEntryList entries;
    // In the environment mode each setting names variables (comma separated) to read.
    auto setting = [&](const QString& key) {
        const QString value = settings.value(key);
        if (type == Manual) {
            return value;
        }
        for (const QString& name : value.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            const QString fromEnvironment = m_environment.value(name.trimmed()).trimmed();
            if (!fromEnvironment.isEmpty()) {
                return fromEnvironment;
            }
        }
        return QString();
    };

    const bool listed = isExempt(url.host(), setting(QStringLiteral("NoProxyFor")));
    const bool reversed =
        settings.value(QStringLiteral("ReversedException")).toLower() == QLatin1String("true");
    // Reversed, the list names the only hosts that go through the proxies.
    if (listed != reversed) {
        return entries;
    }
    const bool https = url.scheme() == QLatin1String("https");
    const auto specific = parseProxy(
        setting(https ? QStringLiteral("httpsProxy") : QStringLiteral("httpProxy")), https);
    if (specific) {
        entries << *specific;
    }
    if (const auto socks =
            parseProxy(setting(QStringLiteral("socksProxy")), https, QStringLiteral("socks"))) {
        entries << *socks;
    }
    return entries;
}

bool ProxySettings::isExempt(const QString& host, const QString& noProxyList)
{
    static const QRegularExpression separators(QStringLiteral("[,\\s]+"));
    const QString name = host.toLower();
    for (QString token : noProxyList.split(separators, Qt::SkipEmptyParts)) {
        token = token.toLower();
        if (token == QLatin1String("*")) {
            return true;
        }
        if (token.startsWith(QLatin1Char('['))) {
            token = token.mid(1, token.indexOf(QLatin1Char(']')) - 1);
        } else if (token.count(QLatin1Char(':')) == 1) {
            token = token.left(token.indexOf(QLatin1Char(':')));
        }
        while (token.startsWith(QLatin1Char('*')) || token.startsWith(QLatin1Char('.'))) {
            token.remove(0, 1);
        }
        if (token.isEmpty()) {
            continue;
        }
        if (name == token || name.endsWith(QLatin1Char('.') + token)) {
            return true;
        }
    }
    return false;
}

std::optional<ProxyEntry> ProxySettings::parseProxy(const QString& text, bool forHttpsUrl,
                                                    const QString& defaultScheme)
{
    QString address = text.trimmed();
    if (address.isEmpty()) {
        return std::nullopt;
    }
    int explicitPort = -1;
    static const QRegularExpression kdeForm(QStringLiteral("^(\\S+)\\s+(\\d+)$"));
    if (const auto match = kdeForm.match(address); match.hasMatch()) {
        address = match.captured(1);
        explicitPort = match.captured(2).toInt();
    }
    if (!address.contains(QLatin1String("://"))) {
        address = defaultScheme + QLatin1String("://") + address;
    }
    const QUrl url(address);
    if (!url.isValid() || url.host().isEmpty()) {
        return std::nullopt;
    }

    ProxyEntry entry;
    entry.host = url.host();
    const QString scheme = url.scheme().toLower();
    int defaultPort = 0;
    if (scheme == QLatin1String("http") || scheme == QLatin1String("https")) {
        entry.type = forHttpsUrl ? ProxyEntry::Type::HTTPS : ProxyEntry::Type::HTTP;
        defaultPort = scheme == QLatin1String("https") ? 443 : 80;
    } else if (scheme.startsWith(QLatin1String("socks"))) {
        entry.type = ProxyEntry::Type::SOCKS;
        defaultPort = 1080;
    } else {
        entry.type = ProxyEntry::Type::Other;
    }
    entry.port = explicitPort > 0 ? explicitPort : url.port(defaultPort);
    if (entry.port <= 0 || entry.port > 65535) {
        return std::nullopt;
    }
    return entry;
}
