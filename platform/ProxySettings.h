#pragma once

#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QUrl>

#include <optional>

// One proxy that traffic to some URL would go through.
struct ProxyEntry {
    enum class Type { HTTP, HTTPS, SOCKS, Other };

    QString host;
    int port = 0;
    Type type = Type::Other;

    bool operator==(const ProxyEntry&) const = default;
};
using ProxyEntryList = QList<ProxyEntry>;

// The user's proxy configuration on Linux.
//
// The environment decides whenever it names a proxy at all ("http_proxy", "https_proxy",
// "all_proxy", lower case before upper case, with "no_proxy" exempting hosts), as curl reads
// it; GIO's resolvers would ignore them on GNOME and all_proxy elsewhere. Otherwise KDE's settings
// ("[Proxy Settings]" in $XDG_CONFIG_HOME/kioslaverc) decide when they name manual proxies or
// proxies taken from named environment variables. Otherwise GIO's proxy resolver answers for the
// process: GNOME's settings on a GNOME desktop, libproxy's elsewhere (both from glib-networking;
// without it every answer is "no proxy").
class ProxySettings {
public:
    explicit ProxySettings(QProcessEnvironment environment);
    // Over the process's current environment.
    static ProxySettings system();

    // Two addresses of one public web site whose proxies stand for all traffic.
    static QUrl httpProbeUrl();
    static QUrl httpsProbeUrl();

    // The proxies for the URL in the order they would be tried. Entries from http and https
    // proxies are typed after the URL (HTTPS for an https URL, HTTP otherwise), whatever the
    // proxy's own scheme; socks proxies are SOCKS; other schemes are Other.
    ProxyEntryList proxiesForUrl(const QUrl& url) const;
    ProxyEntryList httpProbeProxies() const { return proxiesForUrl(httpProbeUrl()); }
    ProxyEntryList httpsProbeProxies() const { return proxiesForUrl(httpsProbeUrl()); }

    // Whether a "no_proxy" list ("localhost,.example.com,*", commas or blanks between the
    // names) exempts the host: an exact name, any name below a listed domain, or "*".
    static bool isExempt(const QString& host, const QString& noProxyList);

    // Reads "scheme://[user@]host[:port]", a bare "host[:port]" (taken as defaultScheme) or
    // KDE's "scheme://host port". The port defaults to the scheme's (80, 443, 1080 for socks).
    static std::optional<ProxyEntry>
    parseProxy(const QString& text, bool forHttpsUrl,
               const QString& defaultScheme = QStringLiteral("http"));

private:
    QString variable(const QString& lowerName) const;
    bool environmentNamesProxies() const;
    ProxyEntryList environmentProxies(const QUrl& url) const;
    // None when KDE's settings name no proxies.
    std::optional<ProxyEntryList> kdeProxies(const QUrl& url) const;
    static ProxyEntryList resolverProxies(const QUrl& url);
    QString kioslavercPath() const;

    QProcessEnvironment m_environment;
};
