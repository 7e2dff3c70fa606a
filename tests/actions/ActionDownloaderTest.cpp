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

QString md5Of(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly)
               ? QCryptographicHash::hash(file.readAll(), QCryptographicHash::Md5).toHex()
               : QString();
}

// A repository on a real HTTP server, the installer, the downloader and the update check, all
// in a private home; temporary files go to a folder of the test's own.
class DownloadTest : public ::testing::Test {
protected:
    DownloadTest()
    {
        ensureCoreApplication();
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
    // A bundle under `folder`/<name>.skbundle.
    void writeBundle(const QString& folder, const QString& name, const QString& version,
                     const QString& id)
    {
        home.writeFile(folder + "/" + name + ".skbundle/action.rb",
                       QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: d\n"
                                      "# Handles: Files\n# Creator: c\n# URL: u\n# Version: %2\n"
                                      "# UniqueID: %3\n")
                           .arg(name, version, id)
                           .toUtf8());
    }
    // Zips a bundle into the repository and lists it in versions.txt (with `md5`, or the
    // archive's own).
    void publish(const QString& name, const QString& version, const QString& id,
                 const QString& md5 = {})
    {
        const QString bundle = name + ".skbundle";
        writeBundle("src/" + version, name, version, id);
        QProcess zip;
        zip.setWorkingDirectory(path("src/" + version));
        zip.start("zip", {"-qry", repository() + "/" + bundle, bundle});
        ASSERT_TRUE(zip.waitForFinished() && zip.exitCode() == 0);
        QFile manifest(repository() + "/versions.txt");
        ASSERT_TRUE(manifest.open(QIODevice::Append));
        const QString sum = md5.isEmpty() ? md5Of(repository() + "/" + bundle) : md5;
        manifest.write(QStringList{name, version, id, sum, "about " + name}.join('\t').toUtf8() +
                       '\n');
    }
    QString installedVersion(const QString& name)
    {
        parser.invalidateActionsCache();
        const ActionFilePtr record = parser.getActionWithType(name);
        return record ? record->version : QString();
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
    QByteArray m_previousTmp = qgetenv("TMPDIR");
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

TEST_F(DownloadTest, DownloadsOverHttpAndFromAFolderOrAlertsAndInstallsNothing)
{
    publish("Zip It", "1.0", "com.t.zip");
    publish("Tampered", "1.0", "com.t.t", "0123456789abcdef0123456789abcdef");
    const struct {
        QString base;
        QString name;
        bool headless;
        QString error;
    } rows[] = {
        {http.url("/"), "Zip It", false, {}},
        {QUrl::fromLocalFile(path("www")).toString(), "Zip%20It", true, {}},
        {path("www") + "/", "Zip%20It", true, {}},
        {http.url(), "Tampered", false,
         "The archive of Tampered does not match the action server's manifest: its md5 is " +
             md5Of(repository() + "/Tampered.skbundle") +
             ", the manifest gives 0123456789abcdef0123456789abcdef. Nothing was installed."},
        {"", "Good", false, ActionServer::notConfiguredMessage()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.base.toStdString() + " " + row.name.toStdString());
        QDir(path("user")).removeRecursively();
        presenter->alerts.clear();
        settings.setValue(Settings::ActionServerURL, row.base);
        LogCapture log;
        if (row.headless) {
            std::optional<DownloadResult> result;
            downloader.downloadActionHeadless(row.name,
                                              [&](const DownloadResult& r) { result = r; });
            ASSERT_TRUE(waitUntil([&] { return result.has_value(); }, 20000));
            EXPECT_TRUE(result->ok) << result->messages.join(" / ");
            EXPECT_EQ(result->installed, QStringList{"Zip It"});
            EXPECT_EQ(alertTexts(), QStringList{});
        } else {
            downloader.downloadAction(row.name);
            ASSERT_TRUE(waitUntil([&] { return !downloader.isBusy(); }, 20000));
            EXPECT_EQ(
                alertTexts(),
                QStringList{row.error.isEmpty()
                                ? "Zip It Sucessfully Installed | You can now add this "
                                  "action to your Skelvo grid."
                                : row.name + " could not be downloaded | " + row.error + Support});
            EXPECT_EQ(presenter->alerts.value(0).origin,
                      row.error.isEmpty() ? static_cast<QObject*>(&installer) : &downloader);
        }
        EXPECT_EQ(log.contains("Error downloading action with URL "), !row.error.isEmpty());
        EXPECT_EQ(installedVersion("Zip It"), row.error.isEmpty() ? "1.0" : "");
        EXPECT_FALSE(windows.progressVisible);
        EXPECT_TRUE(QDir(path("tmp")).isEmpty());
    }
    EXPECT_EQ(windows.progressMessages.value(0), "Downloading Zip It Action...");
    // Requests of the HTTP rows, each with the application's version header.
    const QStringList requests = http.requests();
    ASSERT_EQ(requests.size(), 4);
    EXPECT_TRUE(requests[0].contains(
        QRegularExpression("^/actions/skelvo5-actions-zipped/versions.txt\\?[0-9]{10,}\t5$")));
    EXPECT_TRUE(requests[1].contains(
        QRegularExpression("^/actions/skelvo5-actions-zipped/Zip%20It.skbundle\\?[0-9]{10,}\t5$")))
        << requests[1];
}

TEST_F(DownloadTest, UpdatesRefusedWhileDownloadingAndCancel)
{
    settings.setValue(Settings::ActionServerURL, http.url("/hang"));
    server.setTimeoutMs(60000);
    std::optional<DownloadResult> first;
    downloader.downloadActionHeadless("Good", [&](const DownloadResult& r) { first = r; });
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

TEST_F(DownloadTest, UpdatesFoundShownAcceptedAndInstalledOrTheCheckFails)
{
    const struct {
        const char *name, *installed, *published, *installedId;
    } actions[] = {
        {"Copy", "2.9", "2.10", "com.t.copy"}, {"B", "1.2.3", "1.3", "com.t.b"},
        {"Same", "1.0", "1.0", "com.t.same"},  {"Stranger", "1.0", "9.0", "com.other.s"},
        {"New", nullptr, "1.0", "com.t.new"},
    };
    for (const auto& action : actions) {
        if (action.installed) {
            writeBundle("user", action.name, action.installed, action.installedId);
        }
        // The stranger's unique id differs from the installed one: no update.
        publish(action.name, action.published, QString(action.installedId).replace("other", "t"));
    }
    // The one action's check, headless and then shown and declined with its second button.
    const UpdateCheckResult one = check("Copy");
    presenter->setNextAnswer(1);
    check("Copy", false);
    EXPECT_EQ(alertTexts(), QStringList{"Action Update Available | Copy version 2.10 is "
                                        "available.\nYou have version 2.9."});
    EXPECT_EQ(one.title + " | " + one.message, alertTexts().value(0));
    EXPECT_EQ(presenter->alerts.value(0).buttons, (QStringList{"Install Update", "Cancel"}));
    EXPECT_EQ(installedVersion("Copy"), "2.9");

    QList<AddonAction> listed;
    updates.listAddonActions([&](const QList<AddonAction>& all, const QString&) { listed = all; });
    ASSERT_TRUE(waitUntil([&] { return listed.size() == 5; }));
    using State = AddonAction::State;
    const State states[] = {State::UpdateAvailable, State::UpdateAvailable, State::UpToDate,
                            State::UpToDate, State::NotInstalled};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(listed[i].state, states[i]) << listed[i].entry.name;
    }

    // Shown, accepted with its first button, downloaded and installed.
    presenter->alerts.clear();
    windows.progressMessages.clear();
    EXPECT_EQ(check({}, false).updates.size(), 2);
    EXPECT_EQ(alertTexts(), (QStringList{"2 Updates Available | The following actions have "
                                         "updates available:\n\n- Copy (2.1)\n- B (1.3)\n",
                                         "Updates Installed Successfully | 2 action updates were "
                                         "installed successfully."}));
    EXPECT_EQ(presenter->alerts.value(0).buttons, (QStringList{"Install Updates", "Cancel"}));
    EXPECT_EQ(windows.progressMessages.mid(0, 2),
              (QStringList{"Checking for action updates...", "Updating 2 Actions..."}));
    EXPECT_EQ(installedVersion("Copy") + " " + installedVersion("B"), "2.10 1.3");

    QFile::remove(repository() + "/versions.txt");
    const std::pair<QString, QString> failures[] = {
        {http.url(), "HTTP error 404"},
        {"", ActionServer::notConfiguredMessage()},
    };
    for (const auto& [base, error] : failures) {
        presenter->alerts.clear();
        settings.setValue(Settings::ActionServerURL, base);
        LogCapture log;
        EXPECT_FALSE(check({}, false).ok);
        EXPECT_EQ(alertTexts(), QStringList{"Failed to check for action updates. | " + error});
        EXPECT_EQ(log.contains("Error downloading manifest with URL " + http.url() +
                               "/actions/skelvo5-actions-zipped/versions.txt?"),
                  !base.isEmpty());
    }
}

} // namespace
