#include "actions/ActionDownloader.h"

#include "actions/ActionFileParser.h"
#include "actions/ActionUpdatesController.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "tests/support/EventLoop.h"
#include "tests/support/FakePresenters.h"
#include "tests/support/HttpTestServer.h"
#include "tests/support/TestHome.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>
#include <optional>

namespace {

const QString Support = "\n\nIf the problem persists, contact the action server's administrator.";

TEST(ActionUpdatesTest, IsNewerVersion)
{
    const struct {
        const char* candidate;
        const char* installed;
        bool newer;
    } rows[] = {
        {"2.10", "2.9", true},  {"2.9", "2.10", false},  {"1.0", "1", false},
        {"1", "1.0", false},    {"1.2.3", "1.2", false}, {"1.2", "1.2.3", false},
        {"1.3", "1.2.9", true}, {"2", "1.9", true},      {"1.0", "1.0", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ActionUpdatesController::isNewerVersion(row.candidate, row.installed), row.newer)
            << row.candidate << " over " << row.installed;
    }
}

// A repository on a real HTTP server, the installer, the downloader and the update check, all
// in a private home; temporary files go to a folder of the test's own.
class DownloadTest : public ::testing::Test {
protected:
    DownloadTest()
    {
        ensureCoreApplication();
        m_previousTmp = qgetenv("TMPDIR");
        qputenv("TMPDIR", QFile::encodeName(path("tmp")));
        QDir().mkpath(path("tmp"));
        QDir().mkpath(repository());
        installer.setApplicationVersion("5.0");
        server.setTimeoutMs(1500);
        EXPECT_TRUE(http.start());
        settings.setValue(Settings::ActionServerURL, http.url());
    }
    ~DownloadTest() override { qputenv("TMPDIR", m_previousTmp); }

    QString path(const QString& relative) const { return QDir(home.path()).filePath(relative); }
    QString repository() const { return path("www/actions/skelvo5-actions-zipped"); }
    static QByteArray script(const QString& name, const QString& version, const QString& id)
    {
        return QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: d\n# Handles: "
                              "Files\n# Creator: c\n# URL: u\n# Version: %2\n# UniqueID: %3\n")
            .arg(name, version, id)
            .toUtf8();
    }
    // Zips a bundle into the repository and lists it in versions.txt (with `md5`, or the
    // archive's own).
    void publish(const QString& name, const QString& version, const QString& id,
                 const QString& md5 = {})
    {
        const QString bundle = name + ".skbundle";
        home.writeFile("src/" + version + "/" + bundle + "/action.rb", script(name, version, id));
        QProcess zip;
        zip.setWorkingDirectory(path("src/" + version));
        zip.start("zip", {"-qry", repository() + "/" + bundle, bundle});
        ASSERT_TRUE(zip.waitForFinished() && zip.exitCode() == 0);
        QFile archive(repository() + "/" + bundle);
        ASSERT_TRUE(archive.open(QIODevice::ReadOnly));
        const QString sum =
            QCryptographicHash::hash(archive.readAll(), QCryptographicHash::Md5).toHex();
        QFile manifest(repository() + "/versions.txt");
        ASSERT_TRUE(manifest.open(QIODevice::Append));
        manifest.write(QStringList{name, version, id, md5.isEmpty() ? sum : md5, "about " + name}
                           .join('\t')
                           .toUtf8() +
                       '\n');
    }
    void installLocally(const QString& name, const QString& version, const QString& id)
    {
        home.writeFile("user/" + name + ".skbundle/action.rb", script(name, version, id));
    }
    QString installedVersion(const QString& name)
    {
        parser.invalidateActionsCache();
        const ActionFilePtr record = parser.getActionWithType(name);
        return record ? record->version : QString();
    }
    DownloadResult download(const QString& name)
    {
        std::optional<DownloadResult> result;
        downloader.downloadActionHeadless(name, [&](const DownloadResult& r) { result = r; });
        EXPECT_TRUE(waitUntil([&] { return result.has_value(); }, 20000));
        return result.value_or(DownloadResult{});
    }
    UpdateCheckResult check(const QString& onlyName = {}, bool headless = true)
    {
        std::optional<UpdateCheckResult> result;
        updates.checkForActionUpdates(onlyName, headless,
                                      [&](const UpdateCheckResult& r) { result = r; });
        EXPECT_TRUE(waitUntil([&] { return result.has_value() && !downloader.isBusy(); }, 20000));
        return result.value_or(UpdateCheckResult{});
    }
    QStringList alertTexts() const
    {
        QStringList texts;
        for (const Alert& alert : presenter->alerts) {
            texts << alert.title + " | " + alert.message;
        }
        return texts;
    }

    TestHome home;
    QByteArray m_previousTmp;
    HttpTestServer http{path("www")};
    Settings settings{path("settings.json")};
    std::shared_ptr<FakeAlertPresenter> presenter = std::make_shared<FakeAlertPresenter>();
    AlertHelper alerts{presenter};
    FakeWindowPresenter windows;
    NotificationCenter center;
    ActionFileParser parser{path("internal"), path("user")};
    ActionFilesController installer{parser, alerts, windows, center};
    ActionServer server{settings};
    ActionDownloader downloader{server, installer, alerts, windows};
    ActionUpdatesController updates{server, parser, downloader, alerts, windows};
};

TEST_F(DownloadTest, DownloadsOverHttpAndFromAFolder)
{
    publish("Zip It", "1.0", "com.t.zip");
    const struct {
        QString base;
        bool headless;
    } rows[] = {
        {http.url("/"), false},
        {QUrl::fromLocalFile(path("www")).toString(), true},
        {path("www") + "/", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.base.toStdString());
        QDir(path("user")).removeRecursively();
        presenter->alerts.clear();
        settings.setValue(Settings::ActionServerURL, row.base);
        std::optional<DownloadResult> result;
        if (row.headless) {
            result = download("Zip%20It");
        } else {
            downloader.downloadAction("Zip It");
            ASSERT_TRUE(waitUntil([&] { return !downloader.isBusy(); }, 20000));
            EXPECT_EQ(windows.progressMessages.value(0), "Downloading Zip It Action...");
            EXPECT_EQ(alertTexts(),
                      QStringList{"Zip It Sucessfully Installed | You can now add this action "
                                  "to your Skelvo grid."});
        }
        if (result) {
            EXPECT_TRUE(result->ok) << result->messages.join(" / ");
            EXPECT_EQ(result->installed, QStringList{"Zip It"});
            EXPECT_TRUE(presenter->alerts.isEmpty());
        }
        EXPECT_EQ(installedVersion("Zip It"), "1.0");
        EXPECT_TRUE(QDir(path("tmp")).isEmpty());
    }
    const QStringList requests = http.requests();
    ASSERT_EQ(requests.size(), 2);
    EXPECT_TRUE(requests[0].startsWith("/actions/skelvo5-actions-zipped/versions.txt?"));
    EXPECT_TRUE(requests[1].contains(
        QRegularExpression("^/actions/skelvo5-actions-zipped/Zip%20It.skbundle\\?[0-9]{10,}\t5$")))
        << requests[1];
}

TEST_F(DownloadTest, FailuresInstallNothing)
{
    publish("Tampered", "1.0", "com.t.t", "0123456789abcdef0123456789abcdef");
    publish("Good", "1.0", "com.t.good");
    QFile archive(repository() + "/Tampered.skbundle");
    ASSERT_TRUE(archive.open(QIODevice::ReadOnly));
    const QString actual =
        QCryptographicHash::hash(archive.readAll(), QCryptographicHash::Md5).toHex();
    const struct {
        QString base;
        QString name;
        QString error;
    } rows[] = {
        {http.url(), "Missing", "HTTP error 404"},
        {http.url("/hang"), "Good", "The action server did not answer within 1.5 seconds."},
        {http.url(), "Tampered",
         "The archive of Tampered does not match the action server's manifest: its md5 is " +
             actual +
             ", the manifest gives 0123456789abcdef0123456789abcdef. Nothing was "
             "installed."},
        {"", "Good", ActionServer::notConfiguredMessage()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name.toStdString());
        presenter->alerts.clear();
        settings.setValue(Settings::ActionServerURL, row.base);
        LogCapture log;
        downloader.downloadAction(row.name);
        ASSERT_TRUE(waitUntil([&] { return !downloader.isBusy(); }, 20000));
        EXPECT_EQ(alertTexts(),
                  QStringList{row.name + " could not be downloaded | " + row.error + Support});
        EXPECT_EQ(presenter->alerts.value(0).origin, &downloader);
        EXPECT_TRUE(log.contains("Error downloading action with URL "));
        EXPECT_FALSE(windows.progressVisible);
        EXPECT_FALSE(QDir(path("user")).exists() && !QDir(path("user")).isEmpty());
        EXPECT_TRUE(QDir(path("tmp")).isEmpty());
    }
}

TEST_F(DownloadTest, ASecondDownloadIsRefusedAndTheFirstCancels)
{
    settings.setValue(Settings::ActionServerURL, http.url("/hang"));
    server.setTimeoutMs(60000);
    std::optional<DownloadResult> first;
    downloader.downloadActionHeadless("Good", [&](const DownloadResult& r) { first = r; });
    std::optional<DownloadResult> second;
    downloader.downloadActionHeadless("Other", [&](const DownloadResult& r) { second = r; });
    ASSERT_TRUE(second);
    EXPECT_EQ(second->messages, QStringList{ActionDownloader::BusyMessage});
    EXPECT_FALSE(second->ok);
    downloader.updateActions({"Other"});
    EXPECT_EQ(alertTexts(), QStringList{ActionDownloader::BusyMessage + " | "});
    EXPECT_FALSE(first);

    ASSERT_TRUE(waitUntil([&] { return http.requests().size() == 1; }));
    downloader.cancel();
    ASSERT_TRUE(waitUntil([&] { return first.has_value(); }));
    EXPECT_TRUE(first->cancelled);
    EXPECT_FALSE(downloader.isBusy());
    EXPECT_EQ(presenter->alerts.size(), 1);
}

TEST_F(DownloadTest, UpdateFoundAcceptedAndInstalled)
{
    installLocally("Copy", "2.9", "com.t.copy");
    installLocally("Same", "1.0", "com.t.same");
    installLocally("Stranger", "1.0", "com.other.stranger");
    publish("Copy", "2.10", "com.t.copy");
    publish("Same", "1.0", "com.t.same");
    publish("Stranger", "9.0", "com.t.stranger");
    publish("New", "1.0", "com.t.new");

    UpdateCheckResult one = check("Copy");
    EXPECT_EQ(one.title, "Action Update Available");
    EXPECT_EQ(one.message, "Copy version 2.10 is available.\nYou have version 2.9.");

    QList<AddonAction> listed;
    updates.listAddonActions(
        [&](const QList<AddonAction>& actions, const QString&) { listed = actions; });
    ASSERT_TRUE(waitUntil([&] { return listed.size() == 4; }));
    const AddonAction::State states[] = {AddonAction::State::UpdateAvailable,
                                         AddonAction::State::UpToDate, AddonAction::State::UpToDate,
                                         AddonAction::State::NotInstalled};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(listed[i].state, states[i]) << listed[i].entry.name;
    }

    // Shown, accepted with its first button, downloaded and installed.
    const UpdateCheckResult all = check({}, false);
    EXPECT_EQ(all.updates.size(), 1);
    EXPECT_EQ(alertTexts(),
              (QStringList{"1 Update Available | The following action has an update "
                           "available:\n\n- Copy (2.1)\n",
                           "Update Installed Successfully | Copy update was installed "
                           "successfully."}));
    EXPECT_EQ(presenter->alerts.value(0).buttons, (QStringList{"Install Update", "Cancel"}));
    EXPECT_EQ(windows.progressMessages.value(0), "Checking for action updates...");
    EXPECT_TRUE(windows.progressMessages.contains("Updating Copy Action..."));
    EXPECT_EQ(installedVersion("Copy"), "2.10");

    presenter->alerts.clear();
    check({}, false);
    EXPECT_EQ(alertTexts(), QStringList{"No Updates Available | There are no action updates "
                                        "available at this time."});
}

TEST_F(DownloadTest, SeveralUpdatesAndAFailedCheck)
{
    installLocally("A", "1.0", "com.t.a");
    installLocally("B", "1.2.3", "com.t.b");
    publish("A", "1.1", "com.t.a");
    publish("B", "1.3", "com.t.b");
    const UpdateCheckResult several = check();
    EXPECT_EQ(several.title, "2 Updates Available");
    EXPECT_EQ(several.message,
              "The following actions have updates available:\n\n- A (1.1)\n- B (1.3)\n");

    std::optional<DownloadResult> result;
    downloader.updateActions({"A", "B"}, false, [&](const DownloadResult& r) { result = r; });
    ASSERT_TRUE(waitUntil([&] { return result.has_value(); }, 20000));
    EXPECT_EQ(result->installed, (QStringList{"A", "B"}));
    EXPECT_EQ(windows.progressMessages.value(0), "Updating 2 Actions...");
    EXPECT_EQ(alertTexts().value(0), "Updates Installed Successfully | 2 action updates were "
                                     "installed successfully.");

    presenter->alerts.clear();
    QFile::remove(repository() + "/versions.txt");
    LogCapture log;
    const UpdateCheckResult failed = check({}, false);
    EXPECT_FALSE(failed.ok);
    EXPECT_EQ(alertTexts(), QStringList{"Failed to check for action updates. | HTTP error 404"});
    EXPECT_TRUE(log.contains("Error downloading manifest with URL " + http.url() +
                             "/actions/skelvo5-actions-zipped/versions.txt?"));
}

} // namespace
