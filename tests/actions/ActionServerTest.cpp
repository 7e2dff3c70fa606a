#include "actions/ActionServer.h"

#include "core/Settings.h"
#include "tests/support/EventLoop.h"
#include "tests/support/HttpTestServer.h"
#include "tests/support/TestHome.h"

#include <QNetworkReply>

#include <gtest/gtest.h>
#include <optional>

namespace {

TEST(ActionServerTest, ActionUrlForms)
{
    const QString prefix = "/actions/skelvo5-actions-zipped/";
    const struct {
        const char* base;
        const char* name;
        QString expected;
    } rows[] = {
        {"http://example.org", "Copy Files", "http://example.org" + prefix + "Copy%20Files"},
        {"http://example.org/", "Copy%20Files", "http://example.org" + prefix + "Copy%20Files"},
        {"https://example.org:8443/mirror//", "100% Résumé",
         "https://example.org:8443/mirror" + prefix + "100%25%20R%C3%A9sum%C3%A9"},
        {"http://example.org/a/b", "Q#A?", "http://example.org/a/b" + prefix + "Q%23A%3F"},
        {"file:///srv/team%20actions/", "Zip It",
         "file:///srv/team%20actions" + prefix + "Zip%20It"},
    };
    for (const auto& row : rows) {
        const QUrl url = ActionServer::actionUrl(QUrl(row.base), row.name, 1700000000.4);
        EXPECT_EQ(url.toString(QUrl::FullyEncoded), row.expected + ".skbundle?1700000000")
            << row.base << " " << row.name;
    }
    EXPECT_EQ(ActionServer::manifestUrl(QUrl("http://h:81/p/"), 2.6).toString(),
              "http://h:81/p" + prefix + "versions.txt?3");
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
    const ManifestEntry& copy = entries[0];
    EXPECT_EQ(QStringList({copy.name, copy.version, copy.uniqueId, copy.md5, copy.description}),
              QStringList({"Copy Files", "2.10", "com.x.copy", "abcdef", "Copies files"}));
    EXPECT_EQ(QStringList({entries[1].name, entries[1].md5, entries[1].description}),
              QStringList({"Zip", "", "Zips"}));
}

// Files from a folder, a server that never answers, and an aborted request (no timeout).
TEST(ActionServerTest, FetchesFilesTimesOutAndAborts)
{
    ensureCoreApplication();
    TestHome home;
    home.writeFile("www/actions/skelvo5-actions-zipped/versions.txt", "A\t1\tid\tmd5\tdesc\n");
    HttpTestServer http(home.path() + "/www");
    ASSERT_TRUE(http.start());
    Settings settings(home.path() + "/settings.json");
    ActionServer server(settings);
    server.setTimeoutMs(1000);
    const QUrl folder = QUrl::fromLocalFile(home.path() + "/www");
    const struct {
        QUrl url;
        const char* body;
        QString error;
    } rows[] = {
        {ActionServer::manifestUrl(folder, 5), "A\t1\tid\tmd5\tdesc\n", {}},
        {ActionServer::actionUrl(folder, "Missing", 5), "",
         "File not found: " + home.path() + "/www/actions/skelvo5-actions-zipped/Missing.skbundle"},
        {QUrl(http.url("/hang/x")), "", "The action server did not answer within 1 seconds."},
    };
    for (const auto& row : rows) {
        std::optional<std::pair<QByteArray, QString>> fetched;
        server.fetch(row.url, [&](const QByteArray& body, const QString& error) {
            fetched.emplace(body, error);
        });
        ASSERT_TRUE(waitUntil([&] { return fetched.has_value(); }, 20000)) << row.url.toString();
        EXPECT_EQ(fetched->first, row.body) << row.url.toString();
        EXPECT_EQ(fetched->second, row.error) << row.url.toString();
    }

    server.setTimeoutMs(ActionServer::TimeoutMs);
    std::optional<QString> error;
    QNetworkReply* reply = server.fetch(QUrl(http.url("/hang/y")),
                                        [&](const QByteArray&, const QString& e) { error = e; });
    ASSERT_TRUE(waitUntil([&] { return http.requests().size() == 2; }));
    reply->abort();
    ASSERT_TRUE(waitUntil([&] { return error.has_value(); }));
    EXPECT_FALSE(error->isEmpty());
    EXPECT_FALSE(error->contains("did not answer"));
}

} // namespace
