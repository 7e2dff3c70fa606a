#include "actions/ActionServer.h"

#include "core/Settings.h"
#include "tests/support/EventLoop.h"
#include "tests/support/HttpTestServer.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QNetworkReply>

#include <gtest/gtest.h>
#include <optional>

namespace {

struct UrlRow {
    const char* base;
    const char* name;
    const char* expected;
};

TEST(ActionServerTest, ActionUrlForms)
{
    const UrlRow rows[] = {
        {"http://example.org", "Copy Files",
         "http://example.org/actions/skelvo5-actions-zipped/Copy%20Files.skbundle?1700000000"},
        {"http://example.org/", "Copy%20Files",
         "http://example.org/actions/skelvo5-actions-zipped/Copy%20Files.skbundle?1700000000"},
        {"https://example.org:8443/mirror//", "100% Résumé",
         "https://example.org:8443/mirror/actions/skelvo5-actions-zipped/"
         "100%25%20R%C3%A9sum%C3%A9.skbundle?1700000000"},
        {"http://example.org/a/b", "Q#A?",
         "http://example.org/a/b/actions/skelvo5-actions-zipped/Q%23A%3F.skbundle?1700000000"},
        {"file:///srv/team%20actions/", "Zip It",
         "file:///srv/team%20actions/actions/skelvo5-actions-zipped/Zip%20It.skbundle?1700000000"},
    };
    for (const UrlRow& row : rows) {
        const QUrl url = ActionServer::actionUrl(QUrl(row.base), row.name, 1700000000.4);
        EXPECT_EQ(url.toString(QUrl::FullyEncoded), row.expected) << row.base << " " << row.name;
    }
    EXPECT_EQ(ActionServer::manifestUrl(QUrl("http://h:81/p/"), 2.6).toString(),
              "http://h:81/p/actions/skelvo5-actions-zipped/versions.txt?3");
}

TEST(ActionServerTest, BaseUrlFromTheSetting)
{
    ensureCoreApplication();
    TestHome home;
    Settings settings(home.path() + "/settings.json");
    ActionServer server(settings);
    const std::pair<const char*, const char*> rows[] = {
        {"", ""},
        {"example.org", ""},
        {"ftp://example.org", ""},
        {"http://", ""},
        {" https://example.org/x ", "https://example.org/x"},
        {"file:///srv/actions", "file:///srv/actions"},
        {"/srv/actions", "file:///srv/actions"},
    };
    for (const auto& [text, expected] : rows) {
        settings.setValue(Settings::ActionServerURL, QString(text));
        const QUrl url = server.baseUrl();
        EXPECT_EQ(url.isValid() ? url.toString() : QString(), expected) << text;
    }
}

TEST(ActionServerTest, ParseManifest)
{
    const auto entries =
        ActionServer::parseManifest("\n  Copy Files\t2.10\tcom.x.copy\tABCDEF\t Copies files \r\n"
                                    "short\t1.0\tid\tmd5\n"
                                    "\t1.0\tid\tmd5\tno name\n"
                                    "Zip\t1\tcom.x.zip\t\tZips\textra\n  ");
    ASSERT_EQ(entries.size(), 2);
    EXPECT_EQ(entries[0].name, "Copy Files");
    EXPECT_EQ(entries[0].version, "2.10");
    EXPECT_EQ(entries[0].uniqueId, "com.x.copy");
    EXPECT_EQ(entries[0].md5, "abcdef");
    EXPECT_EQ(entries[0].description, "Copies files");
    EXPECT_EQ(entries[1].name, "Zip");
    EXPECT_EQ(entries[1].md5, "");
    EXPECT_EQ(entries[1].description, "Zips");
}

struct Fetched {
    QByteArray body;
    QString error;
};

std::optional<Fetched> fetchNow(ActionServer& server, const QUrl& url, int timeoutMs = 20000)
{
    std::optional<Fetched> result;
    server.fetch(url, [&](const QByteArray& body, const QString& error) {
        result = Fetched{body, error};
    });
    waitUntil([&] { return result.has_value(); }, timeoutMs);
    return result;
}

TEST(ActionServerTest, FetchesOverHttpAndFromFiles)
{
    ensureCoreApplication();
    TestHome home;
    home.writeFile("www/actions/skelvo5-actions-zipped/versions.txt", "A\t1\tid\tmd5\tdesc\n");
    HttpTestServer http(home.path() + "/www");
    ASSERT_TRUE(http.start());
    Settings settings(home.path() + "/settings.json");
    ActionServer server(settings);
    server.setTimeoutMs(1000);

    const struct {
        QUrl url;
        const char* body;
        QString error;
    } rows[] = {
        {ActionServer::manifestUrl(QUrl(http.url()), 5), "A\t1\tid\tmd5\tdesc\n", {}},
        {ActionServer::actionUrl(QUrl(http.url()), "Missing", 5), "", "HTTP error 404"},
        {ActionServer::manifestUrl(QUrl::fromLocalFile(home.path() + "/www"), 5),
         "A\t1\tid\tmd5\tdesc\n",
         {}},
        {ActionServer::actionUrl(QUrl::fromLocalFile(home.path() + "/www"), "Missing", 5), "",
         "File not found: " + home.path() + "/www/actions/skelvo5-actions-zipped/Missing.skbundle"},
        {QUrl(http.url("/hang/x")), "", "The action server did not answer within 1 seconds."},
    };
    for (const auto& row : rows) {
        const auto fetched = fetchNow(server, row.url);
        ASSERT_TRUE(fetched) << row.url.toString();
        EXPECT_EQ(fetched->body, row.body) << row.url.toString();
        EXPECT_EQ(fetched->error, row.error) << row.url.toString();
    }
    // Every HTTP request carried the version header.
    const QStringList requests = http.requests();
    ASSERT_EQ(requests.size(), 3);
    for (const QString& request : requests) {
        EXPECT_TRUE(request.endsWith("\t5")) << request;
    }
    EXPECT_TRUE(requests[0].startsWith("/actions/skelvo5-actions-zipped/versions.txt?5\t"));
}

TEST(ActionServerTest, AnAbortedFetchIsNoTimeout)
{
    ensureCoreApplication();
    TestHome home;
    HttpTestServer http(home.path());
    ASSERT_TRUE(http.start());
    Settings settings(home.path() + "/settings.json");
    ActionServer server(settings);
    std::optional<QString> error;
    QNetworkReply* reply = server.fetch(QUrl(http.url("/hang/y")),
                                        [&](const QByteArray&, const QString& e) { error = e; });
    ASSERT_TRUE(waitUntil([&] { return http.requests().size() == 1; }));
    reply->abort();
    ASSERT_TRUE(waitUntil([&] { return error.has_value(); }));
    EXPECT_FALSE(error->isEmpty());
    EXPECT_FALSE(error->contains("did not answer"));
}

TEST(ActionServerTest, ManifestWithoutServerIsNotConfigured)
{
    ensureCoreApplication();
    TestHome home;
    Settings settings(home.path() + "/settings.json");
    ActionServer server(settings);
    QString error;
    server.fetchManifest([&](const QList<ManifestEntry>&, const QString& e) { error = e; });
    EXPECT_EQ(error, ActionServer::notConfiguredMessage());
}

} // namespace
