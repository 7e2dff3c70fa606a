// Add-on actions through the real sk and the real application: a repository built by
// scripts/make-action-repository, served by a real HTTP server on loopback.
#include "tests/support/HeadlessApp.h"
#include "tests/support/HttpTestServer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString bundleSource(const QString& name, const QString& version, const QString& extra = {})
{
    return QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: %1 from the server\n"
                          "# Handles: Files\n# Events: Dragged\n# Creator: Tests\n"
                          "# URL: https://example.org\n# Version: %2\n"
                          "# UniqueID: org.example.%3\n%4\n"
                          "def dragged(items, variables, helper)\n  puts 'v%2'\nend\n")
        .arg(name, version, name.toLower(), extra);
}

void writeBundle(const QString& folder, const QString& name, const QString& version,
                 const QString& extra = {})
{
    const QString bundle = QDir(folder).filePath(name + QStringLiteral(".skbundle"));
    QDir().mkpath(bundle);
    QFile script(QDir(bundle).filePath(QStringLiteral("action.rb")));
    ASSERT_TRUE(script.open(QIODevice::WriteOnly | QIODevice::Truncate));
    script.write(bundleSource(name, version, extra).toUtf8());
}

QString readText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

class AddonEndToEndTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        www = new QTemporaryDir;
        const QString sources = www->filePath(QStringLiteral("sources"));
        writeBundle(sources, QStringLiteral("Alpha"), QStringLiteral("1.0"));
        writeBundle(sources, QStringLiteral("Beta"), QStringLiteral("2.10"));
        writeBundle(sources, QStringLiteral("Future"), QStringLiteral("1.0"),
                    QStringLiteral("# MinSkelvoVersion: 99.0"));
        writeBundle(sources, QStringLiteral("Tampered"), QStringLiteral("1.0"));
        QProcess make;
        make.start(QStringLiteral(SKELVO_SOURCE_RESOURCES "/../scripts/make-action-repository"),
                   {sources, www->filePath(QStringLiteral("site"))});
        ASSERT_TRUE(make.waitForFinished(60000));
        ASSERT_EQ(make.exitCode(), 0) << make.readAllStandardError().toStdString();
        // The archive changes after its md5 went into the manifest.
        QFile tampered(
            www->filePath(QStringLiteral("site/actions/skelvo5-actions-zipped/Tampered.skbundle")));
        ASSERT_TRUE(tampered.open(QIODevice::Append));
        tampered.write("x");
        tampered.close();
        server = new HttpTestServer(www->filePath(QStringLiteral("site")));
        ASSERT_TRUE(server->start());

        app = new HeadlessApp;
        // A server that never answers gives up quickly here; the real wait is 30 s.
        app->environment().insert(QStringLiteral("SKELVO_ACTION_SERVER_TIMEOUT_MS"),
                                  QStringLiteral("1500"));
        ASSERT_TRUE(app->start());
        ASSERT_EQ(sk({"settings", "set", "ActionServerURL", server->url()}).status, 0);
    }
    static void TearDownTestSuite()
    {
        EXPECT_TRUE(app->stop());
        delete app;
        delete server;
        delete www;
    }

    static SkResult sk(const QStringList& arguments) { return app->sk(arguments, app->path()); }
    static QString installed(const QString& name)
    {
        return app->path(QStringLiteral("data/Skelvo/Actions/%1.skbundle/action.rb").arg(name));
    }

    static inline QTemporaryDir* www = nullptr;
    static inline HttpTestServer* server = nullptr;
    static inline HeadlessApp* app = nullptr;
};

TEST_F(AddonEndToEndTest, InstallReplaceListAndUninstall)
{
    const SkResult first = sk({"install-action", "Alpha"});
    ASSERT_EQ(first.status, 0) << first.err.toStdString();
    EXPECT_EQ(first.out.trimmed(), "Alpha Sucessfully Installed");
    EXPECT_TRUE(readText(installed("Alpha")).contains("puts 'v1.0'"));

    EXPECT_NE(sk({"install-action", "Alpha"}).status, 0); // installed: needs --force

    // A local copy of another version replaces the installed one.
    writeBundle(app->path("local"), "Alpha", "1.5");
    const SkResult local = sk({"install-action", "local/Alpha.skbundle"});
    ASSERT_EQ(local.status, 0) << local.err.toStdString();
    EXPECT_TRUE(readText(installed("Alpha")).contains("puts 'v1.5'"));

    const SkResult forced = sk({"install-action", "Alpha", "--force"});
    ASSERT_EQ(forced.status, 0) << forced.err.toStdString();
    EXPECT_TRUE(readText(installed("Alpha")).contains("puts 'v1.0'"));

    const SkResult listed = sk({"list-addon-actions", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err.toStdString();
    QMap<QString, QJsonObject> byName;
    for (const QJsonValue& value : QJsonDocument::fromJson(listed.out.toUtf8()).array()) {
        byName.insert(value[QStringLiteral("name")].toString(), value.toObject());
    }
    ASSERT_EQ(byName.size(), 4);
    EXPECT_TRUE(byName["Alpha"]["installed"].toBool());
    EXPECT_FALSE(byName["Alpha"]["updateAvailable"].toBool());
    EXPECT_FALSE(byName["Beta"]["installed"].toBool());

    const SkResult removed = sk({"uninstall-action", "Alpha"});
    ASSERT_EQ(removed.status, 0) << removed.err.toStdString();
    EXPECT_FALSE(QFileInfo::exists(installed("Alpha")));
    EXPECT_NE(sk({"uninstall-action", "Alpha"}).status, 0);
}

TEST_F(AddonEndToEndTest, UpdateFoundForANewerComponentAndInstalled)
{
    // 2.9 installed locally with the server's unique id; the server has 2.10.
    writeBundle(app->path("old"), "Beta", "2.9");
    ASSERT_EQ(sk({"install-action", "old/Beta.skbundle"}).status, 0);
    const SkResult listed = sk({"list-addon-actions"});
    EXPECT_TRUE(listed.out.contains("Beta 2.10 (update available, you have 2.9)"))
        << listed.out.toStdString();

    const SkResult updated = sk({"update-actions"});
    ASSERT_EQ(updated.status, 0) << updated.err.toStdString() << updated.out.toStdString();
    EXPECT_TRUE(updated.out.contains("1 Update Available")) << updated.out.toStdString();
    EXPECT_TRUE(updated.out.contains("Beta update was installed successfully."));
    EXPECT_TRUE(readText(installed("Beta")).contains("puts 'v2.10'"));

    const SkResult again = sk({"update-actions"});
    EXPECT_TRUE(again.out.contains("No Updates Available")) << again.out.toStdString();
}

TEST_F(AddonEndToEndTest, RefusalsInstallNothing)
{
    struct Case {
        QStringList arguments;
        QString answer;
        QString leftOut; // the action that must not be installed
    };
    const QList<Case> cases = {
        {{"install-action", "Future"},
         "This action requires a minimum of Skelvo version 99.0.",
         "Future"},
        {{"install-action", "Tampered"}, "md5", "Tampered"},
        {{"install-action", "Missing"}, "HTTP error 404", "Missing"},
    };
    for (const Case& c : cases) {
        const SkResult result = sk(c.arguments);
        EXPECT_NE(result.status, 0) << c.arguments.join(' ').toStdString();
        EXPECT_TRUE((result.out + result.err).contains(c.answer))
            << (result.out + result.err).toStdString();
        EXPECT_FALSE(QFileInfo::exists(installed(c.leftOut)));
    }
}

TEST_F(AddonEndToEndTest, ServerThatNeverAnswersAndASecondDownloadWhileOneRuns)
{
    ASSERT_EQ(sk({"settings", "set", "ActionServerURL", server->url("/hang")}).status, 0);
    const std::unique_ptr<QProcess> waiting = app->startSk({"install-action", "Alpha"});
    ASSERT_TRUE(HeadlessApp::waitUntil([] {
        return server->requests().join('\n').contains("/hang/actions/skelvo5-actions-zipped/");
    }));
    const SkResult busy = sk({"install-action", "Missing"});
    EXPECT_NE(busy.status, 0);
    EXPECT_EQ((busy.out + busy.err).trimmed(),
              "Another action download or update is already in progress.");

    ASSERT_TRUE(waiting->waitForFinished(60000));
    EXPECT_NE(waiting->exitCode(), 0);
    const QString timedOut =
        QString::fromUtf8(waiting->readAllStandardOutput() + waiting->readAllStandardError());
    EXPECT_TRUE(timedOut.contains("Alpha could not be downloaded")) << timedOut.toStdString();
    ASSERT_EQ(sk({"settings", "set", "ActionServerURL", server->url()}).status, 0);
}

TEST(AddonStartupTest, TwoBundlesOpenedWhileStartingAreInstalledOnce)
{
    HeadlessApp app;
    const QString folder = app.path("Downloads");
    writeBundle(folder, "One", "1.0");
    writeBundle(folder, "Two", "1.0");
    ASSERT_TRUE(app.start({folder + "/One.skbundle", folder + "/Two.skbundle"}));
    ASSERT_TRUE(
        HeadlessApp::waitUntil([&] { return app.log().contains("New Actions Installed"); }));
    EXPECT_EQ(app.log().count("New Actions Installed"), 1);
    EXPECT_TRUE(app.log().contains("2 new actions were installed successfully."));
    for (const char* name : {"One", "Two"}) {
        EXPECT_TRUE(QFileInfo::exists(
            app.path(QStringLiteral("data/Skelvo/Actions/%1.skbundle/action.rb").arg(name))));
    }

    // A scheme URL handed over by a second instance downloads; without a server it fails
    // with the download's alert, and another scheme is only logged.
    QProcess second;
    second.setProcessEnvironment(app.environment());
    second.start(QStringLiteral(SKELVO_BINARY),
                 {"--headless", "skelvo://My%20Action", "mailto://nobody"});
    ASSERT_TRUE(second.waitForFinished(30000));
    ASSERT_TRUE(HeadlessApp::waitUntil(
        [&] { return app.log().contains("My Action could not be downloaded"); }));
    EXPECT_TRUE(app.log().contains("handleURLEvent received an invalid URL: mailto://nobody"));
    EXPECT_TRUE(app.stop());
}

} // namespace
